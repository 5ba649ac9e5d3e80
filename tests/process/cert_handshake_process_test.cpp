/* Handshakes with what is installed, also while it is replaced; and the tool that installs it. */
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "include/conf_cert.h"
#include "tests/process/cert_administrator.h"
#include "tests/support/deadline.h"

namespace {

using std::string;
using Context = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;
using Endpoint = std::unique_ptr<SSL, decltype(&SSL_free)>;

/* ---- handshakes ---- */

/* The name that the server showed; empty when a handshake failed. */
string shakeHands(SSL_CTX *serverContext, int version) {
    const Context clientContext(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
    const Endpoint server(SSL_new(serverContext), SSL_free);
    const Endpoint client(SSL_new(clientContext.get()), SSL_free);
    SSL_set_min_proto_version(client.get(), version);
    SSL_set_max_proto_version(client.get(), version);
    BIO *ends[2] = {};
    BIO_new_bio_pair(&ends[0], 1 << 16, &ends[1], 1 << 16);
    SSL_set_bio(server.get(), ends[0], ends[0]);
    SSL_set_bio(client.get(), ends[1], ends[1]);
    SSL_set_accept_state(server.get());
    SSL_set_connect_state(client.get());
    bool done = false;
    for (int round = 0; round < 10 && !done; round++) {
        const int asked = SSL_do_handshake(client.get());
        done = SSL_do_handshake(server.get()) == 1 && asked == 1;
    }
    char name[64] = "";
    X509 *shown = SSL_get0_peer_certificate(client.get());
    if (done && shown != nullptr) {
        X509_NAME_get_text_by_NID(X509_get_subject_name(shown), NID_commonName, name, sizeof(name));
    }
    return name;
}

string serveOnce(uint32_t type, int version) {
    const Context context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    return ConfLoadServerCert(context.get(), type) == 0 ? shakeHands(context.get(), version) : "";
}

std::mutex changeLock;
std::condition_variable changed;
int changes;

void countChange(uint32_t) {
    const std::lock_guard guard(changeLock);
    changes++;
    changed.notify_all();
}

/* Waits for the next change after `action`. */
bool awaitChange(const std::function<void()> &action) {
    std::unique_lock guard(changeLock);
    const int before = changes;
    guard.unlock();
    action();
    guard.lock();
    return changed.wait_for(guard, support::patience(), [&] { return changes > before; });
}

class CertHandshakes : public testing::Test {
  protected:
    void SetUp() override {
        static const bool begun =
            (ConfCertInit(nullptr), ConfCertNotifyCallback(countChange), true);
        ASSERT_TRUE(begun);
    }
};

TEST_F(CertHandshakes, TheEngineSignsAndKeepsTheKey) {
    for (const char *kind : {"RSA", "EC", "ED25519"}) {
        const testing::ScopedTrace trace(__FILE__, __LINE__, kind);
        const certs::Party party = certs::makeParty(kind, kind);
        ASSERT_TRUE(awaitChange([&] { install("263", party, {"--engine"}, "secret"); }));
        EXPECT_EQ(serveOnce(0, TLS1_2_VERSION), kind);
        EXPECT_EQ(serveOnce(0, TLS1_3_VERSION), kind);
        const Context context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
        ASSERT_EQ(ConfLoadServerCert(context.get(), 0), 0);
        EVP_PKEY *key = SSL_CTX_get0_privatekey(context.get());
        unsigned char *encoded = nullptr;
        EXPECT_LE(i2d_PrivateKey(key, &encoded), 0) << "the private half is not there";
        ERR_clear_error();
    }
}

TEST_F(CertHandshakes, NoneFailsWhileTheCertificateIsReplaced) {
    const certs::Party parties[] = {certs::makeParty("Odd", "EC"), certs::makeParty("Even", "RSA")};
    ASSERT_TRUE(awaitChange([&] { install("263", parties[0]); }));
    std::atomic<bool> over = false;
    std::atomic<int> served = 0, failed = 0;
    std::thread load([&] {
        while (!over) {
            const string shown = serveOnce(0, TLS1_3_VERSION);
            served++;
            failed += shown != "Odd" && shown != "Even";
        }
    });
    for (int round = 1; round <= 10; round++) {
        const bool even = round % 2 == 1;
        EXPECT_TRUE(awaitChange([&] { install("263", parties[even ? 1 : 0]); }));
        EXPECT_EQ(serveOnce(0, TLS1_2_VERSION), even ? "Even" : "Odd");
    }
    over = true;
    load.join();
    EXPECT_GT(served, 10);
    EXPECT_EQ(failed, 0);
}

/* ---- the tool ---- */

TEST(TamoctlCert, RefusesWhatDoesNotWork) {
    const certs::Party one = certs::makeParty("One", "RSA"), two = certs::makeParty("Two", "RSA");
    removeAll();
    certs::write("/data/in/one.pem", certs::pem(one));
    certs::write("/data/in/two.key", certs::keyPem(two));
    certs::write("/data/in/locked.key", certs::keyPem(one, "secret"));
    certs::write("/data/in/wrong", "wrong");
    const string in = native("/data/in/");
    const struct {
        Words words;
        int code;
        const char *says;
    } cases[] = {
        {{"install", "263", in + "one.pem", in + "two.key"}, 1, "does not belong"},
        {{"install", "263", in + "one.pem", in + "locked.key"}, 1, "--passphrase"},
        {{"install", "--passphrase", in + "wrong", "263", in + "one.pem", in + "locked.key"},
         1,
         "--passphrase"},
        {{"install", "263", in + "two.key", in + "two.key"}, 1, "no certificates"},
        {{"install", "263", in + "none", in + "two.key"}, 1, "cannot be read"},
        {{"install", "256", in + "one.pem", in + "two.key"}, 2, "257 to 266"},
        {{"install", "--extra", in + "wrong", "263", in + "one.pem", in + "two.key"}, 2, "259"},
        {{"install", "--json", "263", in + "one.pem", in + "two.key"}, 2, "option"},
        {{"remove", "263"}, 1, "not installed"},
        {{"ca", "install", in + "two.key"}, 1, "no certificate"},
        {{"crl", "install", in + "one.pem"}, 1, "no revocation list"},
        {{"ca", "remove", "../server"}, 1, "cert list"},
        {{"ca"}, 2, "install FILE"},
        {{}, 2, "--help"}};
    for (const auto &[words, code, says] : cases) {
        Words all = {"cert"};
        all.insert(all.end(), words.begin(), words.end());
        const Outcome outcome = tamoctl(all);
        EXPECT_EQ(outcome.code, code) << testing::PrintToString(words);
        EXPECT_NE(outcome.errors.find(says), string::npos) << outcome.errors;
        EXPECT_EQ(lineCount(outcome.errors), 1U) << outcome.errors;
    }
    EXPECT_EQ(tamoctl({"cert", "list"}).output, "");
    EXPECT_EQ(certs::list("/data/certfile/server"), Words{}) << "nothing is left";
}

TEST(TamoctlCert, InstallsListsAndRemoves) {
    const certs::Party root = certs::makeParty("Root", "EC");
    const certs::Party party = certs::makeParty("Room 4", "RSA", &root, 2);
    removeAll();
    certs::write("/data/in/root.crt", certs::pem(root));
    certs::write("/data/in/revoked.pem", certs::crlPem(root));
    ASSERT_EQ(install("263", party, {"--engine"}, "secret").code, 0);
    ASSERT_EQ(tamoctl({"cert", "ca", "install", native("/data/in/root.crt")}).code, 0);
    ASSERT_EQ(tamoctl({"cert", "crl", "install", native("/data/in/revoked.pem")}).code, 0);
    EXPECT_EQ(certs::list("/data/certfile/CA"), Words{"root.pem"});
    EXPECT_EQ(certs::list("/data/certfile/CRL"), Words{"revoked_crl.pem"});

    const string listed = tamoctl({"cert", "list"}).output;
    EXPECT_EQ(listed.find("server\t263\tCN=Room 4\tCN=Root\t"), 0U) << listed;
    EXPECT_NE(listed.find("\tRSA 2048, in the engine\nca\troot.pem\tCN=Root\t"), string::npos);
    EXPECT_NE(listed.find("crl\trevoked_crl.pem\t\tCN=Root\t"), string::npos) << listed;
    EXPECT_NE(tamoctl({"cert", "list", "--json"}).output.find("\"daysLeft\":\t36"), string::npos);

    EXPECT_EQ(tamoctl({"cert", "remove", "263"}).code, 0);
    EXPECT_EQ(tamoctl({"cert", "ca", "remove", "root.pem"}).code, 0);
    EXPECT_EQ(tamoctl({"cert", "crl", "remove", "revoked_crl.pem"}).code, 0);
    EXPECT_EQ(tamoctl({"cert", "list"}).output, "");
    EXPECT_EQ(certs::list("/data/certfile/server"), Words{});
    EXPECT_EQ(certs::list("/keys"), Words{}) << "nor a key of the engine";
}

}  // namespace

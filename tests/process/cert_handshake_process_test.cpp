/* Handshakes with what is installed, also while it is replaced. */
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "include/conf_cert.h"
#include "include/conf_config.h"
#include "tests/cert/handshake.h"
#include "tests/process/cert_administrator.h"
#include "tests/support/child_process.h"
#include "tests/support/deadline.h"

namespace {

using certs::Context;
using std::string;

/* The name that a server of this type shows; empty when a handshake failed. */
string serveOnce(uint32_t type, int version = 0, const char *suites = nullptr) {
    const Context server = certs::serverContext(), client = certs::clientContext();
    if (ConfLoadServerCert(server.get(), type) != 0) {
        return "";
    }
    const certs::Handshake met = certs::shakeHands(server.get(), client.get(), version, suites);
    return met.done ? met.shown : "";
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

/* Every suite that works by key works with the engine's, RSA key exchange too, which decrypts. */
TEST_F(CertHandshakes, TheEngineWorksWithTheKeyAndKeepsIt) {
    const struct {
        const char *kind, *suites;
    } cases[] = {{"RSA", "AES128-GCM-SHA256"}, {"RSA", "ECDHE-RSA-AES128-GCM-SHA256"},
                 {"RSA-PSS", "ECDHE+AES"},     {"EC", "ECDHE-ECDSA-AES128-GCM-SHA256"},
                 {"ED25519", "ECDHE+AES"},     {"ED448", "ECDHE+AES"}};
    for (const auto &[kind, suites] : cases) {
        const testing::ScopedTrace trace(__FILE__, __LINE__, kind);
        const certs::Party party = certs::makeParty(kind, kind);
        ASSERT_TRUE(awaitChange([&] { install("263", party, {"--engine"}, "secret"); }));
        EXPECT_EQ(serveOnce(0, TLS1_2_VERSION, suites), kind);
        EXPECT_EQ(serveOnce(0, TLS1_3_VERSION), kind);
        const Context context = certs::serverContext();
        ASSERT_EQ(ConfLoadServerCert(context.get(), 0), 0);
        EVP_PKEY *key = SSL_CTX_get0_privatekey(context.get());
        unsigned char *encoded = nullptr;
        EXPECT_LE(i2d_PrivateKey(key, &encoded), 0) << "the private half is not there";
        BIGNUM *secret = nullptr;
        EXPECT_NE(EVP_PKEY_get_bn_param(key, kind[0] == 'R' ? "d" : "priv", &secret), 1);
        ERR_clear_error();
    }
}

TEST_F(CertHandshakes, NoneFailsWhileTheCertificateIsReplaced) {
    const certs::Party parties[] = {certs::makeParty("Odd", "EC"), certs::makeParty("Even", "RSA")};
    ASSERT_TRUE(awaitChange([&] { install("263", parties[0], {"--engine"}); }));
    std::atomic<bool> over = false;
    std::atomic<int> served = 0, failed = 0;
    std::thread load([&] {
        while (!over) {
            const string shown = serveOnce(0);
            served++;
            failed += shown != "Odd" && shown != "Even";
        }
    });
    for (int round = 1; round <= 12; round++) {
        const bool even = round % 2 == 1;
        const Words options = round % 3 == 0 ? Words{} : Words{"--engine"};
        EXPECT_TRUE(awaitChange([&] { install("263", parties[even ? 1 : 0], options); }));
        EXPECT_EQ(serveOnce(0), even ? "Even" : "Odd");
    }
    over = true;
    load.join();
    EXPECT_GT(served, 10);
    EXPECT_EQ(failed, 0);
}

/* ---- programs of their own ---- */

constexpr int kLoaders = 8;

const support::ChildRole firstLoads("firstLoads", [](const support::ChildArguments &) {
    std::barrier begin(kLoaders);
    std::atomic<int> good = 0;
    std::thread loaders[kLoaders];
    ConfCertInit(nullptr);
    for (std::thread &loader : loaders) {
        loader = std::thread([&] {
            begin.arrive_and_wait();
            const Context server = certs::serverContext(), client = certs::clientContext();
            good += ConfLoadServerCert(server.get(), 1) == 0 &&
                    certs::shakeHands(server.get(), client.get()).done;
        });
    }
    for (std::thread &loader : loaders) {
        loader.join();
    }
    support::tellParent(std::to_string(good));
    return 0;
});

TEST(CertPrograms, FirstKeylessLoadsAtOnceAllSucceed) {
    ASSERT_EQ(install("265", certs::makeParty("Party", "RSA"), {"--engine"}).code, 0);
    for (int round = 0; round < 5; round++) {
        support::ChildProcess child("firstLoads");
        EXPECT_EQ(child.hear(), std::to_string(kLoaders));
    }
}

const support::ChildRole fixedLayout("fixedLayout", [](const support::ChildArguments &) {
    char directory[512];
    const Context client = certs::clientContext();
    (void)ConfConfigXmlInit();
    ConfCertInit(nullptr);
    ConfCertGetAddrCaPath(directory);
    const int32_t added = ConfAddCancelCrlToSslctx(client.get());
    support::tellParent(directory + std::to_string(added));
    return 0;
});

TEST(CertPrograms, TheFixedLayoutHasItsDirectories) {
    removeAll();
    const certs::Party root = certs::makeParty("Root", "EC");
    certs::write("/data/certfile/CA/root.pem", certs::pem(root));
    certs::write("/data/cust/config/conference/conf_config.xml",
                 "<c><s name='isForbiddenKitCapbility'>1</s></c>");
    support::ChildProcess child("fixedLayout");
    EXPECT_EQ(child.hear(), "/data/tamo_conference/CA/0");
    char hashed[16];
    snprintf(hashed, sizeof(hashed), "%08lx.0", X509_subject_name_hash(root.certificate.get()));
    EXPECT_EQ(certs::list("/data/tamo_conference/CA"), (Words{hashed, "root.pem"}));
    certs::remove("/data/cust/config/conference/conf_config.xml");
}

/* A line from the server behind a finished handshake; empty when there was none in time. */
string greeting(uint16_t port) {
    const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    const timeval patience = {5, 0}; /* less than the server has with one that stands idle */
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    EXPECT_EQ(connect(connection, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    const Context context = certs::clientContext();
    const std::unique_ptr<SSL, decltype(&SSL_free)> client(SSL_new(context.get()), SSL_free);
    SSL_set_fd(client.get(), connection);
    char line[64] = "";
    if (SSL_connect(client.get()) == 1) {
        (void)SSL_read(client.get(), line, sizeof(line) - 1);
    }
    close(connection);
    return line;
}

TEST(CertPrograms, TheExampleServesOthersWhileAClientStandsIdle) {
    ASSERT_EQ(install("263", certs::makeParty("Example", "EC")).code, 0);
    Program server({EXAMPLE_TLS_SERVER});
    string line = server.line();
    while (!line.empty() && line.find("listening on 127.0.0.1:") != 0) {
        line = server.line();
    }
    const auto port = static_cast<uint16_t>(atoi(line.c_str() + line.rfind(':') + 1));
    const int idle = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(connect(idle, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    EXPECT_EQ(greeting(port), "welcome by TLSv1.3\n");
    close(idle);
}

}  // namespace

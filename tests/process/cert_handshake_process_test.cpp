/* Handshakes with what is installed, also while it is replaced. */
#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <mutex>

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

/* ---- programs of their own ---- */

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

}  // namespace

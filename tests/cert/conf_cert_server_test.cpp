/* Server certificates into contexts, by key and through the engine. */
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/engine.h>

#include <future>
#include <thread>

#include "tests/cert/cert_service.h"

namespace {

using std::string;

/* An engine of the test's own, which asks it for the key that an identifier stands for. */
std::function<EVP_PKEY *(const string &keyId)> findKey;

EVP_PKEY *loadKey(ENGINE *, const char *keyId, UI_METHOD *, void *) {
    EVP_PKEY *key = findKey(keyId);
    return key != nullptr && EVP_PKEY_up_ref(key) == 1 ? key : nullptr;
}

class TestEngine {
  public:
    TestEngine() {
        ENGINE_set_id(engine_, "openssl_engine");
        ENGINE_set_name(engine_, "of the test");
        ENGINE_set_load_privkey_function(engine_, loadKey);
        EXPECT_TRUE(ENGINE_init(engine_) == 1 && ENGINE_add(engine_) == 1);
    }
    ~TestEngine() {
        ENGINE_remove(engine_);
        ENGINE_finish(engine_);
        ENGINE_free(engine_);
    }

  private:
    ENGINE *engine_ = ENGINE_new();
};

class CertServer : public CertService {
  protected:
    void SetUp() override {
        CertService::SetUp();
        putFiles();
    }

    void putFiles() {
        files = {"/data/server/cert.pem", "/data/server/key.pem", "secret words"};
        certs::write(files.certPath, certs::pem(leaf) + certs::pem(issuer));
        certs::write(files.keyPath, certs::keyPem(leaf, files.keyPassword));
        context = certs::serverContext();
    }

    int32_t load(uint32_t type = 0) { return ConfLoadServerCert(context.get(), type); }

    certs::Party issuer = certs::makeParty("Issuer", "EC");
    certs::Party leaf = certs::makeParty("Leaf", "EC", &issuer);
    certs::Party other = certs::makeParty("Other", "EC");
    Context context{nullptr, SSL_CTX_free};
};

TEST_F(CertServer, ByKeyTakesChainAndEncryptedKeyAndReturnsThePassPhrase) {
    char own[] = "own";
    SSL_CTX_set_default_passwd_cb_userdata(context.get(), own);
    EXPECT_EQ(load(3), 0);
    EXPECT_EQ(askedFor, 260U);
    EXPECT_EQ(SSL_CTX_get_default_passwd_cb_userdata(context.get()), own);
    STACK_OF(X509) *chain = nullptr;
    SSL_CTX_get0_chain_certs(context.get(), &chain);
    EXPECT_EQ(sk_X509_num(chain), 1);
    EXPECT_EQ(log(), "3[ConfLoadServerCert]type=3 flag=0\n");
}

TEST_F(CertServer, ByKeyFailuresAreRecordedWithoutThePassPhrase) {
    const string badCertificate = "server cert file error :0";
    const string badKey = "[TLS]SSL_ctxUsePrivateKeyFile err, ";
    const struct {
        std::function<void()> spoil;
        string record;
    } cases[] = {
        {[] { testkit::failCall(TamoOmCertGetCertPath, 1); }, "TamoOmCertGetCertPath, ret=1."},
        {[this] { files.keyPath[0] = '\0'; }, "server cert is null"},
        {[this] { files.certPath[0] = '\0'; }, "server cert is null"},
        {[this] { certs::remove(files.certPath); }, badCertificate},
        {[this] { certs::write(files.certPath, "\x30\x82"); }, badCertificate},
        {[this] { memset(files.certPath, '/', 512); }, badCertificate},
        {[this] { context.reset(); }, badCertificate},
        {[this] { memset(files.keyPath, '/', 512); }, badKey},
        {[this] { files.keyPassword[0] = '!'; }, badKey + files.keyPath},
        {[this] { certs::write(files.keyPath, certs::keyPem(other)); }, badKey + files.keyPath}};
    for (const auto &[spoil, record] : cases) {
        putFiles();
        spoil();
        EXPECT_EQ(load(), -1);
        EXPECT_EQ(log(), "3[ConfLoadServerCert]type=0 flag=0\n" +
                             error("ConfLoadServerCertificateByKey", record));
    }
}

TEST_F(CertServer, KeylessTakesTheKeyThatTheIdentifierStandsFor) {
    keyless[6] = 255;
    ConfCertInit(nullptr);
    log();
    const string flag = "3[ConfLoadServerCert]type=0 flag=255\n";
    const string begin =
        flag + "3[ConfLoadServerCertificateKeyLess]get cert from type [" + keyId + "]\n";
    EXPECT_EQ(load(), -1);
    EXPECT_EQ(log(), begin + error("GetOpensslEngine", "ENGINE_ctrl_cmd_string LOAD failed"));

    const TestEngine engine;
    const string refused = error("ConfLoadServerCertificateKeyLess", "use privkey error");
    for (const auto &[key, result, record] : {std::tuple{leaf.key.get(), 0, string()},
                                              {nullptr, -1, refused},
                                              {other.key.get(), -1, refused}}) {
        findKey = [&, key = key](const string &asked) { return asked == keyId ? key : nullptr; };
        EXPECT_EQ(load(), result);
        EXPECT_EQ(log(), begin + "3[GetOpensslEngine]ssl_engine has loaded\n" + record);
    }

    memset(files.certPath, '/', 512);
    testkit::failCall(TamoOmCertGetCapability, 2);
    EXPECT_EQ(load() + load() + load(4), -3);
    EXPECT_EQ(log(),
              flag + error("ConfCertGetSrvCertFilePath", "conf secure func failed, err = 34!\n") +
                  error("ConfLoadServerCertificateKeyLess", "ConfCertGetSrvCertFilePath error, 1") +
                  error("ConfCertIsSupportKeyless", "TamoOmCertGetCapability fail, ret=1.") +
                  error("ConfLoadServerCert", "server cert check error") +
                  error("ConfLoadServerCert", "server cert check error"));
}

/* The start's fetch has the old identifier when the notification of the new one comes. */
TEST_F(CertServer, TheStartNeverOverwritesWhatANotificationBrought) {
    keyless[6] = 1;
    const TestEngine engine;
    string asked;
    findKey = [&](const string &found) { return asked = found, leaf.key.get(); };
    std::atomic<int> calls = 0;
    testkit::replace(TamoOmCertGetCertId, [&](const ConfCertIdBuffer *, ConfCertIdBuffer *out) {
        const int call = calls++;
        if (call == 0) {
            std::thread(handler, OM_CERT_MSG_SERVER, 263).join();
        }
        out->length = 3;
        memcpy(out->data, call == 1 ? "new" : "old", 3);
        return 0;
    });
    ConfCertInit(nullptr);
    EXPECT_EQ(load(), 0);
    EXPECT_EQ(asked, "new");
}

/* A load between the two halves of a replacement, whichever comes first: the service's paths, or the
 * identifier in the table. */
TEST_F(CertServer, AKeylessLoadDuringAReplacementSucceeds) {
    keyless[6] = 1;
    const TestEngine engine;
    for (const bool pathsFirst : {true, false}) {
        std::promise<void> identifying, looked;
        std::thread notified;
        std::atomic<int> loads = 0;
        keyId = string(256, 'k');
        putFiles();
        ConfCertInit(nullptr);
        findKey = [&](const string &asked) {
            if (loads++ == 0 && pathsFirst) {
                looked.set_value();
            }
            return asked == string(256, 'k') ? leaf.key.get() : other.key.get();
        };
        testkit::replace(TamoOmCertGetCertId, [&](const ConfCertIdBuffer *, ConfCertIdBuffer *out) {
            if (pathsFirst) {
                identifying.set_value();
                looked.get_future().wait();
            }
            memset(out->data, 'o', 256);
            return 0;
        });
        testkit::replace(TamoOmCertGetCertPath,
                         [&](uint32_t, uint32_t, uint32_t, ConfCertPathInfo *info) {
                             *info = files;
                             if (!notified.joinable()) {
                                 notified = std::thread(handler, OM_CERT_MSG_SERVER, 263);
                                 if (pathsFirst) {
                                     identifying.get_future().wait();
                                 } else {
                                     notified.join();
                                     notified = std::thread([] {});
                                 }
                                 certs::write("/data/server/new.pem", certs::pem(other));
                                 strcpy(files.certPath, "/data/server/new.pem");
                                 *info = pathsFirst ? files : *info;
                             }
                             return 0;
                         });
        EXPECT_EQ(load(), 0) << pathsFirst;
        EXPECT_EQ(loads, 2);
        notified.join();
        answerQueries();
        answerContents();
    }
}

TEST_F(CertServer, GmInfoCopiesFieldByField) {
    const char *function = "ConfCertGetGmSrvCertInfo";
    ConfGmSrvCertInfo info = {"old", "old", "old"};
    EXPECT_EQ(ConfCertGetGmSrvCertInfo(2, nullptr), -1);
    testkit::failCall(TamoOmCertGetCertPath, 1);
    EXPECT_EQ(ConfCertGetGmSrvCertInfo(2, &info), -1);
    EXPECT_STREQ(info.certPath, "old");
    memset(files.keyPath, 'k', sizeof(files.keyPath));
    EXPECT_EQ(ConfCertGetGmSrvCertInfo(2, &info), 1);
    EXPECT_STREQ(info.certPath, files.certPath);
    EXPECT_EQ(string(info.keyPath) + info.keyPassword, "oldold");
    EXPECT_EQ(log(), error(function, "input null error") +
                         error(function, "TamoOmCertGetCertPath error, ret=1, type=2.") +
                         error(function, "conf secure func failed, err = 34!\n"));
    files.keyPath[1] = '\0';
    EXPECT_EQ(ConfCertGetGmSrvCertInfo(2, &info), 0);
    EXPECT_EQ(string(info.keyPath) + info.keyPassword, "ksecret words");
}

}  // namespace

/* Server certificates into contexts, by key and through the engine. */
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/engine.h>

#include "tests/cert/cert_service.h"

namespace {

using std::string;

EVP_PKEY *engineKey;
string engineKeyId;

EVP_PKEY *loadKey(ENGINE *, const char *keyId, UI_METHOD *, void *) {
    engineKeyId = keyId;
    return engineKey != nullptr && EVP_PKEY_up_ref(engineKey) == 1 ? engineKey : nullptr;
}

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
        context.reset(SSL_CTX_new(TLS_server_method()));
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
        {[] { platform::failCall("TamoOmCertGetCertPath", 1); }, "TamoOmCertGetCertPath, ret=1."},
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

    ENGINE *engine = ENGINE_new();
    ENGINE_set_id(engine, "openssl_engine");
    ENGINE_set_name(engine, "of the test");
    ENGINE_set_load_privkey_function(engine, loadKey);
    ASSERT_TRUE(ENGINE_init(engine) == 1 && ENGINE_add(engine) == 1);
    const string refused = error("ConfLoadServerCertificateKeyLess", "use privkey error");
    for (const auto &[key, result, record] : {std::tuple{leaf.key.get(), 0, string()},
                                              {nullptr, -1, refused},
                                              {other.key.get(), -1, refused}}) {
        engineKey = key;
        EXPECT_EQ(load(), result);
        EXPECT_EQ(engineKeyId, keyId);
        EXPECT_EQ(log(), begin + "3[GetOpensslEngine]ssl_engine has loaded\n" + record);
    }
    ENGINE_remove(engine);
    ENGINE_finish(engine);
    ENGINE_free(engine);

    memset(files.certPath, '/', 512);
    platform::failCall("TamoOmCertGetCapability", 2);
    EXPECT_EQ(load() + load() + load(4), -3);
    EXPECT_EQ(log(),
              flag + error("ConfCertGetSrvCertFilePath", "conf secure func failed, err = 34!\n") +
                  error("ConfLoadServerCertificateKeyLess", "ConfCertGetSrvCertFilePath error, 1") +
                  error("ConfCertIsSupportKeyless", "TamoOmCertGetCapability fail, ret=1.") +
                  error("ConfLoadServerCert", "server cert check error") +
                  error("ConfLoadServerCert", "server cert check error"));
}

TEST_F(CertServer, GmInfoCopiesFieldByField) {
    const char *function = "ConfCertGetGmSrvCertInfo";
    ConfGmSrvCertInfo info = {"old", "old", "old"};
    EXPECT_EQ(ConfCertGetGmSrvCertInfo(2, nullptr), -1);
    platform::failCall("TamoOmCertGetCertPath", 1);
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

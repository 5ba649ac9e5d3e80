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
    if (engineKey != nullptr) {
        EVP_PKEY_up_ref(engineKey);
    }
    return engineKey;
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
    const string badKey = "[TLS]SSL_ctxUsePrivateKeyFile err, /data/server/key.pem";
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
        {[this] { files.keyPassword[0] = '!'; }, badKey},
        {[this] { certs::write(files.keyPath, certs::keyPem(other)); }, badKey}};
    for (const auto &[spoil, record] : cases) {
        putFiles();
        spoil();
        EXPECT_EQ(load(), -1);
        EXPECT_EQ(log(), "3[ConfLoadServerCert]type=0 flag=0\n1[ConfLoadServerCertificateByKey]" +
                             record + "\n");
    }
}

TEST_F(CertServer, KeylessTakesTheKeyThatTheIdentifierStandsFor) {
    keyless[6] = 255;
    ConfCertInit(nullptr);
    log();
    const string begin =
        "3[ConfLoadServerCert]type=0 flag=255\n"
        "3[ConfLoadServerCertificateKeyLess]get cert from type [" +
        keyId + "]\n";
    EXPECT_EQ(load(), -1);
    EXPECT_EQ(log(), begin + "1[GetOpensslEngine]ENGINE_ctrl_cmd_string LOAD failed\n");

    ENGINE *engine = ENGINE_new();
    ENGINE_set_id(engine, "openssl_engine");
    ENGINE_set_name(engine, "of the test");
    ENGINE_set_load_privkey_function(engine, loadKey);
    ASSERT_TRUE(ENGINE_init(engine) == 1 && ENGINE_add(engine) == 1);
    const struct {
        EVP_PKEY *key;
        int32_t result;
        string record;
    } cases[] = {{leaf.key.get(), 0, ""},
                 {nullptr, -1, "1[ConfLoadServerCertificateKeyLess]use privkey error\n"},
                 {other.key.get(), -1, "1[ConfLoadServerCertificateKeyLess]use privkey error\n"}};
    for (const auto &[key, result, record] : cases) {
        engineKey = key;
        EXPECT_EQ(load(), result);
        EXPECT_EQ(engineKeyId, keyId);
        EXPECT_EQ(log(), begin + "3[GetOpensslEngine]ssl_engine has loaded\n" + record);
    }
    ENGINE_remove(engine);
    ENGINE_finish(engine);
    ENGINE_free(engine);

    platform::failCall("TamoOmCertGetCapability", 1);
    EXPECT_EQ(load() + load(4), -2);
    EXPECT_EQ(log(),
              "1[ConfCertIsSupportKeyless]TamoOmCertGetCapability fail, ret=1.\n"
              "1[ConfLoadServerCert]server cert check error\n"
              "1[ConfLoadServerCert]server cert check error\n");
}

TEST_F(CertServer, GmInfoCopiesFieldByField) {
    const string head = "1[ConfCertGetGmSrvCertInfo]";
    ConfGmSrvCertInfo info = {"old", "old", "old"};
    EXPECT_EQ(ConfCertGetGmSrvCertInfo(2, nullptr), -1);
    platform::failCall("TamoOmCertGetCertPath", 1);
    EXPECT_EQ(ConfCertGetGmSrvCertInfo(2, &info), -1);
    EXPECT_STREQ(info.certPath, "old");
    memset(files.keyPath, 'k', sizeof(files.keyPath));
    EXPECT_EQ(ConfCertGetGmSrvCertInfo(2, &info), 1);
    EXPECT_STREQ(info.certPath, files.certPath);
    EXPECT_STREQ(info.keyPath, "old");
    EXPECT_STREQ(info.keyPassword, "old");
    EXPECT_EQ(log().find(head + "input null error\n" + head +
                         "TamoOmCertGetCertPath error, ret=1, type=2.\n" + head +
                         "conf secure func failed, err = "),
              0U);
    files.keyPath[1] = '\0';
    EXPECT_EQ(ConfCertGetGmSrvCertInfo(2, &info), 0);
    EXPECT_STREQ(info.keyPath, "k");
    EXPECT_STREQ(info.keyPassword, "secret words");
}

}  // namespace

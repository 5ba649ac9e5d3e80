/* What equipped contexts do in real handshakes, and the walks that equip them. */
#include <algorithm>

#include "tests/cert/cert_service.h"

namespace {

using std::string;

using certs::shakeHands;
constexpr long kSelfSigned = X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT;

class CertHandshake : public CertService {
  protected:
    Context serverWith(const certs::Party &leaf, const string &restOfChain = "") {
        certs::write(files.certPath, certs::pem(leaf) + restOfChain);
        certs::write(files.keyPath, certs::keyPem(leaf));
        Context context = certs::serverContext();
        EXPECT_EQ(ConfLoadServerCert(context.get(), 1), 0);
        return context;
    }

    Context client = certs::clientContext();
    ConfCaCertEntry table[CONF_CERT_MAX_CA_FILES] = {};
    uint32_t count = 77;
};

TEST_F(CertHandshake, PeersAreJudgedByTrustAndLists) {
    for (const char *kind : {"RSA", "EC", "ED25519"}) {
        const certs::Party root = certs::makeParty("Root", kind);
        const certs::Party issuer = certs::makeParty("Issuer", kind, &root, 2);
        const certs::Party peer = certs::makeParty("Peer", kind, &issuer, 3);
        const certs::Party loner = certs::makeParty("Loner", kind);
        const string rootList = certs::crlPem(root), none;
        const struct {
            const char *what;
            const certs::Party &peer, &trusted;
            string lists[2];
            bool done;
            long verified;
        } cases[] = {
            {"good", peer, root, {rootList, certs::crlPem(issuer, {4})}, true, X509_V_OK},
            {"no lists", peer, root, {none, none}, true, X509_V_OK},
            {"missing list", peer, root, {rootList, none}, true, X509_V_OK},
            {"unknown CA", peer, loner, {rootList, none}, false, 20},
            {"revoked", peer, root, {rootList, certs::crlPem(issuer, {3})}, false, 23},
            {"revoked CA", peer, root, {certs::crlPem(root, {2}), none}, false, 23},
            {"old list", peer, root, {certs::crlPem(issuer, {}, -1), rootList}, false, 12},
            {"self-signed", loner, root, {certs::crlPem(loner), rootList}, true, kSelfSigned},
            {"self-signed, list forgiven", loner, root, {rootList, none}, true, X509_V_OK},
            {"self-signed, no lists", loner, root, {none, none}, false, kSelfSigned}};
        for (const auto &[what, shown, trusted, lists, done, verified] : cases) {
            SetUp();
            client = certs::clientContext();
            certs::write(ca + "/root.pem", certs::pem(trusted));
            for (int i = 0; i < 2 && !lists[i].empty(); i++) {
                certs::write(crl + "/crl" + std::to_string(i) + ".pem", lists[i]);
            }
            EXPECT_EQ(ConfCertGetCaCertList(table, &count), 0);
            EXPECT_EQ(ConfCertLoadAllCaCert(client.get(), table, count), 0);
            EXPECT_EQ(ConfAddCancelCrlToSslctx(client.get()), 0);
            const Context server = serverWith(shown, certs::pem(issuer));
            for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
                SSL_CTX_set_verify(client.get(), SSL_VERIFY_PEER, nullptr);
                const certs::Handshake met = shakeHands(server.get(), client.get(), version);
                EXPECT_EQ(std::pair(met.done, met.verified), std::pair(done, verified))
                    << kind << ' ' << what;
            }
        }
    }
}

TEST_F(CertHandshake, AddressDirectoryIsAHashedDirectory) {
    const certs::Party root = certs::makeParty("Root", "EC");
    certs::write(ca + "/root.pem", certs::pem(root));
    certs::write(crl + "/root_crl.pem", certs::crlPem(root, {3}));
    ConfCertInit(nullptr);
    char directory[512];
    ConfCertGetAddrCaPath(directory);
    SSL_CTX_load_verify_dir(client.get(), NativePath(directory).get());
    X509_STORE_set_flags(SSL_CTX_get_cert_store(client.get()), X509_V_FLAG_CRL_CHECK);
    SSL_CTX_set_verify(client.get(), SSL_VERIFY_PEER, nullptr);
    for (const auto &[serial, verified] :
         {std::pair{2, long{X509_V_OK}}, {3, long{X509_V_ERR_CERT_REVOKED}}}) {
        const Context server = serverWith(certs::makeParty("Peer", "EC", &root, serial));
        EXPECT_EQ(shakeHands(server.get(), client.get()).verified, verified);
    }
}

TEST_F(CertHandshake, CaListTakesThirtyFilesByTheEndOfTheirNames) {
    const char *list = "ConfCertGetCaCertList";
    for (const char *name : {"/A.PEM", "/capem", "/x.pe", "/pem", "/x.crt"}) {
        certs::write(ca + name, "");
    }
    EXPECT_EQ(ConfCertGetCaCertList(table, &count), 0);
    ASSERT_EQ(count, 2U);
    EXPECT_EQ(std::min<string>(table[0].path, table[1].path), "/data/ca\\A.PEM");
    EXPECT_EQ(table[1].fileType, 1U);
    EXPECT_EQ(ConfCertLoadAllCaCert(client.get(), table, count), 0);
    EXPECT_EQ(ERR_peek_error(), 0U);
    EXPECT_EQ(ConfCertLoadAllCaCert(client.get(), nullptr, 1), -1);
    for (int i = 0; i < 40; i++) {
        certs::write(ca + "/" + std::to_string(i) + ".pem", "");
    }
    EXPECT_EQ(ConfCertGetCaCertList(table, &count), 0);
    EXPECT_EQ(count, 30U);
    certs::remove(ca);
    EXPECT_EQ(ConfCertGetCaCertList(nullptr, &count), -1);
    EXPECT_EQ(ConfCertGetCaCertList(table, &count), -1);
    testkit::failCall(TamoOmCertGetCertPath, 1);
    EXPECT_EQ(ConfCertGetCaCertList(table, &count), -1);
    EXPECT_EQ(count, 30U);
    const string unloaded = error("ConfCertLoadOneCaCert", "load ca file fail!");
    EXPECT_EQ(log(), "3[ConfCertGetCaCertList]CA file number:2\n" + unloaded + unloaded +
                         error("ConfCertLoadAllCaCert", "invalid params!") +
                         "3[ConfCertGetCaCertList]CA file number:30\n" +
                         error(list, "invalid params!") +
                         error(list, "OsOpenDir error, [/data/ca]is not exist!") +
                         error("ConfCertGetCaPath", "TamoOmCertGetCertPath error, 1") +
                         error(list, "ConfCertGetCaPath error."));
}

TEST_F(CertHandshake, OnlyFilesNamedLikeListsAreTried) {
    const char *add = "ConfAddCancelCrlToSslctx";
    const string from = error(add, "crlPath /data/crl");
    for (const char *name : {"/c.CRL.PEM", "/ca.pem", "/crl.txt", "/Crl.Pem"}) {
        certs::write(crl + name, "no list");
    }
    const struct {
        const char *failing;
        SSL_CTX *context;
        int32_t result;
        string records;
    } cases[] = {
        {"OsCopyFile", client.get(), 0,
         from + error(add, "crl acFileName /data/crl\\c.CRL.PEM") +
             error("AddCancelCrlToSslctxByFile", "d2i_X509 failed") +
             error(add, "add file cert failed")},
        {"OsCopyFile", nullptr, 1, error(add, "para err")},
        {"OsOpenDir", client.get(), 1, from + error(add, "OpenDir error")},
        {"strcat_s", client.get(), 0, from + error(add, "strcat_s failed")},
        {"TamoOmCertGetCertPath", client.get(), 0, /* a walk of the nameless directory */
         error("ConfCertGetCrlPath", "TamoOmCertGetCertPath error, 1") + error(add, "crlPath ")}};
    for (const auto &[failing, context, result, records] : cases) {
        testkit::failCall(failing, 1);
        EXPECT_EQ(ConfAddCancelCrlToSslctx(context), result);
        EXPECT_EQ(log(), records);
        EXPECT_EQ(ERR_peek_error(), 0U);
    }
}

}  // namespace

/* Equipping TLS contexts beside the same OpenSSL calls made bare, handshakes of both, and a refresh of
 * the address CA directory that changes nothing. The certificate service is this program's own. */
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>

#include "bench/take_turns.h"
#include "include/conf_cert.h"
#include "include/conf_log_adapter.h"
#include "platform/tamo_conference_sslex.h"
#include "platform/tamo_om_cert_client.h"
#include "platform/tamo_om_cust_util.h"
#include "tests/cert/cert_files.h"
#include "tests/cert/handshake.h"
#include "tests/support/scratch_root.h"

namespace {

using certs::Context;
using std::string;

constexpr char kCertificate[] = "/data/server/cert.pem";
constexpr char kKey[] = "/data/server/key.pem";
constexpr char kCa[] = "/data/certfile/CA";
constexpr char kCrl[] = "/data/certfile/CRL";
constexpr int kCaFiles = 30;
constexpr int kLists = 100;
constexpr int kRefreshedFiles = 1000;

ConfOmCertHandler handler;

using bench::require;

string native(const string &devicePath) {
    return support::scratchRoot() + devicePath;
}

/* ---- a server's context ---- */

void loadBare(SSL_CTX *ctx) {
    require(SSL_CTX_use_certificate_chain_file(ctx, native(kCertificate).c_str()) == 1 &&
                SSL_CTX_use_PrivateKey_file(ctx, native(kKey).c_str(), SSL_FILETYPE_PEM) == 1 &&
                SSL_CTX_check_private_key(ctx) == 1,
            "the bare load");
}

void loadByKey(SSL_CTX *ctx) {
    require(ConfLoadServerCert(ctx, 0) == 0, "ConfLoadServerCert");
}

void shakeHands(SSL_CTX *serverSide, SSL_CTX *clientSide) {
    require(certs::shakeHands(serverSide, clientSide).done, "a handshake");
}

/* ---- a client's context ---- */

void addListsBare(SSL_CTX *ctx) {
    X509_STORE *store = SSL_CTX_get_cert_store(ctx);
    for (int i = 0; i < kLists; i++) {
        const string path = native(kCrl) + "/crl" + std::to_string(i) + ".pem";
        BIO *file = BIO_new_file(path.c_str(), "rb");
        X509_CRL *list = PEM_read_bio_X509_CRL(file, nullptr, nullptr, nullptr);
        BIO_free(file);
        require(X509_STORE_add_crl(store, list) == 1, "adding a list");
        X509_CRL_free(list);
        X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
    }
}

void equipBare() {
    const Context ctx = certs::clientContext();
    for (int i = 0; i < kCaFiles; i++) {
        const string path = native(kCa) + "/ca" + std::to_string(i) + ".pem";
        require(SSL_CTX_load_verify_file(ctx.get(), path.c_str()) == 1, "loading a CA file");
    }
    addListsBare(ctx.get());
}

void equip() {
    const Context ctx = certs::clientContext();
    ConfCaCertEntry table[CONF_CERT_MAX_CA_FILES];
    uint32_t count = 0;
    require(ConfCertGetCaCertList(table, &count) == 0 && count == kCaFiles, "listing the CA files");
    require(ConfCertLoadAllCaCert(ctx.get(), table, count) == 0, "loading the CA files");
    require(ConfAddCancelCrlToSslctx(ctx.get()) == 0, "adding the lists");
}

/* ---- the program ---- */

void putFiles(const certs::Party &leaf) {
    certs::write(kCertificate, certs::pem(leaf));
    certs::write(kKey, certs::keyPem(leaf));
    std::vector<long> revoked(100);
    for (size_t i = 0; i < revoked.size(); i++) {
        revoked[i] = static_cast<long>(i) + 1;
    }
    for (int i = 0; i < kLists; i++) {
        const certs::Party authority = certs::makeParty("Authority " + std::to_string(i), "EC");
        const string number = std::to_string(i) + ".pem";
        certs::write(kCrl + ("/crl" + number), certs::crlPem(authority, revoked));
        if (i < kCaFiles) {
            certs::write(kCa + ("/ca" + number), certs::pem(authority));
        }
    }
}

void measureRefreshes(const certs::Party &party) {
    for (int i = 0; i < kRefreshedFiles; i++) {
        certs::write(kCa + ("/more" + std::to_string(i) + ".pem"), certs::pem(party));
    }
    std::printf("Refresh of the address CA directory, %d files more\n", kRefreshedFiles);
    for (const char *what : {"the first", "nothing changed"}) {
        const auto begin = std::chrono::steady_clock::now();
        handler(OM_CERT_MSG_CRL, 0);
        const std::chrono::duration<double, std::milli> took =
            std::chrono::steady_clock::now() - begin;
        std::printf("  %-44s %12.1f ms\n", what, took.count());
    }
}

}  // namespace

int32_t TamoOmCertClientInit(void *) {
    return 0;
}
int32_t TamoOmCertNotifyCallback(ConfOmCertHandler registered) {
    handler = registered;
    return 0;
}
int32_t TamoOmCertGetCertPath(uint32_t kind, uint32_t, uint32_t, ConfCertPathInfo *info) {
    strcpy(info->certPath, kind == OM_CERT_PATH_CA    ? kCa
                           : kind == OM_CERT_PATH_CRL ? kCrl
                                                      : kCertificate);
    strcpy(info->keyPath, kKey);
    return 0;
}
int32_t TamoOmCertGetExpectedSrvCertSize(uint32_t, ConfCertSizes *) {
    return 1;
}
int32_t TamoOmCertGetCapability(uint8_t *) {
    return 0;
}
int32_t SSL_CTX_load_cacertificate_file(SSL_CTX *ctx, const char *path, uint32_t) {
    string file = native(path);
    file[file.rfind('\\')] = '/';
    return SSL_CTX_load_verify_file(ctx, file.c_str());
}

int main() {
    setvbuf(stdout, nullptr, _IOLBF, 0); /* each table is seen as soon as it is measured */
    const testkit::ScratchRoot root;
    ConfLogInit();
    const certs::Party leaf = certs::makeParty("Server", "RSA");
    putFiles(leaf);
    ConfCertInit(nullptr);

    const Context bare = certs::serverContext(), equipped = certs::serverContext();
    bench::compare({.title = "A server's context, RSA key of 2048 bits", .runs = 2, .rounds = 40},
                   {{"the bare OpenSSL calls", 0, [&] { loadBare(bare.get()); }},
                    {"ConfLoadServerCert, by key", 1.1, [&] { loadByKey(equipped.get()); }}});
    bench::compare(
        {.title = "A client's context, 30 CA files and 100 lists of 100", .rounds = 40},
        {{"the bare OpenSSL calls", 0, equipBare}, {"list, load all, add the lists", 1.1, equip}});
    const Context client = certs::clientContext();
    bench::compare(
        {.title = "Handshakes, TLS 1.3", .rounds = 40, .seconds = 10},
        {{"a bare context", 0, [&] { shakeHands(bare.get(), client.get()); }},
         {"an equipped context", 1.02, [&] { shakeHands(equipped.get(), client.get()); }}});
    measureRefreshes(leaf);
    return bench::finish();
}

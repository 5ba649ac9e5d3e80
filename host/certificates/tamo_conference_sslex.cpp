/* libtamo_conference_sslex: CA files into TLS contexts. */
#include "tamo_conference_sslex.h"

#include <fcntl.h>
#include <limits.h>
#include <openssl/ssl.h>
#include <string.h>

#include "host/base/device_root.h"
#include "host/base/log.h"
#include "host/certificates/key.h"

namespace {

constexpr const char *kUnit = "tamo_conference_sslex";

using CertificatesOwner =
    std::unique_ptr<STACK_OF(X509),
                    decltype([](STACK_OF(X509) * all) { sk_X509_pop_free(all, X509_free); })>;

/* All certificates of a text, or none when it is damaged. */
CertificatesOwner readCertificates(BIO *pem) {
    CertificatesOwner all(sk_X509_new_null());
    for (;;) {
        X509 *next =
            all == nullptr ? nullptr : PEM_read_bio_X509_AUX(pem, nullptr, nullptr, noPassPhrase());
        if (next == nullptr) {
            break;
        }
        if (sk_X509_push(all.get(), next) == 0) {
            X509_free(next);
            return nullptr;
        }
    }
    const bool atEnd = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
    return atEnd && sk_X509_num(all.get()) > 0 ? std::move(all) : nullptr;
}

int32_t refuse(int line, const char *path, const char *why) {
    tamo::hostRecord(tamo::kWarning, kUnit, line, "the CA file %.511s is not loaded: %s", path,
                     why);
    return 0;
}

}  // namespace

int32_t SSL_CTX_load_cacertificate_file(SSL_CTX *ctx, const char *path, uint32_t fileType) {
    if (ctx == nullptr || path == nullptr || fileType != SSL_FILETYPE_PEM) {
        return refuse(__LINE__, path == nullptr ? "" : path,
                      "a context, a path and the type of PEM files are needed");
    }
    char native[PATH_MAX];
    if (!tamo::nativePath(path, native, sizeof(native))) {
        return 0;
    }
    const ForgivenErrors forgiven;
    tamo::certificates::SecretFile pem;
    const int error = tamo::certificates::readSecretFile(AT_FDCWD, native, &pem);
    if (error != 0) {
        return refuse(__LINE__, path, error == EFBIG ? "it has more than 1 MiB" : strerror(error));
    }
    const CertificatesOwner all = readCertificates(pem.bio.get());
    if (all == nullptr) {
        return refuse(__LINE__, path, "it holds no certificate in PEM, or a damaged one");
    }
    X509_STORE *store = SSL_CTX_get_cert_store(ctx);
    for (int at = 0; at < sk_X509_num(all.get()); at++) {
        if (X509_STORE_add_cert(store, sk_X509_value(all.get(), at)) != 1) {
            return refuse(__LINE__, path, "OpenSSL does not take it");
        }
    }
    return 1;
}

/* OpenSSL's objects owned by scope, for the library and for the host. */
#pragma once

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

/* One release for each kind of object. */
template <auto Free>
struct OpensslRelease {
    template <typename Object>
    void operator()(Object *object) const {
        (void)Free(object);
    }
};

template <typename Object, auto Free>
using OpensslOwner = std::unique_ptr<Object, OpensslRelease<Free>>;

using BioOwner = OpensslOwner<BIO, BIO_free>;
using CertificateOwner = OpensslOwner<X509, X509_free>;
using CrlOwner = OpensslOwner<X509_CRL, X509_CRL_free>;
using KeyOwner = OpensslOwner<EVP_PKEY, EVP_PKEY_free>;

/* What was forgiven within the scope leaves nothing in the thread's error queue, where a caller's next
 * SSL_get_error would find it. */
class ForgivenErrors {
  public:
    ForgivenErrors() { ERR_set_mark(); }
    ~ForgivenErrors() { ERR_pop_to_mark(); }
    ForgivenErrors(const ForgivenErrors &) = delete;
    ForgivenErrors &operator=(const ForgivenErrors &) = delete;
};

/* The user data of a PEM reader without a callback of its own: an encrypted text is refused instead of
 * a person asked for the pass phrase. */
inline char *noPassPhrase() {
    static char empty[] = "";
    return empty;
}

/* OpenSSL objects owned by scope, and opening a PEM file. */
#pragma once

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <memory>

#include "common/native_path.h"

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

/* What was forgiven within the scope leaves nothing in the thread's error queue, where a caller's next
 * SSL_get_error would find it. */
class ForgivenErrors {
  public:
    ForgivenErrors() { ERR_set_mark(); }
    ~ForgivenErrors() { ERR_pop_to_mark(); }
    ForgivenErrors(const ForgivenErrors &) = delete;
    ForgivenErrors &operator=(const ForgivenErrors &) = delete;
};

/* For OpenSSL, which opens no empty path. */
inline const char *openable(const NativePath &path) {
    return path.get() == nullptr ? "" : path.get();
}

/* Opens a file for reading; null for one that is not there, and for what would keep a reader waiting or
 * never end: a pipe, a socket, a device. */
inline BioOwner openPemFile(const char *devicePath) {
    const NativePath path(devicePath);
    struct stat status;
    if (stat(openable(path), &status) != 0 ||
        !(S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))) {
        return nullptr;
    }
    return BioOwner(BIO_new_file(openable(path), "rb"));
}

/* For readers of PEM: an encrypted file is refused instead of asked a person for. */
inline char *noPassPhrase() {
    static char empty[] = "";
    return empty;
}

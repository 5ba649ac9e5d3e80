/* Private keys and their certificates: what the certificate service, the engine and tamoctl ask of
 * OpenSSL. */
#pragma once
#include <errno.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "host/certificates/layout.h"

namespace tamo {

template <auto kRelease>
struct OpensslRelease {
    template <typename Object>
    void operator()(Object *object) const {
        kRelease(object);
    }
};
using KeyOwner = std::unique_ptr<EVP_PKEY, OpensslRelease<EVP_PKEY_free>>;
using CertificateOwner = std::unique_ptr<X509, OpensslRelease<X509_free>>;
using BioOwner = std::unique_ptr<BIO, OpensslRelease<BIO_free>>;

/* Failures leave nothing in the thread's error queue, where TLS code would find it. */
class QuietErrors {
  public:
    QuietErrors() { ERR_set_mark(); }
    ~QuietErrors() { ERR_pop_to_mark(); }
    QuietErrors(const QuietErrors &) = delete;
    QuietErrors &operator=(const QuietErrors &) = delete;
};

/* A pass phrase, wiped when it leaves scope. */
struct Passphrase {
    char text[kPassphraseSize] = {};
    Passphrase() = default;
    ~Passphrase() { OPENSSL_cleanse(text, sizeof(text)); }
    Passphrase(const Passphrase &) = delete;
    Passphrase &operator=(const Passphrase &) = delete;
};

/* The bytes of a file, wiped when they leave scope, and a BIO over them. */
struct SecretFile {
    char *data = nullptr;
    size_t size = 0;
    BioOwner bio;

    SecretFile() = default;
    ~SecretFile() { OPENSSL_clear_free(data, size); }
    SecretFile(const SecretFile &) = delete;
    SecretFile &operator=(const SecretFile &) = delete;
};

/* Reads `size` bytes of a descriptor; what is read last tells whether there are as many. */
inline bool readWhole(int file, char *data, size_t size) {
    size_t at = 0;
    while (at < size) {
        const ssize_t got = read(file, data + at, size - at);
        if (got <= 0) {
            return false;
        }
        at += static_cast<size_t>(got);
    }
    return true;
}

/* Reads a regular file of at most `kMaxCertSize` bytes; a pipe is not waited for. 0, or an errno value;
 * EFBIG for a larger file. */
inline int readSecretFile(int directory, const char *name, SecretFile *content) {
    const int file = openat(directory, name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (file < 0) {
        return errno;
    }
    struct stat status;
    int error = fstat(file, &status) != 0 ? errno : 0;
    if (error == 0 && !S_ISREG(status.st_mode)) {
        error = EINVAL;
    } else if (error == 0 && status.st_size > off_t{kMaxCertSize}) {
        error = EFBIG;
    }
    if (error == 0) {
        content->size = static_cast<size_t>(status.st_size);
        content->data = static_cast<char *>(OPENSSL_malloc(content->size + 1));
        if (content->data == nullptr || !readWhole(file, content->data, content->size)) {
            error = content->data == nullptr ? ENOMEM : EIO;
        } else {
            content->data[content->size] = '\0';
            content->bio.reset(BIO_new_mem_buf(content->data, static_cast<int>(content->size)));
        }
    }
    close(file);
    return error == 0 && content->bio == nullptr ? ENOMEM : error;
}

/* Reads a file's one line as a pass phrase: 0, or an errno value; EMSGSIZE when it is too long. No file
 * is no pass phrase. */
inline int readPassphrase(int directory, const char *name, Passphrase *phrase) {
    SecretFile content;
    const int error = readSecretFile(directory, name, &content);
    if (error != 0) {
        return error == ENOENT ? 0 : error;
    }
    const size_t length = strcspn(content.data, "\r\n");
    if (length >= sizeof(phrase->text)) {
        return EMSGSIZE;
    }
    memcpy(phrase->text, content.data, length);
    return 0;
}

/* Only the given pass phrase is tried; nobody is asked for one at a terminal. */
inline int givePassphrase(char *buffer, int size, int, void *phrase) {
    const size_t length = strlen(static_cast<const char *>(phrase));
    if (length == 0 || length > static_cast<size_t>(size)) {
        return -1;
    }
    memcpy(buffer, phrase, length);
    return static_cast<int>(length);
}

/* The first certificate; null when there is none. */
inline CertificateOwner readCertificate(const SecretFile &pem) {
    return CertificateOwner(PEM_read_bio_X509(pem.bio.get(), nullptr, nullptr, nullptr));
}

inline KeyOwner readPrivateKey(const SecretFile &pem, Passphrase *phrase) {
    return KeyOwner(PEM_read_bio_PrivateKey(pem.bio.get(), nullptr, givePassphrase, phrase->text));
}

/* A key identifier: the digest of the public key in hexadecimal. */
struct KeyIdentifier {
    static constexpr size_t kLength = 64;
    char text[kLength + 1] = {};
};

inline bool identifyKey(EVP_PKEY *key, KeyIdentifier *identifier) {
    unsigned char *encoded = nullptr;
    const int length = key == nullptr ? -1 : i2d_PUBKEY(key, &encoded);
    unsigned char digest[KeyIdentifier::kLength / 2];
    const bool made = length > 0 && EVP_Digest(encoded, static_cast<size_t>(length), digest,
                                               nullptr, EVP_sha256(), nullptr) == 1;
    OPENSSL_free(encoded);
    for (size_t at = 0; made && at < sizeof(digest); at++) {
        constexpr char kDigits[] = "0123456789abcdef";
        identifier->text[2 * at] = kDigits[digest[at] >> 4];
        identifier->text[2 * at + 1] = kDigits[digest[at] & 15];
    }
    return made;
}

inline bool isKeyIdentifier(const char *text) {
    return text != nullptr && strlen(text) == KeyIdentifier::kLength &&
           strspn(text, "0123456789abcdef") == KeyIdentifier::kLength;
}

}  // namespace tamo

/* Private keys and their certificates: what the certificate service and the engine ask of OpenSSL. */
#pragma once
#include <openssl/crypto.h>
#include <openssl/pem.h>

#include <string_view>

#include "common/openssl_owner.h"
#include "host/certificates/layout.h"

namespace tamo::certificates {

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
    char *data = nullptr; /* followed by a NUL */
    size_t size = 0;
    BioOwner bio;

    SecretFile() = default;
    ~SecretFile() { OPENSSL_clear_free(data, size); }
    SecretFile(const SecretFile &) = delete;
    SecretFile &operator=(const SecretFile &) = delete;
};

/* Reads a regular file of at most `kMaxCertSize` bytes; a pipe is not waited for. 0, or an errno value;
 * EFBIG for a larger file. */
int readSecretFile(int directory, const char *name, SecretFile *content);

/* Reads a file's one line as a pass phrase: 0, or an errno value; EMSGSIZE when it is too long. A
 * missing file is an empty pass phrase. */
int readPassphrase(int directory, const char *name, Passphrase *phrase);

/* The pass phrase of a key of the engine, which stands in a line before its PEM text; none for a key that
 * is not encrypted. False when it is too long. */
constexpr char kPassphraseLine[] = "Passphrase: ";
bool readPassphraseLine(const SecretFile &key, Passphrase *phrase);

/* Whether a PEM text has a part that only opens with a pass phrase. */
bool isEncrypted(std::string_view pem);

/* The first certificate of a text; null when there is none. */
CertificateOwner readCertificate(BIO *pem);

/* The private key of a text; only the given pass phrase is tried. */
KeyOwner readPrivateKey(BIO *pem, Passphrase *phrase);

/* A key identifier: the digest of the public key in hexadecimal. */
struct KeyIdentifier {
    static constexpr size_t kLength = 64;
    char text[kLength + 1] = {};
};

bool identifyKey(EVP_PKEY *key, KeyIdentifier *identifier);

bool isKeyIdentifier(const char *text);

/* Whether the engine can use a key of this type. */
bool isEngineType(const EVP_PKEY *key);

}  // namespace tamo::certificates

/* Certificates, keys and revocation lists made by the test, and files in its device root. */
#pragma once
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

namespace certs {

/* A key and its certificate. */
struct Party {
    std::shared_ptr<EVP_PKEY> key;
    std::shared_ptr<X509> certificate;
};

/* A party with a fresh key ("RSA", "RSA-PSS", "EC" on P-256, "ED25519", "ED448"), self-signed without an issuer. */
Party makeParty(const std::string &name, const char *keyKind, const Party *issuer = nullptr,
                long serial = 1);

std::string pem(const Party &party);
std::string keyPem(const Party &party, std::string passPhrase = "");
/* The issuer's list of revoked serials, which is up to date for `days` from now. */
std::string crlPem(const Party &issuer, const std::vector<long> &revoked = {}, int days = 2);

/* Files by device path; writing makes the folders. */
void write(const std::string &devicePath, const std::string &contents);
std::string read(const std::string &devicePath);
std::vector<std::string> list(const std::string &directory);
void remove(const std::string &devicePath);

}  // namespace certs

#include "tests/cert/cert_files.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/support/scratch_root.h"

namespace certs {

namespace {

constexpr int kDay = 24 * 60 * 60;

std::string native(const std::string &devicePath) {
    return support::scratchRoot() + devicePath;
}

EVP_PKEY *makeKey(const std::string &kind) {
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new_from_name(nullptr, kind.c_str(), nullptr), EVP_PKEY_CTX_free);
    EVP_PKEY *key = nullptr;
    EVP_PKEY_keygen_init(context.get());
    if (kind == "EC") {
        EVP_PKEY_CTX_set_group_name(context.get(), "P-256");
    }
    EVP_PKEY_generate(context.get(), &key);
    return key;
}

const EVP_MD *digestFor(const Party &signer) {
    const int type = EVP_PKEY_get_id(signer.key.get());
    return type == EVP_PKEY_ED25519 || type == EVP_PKEY_ED448 ? nullptr : EVP_sha256();
}

template <typename Write>
std::string toText(Write writeTo) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> memory(BIO_new(BIO_s_mem()), BIO_free);
    writeTo(memory.get());
    char *data = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &data);
    return {data, static_cast<size_t>(length)};
}

}  // namespace

Party makeParty(const std::string &name, const char *keyKind, const Party *issuer, long serial) {
    Party party{{makeKey(keyKind), EVP_PKEY_free}, {X509_new(), X509_free}};
    const Party &signer = issuer == nullptr ? party : *issuer;
    X509 *made = party.certificate.get();
    X509_set_version(made, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(made), serial);
    X509_gmtime_adj(X509_getm_notBefore(made), -kDay);
    X509_gmtime_adj(X509_getm_notAfter(made), 365 * kDay);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(made), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char *>(name.c_str()), -1, -1, 0);
    X509_set_issuer_name(made, X509_get_subject_name(signer.certificate.get()));
    X509_set_pubkey(made, party.key.get());
    X509_EXTENSION *basic =
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, "critical,CA:TRUE");
    X509_add_ext(made, basic, -1);
    X509_EXTENSION_free(basic);
    X509_sign(made, signer.key.get(), digestFor(signer));
    return party;
}

std::string pem(const Party &party) {
    return toText([&](BIO *to) { PEM_write_bio_X509(to, party.certificate.get()); });
}

std::string keyPem(const Party &party, std::string passPhrase) {
    const EVP_CIPHER *cipher = passPhrase.empty() ? nullptr : EVP_aes_128_cbc();
    return toText([&](BIO *to) {
        PEM_write_bio_PKCS8PrivateKey(to, party.key.get(), cipher, passPhrase.data(),
                                      static_cast<int>(passPhrase.size()), nullptr, nullptr);
    });
}

std::string crlPem(const Party &issuer, const std::vector<long> &revoked, int days) {
    const std::unique_ptr<X509_CRL, decltype(&X509_CRL_free)> list(X509_CRL_new(), X509_CRL_free);
    const std::shared_ptr<ASN1_TIME> time(ASN1_TIME_new(), ASN1_TIME_free);
    X509_CRL_set_version(list.get(), X509_CRL_VERSION_2);
    X509_CRL_set_issuer_name(list.get(), X509_get_subject_name(issuer.certificate.get()));
    X509_CRL_set1_nextUpdate(list.get(), X509_gmtime_adj(time.get(), days * kDay));
    X509_CRL_set1_lastUpdate(list.get(), X509_gmtime_adj(time.get(), -2 * kDay));
    for (const long serial : revoked) {
        X509_REVOKED *entry = X509_REVOKED_new();
        const std::shared_ptr<ASN1_INTEGER> number(ASN1_INTEGER_new(), ASN1_INTEGER_free);
        ASN1_INTEGER_set(number.get(), serial);
        X509_REVOKED_set_serialNumber(entry, number.get());
        X509_REVOKED_set_revocationDate(entry, time.get());
        X509_CRL_add0_revoked(list.get(), entry);
    }
    X509_CRL_sign(list.get(), issuer.key.get(), digestFor(issuer));
    return toText([&](BIO *to) { PEM_write_bio_X509_CRL(to, list.get()); });
}

void write(const std::string &devicePath, const std::string &contents) {
    const std::filesystem::path path(native(devicePath));
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << contents;
}

std::string read(const std::string &devicePath) {
    std::ifstream file(native(devicePath), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> list(const std::string &directory) {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(native(directory))) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

void remove(const std::string &devicePath) {
    std::filesystem::remove_all(native(devicePath));
}

}  // namespace certs

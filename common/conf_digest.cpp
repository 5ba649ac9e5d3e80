/* Message digests over libcrypto, and two kinds of process-wide values. */
#include "include/conf_digest.h"

#include <openssl/evp.h>

#include <atomic>

namespace {

/* Atomic so that a reader beside a writer gets one of the two values. It orders nothing else. */
constinit std::atomic<uint32_t> omsConfType = 0;

/* Null for an unknown algorithm, and for one that libcrypto was built without. */
const EVP_MD *methodOf(uint16_t algorithm) {
    switch (algorithm) {
        case CONF_DIGEST_SHA1:
            return EVP_sha1();
        case CONF_DIGEST_SHA256:
            return EVP_sha256();
        case CONF_DIGEST_MD5:
            return EVP_md5();
        case CONF_DIGEST_SM3:
#ifdef OPENSSL_NO_SM3
            return nullptr;
#else
            return EVP_sm3();
#endif
        default:
            return nullptr;
    }
}

}  // namespace

uint32_t MOX_CRYPT_digest(uint16_t algorithm, const void *data, size_t length,
                          unsigned char *digest, unsigned int *digestLength) {
    const EVP_MD *method = methodOf(algorithm);
    if (method == nullptr || digest == nullptr || (data == nullptr && length != 0)) {
        return 0;
    }
    return EVP_Digest(data, length, digest, digestLength, method, nullptr) == 1 ? 1 : 0;
}

uint32_t MOX_CRYPT_digestInit(void **context, uint16_t algorithm) {
    const EVP_MD *method = methodOf(algorithm);
    if (context == nullptr || method == nullptr) {
        return 0;
    }
    EVP_MD_CTX *created = EVP_MD_CTX_new();
    if (created == nullptr) {
        return 0;
    }
    if (EVP_DigestInit(created, method) != 1) {
        EVP_MD_CTX_free(created);
        *context = nullptr;
        return 0;
    }
    *context = created;
    return 1;
}

uint32_t MOX_CRYPT_digestUpdate(void *context, const void *data, size_t length) {
    auto *running = static_cast<EVP_MD_CTX *>(context);
    const bool usable = running != nullptr && (data != nullptr || length == 0);
    if (usable && EVP_DigestUpdate(running, data, length) == 1) {
        return 1;
    }
    EVP_MD_CTX_free(running);
    return 0;
}

uint32_t MOX_CRYPT_digestFinal(void **context, unsigned char *digest, unsigned int *digestLength) {
    if (context == nullptr || *context == nullptr) {
        return 0;
    }
    auto *running = static_cast<EVP_MD_CTX *>(*context);
    const int result = digest == nullptr ? 0 : EVP_DigestFinal(running, digest, digestLength);
    EVP_MD_CTX_free(running);
    *context = nullptr;
    return result == 1 ? 1 : 0;
}

uint32_t GetOmsConfType(void) {
    return omsConfType.load(std::memory_order_relaxed);
}

void SetOmsConfType(uint32_t value) {
    omsConfType.store(value, std::memory_order_relaxed);
}

uint32_t ConfReportToTellum(void) {
    return 0;
}

uint32_t ConfReportAddrBookToTellum(void) {
    return 0;
}

uint32_t ConfReportRegisterToTellum(void) {
    return 0;
}

uint32_t ConfReportCallErrToTellum(void) {
    return 0;
}

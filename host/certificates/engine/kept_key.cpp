/* See kept_key.h. OpenSSL 3 has engines and their methods, and calls them deprecated. */
#define OPENSSL_SUPPRESS_DEPRECATED
#include "kept_key.h"

#include <openssl/ec.h>
#include <openssl/engine.h>
#include <openssl/rsa.h>

namespace openssl_engine {

namespace {

using tamo::KeyOwner;
using ContextOwner = std::unique_ptr<EVP_PKEY_CTX, tamo::OpensslRelease<EVP_PKEY_CTX_free>>;
using DigestContextOwner = std::unique_ptr<EVP_MD_CTX, tamo::OpensslRelease<EVP_MD_CTX_free>>;
using RsaOwner = std::unique_ptr<RSA, tamo::OpensslRelease<RSA_free>>;
using EcOwner = std::unique_ptr<EC_KEY, tamo::OpensslRelease<EC_KEY_free>>;
using NumberOwner = std::unique_ptr<BIGNUM, tamo::OpensslRelease<BN_free>>;

constexpr int kEdwardsTypes[] = {EVP_PKEY_ED25519};

int rsaIndex = -1, ecIndex = -1, edwardsIndex = -1;
RSA_METHOD *rsaMethod;
EC_KEY_METHOD *ecMethod;
EVP_PKEY_METHOD *edwardsMethod;

void releaseKept(void *, void *kept, CRYPTO_EX_DATA *, int, long, void *) {
    EVP_PKEY_free(static_cast<EVP_PKEY *>(kept));
}

/* A copy of the object refers to the same key. */
int shareKept(CRYPTO_EX_DATA *, const CRYPTO_EX_DATA *, void **kept, int, long, void *) {
    return *kept == nullptr ? 1 : EVP_PKEY_up_ref(static_cast<EVP_PKEY *>(*kept));
}

ContextOwner beginSigning(void *kept) {
    ContextOwner context(
        kept == nullptr ? nullptr : EVP_PKEY_CTX_new(static_cast<EVP_PKEY *>(kept), nullptr));
    return context != nullptr && EVP_PKEY_sign_init(context.get()) == 1 ? std::move(context)
                                                                        : nullptr;
}

/* ---- RSA: OpenSSL pads for PSS itself and hands the padded block over ---- */

int signRsa(int length, const unsigned char *from, unsigned char *to, RSA *rsa, int padding) {
    const ContextOwner context = beginSigning(RSA_get_ex_data(rsa, rsaIndex));
    size_t size = static_cast<size_t>(RSA_size(rsa));
    if (context == nullptr || EVP_PKEY_CTX_set_rsa_padding(context.get(), padding) != 1 ||
        EVP_PKEY_sign(context.get(), to, &size, from, static_cast<size_t>(length)) != 1) {
        return -1;
    }
    return static_cast<int>(size);
}

/* The engine signs; it does not decrypt. */
int refuseRsa(int, const unsigned char *, unsigned char *, RSA *, int) {
    ERR_raise_data(ERR_LIB_ENGINE, ERR_R_DISABLED, "the keys of this engine only sign");
    return -1;
}

bool prepareRsa() {
    rsaMethod = RSA_meth_dup(RSA_PKCS1_OpenSSL());
    rsaIndex = RSA_get_ex_new_index(0, nullptr, nullptr, shareKept, releaseKept);
    return rsaMethod != nullptr && rsaIndex >= 0 &&
           RSA_meth_set1_name(rsaMethod, "RSA keys of openssl_engine") == 1 &&
           RSA_meth_set_flags(rsaMethod, RSA_FLAG_EXT_PKEY) == 1 &&
           RSA_meth_set_priv_enc(rsaMethod, signRsa) == 1 &&
           RSA_meth_set_priv_dec(rsaMethod, refuseRsa) == 1;
}

EVP_PKEY *makeRsa(KeyOwner kept) {
    BIGNUM *modulus = nullptr;
    BIGNUM *exponent = nullptr;
    (void)EVP_PKEY_get_bn_param(kept.get(), "n", &modulus);
    (void)EVP_PKEY_get_bn_param(kept.get(), "e", &exponent);
    NumberOwner ownModulus(modulus), ownExponent(exponent);
    RsaOwner rsa(RSA_new());
    KeyOwner object(EVP_PKEY_new());
    if (modulus == nullptr || exponent == nullptr || rsa == nullptr || object == nullptr ||
        RSA_set0_key(rsa.get(), modulus, exponent, nullptr) != 1) {
        return nullptr;
    }
    (void)ownModulus.release();
    (void)ownExponent.release();
    if (RSA_set_method(rsa.get(), rsaMethod) != 1 ||
        RSA_set_ex_data(rsa.get(), rsaIndex, kept.get()) != 1) {
        return nullptr;
    }
    (void)kept.release();
    if (EVP_PKEY_assign_RSA(object.get(), rsa.get()) != 1) {
        return nullptr;
    }
    (void)rsa.release();
    return object.release();
}

/* ---- EC ---- */

int signEc(int, const unsigned char *digest, int length, unsigned char *signature,
           unsigned int *signatureLength, const BIGNUM *, const BIGNUM *, EC_KEY *key) {
    const ContextOwner context = beginSigning(EC_KEY_get_ex_data(key, ecIndex));
    size_t size = static_cast<size_t>(ECDSA_size(key));
    if (context == nullptr ||
        EVP_PKEY_sign(context.get(), signature, &size, digest, static_cast<size_t>(length)) != 1) {
        return 0;
    }
    *signatureLength = static_cast<unsigned int>(size);
    return 1;
}

ECDSA_SIG *signEcParts(const unsigned char *digest, int length, const BIGNUM *, const BIGNUM *,
                       EC_KEY *key) {
    unsigned char encoded[256];
    unsigned int size = 0;
    if (ECDSA_size(key) > static_cast<int>(sizeof(encoded)) ||
        signEc(0, digest, length, encoded, &size, nullptr, nullptr, key) != 1) {
        return nullptr;
    }
    const unsigned char *at = encoded;
    return d2i_ECDSA_SIG(nullptr, &at, static_cast<long>(size));
}

bool prepareEc() {
    ecMethod = EC_KEY_METHOD_new(EC_KEY_OpenSSL());
    ecIndex = EC_KEY_get_ex_new_index(0, nullptr, nullptr, shareKept, releaseKept);
    if (ecMethod == nullptr || ecIndex < 0) {
        return false;
    }
    EC_KEY_METHOD_set_sign(ecMethod, signEc, nullptr, signEcParts);
    return true;
}

EVP_PKEY *makeEc(KeyOwner kept) {
    unsigned char *encoded = nullptr;
    const int length = i2d_PUBKEY(kept.get(), &encoded);
    const unsigned char *at = encoded;
    EcOwner key(length > 0 ? d2i_EC_PUBKEY(nullptr, &at, length) : nullptr);
    OPENSSL_free(encoded);
    KeyOwner object(EVP_PKEY_new());
    if (key == nullptr || object == nullptr || EC_KEY_set_method(key.get(), ecMethod) != 1 ||
        EC_KEY_set_ex_data(key.get(), ecIndex, kept.get()) != 1) {
        return nullptr;
    }
    (void)kept.release();
    if (EVP_PKEY_assign_EC_KEY(object.get(), key.get()) != 1) {
        return nullptr;
    }
    (void)key.release();
    return object.release();
}

/* ---- Ed25519: it signs messages, not digests of them, and its objects have no methods ---- */

int signMessage(EVP_MD_CTX *context, unsigned char *signature, size_t *size,
                const unsigned char *message, size_t length) {
    EVP_PKEY *object = EVP_PKEY_CTX_get0_pkey(EVP_MD_CTX_get_pkey_ctx(context));
    auto *kept = static_cast<EVP_PKEY *>(EVP_PKEY_get_ex_data(object, edwardsIndex));
    const DigestContextOwner signing(EVP_MD_CTX_new());
    if (kept == nullptr || signing == nullptr ||
        EVP_DigestSignInit(signing.get(), nullptr, nullptr, nullptr, kept) != 1) {
        return 0;
    }
    return EVP_DigestSign(signing.get(), signature, size, message, length);
}

bool prepareEdwards() {
    edwardsMethod = EVP_PKEY_meth_new(EVP_PKEY_ED25519, EVP_PKEY_FLAG_SIGCTX_CUSTOM);
    edwardsIndex = EVP_PKEY_get_ex_new_index(0, nullptr, nullptr, shareKept, releaseKept);
    const EVP_PKEY_METHOD *original = EVP_PKEY_meth_find(EVP_PKEY_ED25519);
    if (edwardsMethod == nullptr || edwardsIndex < 0 || original == nullptr) {
        return false;
    }
    EVP_PKEY_meth_copy(edwardsMethod, original);
    EVP_PKEY_meth_set_digestsign(edwardsMethod, signMessage);
    return true;
}

EVP_PKEY *makeEdwards(ENGINE *engine, KeyOwner kept) {
    unsigned char raw[32];
    size_t length = sizeof(raw);
    if (EVP_PKEY_get_raw_public_key(kept.get(), raw, &length) != 1) {
        return nullptr;
    }
    KeyOwner object(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, engine, raw, length));
    if (object == nullptr || EVP_PKEY_set1_engine(object.get(), engine) != 1 ||
        EVP_PKEY_set_ex_data(object.get(), edwardsIndex, kept.get()) != 1) {
        return nullptr;
    }
    (void)kept.release();
    return object.release();
}

}  // namespace

bool prepareMethods() {
    return prepareRsa() && prepareEc() && prepareEdwards();
}

int findKeyMethod(ENGINE *, EVP_PKEY_METHOD **method, const int **types, int type) {
    if (method == nullptr) {
        *types = kEdwardsTypes;
        return static_cast<int>(std::size(kEdwardsTypes));
    }
    *method = type == EVP_PKEY_ED25519 ? edwardsMethod : nullptr;
    return *method != nullptr ? 1 : 0;
}

EVP_PKEY *makeKeyObject(ENGINE *engine, KeyOwner kept) {
    switch (EVP_PKEY_get_base_id(kept.get())) {
        case EVP_PKEY_RSA:
            return makeRsa(std::move(kept));
        case EVP_PKEY_EC:
            return makeEc(std::move(kept));
        case EVP_PKEY_ED25519:
            return makeEdwards(engine, std::move(kept));
        default:
            ERR_raise_data(ERR_LIB_ENGINE, ENGINE_R_FAILED_LOADING_PRIVATE_KEY,
                           "the engine keeps keys of the types RSA, EC and Ed25519 only");
            return nullptr;
    }
}

}  // namespace openssl_engine

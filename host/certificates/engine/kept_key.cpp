/* OpenSSL finds the operations of a key in the provider that the key belongs to. This one's keys hold a
 * reference to the private key of OpenSSL's own; each operation is handed on to that. The provider lives
 * in a library context of its own, where no other key of the program meets it. */
#include "kept_key.h"

#include <openssl/core_dispatch.h>
#include <openssl/core_names.h>
#include <openssl/params.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>
#include <string.h>

#include <iterator>

namespace openssl_engine {

namespace {

using ContextOwner = OpensslOwner<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;

constexpr char kProvider[] = "openssl_engine";
constexpr char kKeptParameter[] = "kept";

/* A provider's key. */
struct Kept {
    EVP_PKEY *key = nullptr;
    bool hasPrivate = false;
};

/* A signature or a decryption under way. */
struct Operation {
    EVP_MD_CTX *digest = nullptr;
    EVP_PKEY_CTX *context = nullptr; /* the digest's, where there is one */
};

template <typename Function>
constexpr OSSL_DISPATCH entry(int id, Function *function) {
    return {id, reinterpret_cast<void (*)(void)>(function)};
}

/* ---- keys ---- */

void *newKept(void *) {
    return OPENSSL_zalloc(sizeof(Kept));
}

void freeKept(void *data) {
    auto *kept = static_cast<Kept *>(data);
    if (kept != nullptr) {
        EVP_PKEY_free(kept->key);
        OPENSSL_free(kept);
    }
}

int hasParts(const void *data, int selection) {
    const auto *kept = static_cast<const Kept *>(data);
    return kept != nullptr && kept->key != nullptr &&
           (kept->hasPrivate || (selection & OSSL_KEYMGMT_SELECT_PRIVATE_KEY) == 0);
}

int matchKept(const void *one, const void *other, int) {
    return EVP_PKEY_eq(static_cast<const Kept *>(one)->key,
                       static_cast<const Kept *>(other)->key) == 1;
}

/* Takes a reference from this file, or a public key from another provider, which is to be compared. */
template <const char *kType>
int importKept(void *data, int, const OSSL_PARAM params[]) {
    auto *kept = static_cast<Kept *>(data);
    const void *reference = nullptr;
    size_t size = 0;
    const OSSL_PARAM *own = OSSL_PARAM_locate_const(params, kKeptParameter);
    if (own != nullptr) {
        EVP_PKEY *key = nullptr;
        if (OSSL_PARAM_get_octet_string_ptr(own, &reference, &size) != 1 || size != sizeof(key)) {
            return 0;
        }
        memcpy(&key, reference, sizeof(key));
        kept->hasPrivate = EVP_PKEY_up_ref(key) == 1;
        kept->key = kept->hasPrivate ? key : nullptr;
        return kept->hasPrivate ? 1 : 0;
    }
    const ContextOwner context(EVP_PKEY_CTX_new_from_name(nullptr, kType, nullptr));
    return context != nullptr && EVP_PKEY_fromdata_init(context.get()) == 1 &&
           EVP_PKEY_fromdata(context.get(), &kept->key, EVP_PKEY_PUBLIC_KEY,
                             const_cast<OSSL_PARAM *>(params)) == 1;
}

const OSSL_PARAM *importable(int) {
    static const OSSL_PARAM all[] = {OSSL_PARAM_octet_string(kKeptParameter, nullptr, 0),
                                     OSSL_PARAM_BN(OSSL_PKEY_PARAM_RSA_N, nullptr, 0),
                                     OSSL_PARAM_BN(OSSL_PKEY_PARAM_RSA_E, nullptr, 0),
                                     OSSL_PARAM_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, nullptr, 0),
                                     OSSL_PARAM_octet_string(OSSL_PKEY_PARAM_PUB_KEY, nullptr, 0),
                                     OSSL_PARAM_END};
    return all;
}

/* The private half goes nowhere: what asks for it is refused. */
int exportKept(void *data, int selection, OSSL_CALLBACK *take, void *argument) {
    const auto *kept = static_cast<const Kept *>(data);
    OSSL_PARAM *params = nullptr;
    if ((selection & OSSL_KEYMGMT_SELECT_PRIVATE_KEY) != 0 ||
        EVP_PKEY_todata(kept->key, EVP_PKEY_PUBLIC_KEY, &params) != 1) {
        return 0;
    }
    const int taken = take(params, argument);
    OSSL_PARAM_free(params);
    return taken;
}

const OSSL_PARAM *exportable(int selection) {
    return (selection & OSSL_KEYMGMT_SELECT_PRIVATE_KEY) != 0 ? nullptr : importable(0) + 1;
}

constexpr const char *kPublicParameters[] = {OSSL_PKEY_PARAM_BITS,
                                             OSSL_PKEY_PARAM_SECURITY_BITS,
                                             OSSL_PKEY_PARAM_MAX_SIZE,
                                             OSSL_PKEY_PARAM_RSA_N,
                                             OSSL_PKEY_PARAM_RSA_E,
                                             OSSL_PKEY_PARAM_GROUP_NAME,
                                             OSSL_PKEY_PARAM_PUB_KEY,
                                             OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY,
                                             OSSL_PKEY_PARAM_EC_PUB_X,
                                             OSSL_PKEY_PARAM_EC_PUB_Y,
                                             OSSL_PKEY_PARAM_DEFAULT_DIGEST,
                                             OSSL_PKEY_PARAM_MANDATORY_DIGEST,
                                             OSSL_PKEY_PARAM_EC_POINT_CONVERSION_FORMAT};

int getKeptParams(void *data, OSSL_PARAM params[]) {
    const auto *kept = static_cast<const Kept *>(data);
    for (OSSL_PARAM *param = params; param->key != nullptr; param++) {
        for (const char *name : kPublicParameters) {
            if (strcmp(param->key, name) == 0) {
                OSSL_PARAM one[] = {*param, OSSL_PARAM_END};
                const ForgivenErrors forgiven; /* the key may have none of the name */
                (void)EVP_PKEY_get_params(kept->key, one);
                param->return_size = one[0].return_size;
            }
        }
    }
    return 1;
}

const OSSL_PARAM *gettableKeptParams(void *) {
    static const OSSL_PARAM all[] = {
        OSSL_PARAM_int(OSSL_PKEY_PARAM_BITS, nullptr),
        OSSL_PARAM_int(OSSL_PKEY_PARAM_SECURITY_BITS, nullptr),
        OSSL_PARAM_int(OSSL_PKEY_PARAM_MAX_SIZE, nullptr),
        OSSL_PARAM_BN(OSSL_PKEY_PARAM_RSA_N, nullptr, 0),
        OSSL_PARAM_BN(OSSL_PKEY_PARAM_RSA_E, nullptr, 0),
        OSSL_PARAM_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, nullptr, 0),
        OSSL_PARAM_octet_string(OSSL_PKEY_PARAM_PUB_KEY, nullptr, 0),
        OSSL_PARAM_utf8_string(OSSL_PKEY_PARAM_DEFAULT_DIGEST, nullptr, 0),
        OSSL_PARAM_utf8_string(OSSL_PKEY_PARAM_MANDATORY_DIGEST, nullptr, 0),
        OSSL_PARAM_END};
    return all;
}

const char *ecOperation(int operation) {
    return operation == OSSL_OP_SIGNATURE ? "ECDSA" : nullptr;
}

/* ---- signatures and decryption ---- */

void *newOperation(void *) {
    return OPENSSL_zalloc(sizeof(Operation));
}

void *newSignature(void *provider, const char *) {
    return newOperation(provider);
}

void endOperation(Operation *operation) {
    if (operation->digest != nullptr) {
        EVP_MD_CTX_free(operation->digest); /* and its context */
    } else {
        EVP_PKEY_CTX_free(operation->context);
    }
    *operation = {};
}

void freeOperation(void *data) {
    if (data != nullptr) {
        endOperation(static_cast<Operation *>(data));
        OPENSSL_free(data);
    }
}

void *copyOperation(void *data) {
    const auto *from = static_cast<Operation *>(data);
    auto *to = static_cast<Operation *>(newOperation(nullptr));
    if (to != nullptr && from->digest != nullptr) {
        to->digest = EVP_MD_CTX_new();
        if (to->digest == nullptr || EVP_MD_CTX_copy_ex(to->digest, from->digest) != 1) {
            freeOperation(to);
            return nullptr;
        }
        to->context = EVP_MD_CTX_get_pkey_ctx(to->digest);
    } else if (to != nullptr && from->context != nullptr) {
        to->context = EVP_PKEY_CTX_dup(from->context);
    }
    return to;
}

int setParams(void *data, const OSSL_PARAM params[]) {
    const auto *operation = static_cast<Operation *>(data);
    return params == nullptr || params->key == nullptr ||
           EVP_PKEY_CTX_set_params(operation->context, params) == 1;
}

int getParams(void *data, OSSL_PARAM params[]) {
    const auto *operation = static_cast<Operation *>(data);
    return params == nullptr || EVP_PKEY_CTX_get_params(operation->context, params) == 1;
}

const OSSL_PARAM *operationParams(void *, void *) {
    static const OSSL_PARAM all[] = {
        OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_PAD_MODE, nullptr, 0),
        OSSL_PARAM_int(OSSL_SIGNATURE_PARAM_PAD_MODE, nullptr),
        OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_DIGEST, nullptr, 0),
        OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_MGF1_DIGEST, nullptr, 0),
        OSSL_PARAM_utf8_string(OSSL_SIGNATURE_PARAM_PSS_SALTLEN, nullptr, 0),
        OSSL_PARAM_octet_string(OSSL_SIGNATURE_PARAM_ALGORITHM_ID, nullptr, 0),
        OSSL_PARAM_utf8_string(OSSL_ASYM_CIPHER_PARAM_OAEP_DIGEST, nullptr, 0),
        OSSL_PARAM_octet_string(OSSL_ASYM_CIPHER_PARAM_OAEP_LABEL, nullptr, 0),
        OSSL_PARAM_uint(OSSL_ASYM_CIPHER_PARAM_TLS_CLIENT_VERSION, nullptr),
        OSSL_PARAM_uint(OSSL_ASYM_CIPHER_PARAM_TLS_NEGOTIATED_VERSION, nullptr),
        OSSL_PARAM_END};
    return all;
}

template <int (*kBegin)(EVP_PKEY_CTX *)>
int begin(void *data, void *key, const OSSL_PARAM params[]) {
    auto *operation = static_cast<Operation *>(data);
    if (key != nullptr) {
        endOperation(operation);
        operation->context =
            EVP_PKEY_CTX_new_from_pkey(nullptr, static_cast<Kept *>(key)->key, nullptr);
    }
    return operation->context != nullptr && kBegin(operation->context) == 1 &&
           setParams(operation, params);
}

/* The caller's room is said in a size of its own. */
template <int (*kRun)(EVP_PKEY_CTX *, unsigned char *, size_t *, const unsigned char *, size_t)>
int run(void *data, unsigned char *to, size_t *size, size_t room, const unsigned char *from,
        size_t length) {
    *size = room;
    return kRun(static_cast<Operation *>(data)->context, to, size, from, length);
}

int beginDigest(void *data, const char *digest, void *key, const OSSL_PARAM params[]) {
    auto *operation = static_cast<Operation *>(data);
    if (key != nullptr) {
        endOperation(operation);
        operation->digest = EVP_MD_CTX_new();
        if (operation->digest == nullptr ||
            EVP_DigestSignInit_ex(operation->digest, &operation->context,
                                  digest == nullptr || *digest == '\0' ? nullptr : digest, nullptr,
                                  nullptr, static_cast<Kept *>(key)->key, nullptr) != 1) {
            operation->context = nullptr;
            return 0;
        }
    }
    return operation->context != nullptr && setParams(operation, params);
}

int addToDigest(void *data, const unsigned char *from, size_t length) {
    return EVP_DigestSignUpdate(static_cast<Operation *>(data)->digest, from, length);
}

int endDigest(void *data, unsigned char *to, size_t *size, size_t room) {
    *size = room;
    return EVP_DigestSignFinal(static_cast<Operation *>(data)->digest, to, size);
}

int signWhole(void *data, unsigned char *to, size_t *size, size_t room, const unsigned char *from,
              size_t length) {
    *size = room;
    return EVP_DigestSign(static_cast<Operation *>(data)->digest, to, size, from, length);
}

/* ---- the provider ---- */

constexpr char kRsa[] = "RSA", kRsaPss[] = "RSA-PSS", kEc[] = "EC", kEd25519[] = "ED25519",
               kEd448[] = "ED448";

template <const char *kType>
const OSSL_DISPATCH kKeys[] = {entry(OSSL_FUNC_KEYMGMT_NEW, newKept),
                               entry(OSSL_FUNC_KEYMGMT_FREE, freeKept),
                               entry(OSSL_FUNC_KEYMGMT_HAS, hasParts),
                               entry(OSSL_FUNC_KEYMGMT_MATCH, matchKept),
                               entry(OSSL_FUNC_KEYMGMT_IMPORT, importKept<kType>),
                               entry(OSSL_FUNC_KEYMGMT_IMPORT_TYPES, importable),
                               entry(OSSL_FUNC_KEYMGMT_EXPORT, exportKept),
                               entry(OSSL_FUNC_KEYMGMT_EXPORT_TYPES, exportable),
                               entry(OSSL_FUNC_KEYMGMT_GET_PARAMS, getKeptParams),
                               entry(OSSL_FUNC_KEYMGMT_GETTABLE_PARAMS, gettableKeptParams),
                               kType == kEc
                                   ? entry(OSSL_FUNC_KEYMGMT_QUERY_OPERATION_NAME, ecOperation)
                                   : OSSL_DISPATCH{0, nullptr},
                               {0, nullptr}};

const OSSL_DISPATCH kSignature[] = {entry(OSSL_FUNC_SIGNATURE_NEWCTX, newSignature),
                                    entry(OSSL_FUNC_SIGNATURE_FREECTX, freeOperation),
                                    entry(OSSL_FUNC_SIGNATURE_DUPCTX, copyOperation),
                                    entry(OSSL_FUNC_SIGNATURE_SIGN_INIT, begin<EVP_PKEY_sign_init>),
                                    entry(OSSL_FUNC_SIGNATURE_SIGN, run<EVP_PKEY_sign>),
                                    entry(OSSL_FUNC_SIGNATURE_DIGEST_SIGN_INIT, beginDigest),
                                    entry(OSSL_FUNC_SIGNATURE_DIGEST_SIGN_UPDATE, addToDigest),
                                    entry(OSSL_FUNC_SIGNATURE_DIGEST_SIGN_FINAL, endDigest),
                                    entry(OSSL_FUNC_SIGNATURE_DIGEST_SIGN, signWhole),
                                    entry(OSSL_FUNC_SIGNATURE_SET_CTX_PARAMS, setParams),
                                    entry(OSSL_FUNC_SIGNATURE_SETTABLE_CTX_PARAMS, operationParams),
                                    entry(OSSL_FUNC_SIGNATURE_GET_CTX_PARAMS, getParams),
                                    entry(OSSL_FUNC_SIGNATURE_GETTABLE_CTX_PARAMS, operationParams),
                                    {0, nullptr}};

const OSSL_DISPATCH kDecryption[] = {
    entry(OSSL_FUNC_ASYM_CIPHER_NEWCTX, newOperation),
    entry(OSSL_FUNC_ASYM_CIPHER_FREECTX, freeOperation),
    entry(OSSL_FUNC_ASYM_CIPHER_DUPCTX, copyOperation),
    entry(OSSL_FUNC_ASYM_CIPHER_DECRYPT_INIT, begin<EVP_PKEY_decrypt_init>),
    entry(OSSL_FUNC_ASYM_CIPHER_DECRYPT, run<EVP_PKEY_decrypt>),
    entry(OSSL_FUNC_ASYM_CIPHER_SET_CTX_PARAMS, setParams),
    entry(OSSL_FUNC_ASYM_CIPHER_SETTABLE_CTX_PARAMS, operationParams),
    entry(OSSL_FUNC_ASYM_CIPHER_GET_CTX_PARAMS, getParams),
    entry(OSSL_FUNC_ASYM_CIPHER_GETTABLE_CTX_PARAMS, operationParams),
    {0, nullptr}};

constexpr char kProperties[] = "provider=openssl_engine";

const OSSL_ALGORITHM *queryOperation(void *, int operation, int *cached) {
    static const OSSL_ALGORITHM keys[] = {
        {"RSA:rsaEncryption", kProperties, kKeys<kRsa>, nullptr},
        {"EC:id-ecPublicKey", kProperties, kKeys<kEc>, nullptr},
        {"RSA-PSS:RSASSA-PSS", kProperties, kKeys<kRsaPss>, nullptr},
        {"ED25519", kProperties, kKeys<kEd25519>, nullptr},
        {"ED448", kProperties, kKeys<kEd448>, nullptr},
        {nullptr, nullptr, nullptr, nullptr}};
    static const OSSL_ALGORITHM signatures[] = {
        {"RSA:rsaEncryption", kProperties, kSignature, nullptr},
        {"ECDSA", kProperties, kSignature, nullptr},
        {"RSA-PSS:RSASSA-PSS", kProperties, kSignature, nullptr},
        {"ED25519", kProperties, kSignature, nullptr},
        {"ED448", kProperties, kSignature, nullptr},
        {nullptr, nullptr, nullptr, nullptr}};
    static const OSSL_ALGORITHM decryptions[] = {
        {"RSA:rsaEncryption", kProperties, kDecryption, nullptr},
        {nullptr, nullptr, nullptr, nullptr}};
    *cached = 0;
    return operation == OSSL_OP_KEYMGMT       ? keys
           : operation == OSSL_OP_SIGNATURE   ? signatures
           : operation == OSSL_OP_ASYM_CIPHER ? decryptions
                                              : nullptr;
}

const OSSL_DISPATCH kProviderFunctions[] = {
    entry(OSSL_FUNC_PROVIDER_QUERY_OPERATION, queryOperation), {0, nullptr}};

int beginProvider(const OSSL_CORE_HANDLE *handle, const OSSL_DISPATCH *,
                  const OSSL_DISPATCH **functions, void **context) {
    *functions = kProviderFunctions;
    *context = const_cast<OSSL_CORE_HANDLE *>(handle);
    return 1;
}

/* Lives as long as the process, like keys that were handed out; null when there is no memory. */
OSSL_LIB_CTX *ownLibrary() {
    static OSSL_LIB_CTX *const library = [] {
        OSSL_LIB_CTX *made = OSSL_LIB_CTX_new();
        const bool loaded = made != nullptr &&
                            OSSL_PROVIDER_add_builtin(made, kProvider, beginProvider) == 1 &&
                            OSSL_PROVIDER_load(made, kProvider) != nullptr;
        return loaded ? made : nullptr;
    }();
    return library;
}

}  // namespace

EVP_PKEY *makeKeyObject(KeyOwner kept) {
    if (!tamo::certificates::isEngineType(kept.get())) {
        ERR_raise_data(
            ERR_LIB_ENGINE, ERR_R_UNSUPPORTED,
            "the engine keeps keys of the types RSA, RSA-PSS, EC, ED25519 and ED448 only");
        return nullptr;
    }
    EVP_PKEY *reference = kept.get();
    EVP_PKEY *object = nullptr;
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_octet_string(kKeptParameter, &reference, sizeof(reference)),
        OSSL_PARAM_construct_end()};
    OSSL_LIB_CTX *library = ownLibrary();
    const ContextOwner context(
        library == nullptr
            ? nullptr
            : EVP_PKEY_CTX_new_from_name(library, EVP_PKEY_get0_type_name(kept.get()), nullptr));
    if (context == nullptr || EVP_PKEY_fromdata_init(context.get()) != 1 ||
        EVP_PKEY_fromdata(context.get(), &object, EVP_PKEY_KEYPAIR, params) != 1) {
        return nullptr;
    }
    return object;
}

}  // namespace openssl_engine

/* Server certificates and their keys into TLS contexts. */
#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <cstring>

#include "cert/cert_engine.h"
#include "cert/cert_table.h"
#include "cert/pem_file.h"
#include "common/log.h"
#include "include/conf_cert.h"
#include "platform/bounds_checked.h"

namespace {

constexpr const char *kUnit = kCertUnit;

constexpr uint32_t kCapabilityCount = 10;

/* Lends a context a pass phrase for the scope; without one, the context's settings are left alone. */
class LentPassPhrase {
  public:
    LentPassPhrase(SSL_CTX *ctx, char *passPhrase) : ctx_(*passPhrase == '\0' ? nullptr : ctx) {
        if (ctx_ != nullptr) {
            before_ = SSL_CTX_get_default_passwd_cb_userdata(ctx_);
            SSL_CTX_set_default_passwd_cb_userdata(ctx_, passPhrase);
        }
    }
    ~LentPassPhrase() {
        if (ctx_ != nullptr) {
            SSL_CTX_set_default_passwd_cb_userdata(ctx_, before_);
        }
    }
    LentPassPhrase(const LentPassPhrase &) = delete;
    LentPassPhrase &operator=(const LentPassPhrase &) = delete;

  private:
    SSL_CTX *ctx_;
    void *before_ = nullptr;
};

/* Loads a chain, or else a single certificate; 1, or the last loader's result. */
int useCertificate(SSL_CTX *ctx, const char *devicePath) {
    if (ctx == nullptr) {
        return 0;
    }
    const NativePath path(devicePath);
    ERR_set_mark();
    if (SSL_CTX_use_certificate_chain_file(ctx, openable(path)) == 1) {
        ERR_clear_last_mark();
        return 1;
    }
    const int result = SSL_CTX_use_certificate_file(ctx, openable(path), SSL_FILETYPE_PEM);
    if (result == 1) {
        ERR_pop_to_mark();
    } else {
        ERR_clear_last_mark();
    }
    return result;
}

/* ---- keyless ---- */

/* Stores whether the type's key stays in the platform; false when that cannot be told. */
bool ConfCertIsSupportKeyless(uint32_t type, uint8_t *flag) {
    uint8_t capabilities[kCapabilityCount] = {};
    const int32_t result = TamoOmCertGetCapability(capabilities);
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "TamoOmCertGetCapability fail, ret=%u.",
                 static_cast<unsigned>(result));
        return false;
    }
    const ConfCertRecord *row = findCertType(type);
    if (row == nullptr) {
        return false;
    }
    *flag = capabilities[static_cast<uint8_t>(row->capIndex)];
    return true;
}

/* Leaves the identifier of a type without a row empty. */
void ConfCertGetCertId(uint32_t type, char (&keyId)[kKeyIdSize + 1]) {
    const ConfCertRecord *row = findCertType(type);
    if (row == nullptr) {
        return;
    }
    const ConfCertKey key = keyOf(*row);
    const int error = memcpy_s(keyId, kKeyIdSize, key.keyId, sizeof(key.keyId));
    if (error != 0) {
        CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
    }
}

int32_t ConfLoadServerCertificateKeyLess(SSL_CTX *ctx, uint32_t type) {
    char path[kCertPathSize] = {};
    const int32_t found = ConfCertGetSrvCertFilePath(type, path, sizeof(path));
    if (found != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfCertGetSrvCertFilePath error, %d", found);
        return -1;
    }
    const int used = useCertificate(ctx, path);
    if (used != 1) {
        CONF_LOG(CONF_LOG_ERROR, "server cert file error :%d", used);
        return -1;
    }
    char keyId[kKeyIdSize + 1] = {};
    ConfCertGetCertId(type, keyId);
    CONF_LOG(CONF_LOG_INFO, "get cert from type [%s]", keyId);
    const EngineOwner engine(GetOpensslEngine());
    if (engine == nullptr) {
        return -1;
    }
    const KeyOwner key(loadEngineKey(engine.get(), keyId));
    if (SSL_CTX_use_PrivateKey(ctx, key.get()) != 1) {
        CONF_LOG(CONF_LOG_ERROR, "use privkey error");
        return -1;
    }
    if (SSL_CTX_check_private_key(ctx) == 0) {
        CONF_LOG(CONF_LOG_ERROR, "check privKey error");
        return -1;
    }
    return 0;
}

/* ---- by key ---- */

/* A path that fills its field would run on, at last into the pass phrase: it becomes one that does
 * not open. Cut off, it might be another file's. */
void refuseUnterminated(char (&path)[kCertPathSize]) {
    if (memchr(path, '\0', sizeof(path)) == nullptr) {
        path[0] = '\0';
    }
}

/* Loads the files that the service named. */
int32_t loadFiles(const char *function, SSL_CTX *ctx, ConfCertPathInfo *info) {
    const LentPassPhrase lent(ctx, info->keyPassword);
    const int used = useCertificate(ctx, info->certPath);
    if (used != 1) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "server cert file error :%d",
                      used);
        return -1;
    }
    const NativePath keyPath(info->keyPath);
    if (SSL_CTX_use_PrivateKey_file(ctx, openable(keyPath), SSL_FILETYPE_PEM) != 1) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__,
                      "[TLS]SSL_ctxUsePrivateKeyFile err, %s", info->keyPath);
        return -1;
    }
    if (SSL_CTX_check_private_key(ctx) != 1) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__,
                      "[TLS]SSL_ctxCheckPrivateKey err, %s", info->keyPath);
        return -1;
    }
    return 0;
}

int32_t ConfLoadServerCertificateByKey(SSL_CTX *ctx, uint32_t type) {
    CertPaths paths;
    ConfCertPathInfo &info = paths.info;
    const int32_t result = paths.query(OM_CERT_PATH_SERVER, certIdOf(type));
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "TamoOmCertGetCertPath, ret=%u.", static_cast<unsigned>(result));
        return -1;
    }
    if (info.certPath[0] == '\0' || info.keyPath[0] == '\0') {
        CONF_LOG(CONF_LOG_ERROR, "server cert is null");
        return -1;
    }
    refuseUnterminated(info.certPath);
    refuseUnterminated(info.keyPath);
    return loadFiles(__func__, ctx, &info);
}

}  // namespace

/* While a certificate is replaced, what the service says of it and the identifier in the table may
 * belong to two certificates for a moment: what fails then is tried again. */
int32_t ConfLoadServerCert(SSL_CTX *ctx, uint32_t type) {
    for (;;) {
        const uint32_t before = identifiersSoFar(type);
        uint8_t flag = 0;
        if (!ConfCertIsSupportKeyless(type, &flag)) {
            CONF_LOG(CONF_LOG_ERROR, "server cert check error");
            return -1;
        }
        CONF_LOG(CONF_LOG_INFO, "type=%u flag=%u", type, unsigned{flag});
        const int32_t result = flag != 0 ? ConfLoadServerCertificateKeyLess(ctx, type)
                                         : ConfLoadServerCertificateByKey(ctx, type);
        if (result == 0 || identifiersSoFar(type) == before) {
            return result;
        }
        CONF_LOG(CONF_LOG_INFO, "type=%u was replaced meanwhile, loading again", type);
    }
}

/* Path queries: where the certificate service keeps its files. */
#include <openssl/crypto.h>

#include "cert/cert_table.h"
#include "common/log.h"
#include "include/conf_cert.h"
#include "platform/bounds_checked.h"

namespace {

constexpr const char *kUnit = kCertUnit;

constexpr uint32_t kSelector = 2; /* what the service's client is always asked with */

/* Copies the answer to a path query; 0, or 1 with a record under the caller's name. */
int32_t givePath(const char *function, const CertPaths &paths, char *dst, uint32_t size) {
    const int error = strncpy_s(dst, size, paths.info.certPath, sizeof(paths.info.certPath));
    if (error != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__,
                      "conf secure func failed, err = %d!\n", error);
        return 1;
    }
    return 0;
}

int32_t giveDirectory(const char *function, uint32_t kind, char *dst, uint32_t size) {
    if (dst == nullptr) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "input null error");
        return -1;
    }
    CertPaths paths;
    const int32_t result = paths.query(kind, 0);
    if (result != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "TamoOmCertGetCertPath error, %u",
                      static_cast<unsigned>(result));
        return -1;
    }
    return givePath(function, paths, dst, size);
}

/* Copies one text into a field that stays as it was when it does not fit. */
template <size_t kSize>
int copyField(char (&field)[kSize], const char *text) {
    char copy[kSize] = {};
    int error = strcpy_s(copy, sizeof(copy), text);
    if (error == 0) {
        error = memcpy_s(field, sizeof(field), copy, sizeof(copy));
    }
    OPENSSL_cleanse(copy, sizeof(copy));
    return error;
}

}  // namespace

CertPaths::~CertPaths() {
    OPENSSL_cleanse(&info, sizeof(info));
}

int32_t CertPaths::query(uint32_t kind, uint32_t certId) {
    return TamoOmCertGetCertPath(kind, kSelector, certId, &info);
}

int32_t ConfCertGetCaPath(char *dst, uint32_t size) {
    return giveDirectory(__func__, OM_CERT_PATH_CA, dst, size);
}

int32_t ConfCertGetCrlPath(char *dst, uint32_t size) {
    return giveDirectory(__func__, OM_CERT_PATH_CRL, dst, size);
}

int32_t ConfCertGetSrvCertFilePath(uint32_t type, char *dst, uint32_t size) {
    if (dst == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "input null error");
        return -1;
    }
    CertPaths paths;
    const int32_t result = paths.query(OM_CERT_PATH_SERVER, certIdOf(type));
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "TamoOmCertGetCertPath, ret=%u, type=%u.",
                 static_cast<unsigned>(result), type);
        return -1;
    }
    return givePath(__func__, paths, dst, size);
}

int32_t ConfCertGetGmSrvCertInfo(uint32_t type, ConfGmSrvCertInfo *info) {
    if (info == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "input null error");
        return -1;
    }
    CertPaths paths;
    const int32_t result = paths.query(OM_CERT_PATH_SERVER, certIdOf(type));
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "TamoOmCertGetCertPath error, ret=%u, type=%u.",
                 static_cast<unsigned>(result), type);
        return -1;
    }
    int error = copyField(info->certPath, paths.info.certPath);
    if (error == 0) {
        error = copyField(info->keyPath, paths.info.keyPath);
    }
    if (error == 0) {
        error = copyField(info->keyPassword, paths.info.keyPassword);
    }
    if (error != 0) {
        CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
        return 1;
    }
    return 0;
}

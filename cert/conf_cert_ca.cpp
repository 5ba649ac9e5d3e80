/* Trusted CA certificates and revocation lists into TLS contexts. */
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include "cert/cert_table.h"
#include "cert/directory_walk.h"
#include "cert/pem_file.h"
#include "common/log.h"
#include "config/config_switches.h"
#include "include/conf_cert.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_conference_sslex.h"

namespace {

constexpr const char *kUnit = kCertUnit;

constexpr char kPemEnd[] = "pem";
constexpr size_t kShortestCaName = 4;

/* ---- CA certificates ---- */

bool namesCaFile(const char *name) {
    const size_t length = strlen(name);
    return length >= kShortestCaName && KIRU_StriCmp(name + length - strlen(kPemEnd), kPemEnd) == 0;
}

/* Fills the table from a directory and returns the number of entries, or -1 when it is not there. */
int32_t listCaFiles(const char *function, const char *directory, ConfCaCertEntry *table) {
    DirectoryWalk walk(directory);
    if (!walk.opened()) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__,
                      "OsOpenDir error, [%s]is not exist!", directory);
        return -1;
    }
    int32_t listed = 0;
    const char *name = nullptr;
    while (listed < CONF_CERT_MAX_CA_FILES && (name = walk.next()) != nullptr) {
        if (!namesCaFile(name)) {
            continue;
        }
        char path[kCertPathSize] = {};
        if (sprintf_s(path, sizeof(path), "%s\\%s", directory, name) < 0) {
            ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "sprintf fail!");
            continue;
        }
        if (memcpy_s(table[listed].path, sizeof(table[listed].path), path, sizeof(path)) == 0) {
            table[listed].fileType = SSL_FILETYPE_PEM;
            listed++;
        }
    }
    return listed;
}

/* ---- revocation lists ---- */

int X509Vericycallback(int ok, X509_STORE_CTX *storeContext) {
    switch (X509_STORE_CTX_get_error(storeContext)) {
        case X509_V_ERR_UNABLE_TO_GET_CRL:
            X509_STORE_CTX_set_error(storeContext, X509_V_OK);
            CONF_LOG(CONF_LOG_WARNING, "X509_V_ERR_UNABLE_TO_GET_CRL, ignore, clear error");
            return 1;
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
            CONF_LOG(CONF_LOG_WARNING, "X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT");
            return 1;
        default:
            return ok;
    }
}

bool AddCancelCrlToSslctxByFile(SSL_CTX *ctx, const char *file) {
    X509_STORE *store = SSL_CTX_get_cert_store(ctx);
    if (store == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "store null err");
        return false;
    }
    BioOwner opened = openPemFile(file);
    if (opened == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "open file failed");
        return false;
    }
    const CrlOwner list(PEM_read_bio_X509_CRL(opened.get(), nullptr, nullptr, noPassPhrase()));
    opened.reset();
    if (list == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "d2i_X509 failed");
        return false;
    }
    if (X509_STORE_add_crl(store, list.get()) == 0) {
        CONF_LOG(CONF_LOG_ERROR, "add crl failed!");
        return false;
    }
    X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK);
    X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK_ALL);
    X509_STORE_set_verify_cb(store, X509Vericycallback);
    return true;
}

bool namesCrlFile(const char *name) {
    return (containsEither(name, ".pem", ".PEM") || containsEither(name, ".crl", ".CRL")) &&
           containsEither(name, "crl", "CRL");
}

/* Adds the lists of a directory, whose path ends with a separator. */
void addCrls(const char *function, SSL_CTX *ctx, DirectoryWalk *walk, const char *directory) {
    while (const char *name = walk->next()) {
        if (!namesCrlFile(name)) {
            continue;
        }
        char file[kCertPathSize] = {};
        if (strcpy_s(file, sizeof(file), directory) != 0) {
            continue;
        }
        if (file[0] == '\0') {
            break;
        }
        if (strcat_s(file, sizeof(file), name) != 0) {
            ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "strcat_s failed");
            continue;
        }
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "crl acFileName %s", file);
        if (!AddCancelCrlToSslctxByFile(ctx, file)) {
            ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "add file cert failed");
        }
    }
}

}  // namespace

int32_t ConfCertGetCaCertList(ConfCaCertEntry *table, uint32_t *count) {
    if (table == nullptr || count == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "invalid params!");
        return -1;
    }
    char directory[kCertPathSize] = {};
    if (ConfCertGetCaPath(directory, sizeof(directory)) != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfCertGetCaPath error.");
        return -1;
    }
    const int32_t listed = listCaFiles(__func__, directory, table);
    if (listed < 0) {
        return -1;
    }
    *count = static_cast<uint32_t>(listed);
    CONF_LOG(CONF_LOG_INFO, "CA file number:%u", *count);
    return 0;
}

void ConfCertLoadOneCaCert(SSL_CTX *ctx, const char *path, uint32_t fileType) {
    const ForgivenErrors forgiven;
    if (SSL_CTX_load_cacertificate_file(ctx, path, fileType) != 1) {
        CONF_LOG(CONF_LOG_ERROR, "load ca file fail!");
    }
}

int32_t ConfCertLoadAllCaCert(SSL_CTX *ctx, const ConfCaCertEntry *table, uint32_t count) {
    if (table == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "invalid params!");
        return -1;
    }
    for (uint32_t i = 0; i < count; i++) {
        ConfCertLoadOneCaCert(ctx, table[i].path, table[i].fileType);
    }
    return 0;
}

int32_t ConfAddCancelCrlToSslctx(SSL_CTX *ctx) {
    if (ctx == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "para err");
        return 1;
    }
    char crlPath[kCertPathSize] = {};
    if (CallServiceIsForbiddenKitCap() != 0) {
        (void)strcpy_s(crlPath, sizeof(crlPath), kFixedAddressCaPath);
    } else {
        /* Without the service's answer the walk goes over a directory without a name. */
        (void)ConfCertGetCrlPath(crlPath, sizeof(crlPath));
    }
    CONF_LOG(CONF_LOG_ERROR, "crlPath %s", crlPath);
    char directory[kCertPathSize] = {};
    (void)sprintf_s(directory, sizeof(directory), "%s%s", crlPath, "\\");
    DirectoryWalk walk(directory);
    if (!walk.opened()) {
        CONF_LOG(CONF_LOG_ERROR, "OpenDir error");
        return 1;
    }
    const ForgivenErrors forgiven;
    addCrls(__func__, ctx, &walk, directory);
    return 0;
}

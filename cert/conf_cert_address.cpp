/* The address CA directory: CA certificates and revocation lists where OpenSSL looks them up by
 * hash. */
#include <openssl/pem.h>

#include <cerrno>
#include <mutex>

#include "cert/cert_table.h"
#include "cert/directory_walk.h"
#include "cert/pem_file.h"
#include "common/log.h"
#include "config/config_switches.h"
#include "include/conf_cert.h"
#include "include/conf_mask_keyword.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_om_cust_util.h"

namespace {

constexpr const char *kUnit = kCertUnit;

constexpr char kSeparator[] = "\\";
constexpr char kCertificateSuffix[] = ".0";
constexpr char kCrlSuffix[] = ".r0";

/* A directory with a separator at its end, or a file. */
struct CertPath {
    char text[kCertPathSize];
};

/* Guards the copy alone. */
constinit std::mutex addressLock;
constinit CertPath addressDirectory = {};

/* Refreshes take turns with the files: the one that ends last has read every source after the others,
 * so that what an earlier one read never replaces anything newer. Nothing is asked of the certificate
 * service, nor of the switches, while it is held. */
constinit std::mutex refreshLock;

CertPath currentAddress() {
    const std::lock_guard guard(addressLock);
    return addressDirectory;
}

struct RefreshPaths {
    CertPath address, caSource, crlSource;
};

/* Puts a file's path together; false when it does not fit. */
bool joinPath(CertPath *path, const char *directory, const char *name) {
    return sprintf_s(path->text, sizeof(path->text), "%s%s", directory, name) >= 0;
}

void recordCode(const char *function, int code) {
    ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "conf secure func failed, err = %d!\n",
                  code);
}

/* Copies a file; a failure is recorded under the caller's name. */
void copyFile(const char *function, const CertPath &source, const CertPath &target) {
    const int32_t result = OsCopyFile(source.text, target.text);
    if (result != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "copy error[%d].errno[%d]", result,
                      errno);
    }
}

/* ---- directories ---- */

void ConfCertRemoveDirFile(const char *dir) {
    if (dir[0] == '\0') {
        CONF_LOG(CONF_LOG_ERROR, "path is null!");
        return;
    }
    DirectoryWalk walk(dir);
    if (!walk.opened()) {
        char masked[kCertPathSize] = {};
        (void)ConfFilterStr(dir, masked, sizeof(masked));
        CONF_LOG(CONF_LOG_ERROR, "%s is empty.", masked);
        return;
    }
    while (const char *name = walk.next()) {
        CertPath path = {};
        if (!joinPath(&path, dir, name)) {
            CONF_LOG(CONF_LOG_ERROR, "sprintf fail!");
            continue;
        }
        (void)OsRemove(path.text);
    }
}

void ConfCertCopyDirFile(const char *srcDir, const char *address) {
    if (srcDir[0] == '\0' || address[0] == '\0') {
        CONF_LOG(CONF_LOG_ERROR, "path is null!");
        return;
    }
    DirectoryWalk walk(srcDir);
    if (!walk.opened()) {
        CONF_LOG(CONF_LOG_ERROR, "%s is empty.", srcDir);
        return;
    }
    while (const char *name = walk.next()) {
        CertPath source = {};
        CertPath target = {};
        if (!joinPath(&source, srcDir, name) || !joinPath(&target, address, name)) {
            CONF_LOG(CONF_LOG_ERROR, "sprintf fail!");
            continue;
        }
        copyFile(__func__, source, target);
    }
}

/* ---- hashed copies ---- */

bool joinHash(CertPath *path, const char *dir, unsigned long hash, const char *suffix) {
    return sprintf_s(path->text, sizeof(path->text), "%s%08lx%s", dir, hash, suffix) >= 0;
}

void ConfCertCreateCertSoftLink(const char *dir, const char *name) {
    CertPath source = {};
    if (!joinPath(&source, dir, name)) {
        return;
    }
    BioOwner opened = openPemFile(source.text);
    if (opened == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "BIO_new_file err.");
        return;
    }
    CertificateOwner certificate(PEM_read_bio_X509(opened.get(), nullptr, nullptr, noPassPhrase()));
    if (certificate == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "PEM_read_bio_X509 err.");
        return;
    }
    opened.reset();
    const unsigned long hash = X509_subject_name_hash(certificate.get());
    certificate.reset();
    CertPath target = {};
    if (joinHash(&target, dir, hash, kCertificateSuffix)) {
        copyFile(__func__, source, target);
    }
}

void ConfCertCreateCrlSoftLink(const char *dir, const char *name) {
    if (name == nullptr || name[0] == '\0' || dir[0] == '\0') {
        CONF_LOG(CONF_LOG_ERROR, "path is null!");
        return;
    }
    CertPath source = {};
    if (!joinPath(&source, dir, name)) {
        CONF_LOG(CONF_LOG_ERROR, "sprintf fail!");
        return;
    }
    BioOwner opened = openPemFile(source.text);
    if (opened == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "open file failed");
        return;
    }
    CrlOwner list(PEM_read_bio_X509_CRL(opened.get(), nullptr, nullptr, noPassPhrase()));
    if (list == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "d2i_X509 failed");
        return;
    }
    opened.reset();
    const unsigned long hash =
        X509_NAME_hash_ex(X509_CRL_get_issuer(list.get()), nullptr, nullptr, nullptr);
    list.reset();
    CertPath target = {};
    if (!joinHash(&target, dir, hash, kCrlSuffix)) {
        CONF_LOG(CONF_LOG_ERROR, "sprintf fail!");
        return;
    }
    copyFile(__func__, source, target);
}

/* The copies appear in the directory while it is walked; none of their names is one to process. */
void makeHashedCopies(const char *dir) {
    if (dir[0] == '\0') {
        return;
    }
    DirectoryWalk walk(dir);
    if (!walk.opened()) {
        return;
    }
    const ForgivenErrors forgiven;
    while (const char *name = walk.next()) {
        if (!containsEither(name, ".pem", ".PEM")) {
            continue;
        }
        if (containsEither(name, "crl", "CRL")) {
            ConfCertCreateCrlSoftLink(dir, name);
        } else {
            ConfCertCreateCertSoftLink(dir, name);
        }
    }
}

/* ---- layouts ---- */

void setFixedPath(const char *function, CertPath *path, const char *text) {
    const int error = strcpy_s(path->text, sizeof(path->text), text);
    if (error != 0) {
        recordCode(function, error);
    }
}

void takeFixedLayout(const char *function, RefreshPaths *paths) {
    setFixedPath(function, &paths->address, kFixedAddressCaPath);
    setFixedPath(function, &paths->caSource, kFixedCaPath);
    setFixedPath(function, &paths->crlSource, kFixedCrlPath);
}

/* Stores a directory with a separator behind it; false, with a record, when it does not fit. */
bool endDirectory(const char *function, CertPath *path, const char *directory) {
    const int length = sprintf_s(path->text, sizeof(path->text), "%s%s", directory, kSeparator);
    if (length < 0) {
        recordCode(function, length);
    }
    return length >= 0;
}

/* Without a storage path, or one that does not fit, the address CA directory stays where it was. */
void takeStoragePath(const char *function, RefreshPaths *paths) {
    const char *storage = TamoOmCustUtilGetStoragePath();
    if (storage == nullptr || storage[0] == '\0') {
        return;
    }
    CertPath directory = {};
    CertPath ended = {};
    const int error = strcpy_s(directory.text, sizeof(directory.text), storage);
    if (error != 0) {
        recordCode(function, error);
    } else if (endDirectory(function, &ended, directory.text)) {
        paths->address = ended;
    }
}

void takeServiceLayout(const char *function, RefreshPaths *paths) {
    takeStoragePath(function, paths);
    CertPath directory = {};
    if (ConfCertGetCaPath(directory.text, sizeof(directory.text)) == 0) {
        (void)endDirectory(function, &paths->caSource, directory.text);
    } else {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "ConfCertGetCaPath error.");
    }
    if (ConfCertGetCrlPath(directory.text, sizeof(directory.text)) == 0) {
        (void)endDirectory(function, &paths->crlSource, directory.text);
    } else {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "ConfCertGetCrlPath error.");
    }
}

}  // namespace

void ConfCertUpdateLdapCert() {
    RefreshPaths paths = {currentAddress(), {}, {}};
    const bool fixed = CallServiceIsForbiddenKitCap() != 0;
    if (fixed) {
        takeFixedLayout(__func__, &paths);
    } else {
        takeServiceLayout(__func__, &paths);
    }
    {
        const std::lock_guard guard(addressLock);
        addressDirectory = paths.address;
    }
    const std::lock_guard turn(refreshLock);
    if (fixed) {
        ConfCertRemoveDirFile(paths.address.text);
    }
    ConfCertCopyDirFile(paths.caSource.text, paths.address.text);
    ConfCertCopyDirFile(paths.crlSource.text, paths.address.text);
    makeHashedCopies(paths.address.text);
}

void ConfCertGetAddrCaPath(char *dst) {
    const CertPath path = currentAddress();
    const int error = memcpy_s(dst, kCertPathSize, path.text, sizeof(path.text));
    if (error != 0) {
        CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
    }
}

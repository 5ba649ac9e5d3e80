/* libtamo_om_cert_client: queries. How the room works is told in notify.h. */
#include "tamo_om_cert_client.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "host/base/device_root.h"
#include "host/base/log.h"
#include "host/certificates/engine_file.h"
#include "host/certificates/key.h"
#include "host/certificates/notify.h"
#include "host/certificates/store.h"
#include "host/certificates/version.h"
#include "tamo_host.h"

namespace {

using namespace tamo::certificates;

constexpr const char *kUnit = "tamo_om_cert_client";
constexpr uint32_t kMaxContents = kMaxCertSize;

int32_t refuse(int line, const char *why) {
    tamo::hostRecord(tamo::kError, kUnit, line, "%s", why);
    return TAMO_HOST_INVALID;
}

int32_t fileFailure(int line, const CertVersion &version, const char *name, int error) {
    const char *advice = error == EFBIG || error == EMSGSIZE
                             ? "it is larger than can be: install a smaller one"
                             : strerror(error);
    tamo::hostRecord(tamo::kError, kUnit, line, "%s/%s cannot be read: %s", version.path, name,
                     advice);
    return error == EFBIG || error == EMSGSIZE ? TAMO_HOST_TOO_LARGE
           : error == ENOENT                   ? TAMO_HOST_NOT_FOUND
                                               : TAMO_HOST_SYSTEM;
}

/* The size of a file; one that may be missing then has none. */
int32_t sizeOf(const CertVersion &version, const char *name, bool mayMiss, uint32_t *size) {
    struct stat status;
    *size = 0;
    if (fstatat(version.directory.get(), name, &status, 0) != 0) {
        return mayMiss && errno == ENOENT ? int32_t{TAMO_HOST_OK}
                                          : fileFailure(__LINE__, version, name, errno);
    }
    if (!S_ISREG(status.st_mode) || status.st_size > off_t{kMaxContents}) {
        return fileFailure(__LINE__, version, name, S_ISREG(status.st_mode) ? EFBIG : EINVAL);
    }
    *size = static_cast<uint32_t>(status.st_size);
    return TAMO_HOST_OK;
}

/* Reads a file into a buffer of the caller's. */
int32_t readInto(const CertVersion &version, const char *name, uint8_t *data, uint32_t room,
                 uint32_t *length) {
    SecretFile content;
    int error = readSecretFile(version.directory.get(), name, &content);
    if (error == 0 && (data == nullptr || content.size > room)) {
        error = EMSGSIZE;
    }
    if (error != 0) {
        return fileFailure(__LINE__, version, name, error);
    }
    memcpy(data, content.data, content.size);
    *length = static_cast<uint32_t>(content.size);
    return TAMO_HOST_OK;
}

/* A reader of an encrypted file without a pass phrase would ask a person at the terminal for it, and
 * stand still: such a file is not given out. */
bool opensUnasked(const CertVersion &version, const char *name, const char *phrase) {
    SecretFile content;
    if (phrase[0] != '\0' || readSecretFile(version.directory.get(), name, &content) != 0 ||
        !isEncrypted({content.data, content.size})) {
        return true;
    }
    tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                     "%s/%s is encrypted, and there is no pass phrase: install the certificate "
                     "again with --passphrase, or write the pass phrase into the file %s beside it",
                     version.path, name, kPassphraseFile);
    return false;
}

int32_t describeServer(uint32_t certId, ConfCertPathInfo *info) {
    CertVersion version;
    const uint32_t code = openCertVersion(certId, &version);
    if (code != TAMO_HOST_OK) {
        return static_cast<int32_t>(code);
    }
    if (!hasFile(version, kChainFile)) {
        return fileFailure(__LINE__, version, kChainFile, ENOENT);
    }
    (void)snprintf(info->certPath, sizeof(info->certPath), "%s/%s", version.path, kChainFile);
    if (!opensUnasked(version, kChainFile, "")) {
        memset(info, 0, sizeof(*info));
        return TAMO_HOST_REFUSED;
    }
    if (hasFile(version, kEngineKeyFile) || !hasFile(version, kKeyFile)) {
        return TAMO_HOST_OK;
    }
    Passphrase phrase;
    const int error = readPassphrase(version.directory.get(), kPassphraseFile, &phrase);
    if (error != 0) {
        memset(info, 0, sizeof(*info));
        return fileFailure(__LINE__, version, kPassphraseFile, error);
    }
    if (!opensUnasked(version, kKeyFile, phrase.text)) {
        memset(info, 0, sizeof(*info));
        return TAMO_HOST_REFUSED;
    }
    (void)snprintf(info->keyPath, sizeof(info->keyPath), "%s/%s", version.path, kKeyFile);
    static_assert(sizeof(info->keyPassword) == sizeof(phrase.text));
    memcpy(info->keyPassword, phrase.text, sizeof(phrase.text));
    return TAMO_HOST_OK;
}

}  // namespace

int32_t TamoOmCertClientInit(void *) {
    uint32_t code = makeCertDirectories();
    if (code == TAMO_HOST_OK) {
        joinUsers();
        code = placeEngine();
    }
    return static_cast<int32_t>(code);
}

int32_t TamoOmCertNotifyCallback(ConfOmCertHandler handler) {
    return static_cast<int32_t>(setCertHandler(handler));
}

int32_t TamoOmCertGetCertPath(uint32_t kind, uint32_t, uint32_t certId, ConfCertPathInfo *info) {
    if (info == nullptr || kind > OM_CERT_PATH_CRL) {
        return refuse(__LINE__, "a path is asked for without a record, or of no kind there is");
    }
    memset(info, 0, sizeof(*info));
    if (kind == OM_CERT_PATH_SERVER) {
        return describeServer(certId, info);
    }
    if (tamo::deviceRoot() == nullptr) {
        return TAMO_HOST_NO_ROOT;
    }
    (void)snprintf(info->certPath, sizeof(info->certPath), "%s",
                   kind == OM_CERT_PATH_CA ? kCaDirectory : kCrlDirectory);
    return TAMO_HOST_OK;
}

int32_t TamoOmCertGetExpectedSrvCertSize(uint32_t certId, ConfCertSizes *sizes) {
    if (sizes == nullptr) {
        return refuse(__LINE__, "a certificate's size is asked for without a record");
    }
    memset(sizes, 0, sizeof(*sizes));
    CertVersion version;
    const uint32_t code = openCertVersion(certId, &version);
    if (code != TAMO_HOST_OK) {
        return static_cast<int32_t>(code);
    }
    int32_t result = sizeOf(version, kChainFile, false, &sizes->certificate);
    if (result == TAMO_HOST_OK && hasTwoParts(certId)) {
        result = sizeOf(version, kExtraFile, true, &sizes->extra);
    }
    return result;
}

int32_t TamoOmCertGetServiceCert(uint32_t certId, ConfCertContent *content) {
    if (content == nullptr || content->certData == nullptr) {
        return refuse(__LINE__, "a certificate's contents are asked for without a buffer");
    }
    CertVersion version;
    const uint32_t code = openCertVersion(certId, &version);
    if (code != TAMO_HOST_OK) {
        return static_cast<int32_t>(code);
    }
    int32_t result =
        readInto(version, kChainFile, content->certData, kMaxContents, &content->certLen);
    if (result != TAMO_HOST_OK || !hasTwoParts(certId)) {
        return result;
    }
    if (!hasFile(version, kExtraFile)) {
        content->extraLen = 0;
        return TAMO_HOST_OK;
    }
    return readInto(version, kExtraFile, content->extraData, content->extraLen, &content->extraLen);
}

int32_t TamoOmCertGetCertId(const ConfCertIdBuffer *contents, ConfCertIdBuffer *identifier) {
    if (contents == nullptr || contents->data == nullptr || contents->length > kMaxContents ||
        identifier == nullptr || identifier->data == nullptr ||
        identifier->length <= KeyIdentifier::kLength) {
        return refuse(__LINE__, "a key identifier is asked for without contents or a buffer");
    }
    const ForgivenErrors forgiven;
    const BioOwner pem(BIO_new_mem_buf(contents->data, static_cast<int>(contents->length)));
    const CertificateOwner own(pem == nullptr ? nullptr : readCertificate(pem.get()));
    KeyIdentifier found;
    if (own == nullptr || !identifyKey(X509_get0_pubkey(own.get()), &found)) {
        return refuse(__LINE__,
                      "a certificate's contents have no key identifier: they hold no certificate "
                      "in PEM; install it again with tamoctl cert install");
    }
    showToldVersion();
    memcpy(identifier->data, found.text, sizeof(found.text));
    identifier->length = KeyIdentifier::kLength;
    return TAMO_HOST_OK;
}

int32_t TamoOmCertGetCapability(uint8_t *capabilities10) {
    if (capabilities10 == nullptr) {
        return refuse(__LINE__, "capabilities are asked for without a buffer");
    }
    if (tamo::rootDirectory("data") < 0) {
        return TAMO_HOST_NO_ROOT;
    }
    for (uint32_t index = 0; index < kCertIds; index++) {
        capabilities10[index] = isEngineKept(kFirstCertId + index) ? 1 : 0;
    }
    return TAMO_HOST_OK;
}

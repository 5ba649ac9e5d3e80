/* libtamo_om_cert_client: queries. What the service keeps, and where, is in cert_layout.h. */
#include "tamo_om_cert_client.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <iterator>

#include "host/base/device_root.h"
#include "host/base/log.h"
#include "host/certificates/key.h"
#include "host/certificates/notify.h"
#include "host/certificates/version.h"
#include "tamo_host.h"

namespace {

constexpr const char *kUnit = "tamo_om_cert_client";
constexpr uint32_t kMaxContents = tamo::kMaxCertSize;

int32_t refuse(int line, const char *why) {
    tamo::hostRecord(tamo::kError, kUnit, line, "%s", why);
    return TAMO_HOST_INVALID;
}

int32_t fileFailure(int line, const tamo::CertVersion &version, const char *name, int error) {
    const char *advice = error == EFBIG || error == EMSGSIZE
                             ? "it is larger than can be: install a smaller one"
                             : strerror(error);
    tamo::hostRecord(tamo::kError, kUnit, line, "%s/%s cannot be read: %s", version.path, name,
                     advice);
    return error == EFBIG || error == EMSGSIZE ? TAMO_HOST_TOO_LARGE
           : error == ENOENT                   ? TAMO_HOST_NOT_FOUND
                                               : TAMO_HOST_SYSTEM;
}

bool hasTwoParts(uint32_t certId) {
    return std::find(std::begin(tamo::kTwoPartIds), std::end(tamo::kTwoPartIds), certId) !=
           std::end(tamo::kTwoPartIds);
}

/* The size of a file; one that may be missing then has none. */
int32_t sizeOf(const tamo::CertVersion &version, const char *name, bool mayMiss, uint32_t *size) {
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
int32_t readInto(const tamo::CertVersion &version, const char *name, uint8_t *data, uint32_t room,
                 uint32_t *length) {
    tamo::SecretFile content;
    int error = tamo::readSecretFile(version.directory.get(), name, &content);
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

int32_t describeServer(uint32_t certId, ConfCertPathInfo *info) {
    tamo::CertVersion version;
    const uint32_t code = tamo::openCertVersion(certId, &version);
    if (code != TAMO_HOST_OK) {
        return static_cast<int32_t>(code);
    }
    if (!tamo::hasFile(version, tamo::kChainFile)) {
        return fileFailure(__LINE__, version, tamo::kChainFile, ENOENT);
    }
    (void)snprintf(info->certPath, sizeof(info->certPath), "%s/%s", version.path, tamo::kChainFile);
    if (tamo::isEngineKept(version) || !tamo::hasFile(version, tamo::kKeyFile)) {
        return TAMO_HOST_OK;
    }
    tamo::Passphrase phrase;
    const int error = tamo::readPassphrase(version.directory.get(), tamo::kPassphraseFile, &phrase);
    if (error != 0) {
        memset(info, 0, sizeof(*info));
        return fileFailure(__LINE__, version, tamo::kPassphraseFile, error);
    }
    (void)snprintf(info->keyPath, sizeof(info->keyPath), "%s/%s", version.path, tamo::kKeyFile);
    static_assert(sizeof(info->keyPassword) == sizeof(phrase.text));
    memcpy(info->keyPassword, phrase.text, sizeof(phrase.text));
    return TAMO_HOST_OK;
}

}  // namespace

int32_t TamoOmCertClientInit(void *) {
    uint32_t code = tamo::makeCertDirectories();
    if (code == TAMO_HOST_OK) {
        code = tamo::placeEngine();
    }
    return static_cast<int32_t>(code);
}

int32_t TamoOmCertNotifyCallback(ConfOmCertHandler handler) {
    return static_cast<int32_t>(tamo::setCertHandler(handler));
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
                   kind == OM_CERT_PATH_CA ? tamo::kCaDirectory : tamo::kCrlDirectory);
    return TAMO_HOST_OK;
}

int32_t TamoOmCertGetExpectedSrvCertSize(uint32_t certId, ConfCertSizes *sizes) {
    if (sizes == nullptr) {
        return refuse(__LINE__, "a certificate's size is asked for without a record");
    }
    memset(sizes, 0, sizeof(*sizes));
    tamo::CertVersion version;
    const uint32_t code = tamo::openCertVersion(certId, &version);
    if (code != TAMO_HOST_OK) {
        return static_cast<int32_t>(code);
    }
    int32_t result = sizeOf(version, tamo::kChainFile, false, &sizes->certificate);
    if (result == TAMO_HOST_OK && hasTwoParts(certId)) {
        result = sizeOf(version, tamo::kExtraFile, true, &sizes->extra);
    }
    return result;
}

int32_t TamoOmCertGetServiceCert(uint32_t certId, ConfCertContent *content) {
    if (content == nullptr || content->certData == nullptr) {
        return refuse(__LINE__, "a certificate's contents are asked for without a buffer");
    }
    tamo::CertVersion version;
    const uint32_t code = tamo::openCertVersion(certId, &version);
    if (code != TAMO_HOST_OK) {
        return static_cast<int32_t>(code);
    }
    int32_t result =
        readInto(version, tamo::kChainFile, content->certData, kMaxContents, &content->certLen);
    if (result != TAMO_HOST_OK || !hasTwoParts(certId)) {
        return result;
    }
    if (!tamo::hasFile(version, tamo::kExtraFile)) {
        content->extraLen = 0;
        return TAMO_HOST_OK;
    }
    return readInto(version, tamo::kExtraFile, content->extraData, content->extraLen,
                    &content->extraLen);
}

int32_t TamoOmCertGetCertId(const ConfCertIdBuffer *contents, ConfCertIdBuffer *identifier) {
    if (contents == nullptr || contents->data == nullptr || contents->length > kMaxContents ||
        identifier == nullptr || identifier->data == nullptr ||
        identifier->length <= tamo::KeyIdentifier::kLength) {
        return refuse(__LINE__, "a key identifier is asked for without contents or a buffer");
    }
    const tamo::QuietErrors quiet;
    const tamo::BioOwner pem(BIO_new_mem_buf(contents->data, static_cast<int>(contents->length)));
    const tamo::CertificateOwner own(
        pem == nullptr ? nullptr : PEM_read_bio_X509(pem.get(), nullptr, nullptr, nullptr));
    tamo::KeyIdentifier found;
    if (own == nullptr || !tamo::identifyKey(X509_get0_pubkey(own.get()), &found)) {
        return refuse(__LINE__,
                      "a certificate's contents have no key identifier: they are no certificate in "
                      "PEM; install it again with tamoctl cert install");
    }
    memcpy(identifier->data, found.text, sizeof(found.text));
    identifier->length = tamo::KeyIdentifier::kLength;
    return TAMO_HOST_OK;
}

int32_t TamoOmCertGetCapability(uint8_t *capabilities10) {
    if (capabilities10 == nullptr) {
        return refuse(__LINE__, "capabilities are asked for without a buffer");
    }
    const int data = tamo::rootDirectory("data");
    if (data < 0) {
        return TAMO_HOST_NO_ROOT;
    }
    for (uint32_t index = 0; index < tamo::kCertIds; index++) {
        char place[96];
        (void)snprintf(place, sizeof(place), "%s/%u/%s",
                       tamo::kServerDirectory + sizeof("/data/") - 1, tamo::kFirstCertId + index,
                       tamo::kEngineKeyFile);
        capabilities10[index] = faccessat(data, place, F_OK, 0) == 0 ? 1 : 0;
    }
    return TAMO_HOST_OK;
}

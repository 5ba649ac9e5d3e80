/* The certificate table, its updates, and the application's callbacks. */
#include <openssl/crypto.h>

#include <algorithm>
#include <atomic>

#include "cert/cert_table.h"
#include "cert/published_record.h"
#include "common/log.h"
#include "common/platform_block.h"
#include "config/config_switches.h"
#include "include/conf_cert.h"
#include "platform/bounds_checked.h"

namespace {

constexpr const char *kUnit = kCertUnit;

constexpr uint32_t kMostCertificateBytes = 1U << 20;
constexpr size_t kCertificateBufferSize = kMostCertificateBytes + 1;

constexpr ConfCertRecord kRows[] = {{0, 263, 6}, {1, 265, 8}, {2, 259, 2}, {3, 260, 3}};
constexpr size_t kRowCount = sizeof(kRows) / sizeof(kRows[0]);

constinit PublishedRecord<ConfCertKey> keys[kRowCount];

/* The application's callbacks, and whether a change of type 0 waits for the first one. */
constinit std::atomic<ConfCertChangeCallback> changeCallback{nullptr};
constinit std::atomic<ConfCaCertUpdateCallback> caUpdateCallback{nullptr};
constinit std::atomic<uint8_t> changePending{0};

/* A certificate's contents in the platform's blocks. */
struct FetchedCertificate {
    FetchedCertificate() = default;
    FetchedCertificate(const FetchedCertificate &) = delete;
    FetchedCertificate &operator=(const FetchedCertificate &) = delete;
    ~FetchedCertificate() {
        /* Nobody says what the second part holds: it might be a key. */
        OPENSSL_cleanse(extra.get(), extra == nullptr ? 0 : extraSize);
    }

    PlatformBlock<uint8_t> extra{nullptr, BlockRelease{kUnit, __LINE__}};
    PlatformBlock<uint8_t> certificate{nullptr, BlockRelease{kUnit, __LINE__}};
    size_t extraSize = 0;
    ConfCertContent content = {};
};

/* ---- an update, step by step ---- */

bool GetCertSize(uint32_t certId, ConfCertSizes *sizes) {
    if (TamoOmCertGetExpectedSrvCertSize(certId, sizes) != 0) {
        CONF_LOG(CONF_LOG_ERROR, "TamoOmCertGetExpectedSrvCertSize ERROR");
        return false;
    }
    CONF_LOG(CONF_LOG_INFO, "cert size = [%u]", sizes->certificate);
    return sizes->certificate != 0 && sizes->certificate <= kMostCertificateBytes;
}

bool takeExtra(uint32_t length, FetchedCertificate *fetched) {
    fetched->extraSize = static_cast<size_t>(length) + 1;
    if (fetched->extraSize != 0) { /* it wraps around with 32-bit sizes */
        fetched->extra = takeBlock<uint8_t>(fetched->extraSize, kUnit);
    }
    fetched->content.extraData = fetched->extra.get();
    fetched->content.extraLen = length;
    return fetched->extra != nullptr;
}

bool ConfCertGetCertSizeAndInfo(uint32_t type, FetchedCertificate *fetched) {
    const uint32_t certId = certIdOf(type);
    if (certId == kNoCertificate) {
        CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", -1);
        return false;
    }
    ConfCertSizes sizes = {};
    if (!GetCertSize(certId, &sizes)) {
        return false;
    }
    fetched->certificate = takeBlock<uint8_t>(kCertificateBufferSize, kUnit);
    if (fetched->certificate == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return false;
    }
    fetched->content.certData = fetched->certificate.get();
    fetched->content.certLen = sizes.certificate;
    if (hasSecondPart(type) && !takeExtra(sizes.extra, fetched)) {
        CONF_LOG(CONF_LOG_INFO, "malloc err!");
        return false;
    }
    if (TamoOmCertGetServiceCert(certId, &fetched->content) != 0) {
        CONF_LOG(CONF_LOG_ERROR, "TamoOmCertGetServiceCert ERROR");
        return false;
    }
    return true;
}

/* `keyId` has room for kKeyIdSize bytes; its length may be said to be more. */
bool GetCertId(const FetchedCertificate &fetched, ConfCertIdBuffer *keyId) {
    const uint32_t length =
        std::min<uint32_t>(fetched.content.certLen, uint32_t{kCertificateBufferSize});
    const ConfCertIdBuffer contents = {fetched.certificate.get(), length};
    if (TamoOmCertGetCertId(&contents, keyId) != 0) {
        CONF_LOG(CONF_LOG_ERROR, "TamoOmCertGetCertId ERROR");
        return false;
    }
    return true;
}

void SetCertInfo(uint32_t type, const uint8_t *keyId, uint32_t length) {
    const ConfCertRecord *row = findCertType(type);
    if (row == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "no such type, [%d]", static_cast<int>(type));
        return;
    }
    ConfCertKey key = {};
    key.keyIdLen = length;
    const int error = memcpy_s(key.keyId, sizeof(key.keyId), keyId, length);
    if (error != 0) {
        CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
    }
    keys[row - kRows].publish(key);
}

/* Tells of a change of type 0, or remembers it. A callback that is registered meanwhile and the change
 * meet in the flag: whoever takes it down tells. */
void tellFirstType() {
    ConfCertChangeCallback callback = changeCallback.load();
    if (callback == nullptr) {
        changePending.store(1);
        callback = changeCallback.load();
        if (callback == nullptr || changePending.exchange(0) == 0) {
            return;
        }
    }
    callback(0);
}

void tellChange(uint32_t type) {
    if (type == 0) {
        tellFirstType();
    } else if (hasSecondPart(type)) {
        const ConfCertChangeCallback callback = changeCallback.load();
        if (callback != nullptr) {
            callback(1);
        }
    }
}

/* 0 done, 1 failed: then the row keeps the key identifier that it had. */
int32_t ConfCertUpdateCertInfo(uint32_t type) {
    CONF_LOG(CONF_LOG_INFO, "ConfCertUpdateCertInfo enter, type = [%d]", static_cast<int>(type));
    FetchedCertificate fetched;
    if (!ConfCertGetCertSizeAndInfo(type, &fetched)) {
        return 1;
    }
    uint8_t keyId[kKeyIdSize] = {};
    ConfCertIdBuffer identifier = {keyId, sizeof(keyId)};
    if (!GetCertId(fetched, &identifier)) {
        return 1;
    }
    SetCertInfo(type, keyId, identifier.length);
    tellChange(type);
    return 0;
}

void ConfCertGetAllCert() {
    for (uint32_t type = 0; type < kRowCount; type++) {
        if (ConfCertUpdateCertInfo(type) != 0) {
            CONF_LOG(CONF_LOG_ERROR, "Failed to load the certificate. type = [%d]",
                     static_cast<int>(type));
        }
    }
}

/* ---- notifications ---- */

uint32_t typeOfCertificate(uint32_t certId) {
    for (const ConfCertRecord &row : kRows) {
        if (row.certId == certId) {
            return row.type;
        }
    }
    return kNoCertType;
}

void tellCaUpdate(uint32_t msgId, uint32_t certId) {
    if (CallServiceIsForbiddenKitCap() != 0) {
        return;
    }
    const ConfCaCertUpdateCallback callback = caUpdateCallback.load();
    if (callback != nullptr) {
        callback(msgId, certId);
    }
}

/* The handler of the service's notifications. */
void ConfOmCertCallback(uint32_t msgId, uint32_t certId) {
    CONF_LOG(CONF_LOG_INFO, "ConfOmCertCallback enter, msgId = %u", msgId);
    switch (msgId) {
        case OM_CERT_MSG_SERVER:
            (void)ConfCertUpdateCertInfo(typeOfCertificate(certId));
            break;
        case OM_CERT_MSG_CA:
            ConfCertUpdateLdapCert();
            tellCaUpdate(msgId, certId);
            break;
        case OM_CERT_MSG_CRL:
            ConfCertUpdateLdapCert();
            break;
        default:
            break;
    }
}

}  // namespace

const ConfCertRecord *findCertType(uint32_t type) {
    for (const ConfCertRecord &row : kRows) {
        if (row.type == type) {
            return &row;
        }
    }
    return nullptr;
}

uint32_t certIdOf(uint32_t type) {
    const ConfCertRecord *row = findCertType(type);
    return row == nullptr ? kNoCertificate : row->certId;
}

ConfCertKey keyOf(const ConfCertRecord &row) {
    return keys[&row - kRows].read();
}

void ConfCertInit(void *argument) {
    CONF_LOG(CONF_LOG_INFO, "TamoOmCertClientInit enter");
    if (TamoOmCertClientInit(argument) != 0) {
        CONF_LOG(CONF_LOG_ERROR, "TamoOmCertClientInit ERROR");
    }
    TamoOmCertNotifyCallback(ConfOmCertCallback);
    ConfCertGetAllCert();
    ConfCertUpdateLdapCert();
}

void ConfCertNotifyCallback(ConfCertChangeCallback callback) {
    CONF_LOG(CONF_LOG_ERROR, "Conf register certchange callback, Flag:%u.",
             unsigned{changePending.load()});
    changeCallback.store(callback);
    if (callback != nullptr && changePending.exchange(0) != 0) {
        callback(0);
    }
}

void ConfCertUpdateNotifyCallback(ConfCaCertUpdateCallback callback) {
    CONF_LOG(CONF_LOG_INFO, "Conf register ca cert update callback.");
    caUpdateCallback.store(callback);
}

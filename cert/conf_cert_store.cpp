/* The certificate table, its updates, and the application's callbacks. */
#include <openssl/crypto.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

#include "cert/cert_table.h"
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

/* What changes of a row. */
struct RowState {
    ConfCertKey key;
    uint32_t stored;   /* identifiers that the row has had */
    uint32_t onTheWay; /* updates between the service's answer and the table */
};

/* Held while a row is copied, and for nothing else. */
constinit std::mutex tableLock;
constinit RowState states[kRowCount] = {};

/* Who asks for a certificate's contents: the start, or a notification, which is never older. */
enum class Asker { kStart, kNotification };

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

/* The row of a type while a new identifier is fetched for it. */
class IdentifierOnTheWay {
  public:
    explicit IdentifierOnTheWay(RowState *state) : state_(state) {
        if (state_ != nullptr) {
            const std::lock_guard guard(tableLock);
            state_->onTheWay++;
        }
    }
    ~IdentifierOnTheWay() {
        if (state_ != nullptr) {
            const std::lock_guard guard(tableLock);
            state_->onTheWay--;
        }
    }
    IdentifierOnTheWay(const IdentifierOnTheWay &) = delete;
    IdentifierOnTheWay &operator=(const IdentifierOnTheWay &) = delete;

  private:
    RowState *state_;
};

RowState *stateOf(uint32_t type) {
    const ConfCertRecord *row = findCertType(type);
    return row == nullptr ? nullptr : &states[row - kRows];
}

uint32_t storedSoFar(uint32_t type) {
    const RowState *state = stateOf(type);
    const std::lock_guard guard(tableLock);
    return state == nullptr ? 0 : state->stored;
}

/* Another identifier that came after `storedBefore` stays in place of one that the start asked for: a
 * notification brought it. */
void SetCertInfo(uint32_t type, const ConfCertIdBuffer &identifier, Asker asker,
                 uint32_t storedBefore) {
    RowState *state = stateOf(type);
    if (state == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "no such type, [%d]", static_cast<int>(type));
        return;
    }
    ConfCertKey key = {};
    key.keyIdLen = identifier.length;
    const int error = memcpy_s(key.keyId, sizeof(key.keyId), identifier.data, identifier.length);
    if (error != 0) {
        CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
    }
    const std::lock_guard guard(tableLock);
    if (asker == Asker::kNotification || state->stored == storedBefore) {
        state->key = key;
        state->stored++;
    }
}

/* Tells of a change of type 0, or remembers it. A callback that is registered meanwhile and the
 * change meet in the flag: whoever takes it down tells. */
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

/* Fetches a certificate's identifier into the table. */
bool updateIdentifier(uint32_t type, Asker asker, FetchedCertificate *fetched) {
    const uint32_t storedBefore = storedSoFar(type);
    if (!ConfCertGetCertSizeAndInfo(type, fetched)) {
        return false;
    }
    uint8_t keyId[kKeyIdSize] = {};
    ConfCertIdBuffer identifier = {keyId, sizeof(keyId)};
    const IdentifierOnTheWay onTheWay(stateOf(type));
    if (!GetCertId(*fetched, &identifier)) {
        return false;
    }
    SetCertInfo(type, identifier, asker, storedBefore);
    return true;
}

/* 0 done, 1 failed: then the row keeps the key identifier that it had. */
int32_t ConfCertUpdateCertInfo(uint32_t type, Asker asker) {
    CONF_LOG(CONF_LOG_INFO, "ConfCertUpdateCertInfo enter, type = [%d]", static_cast<int>(type));
    FetchedCertificate fetched;
    if (!updateIdentifier(type, asker, &fetched)) {
        return 1;
    }
    tellChange(type);
    return 0;
}

void ConfCertGetAllCert() {
    for (uint32_t type = 0; type < kRowCount; type++) {
        if (ConfCertUpdateCertInfo(type, Asker::kStart) != 0) {
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
            (void)ConfCertUpdateCertInfo(typeOfCertificate(certId), Asker::kNotification);
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
    const std::lock_guard guard(tableLock);
    return states[&row - kRows].key;
}

uint32_t identifiersSoFar(uint32_t type) {
    const RowState *state = stateOf(type);
    for (;;) {
        {
            const std::lock_guard guard(tableLock);
            if (state == nullptr || state->onTheWay == 0) {
                return state == nullptr ? 0 : state->stored;
            }
        }
        std::this_thread::yield(); /* one question to the service, at most */
    }
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

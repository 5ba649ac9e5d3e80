/* See forwarding_platform.h: settings and accounts. The operations are in platform_operations.cpp.
 */
#include "forwarding_platform.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <ostream>
#include <sstream>

#include "platform_slot.h"

namespace platform {

using detail::Slot;

namespace {

struct Operation {
    std::string name;
    const void *address;
    Slot *slot;
};

#define OPERATIONS                                                                                 \
    memcpy_s, memmove_s, memset_s, strcpy_s, strncpy_s, strcat_s, sprintf_s, sscanf_s,             \
        KIRU_StrLen, KIRU_StrStr, KIRU_StrCmp, KIRU_StriCmp, KIRU_StrToInt32, MOX_UnicodeToUtf8,   \
        KIRU_Inet_Pton, KIRU_InetAddr, MOX_Socket_Get_AF_INET6, GetBestInterfaceEx,                \
        GetAdaptersAddresses, GetBestRoute, GetIpAddrTable, TamoOmConfigInit,                      \
        TamoOmConfigNotifyCallback, TamoOmConfigUnInit, TamoOmConfigcopyStr2Key,                   \
        TamoOmConfigcopyStr2Val, TamoOmConfigsetIntValue, TamoOmConfigsetUintValue,                \
        TamoOmConfigStringGet, TamoOmConfigStringMget, TamoOmConfigStringMset,                     \
        TamoOmConfigStringSet, TamoOmKeymEncrypt, TamoOmDevmNetGetIpv4Block,                       \
        TamoOmDevmNetGetIpv6Block, TamoOmCustUtilGetCfgPath, TamoOmCustUtilGetStoragePath,         \
        TamoOmCertClientInit, TamoOmCertNotifyCallback, TamoOmCertGetCertPath,                     \
        TamoOmCertGetExpectedSrvCertSize, TamoOmCertGetServiceCert, TamoOmCertGetCertId,           \
        TamoOmCertGetCapability, SSL_CTX_load_cacertificate_file, TamoOmLogClientInit,             \
        TamoOmLogClientUnInit, TamoOmLogCreateLog, TamoOmLogModuleLogRecord, OsOpenDir, OsReadDir, \
        OsCloseDir, OsCopyFile, OsRemove, OsFopen, OsFileNativePath, OsReplaceFile, OsFlushFile,   \
        OsMutexInit, OsMutexLock, OsMutexUnLock, OsMutexDestroy, OsMemMallocSetCharMon,            \
        OSMemTypeFreeMon, OsMsgSynSend, OsMsgSynRespFree, OsMsgAsynSend, OsMsgSynSendResp,         \
        OsSigEmptySet, OsSigAddSet, OsPthreadSigmask, OsGetTimeEx, OsGetSysTimeSec,                \
        OsTmrManagerInit, OsTmrCreate, OsTmrDelete
#define TEXT(...) #__VA_ARGS__
#define TEXT_OF(...) TEXT(__VA_ARGS__)

template <auto... Functions>
std::vector<Operation> operationsOf(std::istringstream names) {
    std::vector<Operation> all;
    const auto add = [&](const void *address, Slot *slot) {
        std::string name;
        std::getline(names >> std::ws, name, ',');
        all.push_back({name, address, slot});
    };
    (add(reinterpret_cast<const void *>(Functions), &detail::slotOf<Functions>), ...);
    return all;
}

const std::vector<Operation> &operations() {
    static const auto *all = /* asked for after the end of main too */
        new std::vector(operationsOf<OPERATIONS>(std::istringstream(TEXT_OF(OPERATIONS))));
    return *all;
}

[[noreturn]] void giveUp(const char *what, const char *name) {
    std::fprintf(stderr, "forwarding platform: %s: %s\n", what, name);
    std::abort();
}

template <typename Wanted>
const Operation &find(Wanted Operation::*field, const Wanted &wanted, const char *shown) {
    const auto &all = operations();
    const auto found = std::find_if(all.begin(), all.end(),
                                    [&](const Operation &each) { return each.*field == wanted; });
    if (found == all.end()) {
        giveUp("there is no such operation", shown);
    }
    return *found;
}

Slot &slotNamed(std::string_view name) {
    const std::string text(name);
    return *find(&Operation::name, text, text.c_str()).slot;
}

const Operation &operationAt(const void *address) {
    return find(&Operation::address, address, "by its address");
}

struct Capture {
    std::mutex mutex;
    std::vector<Record> records;
    std::atomic<bool> on{false};
};

Capture &capture() {
    static Capture *instance = new Capture;  // records may be written after the end of main
    return *instance;
}

constinit std::atomic<int64_t> blocks{0};

/* Does the call come from the module that holds the real platform? */
bool comesFromPlatform(const void *caller) {
    static const dl_find_object module = [] {
        dl_find_object found = {};
        _dl_find_object(dlsym(RTLD_NEXT, "OsMemMallocSetCharMon"), &found);
        return found;
    }();
    return caller >= module.dlfo_map_start && caller < module.dlfo_map_end;
}

void forget(Slot &slot) {
    slot.calls = 0;
    slot.failAt = detail::kNever;
    slot.failed = false;
    void *old = slot.replacement.exchange(nullptr);
    if (old != nullptr) {
        slot.releaseReplacement(old);
    }
}

void setFailure(std::string_view operation, uint64_t at) {
    Slot &slot = slotNamed(operation);
    slot.failed = slot.failed && at == detail::kNever;
    slot.failAt = at;
}

}  // namespace

namespace detail {

thread_local int InsidePlatform::depth = 0;

Verdict judge(Slot &slot, const void *caller) {
    if (InsidePlatform::depth > 0 || comesFromPlatform(caller)) {
        return Verdict::kPlatformsOwn;
    }
    const uint64_t number = slot.calls.fetch_add(1, std::memory_order_relaxed) + 1;
    const uint64_t failAt = slot.failAt.load(std::memory_order_relaxed);
    if (failAt == kAlways || failAt == number) {
        slot.failed.store(true, std::memory_order_relaxed);
        return Verdict::kFail;
    }
    const bool replaced = slot.replacement.load(std::memory_order_relaxed) != nullptr;
    return replaced ? Verdict::kReplace : Verdict::kForward;
}

void *resolve(Slot &slot, const void *operation) {
    void *next = slot.next.load(std::memory_order_relaxed);
    if (next == nullptr) {
        const char *name = operationAt(operation).name.c_str();
        next = dlsym(RTLD_NEXT, name);
        if (next == nullptr) {
            giveUp("the platform does not have it", name);
        }
        slot.next.store(next, std::memory_order_relaxed);
    }
    return next;
}

bool captureRecord(uint8_t level, uint16_t logFileId, const char *unit, int32_t line,
                   const char *text) {
    Capture &state = capture();
    if (!state.on.load(std::memory_order_relaxed)) {
        return true;
    }
    const std::lock_guard lock(state.mutex);
    state.records.push_back(Record{level, logFileId, unit != nullptr ? unit : "", line, text});
    return false;
}

void blockTaken() {
    blocks.fetch_add(1, std::memory_order_relaxed);
}

void blockReleased() {
    blocks.fetch_sub(1, std::memory_order_relaxed);
}

void setReplacement(const void *operation, void *function, void (*releaseIt)(void *)) {
    Slot &slot = *operationAt(operation).slot;
    void *old = slot.replacement.exchange(function);
    if (old != nullptr) {
        slot.releaseReplacement(old);
    }
    slot.releaseReplacement = releaseIt;
}

void *nextDefinition(const void *operation) {
    return resolve(*operationAt(operation).slot, operation);
}

}  // namespace detail

void failCall(std::string_view operation, uint64_t n) {
    const uint64_t calls = slotNamed(operation).calls;
    setFailure(operation, n == 0 ? detail::kNever : calls + n);
}

void failEveryCall(std::string_view operation) {
    setFailure(operation, detail::kAlways);
}

bool failureReached(std::string_view operation) {
    return slotNamed(operation).failed;
}

uint64_t callCount(std::string_view operation) {
    return slotNamed(operation).calls;
}

std::ostream &operator<<(std::ostream &out, const Record &record) {
    return out << "level " << int{record.level} << ' ' << record.unit << ':' << record.line << ' '
               << record.text;
}

std::vector<Record> records() {
    const std::lock_guard lock(capture().mutex);
    return capture().records;
}

void clearRecords() {
    const std::lock_guard lock(capture().mutex);
    capture().records.clear();
}

bool hasRecord(uint8_t level, std::string_view unit, std::string_view part) {
    const auto all = records();
    return std::any_of(all.begin(), all.end(), [&](const Record &each) {
        return each.level == level && each.unit == unit &&
               each.text.find(part) != std::string::npos;
    });
}

int64_t outstanding() {
    return blocks;
}

void reset() {
    for (const Operation &each : operations()) {
        forget(*each.slot);
    }
    clearRecords();
    blocks = 0;
    capture().on = true;
}

void release() {
    reset();
    capture().on = false;
}

void PlatformTest::TearDown() {
    if (outstanding() != 0 && !blocksMayStay_) {
        ADD_FAILURE() << "blocks taken and not released: " << outstanding();
    }
    release();
}

}  // namespace platform

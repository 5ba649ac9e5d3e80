/* See forwarding_platform.h: settings and accounts. The operations are in platform_operations.cpp and
 * platform_timers.cpp. */
#include "forwarding_platform.h"

#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <ostream>
#include <span>
#include <sstream>

#include "host/tamo_host.h"
#include "platform_slot.h"

// The report of sites is a workstation's; the account here works with any platform.
extern "C" __attribute__((weak)) decltype(TamoHostMemReport) TamoHostMemReport;

namespace platform {

using detail::Slot;

namespace {

struct Operation {
    const char *name;
    const void *address;
    Slot *slot;
    bool canFail;
};

#define OPERATION(name) \
    { #name, reinterpret_cast < const void *>(&name), &detail::slotOf < &name>, true }
#define INFALLIBLE(name) \
    { #name, reinterpret_cast < const void *>(&name), &detail::slotOf < &name>, false }

std::span<const Operation> operations() {
    static const Operation all[] = {
        OPERATION(memcpy_s),
        OPERATION(memmove_s),
        OPERATION(memset_s),
        OPERATION(strcpy_s),
        OPERATION(strncpy_s),
        OPERATION(strcat_s),
        OPERATION(sprintf_s),
        OPERATION(sscanf_s),
        INFALLIBLE(KIRU_StrLen),
        INFALLIBLE(KIRU_StrStr),
        INFALLIBLE(KIRU_StrCmp),
        INFALLIBLE(KIRU_StriCmp),
        OPERATION(KIRU_StrToInt32),
        OPERATION(MOX_UnicodeToUtf8),
        OPERATION(KIRU_Inet_Pton),
        OPERATION(KIRU_InetAddr),
        INFALLIBLE(MOX_Socket_Get_AF_INET6),
        OPERATION(GetBestInterfaceEx),
        OPERATION(GetAdaptersAddresses),
        OPERATION(GetBestRoute),
        OPERATION(GetIpAddrTable),
        OPERATION(TamoOmConfigInit),
        OPERATION(TamoOmConfigNotifyCallback),
        OPERATION(TamoOmConfigUnInit),
        OPERATION(TamoOmConfigcopyStr2Key),
        OPERATION(TamoOmConfigcopyStr2Val),
        OPERATION(TamoOmConfigsetIntValue),
        OPERATION(TamoOmConfigsetUintValue),
        OPERATION(TamoOmConfigStringGet),
        OPERATION(TamoOmConfigStringMget),
        OPERATION(TamoOmConfigStringMset),
        OPERATION(TamoOmConfigStringSet),
        OPERATION(TamoOmKeymEncrypt),
        OPERATION(TamoOmDevmNetGetIpv4Block),
        OPERATION(TamoOmDevmNetGetIpv6Block),
        OPERATION(TamoOmCustUtilGetCfgPath),
        OPERATION(TamoOmCustUtilGetStoragePath),
        OPERATION(TamoOmCertClientInit),
        OPERATION(TamoOmCertNotifyCallback),
        OPERATION(TamoOmCertGetCertPath),
        OPERATION(TamoOmCertGetExpectedSrvCertSize),
        OPERATION(TamoOmCertGetServiceCert),
        OPERATION(TamoOmCertGetCertId),
        OPERATION(TamoOmCertGetCapability),
        OPERATION(SSL_CTX_load_cacertificate_file),
        OPERATION(TamoOmLogClientInit),
        OPERATION(TamoOmLogClientUnInit),
        OPERATION(TamoOmLogCreateLog),
        OPERATION(TamoOmLogModuleLogRecord),
        OPERATION(OsOpenDir),
        OPERATION(OsReadDir),
        INFALLIBLE(OsCloseDir),
        OPERATION(OsCopyFile),
        OPERATION(OsRemove),
        OPERATION(OsFopen),
        OPERATION(OsFileNativePath),
        OPERATION(OsMutexInit),
        OPERATION(OsMutexLock),
        OPERATION(OsMutexUnLock),
        OPERATION(OsMutexDestroy),
        OPERATION(OsMemMallocSetCharMon),
        OPERATION(OSMemTypeFreeMon),
        OPERATION(OsMsgSynSend),
        OPERATION(OsMsgSynRespFree),
        OPERATION(OsMsgAsynSend),
        OPERATION(OsMsgSynSendResp),
        OPERATION(OsSigEmptySet),
        OPERATION(OsSigAddSet),
        OPERATION(OsPthreadSigmask),
        INFALLIBLE(OsGetTimeEx),
        INFALLIBLE(OsGetSysTimeSec),
        OPERATION(OsTmrManagerInit),
        OPERATION(OsTmrCreate),
        OPERATION(OsTmrDelete),
    };
    return all;
}

[[noreturn]] void giveUp(const char *what, const char *name) {
    std::fprintf(stderr, "forwarding platform: %s: %s\n", what, name);
    std::abort();
}

const Operation &operationNamed(std::string_view name) {
    const auto all = operations();
    const auto found = std::find_if(all.begin(), all.end(),
                                    [&](const Operation &each) { return each.name == name; });
    if (found == all.end()) {
        giveUp("there is no such operation", std::string(name).c_str());
    }
    return *found;
}

const Operation &operationAt(const void *address) {
    const auto all = operations();
    const auto found = std::find_if(all.begin(), all.end(),
                                    [&](const Operation &each) { return each.address == address; });
    if (found == all.end()) {
        giveUp("not the address of an operation", "override");
    }
    return *found;
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

/* The address range of the module that holds `inside`. */
struct Module {
    uintptr_t inside, begin, end;
};

int findModule(dl_phdr_info *info, size_t, void *context) {
    auto *module = static_cast<Module *>(context);
    uintptr_t begin = UINTPTR_MAX;
    uintptr_t end = 0;
    for (const auto &header : std::span(info->dlpi_phdr, info->dlpi_phnum)) {
        if (header.p_type == PT_LOAD) {
            begin = std::min<uintptr_t>(begin, info->dlpi_addr + header.p_vaddr);
            end = std::max<uintptr_t>(end, info->dlpi_addr + header.p_vaddr + header.p_memsz);
        }
    }
    if (module->inside < begin || module->inside >= end) {
        return 0;
    }
    module->begin = begin;
    module->end = end;
    return 1;
}

/* Does the call come from the module that holds the real platform? */
bool comesFromPlatform(const void *caller) {
    static const Module module = [] {
        void *real = dlsym(RTLD_NEXT, "OsMemMallocSetCharMon");
        Module found{reinterpret_cast<uintptr_t>(real), 0, 0};
        dl_iterate_phdr(findModule, &found);
        return found;
    }();
    const auto address = reinterpret_cast<uintptr_t>(caller);
    return address >= module.begin && address < module.end;
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
    const Operation &found = operationNamed(operation);
    if (!found.canFail) {
        giveUp("this operation cannot fail", found.name);
    }
    if (at != detail::kNever) {
        found.slot->failed = false;
    }
    found.slot->failAt = at;
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
        const char *name = operationAt(operation).name;
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
    const uint64_t calls = operationNamed(operation).slot->calls;
    setFailure(operation, n == 0 ? detail::kNever : calls + n);
}

void failEveryCall(std::string_view operation) {
    setFailure(operation, detail::kAlways);
}

bool failureReached(std::string_view operation) {
    return operationNamed(operation).slot->failed;
}

uint64_t callCount(std::string_view operation) {
    return operationNamed(operation).slot->calls;
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

namespace {

uint32_t printSite(const TamoHostMemSite *site, void *context) {
    *static_cast<std::ostream *>(context)
        << "\n  " << site->blocks << " from " << site->file << ':' << site->line;
    return 0;
}

}  // namespace

void PlatformTest::TearDown() {
    if (outstanding() != 0 && !blocksMayStay_) {
        std::ostringstream sites;
        if (TamoHostMemReport != nullptr) {
            TamoHostMemReport(0, printSite, &sites);
        }
        ADD_FAILURE() << "blocks taken and not released: " << outstanding() << sites.str();
    }
    release();
}

}  // namespace platform

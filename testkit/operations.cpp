/* The table of all platform operations: each is named here and nowhere else in the kit. */
#include <tamo_host.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "testkit/dispatch.h"

const bool testkit::detail::isTableLinked = true;

namespace {

using testkit::detail::captureRecord;
using testkit::detail::Entry;
using testkit::detail::judge;
using testkit::detail::PlatformDepth;
using testkit::detail::resolve;
using testkit::detail::Slot;
using testkit::detail::slotOf;
using testkit::detail::Verdict;

/* A program that links the kit needs the host, also where it calls nothing of it but by the kit. */
[[maybe_unused]] auto *const volatile needsHost = &TamoHostMsgClose;

/* ---- one call ---- */

template <auto Operation>
auto realOperation(const char *name) {
    return reinterpret_cast<decltype(Operation)>(resolve(&slotOf<Operation>, name));
}

/* What a definition in this program does: `fail` gives the contract's failure, a replacement gets
 * `arguments`, `own` is what the kit does in the host's place, or false, and `real` calls the host. */
template <auto Operation, typename Fail, typename Own, typename Real, typename... Arguments>
auto dispatch(const void *caller, Fail fail, Own own, Real real, Arguments... arguments) {
    using Result = decltype(real());
    Slot *slot = &slotOf<Operation>;
    const Verdict verdict = judge(slot, caller);
    if (verdict == Verdict::kFail) {
        return static_cast<Result>(fail());
    }
    if (verdict == Verdict::kReplace) {
        const auto *function =
            static_cast<const std::function<Result(Arguments...)> *>(slot->replacement.load());
        return (*function)(arguments...);
    }
    if constexpr (std::is_void_v<Result>) {
        if (verdict == Verdict::kForward && own(nullptr)) {
            return;
        }
    } else {
        Result result{};
        if (verdict == Verdict::kForward && own(&result)) {
            return result;
        }
    }
    const PlatformDepth inside(true);
    return real();
}

constexpr auto kHostOnly = [](auto) { return false; };

/* ---- what a failure looks like, by the operation's contract ---- */

constexpr int kRefused = 34;
constexpr size_t kLargestSize = 0x7FFFFFFF;

constexpr auto kNull = [] { return nullptr; };
constexpr auto kOne = [] { return 1; };
constexpr auto kMinusOne = [] { return -1; };
constexpr auto kCannotFail = [] { return 0; };
constexpr auto kNothing = [] {};

bool usable(const void *dst, size_t size) {
    return dst != nullptr && size != 0 && size <= kLargestSize;
}

/* The memory functions clear their whole destination, the string functions make it empty. */
auto clearMemory(void *dst, size_t size) {
    return [=] {
        for (size_t i = 0; usable(dst, size) && i < size; ++i) {
            static_cast<unsigned char *>(dst)[i] = 0;
        }
        return kRefused;
    };
}

auto clearText(char *dst, size_t size, int result = kRefused) {
    return [=] {
        if (usable(dst, size)) {
            *dst = '\0';
        }
        return result;
    };
}

/* The records are zeroed. */
template <typename Record>
auto clear(Record *record) {
    return [=] {
        if (record != nullptr) {
            *record = Record{};
        }
        return 1;
    };
}

auto clearValues(ConfConfigOmRecord *records, uint32_t count) {
    return [=] {
        for (uint32_t i = 0; records != nullptr && i < count; ++i) {
            records[i].value = ConfConfigOmVal{};
        }
        return 1;
    };
}

/* A finished text; one of usual length takes no memory, for tests that count allocations. */
class PrintedText {
  public:
    __attribute__((format(printf, 2, 0))) PrintedText(const char *format, va_list arguments) {
        va_list again;
        va_copy(again, arguments);
        const int length = std::vsnprintf(usual_, sizeof(usual_), format, arguments);
        if (length >= static_cast<int>(sizeof(usual_))) {
            long_.resize(static_cast<size_t>(length));
            std::vsnprintf(long_.data(), long_.size() + 1, format, again);
        }
        va_end(again);
    }

    const char *get() const { return long_.empty() ? usual_ : long_.c_str(); }

  private:
    char usual_[2048];
    std::string long_;
};

}  // namespace

/* ---- the shape of a definition ---- */

#define CALLER __builtin_extract_return_addr(__builtin_return_address(0))
#define LIST(name) \
    static const Entry entry_##name(&slotOf<&name>, #name, reinterpret_cast<const void *>(&name));

/* OPERATION(result, name, what a failure does, parameter types...) and OWN_OPERATION with what the kit
 * does in the host's place behind the name: both may use the arguments a, b, ... */
#define OPERATION(Result, name, fail, ...) OWN_OPERATION(Result, name, kHostOnly, fail, __VA_ARGS__)
#define OWN_OPERATION(Result, name, own, fail, ...)                                        \
    LIST(name)                                                                             \
    Result name(WITH(PARAMETERS_, COUNT(__VA_ARGS__))(__VA_ARGS__)) {                      \
        const auto real = [&] {                                                            \
            return realOperation<&name>(#name)(WITH(ARGUMENTS_, COUNT(__VA_ARGS__)));      \
        };                                                                                 \
        return dispatch<&name>(CALLER, fail, own, real WITH(PASSED_, COUNT(__VA_ARGS__))); \
    }
#define WITH(prefix, count) WITH_(prefix, count)
#define WITH_(prefix, count) prefix##count
#define COUNT(...) SIXTH(0 __VA_OPT__(, ) __VA_ARGS__, 5, 4, 3, 2, 1, 0)
#define SIXTH(a, b, c, d, e, f, count, ...) count
#define PARAMETERS_0() void
#define PARAMETERS_1(A) A a
#define PARAMETERS_2(A, B) A a, B b
#define PARAMETERS_3(A, B, C) A a, B b, C c
#define PARAMETERS_4(A, B, C, D) A a, B b, C c, D d
#define PARAMETERS_5(A, B, C, D, E) A a, B b, C c, D d, E e
#define ARGUMENTS_0
#define ARGUMENTS_1 a
#define ARGUMENTS_2 a, b
#define ARGUMENTS_3 a, b, c
#define ARGUMENTS_4 a, b, c, d
#define ARGUMENTS_5 a, b, c, d, e
#define PASSED_0
#define PASSED_1 , a
#define PASSED_2 , a, b
#define PASSED_3 , a, b, c
#define PASSED_4 , a, b, c, d
#define PASSED_5 , a, b, c, d, e
#define OWN(call) [&]([[maybe_unused]] auto result) { return testkit::detail::call; }

/* ---- bounds_checked.h ---- */

OPERATION(int, memcpy_s, clearMemory(a, b), void *, size_t, const void *, size_t)
OPERATION(int, memmove_s, clearMemory(a, b), void *, size_t, const void *, size_t)
OPERATION(int, memset_s, clearMemory(a, b), void *, size_t, int, size_t)
OPERATION(int, strcpy_s, clearText(a, b), char *, size_t, const char *)
OPERATION(int, strncpy_s, clearText(a, b), char *, size_t, const char *, size_t)
OPERATION(int, strcat_s, clearText(a, b), char *, size_t, const char *)

LIST(sprintf_s)
int sprintf_s(char *dst, size_t dstSize, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const PrintedText text(format, arguments);
    va_end(arguments);
    const auto real = [&] {
        return realOperation<&sprintf_s>("sprintf_s")(dst, dstSize, "%s", text.get());
    };
    return dispatch<&sprintf_s>(CALLER, clearText(dst, dstSize, -1), kHostOnly, real, dst, dstSize,
                                text.get());
}

/* The conversions cannot be handed on, so that this one scans by itself. */
LIST(sscanf_s)
int sscanf_s(const char *text, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const auto real = [&] { return text != nullptr ? std::vsscanf(text, format, arguments) : -1; };
    const int result = dispatch<&sscanf_s>(CALLER, kMinusOne, kHostOnly, real, text, format);
    va_end(arguments);
    return result;
}

/* ---- tamo_common.h, tamo_socket.h ---- */

OPERATION(uint32_t, KIRU_StrLen, kCannotFail, const char *)
OPERATION(char *, KIRU_StrStr, kNull, const char *, const char *)
OPERATION(int32_t, KIRU_StrCmp, kCannotFail, const char *, const char *)
OPERATION(int32_t, KIRU_StriCmp, kCannotFail, const char *, const char *)
OPERATION(int32_t, KIRU_StrToInt32, kOne, const char *, int32_t *)
OPERATION(char *, MOX_UnicodeToUtf8, kNull, const uint16_t *)
OPERATION(int32_t, KIRU_Inet_Pton, kMinusOne, int32_t, const char *, void *)
OPERATION(uint32_t, KIRU_InetAddr, kMinusOne, const char *)
OPERATION(int32_t, MOX_Socket_Get_AF_INET6, kCannotFail)

/* ---- ip_helper.h ---- */

OPERATION(uint32_t, GetBestInterfaceEx, kOne, const IpSocketAddress6 *, uint32_t *)
OPERATION(uint32_t, GetAdaptersAddresses, kOne, uint32_t, uint32_t, void *, IpAdapter *, uint32_t *)
OPERATION(uint32_t, GetBestRoute, kOne, uint32_t, uint32_t, IpForwardRow *)
OPERATION(uint32_t, GetIpAddrTable, kOne, IpAddrTable *, uint32_t *, int32_t)

/* ---- tamo_om_config_client.h, tamo_om_keym_client.h, tamo_om_devm_client.h, tamo_om_cust_util.h ---- */

OPERATION(int32_t, TamoOmConfigInit, kOne, uint32_t, const char *, const char *)
OPERATION(int32_t, TamoOmConfigNotifyCallback, kOne, ConfConfigChangeHandler, const char *)
OPERATION(int32_t, TamoOmConfigUnInit, kOne, const char *)
OPERATION(int32_t, TamoOmConfigcopyStr2Key, clear(a == nullptr ? nullptr : &a->key),
          ConfConfigOmRecord *, const char *)
OPERATION(int32_t, TamoOmConfigcopyStr2Val, clear(a), ConfConfigOmVal *, const char *)
OPERATION(int32_t, TamoOmConfigsetIntValue, kOne, ConfConfigOmVal *, int64_t)
OPERATION(int32_t, TamoOmConfigsetUintValue, kOne, ConfConfigOmVal *, uint64_t)
OPERATION(int32_t, TamoOmConfigStringGet, clear(a == nullptr ? nullptr : &a->value),
          ConfConfigOmRecord *)
OPERATION(int32_t, TamoOmConfigStringMget, clearValues(a, b), ConfConfigOmRecord *, uint32_t)
OPERATION(int32_t, TamoOmConfigStringMset, kOne, const ConfConfigOmRecord *, uint32_t)
OPERATION(int32_t, TamoOmConfigStringSet, kOne, ConfConfigOmRecord)
OPERATION(int32_t, TamoOmKeymEncrypt, clearText(d, 1), const char *, const char *, uint32_t, char *,
          uint32_t *)
OPERATION(int32_t, TamoOmDevmNetGetIpv4Block, kOne, uint32_t, char *)
OPERATION(int32_t, TamoOmDevmNetGetIpv6Block, kOne, uint32_t, char *)
OPERATION(const char *, TamoOmCustUtilGetCfgPath, kNull, uint32_t)
OPERATION(const char *, TamoOmCustUtilGetStoragePath, kNull)

/* ---- tamo_om_log_client.h ---- */

OPERATION(int32_t, TamoOmLogClientInit, kOne, const char *, uint32_t)
OPERATION(int32_t, TamoOmLogClientUnInit, kOne)
OPERATION(int32_t, TamoOmLogCreateLog, kOne, const OmLogCreateParam *, uint16_t *)

LIST(TamoOmLogModuleLogRecord)
int32_t TamoOmLogModuleLogRecord(uint8_t level, uint16_t logFileId, const char *fileName,
                                 uint8_t fileNameLength, int32_t line, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const PrintedText text(format, arguments);
    va_end(arguments);
    const auto real = [&] {
        return realOperation<&TamoOmLogModuleLogRecord>("TamoOmLogModuleLogRecord")(
            level, logFileId, fileName, fileNameLength, line, "%s", text.get());
    };
    const auto keep = [&](int32_t *) {
        return !captureRecord(level, logFileId, fileName, line, text.get());
    };
    return dispatch<&TamoOmLogModuleLogRecord>(CALLER, kOne, keep, real, level, logFileId, fileName,
                                               fileNameLength, line, text.get());
}

/* ---- tamo_os_file.h ---- */

OPERATION(OsDir *, OsOpenDir, kNull, const char *)
OPERATION(OsDirEntry *, OsReadDir, kNull, OsDir *)
OPERATION(void, OsCloseDir, kNothing, OsDir *)
OPERATION(int32_t, OsCopyFile, kOne, const char *, const char *)
OPERATION(int32_t, OsRemove, kOne, const char *)
OPERATION(FILE *, OsFopen, kNull, const char *, const char *)
OPERATION(const char *, OsFileNativePath, kNull, const char *, char *, size_t)
OPERATION(int32_t, OsReplaceFile, kOne, const char *, const void *, size_t, int32_t)
OPERATION(int32_t, OsFlushFile, kOne, const char *)

/* ---- tamo_os_lock.h ---- */

OPERATION(uint32_t, OsMutexInit, kOne, OsMutex *, const void *)
OPERATION(uint32_t, OsMutexLock, kOne, OsMutex *)
OPERATION(uint32_t, OsMutexUnLock, kOne, OsMutex *)
OPERATION(uint32_t, OsMutexDestroy, kOne, OsMutex *)

/* ---- tamo_os_mem.h ---- */

LIST(OsMemMallocSetCharMon)
void *OsMemMallocSetCharMon(size_t size, uint32_t a, uint32_t b, uint32_t c, uint32_t line,
                            const char *file) {
    const auto real = [&] {
        return realOperation<&OsMemMallocSetCharMon>("OsMemMallocSetCharMon")(size, a, b, c, line,
                                                                              file);
    };
    void *block =
        dispatch<&OsMemMallocSetCharMon>(CALLER, kNull, kHostOnly, real, size, a, b, c, line, file);
    if (block != nullptr) {
        testkit::detail::countBlock(1);
        testkit::detail::rememberBlock({block, size, file, line});
    }
    return block;
}

/* The account forgets the block first: once it is released, another thread may be given its place. */
LIST(OSMemTypeFreeMon)
uint32_t OSMemTypeFreeMon(void *block, uint32_t a, uint32_t b, uint32_t line, const char *file) {
    const auto real = [&] {
        return realOperation<&OSMemTypeFreeMon>("OSMemTypeFreeMon")(block, a, b, line, file);
    };
    const testkit::detail::TakenBlock taken = testkit::detail::forgetBlock(block);
    const uint32_t result =
        dispatch<&OSMemTypeFreeMon>(CALLER, kOne, kHostOnly, real, block, a, b, line, file);
    if (result == 0) {
        testkit::detail::countBlock(-1);
    } else if (taken.block != nullptr) {
        testkit::detail::rememberBlock(taken);
    }
    return result;
}

/* ---- tamo_os_msg.h ---- */

OWN_OPERATION(uint32_t, OsMsgSynSend, OWN(peerTakes(a, b, result)), kOne, OsMsgHeader *,
              OsMsgHeader **, uint32_t)
OWN_OPERATION(uint32_t, OsMsgSynRespFree, OWN(peerFrees(a)), kOne, OsMsgHeader *)
OWN_OPERATION(uint32_t, OsMsgAsynSend, OWN(peerTakes(a, nullptr, result)), kOne, OsMsgHeader *)
OPERATION(uint32_t, OsMsgSynSendResp, kOne, OsMsgHeader *, void *, uint32_t)

/* ---- tamo_om_cert_client.h, tamo_conference_sslex.h ---- */

OPERATION(int32_t, TamoOmCertClientInit, kOne, void *)
OPERATION(int32_t, TamoOmCertNotifyCallback, kOne, ConfOmCertHandler)
OPERATION(int32_t, TamoOmCertGetCertPath, kOne, uint32_t, uint32_t, uint32_t, ConfCertPathInfo *)
OPERATION(int32_t, TamoOmCertGetExpectedSrvCertSize, kOne, uint32_t, ConfCertSizes *)
OPERATION(int32_t, TamoOmCertGetServiceCert, kOne, uint32_t, ConfCertContent *)
OPERATION(int32_t, TamoOmCertGetCertId, kOne, const ConfCertIdBuffer *, ConfCertIdBuffer *)
OPERATION(int32_t, TamoOmCertGetCapability, kOne, uint8_t *)
OPERATION(int32_t, SSL_CTX_load_cacertificate_file, kCannotFail, SSL_CTX *, const char *, uint32_t)

/* ---- tamo_os_signal.h, tamo_os_time.h, tamo_os_timer.h ---- */

OPERATION(uint32_t, OsSigEmptySet, kOne, OsSigSet *)
OPERATION(uint32_t, OsSigAddSet, kOne, OsSigSet *, int32_t)
OPERATION(uint32_t, OsPthreadSigmask, kOne, int32_t, const OsSigSet *, OsSigSet *)
OWN_OPERATION(void, OsGetTimeEx, OWN(clockTells(a)), kNothing, OsTimeEx *)
OWN_OPERATION(uint32_t, OsGetSysTimeSec, OWN(clockTells(result)), kCannotFail)
OWN_OPERATION(uint32_t, OsTmrManagerInit, OWN(clockStarts(b, result)), kOne, uint32_t, uint32_t,
              uint32_t)
OWN_OPERATION(uint32_t, OsTmrCreate, OWN(clockCreates(a, b, result)), kOne, OsTmrCreateParam *,
              uint32_t *)
OWN_OPERATION(uint32_t, OsTmrDelete, OWN(clockDeletes(a, result)), kOne, uint32_t)

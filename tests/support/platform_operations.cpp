/* The test program's definitions of all platform operations. Each says what a failure looks like by
 * the operation's contract. */
#include <cstdarg>
#include <cstdio>
#include <string>

#include "forwarding_platform.h"
#include "platform_slot.h"

namespace {

using platform::detail::dispatch;
using platform::detail::forward;
using platform::detail::kCannotFail;
using platform::detail::kNull;
using platform::detail::kOne;
using platform::detail::realOperation;
using platform::detail::Verdict;

constexpr int kRefused = 34;
constexpr size_t kLargestSize = 0x7FFFFFFF;

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

constexpr auto kMinusOne = [] { return -1; };
constexpr auto kNothing = [] {};

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

/* Definitions: result, name, what a failure does with the arguments (a, b, ...), and their types. */
#define FORWARD_0(Result, name, fail)        \
    Result name(void) {                      \
        return forward<&name>(CALLER, fail); \
    }
#define FORWARD_1(Result, name, fail, A)        \
    Result name(A a) {                          \
        return forward<&name>(CALLER, fail, a); \
    }
#define FORWARD_2(Result, name, fail, A, B)        \
    Result name(A a, B b) {                        \
        return forward<&name>(CALLER, fail, a, b); \
    }
#define FORWARD_3(Result, name, fail, A, B, C)        \
    Result name(A a, B b, C c) {                      \
        return forward<&name>(CALLER, fail, a, b, c); \
    }
#define FORWARD_4(Result, name, fail, A, B, C, D)        \
    Result name(A a, B b, C c, D d) {                    \
        return forward<&name>(CALLER, fail, a, b, c, d); \
    }
#define FORWARD_5(Result, name, fail, A, B, C, D, E)        \
    Result name(A a, B b, C c, D d, E e) {                  \
        return forward<&name>(CALLER, fail, a, b, c, d, e); \
    }

/* ---- bounds_checked.h ---- */

FORWARD_4(int, memcpy_s, clearMemory(a, b), void *, size_t, const void *, size_t)
FORWARD_4(int, memmove_s, clearMemory(a, b), void *, size_t, const void *, size_t)
FORWARD_4(int, memset_s, clearMemory(a, b), void *, size_t, int, size_t)
FORWARD_3(int, strcpy_s, clearText(a, b), char *, size_t, const char *)
FORWARD_4(int, strncpy_s, clearText(a, b), char *, size_t, const char *, size_t)
FORWARD_3(int, strcat_s, clearText(a, b), char *, size_t, const char *)

int sprintf_s(char *dst, size_t dstSize, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const PrintedText text(format, arguments);
    va_end(arguments);
    return dispatch<&sprintf_s>(
        CALLER, clearText(dst, dstSize, -1),
        [&](Verdict) { return realOperation<&sprintf_s>()(dst, dstSize, "%s", text.get()); }, dst,
        dstSize, text.get());
}

/* The conversions cannot be handed on, so that this one scans by itself. */
int sscanf_s(const char *text, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = dispatch<&sscanf_s>(
        CALLER, [] { return -1; },
        [&](Verdict) { return text != nullptr ? std::vsscanf(text, format, arguments) : -1; }, text,
        format);
    va_end(arguments);
    return result;
}

/* ---- tamo_common.h, tamo_socket.h ---- */

FORWARD_1(uint32_t, KIRU_StrLen, kCannotFail, const char *)
FORWARD_2(char *, KIRU_StrStr, kNull, const char *, const char *)
FORWARD_2(int32_t, KIRU_StrCmp, kCannotFail, const char *, const char *)
FORWARD_2(int32_t, KIRU_StriCmp, kCannotFail, const char *, const char *)
FORWARD_2(int32_t, KIRU_StrToInt32, kOne, const char *, int32_t *)
FORWARD_1(char *, MOX_UnicodeToUtf8, kNull, const uint16_t *)
FORWARD_3(int32_t, KIRU_Inet_Pton, kMinusOne, int32_t, const char *, void *)
FORWARD_1(uint32_t, KIRU_InetAddr, kMinusOne, const char *)
FORWARD_0(int32_t, MOX_Socket_Get_AF_INET6, kCannotFail)

/* ---- ip_helper.h ---- */

FORWARD_2(uint32_t, GetBestInterfaceEx, kOne, const IpSocketAddress6 *, uint32_t *)
FORWARD_5(uint32_t, GetAdaptersAddresses, kOne, uint32_t, uint32_t, void *, IpAdapter *, uint32_t *)
FORWARD_3(uint32_t, GetBestRoute, kOne, uint32_t, uint32_t, IpForwardRow *)
FORWARD_3(uint32_t, GetIpAddrTable, kOne, IpAddrTable *, uint32_t *, int32_t)

/* ---- tamo_om_config_client.h, tamo_om_keym_client.h, tamo_om_devm_client.h, tamo_om_cust_util.h ---- */

FORWARD_3(int32_t, TamoOmConfigInit, kOne, uint32_t, const char *, const char *)
FORWARD_2(int32_t, TamoOmConfigNotifyCallback, kOne, ConfConfigChangeHandler, const char *)
FORWARD_1(int32_t, TamoOmConfigUnInit, kOne, const char *)
FORWARD_2(int32_t, TamoOmConfigcopyStr2Key, clear(a == nullptr ? nullptr : &a->key),
          ConfConfigOmRecord *, const char *)
FORWARD_2(int32_t, TamoOmConfigcopyStr2Val, clear(a), ConfConfigOmVal *, const char *)
FORWARD_2(int32_t, TamoOmConfigsetIntValue, kOne, ConfConfigOmVal *, int64_t)
FORWARD_2(int32_t, TamoOmConfigsetUintValue, kOne, ConfConfigOmVal *, uint64_t)
FORWARD_1(int32_t, TamoOmConfigStringGet, clear(a == nullptr ? nullptr : &a->value),
          ConfConfigOmRecord *)
int32_t TamoOmConfigStringMget(ConfConfigOmRecord *records, uint32_t count) {
    const auto fail = [=] {
        for (uint32_t i = 0; records != nullptr && i < count; ++i) {
            records[i].value = ConfConfigOmVal{};
        }
        return 1;
    };
    return forward<&TamoOmConfigStringMget>(CALLER, fail, records, count);
}

FORWARD_2(int32_t, TamoOmConfigStringMset, kOne, const ConfConfigOmRecord *, uint32_t)
FORWARD_1(int32_t, TamoOmConfigStringSet, kOne, ConfConfigOmRecord)
FORWARD_5(int32_t, TamoOmKeymEncrypt, clearText(d, 1), const char *, const char *, uint32_t, char *,
          uint32_t *)
FORWARD_2(int32_t, TamoOmDevmNetGetIpv4Block, kOne, uint32_t, char *)
FORWARD_2(int32_t, TamoOmDevmNetGetIpv6Block, kOne, uint32_t, char *)
FORWARD_1(const char *, TamoOmCustUtilGetCfgPath, kNull, uint32_t)
FORWARD_0(const char *, TamoOmCustUtilGetStoragePath, kNull)

/* ---- tamo_om_log_client.h ---- */

FORWARD_2(int32_t, TamoOmLogClientInit, kOne, const char *, uint32_t)
FORWARD_0(int32_t, TamoOmLogClientUnInit, kOne)
FORWARD_2(int32_t, TamoOmLogCreateLog, kOne, const OmLogCreateParam *, uint16_t *)

int32_t TamoOmLogModuleLogRecord(uint8_t level, uint16_t logFileId, const char *fileName,
                                 uint8_t fileNameLength, int32_t line, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const PrintedText text(format, arguments);
    va_end(arguments);
    const auto real = [&](Verdict verdict) {
        if (verdict == Verdict::kForward &&
            !platform::detail::captureRecord(level, logFileId, fileName, line, text.get())) {
            return 0;
        }
        return realOperation<&TamoOmLogModuleLogRecord>()(level, logFileId, fileName,
                                                          fileNameLength, line, "%s", text.get());
    };
    return dispatch<&TamoOmLogModuleLogRecord>(CALLER, kOne, real, level, logFileId, fileName,
                                               fileNameLength, line, text.get());
}

/* ---- tamo_os_file.h ---- */

FORWARD_1(OsDir *, OsOpenDir, kNull, const char *)
FORWARD_1(OsDirEntry *, OsReadDir, kNull, OsDir *)
FORWARD_1(void, OsCloseDir, kNothing, OsDir *)
FORWARD_2(int32_t, OsCopyFile, kOne, const char *, const char *)
FORWARD_1(int32_t, OsRemove, kOne, const char *)
FORWARD_2(FILE *, OsFopen, kNull, const char *, const char *)
FORWARD_3(const char *, OsFileNativePath, kNull, const char *, char *, size_t)
FORWARD_4(int32_t, OsReplaceFile, kOne, const char *, const void *, size_t, int32_t)
FORWARD_1(int32_t, OsFlushFile, kOne, const char *)

/* ---- tamo_os_lock.h ---- */

FORWARD_2(uint32_t, OsMutexInit, kOne, OsMutex *, const void *)
FORWARD_1(uint32_t, OsMutexLock, kOne, OsMutex *)
FORWARD_1(uint32_t, OsMutexUnLock, kOne, OsMutex *)
FORWARD_1(uint32_t, OsMutexDestroy, kOne, OsMutex *)

/* ---- tamo_os_mem.h ---- */

void *OsMemMallocSetCharMon(size_t size, uint32_t a, uint32_t b, uint32_t c, uint32_t line,
                            const char *file) {
    void *block = forward<&OsMemMallocSetCharMon>(CALLER, kNull, size, a, b, c, line, file);
    if (block != nullptr) {
        platform::detail::blockTaken();
    }
    return block;
}

uint32_t OSMemTypeFreeMon(void *block, uint32_t a, uint32_t b, uint32_t line, const char *file) {
    const uint32_t result = forward<&OSMemTypeFreeMon>(CALLER, kOne, block, a, b, line, file);
    if (result == 0) {
        platform::detail::blockReleased();
    }
    return result;
}

/* ---- tamo_os_msg.h ---- */

FORWARD_3(uint32_t, OsMsgSynSend, kOne, OsMsgHeader *, OsMsgHeader **, uint32_t)
FORWARD_1(uint32_t, OsMsgSynRespFree, kOne, OsMsgHeader *)
FORWARD_1(uint32_t, OsMsgAsynSend, kOne, OsMsgHeader *)
FORWARD_3(uint32_t, OsMsgSynSendResp, kOne, OsMsgHeader *, void *, uint32_t)

/* ---- tamo_om_cert_client.h, tamo_conference_sslex.h ---- */

FORWARD_1(int32_t, TamoOmCertClientInit, kOne, void *)
FORWARD_1(int32_t, TamoOmCertNotifyCallback, kOne, ConfOmCertHandler)
FORWARD_4(int32_t, TamoOmCertGetCertPath, kOne, uint32_t, uint32_t, uint32_t, ConfCertPathInfo *)
FORWARD_2(int32_t, TamoOmCertGetExpectedSrvCertSize, kOne, uint32_t, ConfCertSizes *)
FORWARD_2(int32_t, TamoOmCertGetServiceCert, kOne, uint32_t, ConfCertContent *)
FORWARD_2(int32_t, TamoOmCertGetCertId, kOne, const ConfCertIdBuffer *, ConfCertIdBuffer *)
FORWARD_1(int32_t, TamoOmCertGetCapability, kOne, uint8_t *)
FORWARD_3(int32_t, SSL_CTX_load_cacertificate_file, kCannotFail, SSL_CTX *, const char *, uint32_t)

/* ---- tamo_os_signal.h, tamo_os_time.h, tamo_os_timer.h ---- */

FORWARD_1(uint32_t, OsSigEmptySet, kOne, OsSigSet *)
FORWARD_2(uint32_t, OsSigAddSet, kOne, OsSigSet *, int32_t)
FORWARD_3(uint32_t, OsPthreadSigmask, kOne, int32_t, const OsSigSet *, OsSigSet *)
FORWARD_1(void, OsGetTimeEx, kNothing, OsTimeEx *)
FORWARD_0(uint32_t, OsGetSysTimeSec, kCannotFail)
FORWARD_3(uint32_t, OsTmrManagerInit, kOne, uint32_t, uint32_t, uint32_t)
FORWARD_2(uint32_t, OsTmrCreate, kOne, OsTmrCreateParam *, uint32_t *)
FORWARD_1(uint32_t, OsTmrDelete, kOne, uint32_t)

/* The test program's definitions of all platform operations. Each says what a failure looks like by
 * the operation's contract; operations that cannot fail have none. */
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

/* ---- bounds_checked.h ---- */

int memcpy_s(void *dst, size_t dstSize, const void *src, size_t count) {
    return forward<&memcpy_s>(CALLER, clearMemory(dst, dstSize), dst, dstSize, src, count);
}

int memmove_s(void *dst, size_t dstSize, const void *src, size_t count) {
    return forward<&memmove_s>(CALLER, clearMemory(dst, dstSize), dst, dstSize, src, count);
}

int memset_s(void *dst, size_t dstSize, int value, size_t count) {
    return forward<&memset_s>(CALLER, clearMemory(dst, dstSize), dst, dstSize, value, count);
}

int strcpy_s(char *dst, size_t dstSize, const char *src) {
    return forward<&strcpy_s>(CALLER, clearText(dst, dstSize), dst, dstSize, src);
}

int strncpy_s(char *dst, size_t dstSize, const char *src, size_t count) {
    return forward<&strncpy_s>(CALLER, clearText(dst, dstSize), dst, dstSize, src, count);
}

int strcat_s(char *dst, size_t dstSize, const char *src) {
    return forward<&strcat_s>(CALLER, clearText(dst, dstSize), dst, dstSize, src);
}

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

uint32_t KIRU_StrLen(const char *text) {
    return forward<&KIRU_StrLen>(CALLER, kCannotFail, text);
}

char *KIRU_StrStr(const char *text, const char *search) {
    return forward<&KIRU_StrStr>(CALLER, kNull, text, search);
}

int32_t KIRU_StrCmp(const char *a, const char *b) {
    return forward<&KIRU_StrCmp>(CALLER, kCannotFail, a, b);
}

int32_t KIRU_StriCmp(const char *a, const char *b) {
    return forward<&KIRU_StriCmp>(CALLER, kCannotFail, a, b);
}

int32_t KIRU_StrToInt32(const char *text, int32_t *value) {
    return forward<&KIRU_StrToInt32>(CALLER, kOne, text, value);
}

char *MOX_UnicodeToUtf8(const uint16_t *wideText) {
    return forward<&MOX_UnicodeToUtf8>(CALLER, kNull, wideText);
}

int32_t KIRU_Inet_Pton(int32_t family, const char *text, void *buffer16) {
    return forward<&KIRU_Inet_Pton>(
        CALLER, [] { return -1; }, family, text, buffer16);
}

uint32_t KIRU_InetAddr(const char *text) {
    return forward<&KIRU_InetAddr>(
        CALLER, [] { return UINT32_MAX; }, text);
}

int32_t MOX_Socket_Get_AF_INET6(void) {
    return forward<&MOX_Socket_Get_AF_INET6>(CALLER, kCannotFail);
}

/* ---- ip_helper.h ---- */

uint32_t GetBestInterfaceEx(const IpSocketAddress6 *destination, uint32_t *interfaceIndex) {
    return forward<&GetBestInterfaceEx>(CALLER, kOne, destination, interfaceIndex);
}

uint32_t GetAdaptersAddresses(uint32_t family, uint32_t flags, void *reserved, IpAdapter *buffer,
                              uint32_t *size) {
    return forward<&GetAdaptersAddresses>(CALLER, kOne, family, flags, reserved, buffer, size);
}

uint32_t GetBestRoute(uint32_t destination, uint32_t source, IpForwardRow *route) {
    return forward<&GetBestRoute>(CALLER, kOne, destination, source, route);
}

uint32_t GetIpAddrTable(IpAddrTable *table, uint32_t *size, int32_t sorted) {
    return forward<&GetIpAddrTable>(CALLER, kOne, table, size, sorted);
}

/* ---- tamo_om_config_client.h, tamo_om_keym_client.h, tamo_om_devm_client.h, tamo_om_cust_util.h ---- */

int32_t TamoOmConfigInit(uint32_t zero, const char *ownerName, const char *moduleName) {
    return forward<&TamoOmConfigInit>(CALLER, kOne, zero, ownerName, moduleName);
}

int32_t TamoOmConfigNotifyCallback(ConfConfigChangeHandler handler, const char *moduleName) {
    return forward<&TamoOmConfigNotifyCallback>(CALLER, kOne, handler, moduleName);
}

int32_t TamoOmConfigUnInit(const char *moduleName) {
    return forward<&TamoOmConfigUnInit>(CALLER, kOne, moduleName);
}

int32_t TamoOmConfigcopyStr2Key(ConfConfigOmRecord *record, const char *key) {
    const auto fail = [=] {
        if (record != nullptr) {
            record->key = ConfConfigOmKey{};
        }
        return 1;
    };
    return forward<&TamoOmConfigcopyStr2Key>(CALLER, fail, record, key);
}

int32_t TamoOmConfigcopyStr2Val(ConfConfigOmVal *value, const char *text) {
    const auto fail = [=] {
        if (value != nullptr) {
            *value = ConfConfigOmVal{};
        }
        return 1;
    };
    return forward<&TamoOmConfigcopyStr2Val>(CALLER, fail, value, text);
}

int32_t TamoOmConfigsetIntValue(ConfConfigOmVal *value, int64_t number) {
    return forward<&TamoOmConfigsetIntValue>(CALLER, kOne, value, number);
}

int32_t TamoOmConfigsetUintValue(ConfConfigOmVal *value, uint64_t number) {
    return forward<&TamoOmConfigsetUintValue>(CALLER, kOne, value, number);
}

int32_t TamoOmConfigStringGet(ConfConfigOmRecord *record) {
    const auto fail = [=] {
        if (record != nullptr) {
            record->value = ConfConfigOmVal{};
        }
        return 1;
    };
    return forward<&TamoOmConfigStringGet>(CALLER, fail, record);
}

int32_t TamoOmConfigStringMget(ConfConfigOmRecord *records, uint32_t count) {
    const auto fail = [=] {
        for (uint32_t i = 0; records != nullptr && i < count; ++i) {
            records[i].value = ConfConfigOmVal{};
        }
        return 1;
    };
    return forward<&TamoOmConfigStringMget>(CALLER, fail, records, count);
}

int32_t TamoOmConfigStringMset(const ConfConfigOmRecord *records, uint32_t count) {
    return forward<&TamoOmConfigStringMset>(CALLER, kOne, records, count);
}

int32_t TamoOmConfigStringSet(ConfConfigOmRecord record) {
    return forward<&TamoOmConfigStringSet>(CALLER, kOne, record);
}

int32_t TamoOmKeymEncrypt(const char *ownerName, const char *plain, uint32_t plainLength, char *out,
                          uint32_t *outLength) {
    return forward<&TamoOmKeymEncrypt>(CALLER, clearText(out, 1), ownerName, plain, plainLength,
                                       out, outLength);
}

int32_t TamoOmDevmNetGetIpv4Block(uint32_t selector, char *buffer42) {
    return forward<&TamoOmDevmNetGetIpv4Block>(CALLER, kOne, selector, buffer42);
}

int32_t TamoOmDevmNetGetIpv6Block(uint32_t selector, char *buffer42) {
    return forward<&TamoOmDevmNetGetIpv6Block>(CALLER, kOne, selector, buffer42);
}

const char *TamoOmCustUtilGetCfgPath(uint32_t zero) {
    return forward<&TamoOmCustUtilGetCfgPath>(CALLER, kNull, zero);
}

const char *TamoOmCustUtilGetStoragePath(void) {
    return forward<&TamoOmCustUtilGetStoragePath>(CALLER, kNull);
}

/* ---- tamo_om_log_client.h ---- */

int32_t TamoOmLogClientInit(const char *mode, uint32_t flag) {
    return forward<&TamoOmLogClientInit>(CALLER, kOne, mode, flag);
}

int32_t TamoOmLogClientUnInit(void) {
    return forward<&TamoOmLogClientUnInit>(CALLER, kOne);
}

int32_t TamoOmLogCreateLog(const OmLogCreateParam *param, uint16_t *logFileId) {
    return forward<&TamoOmLogCreateLog>(CALLER, kOne, param, logFileId);
}

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

OsDir *OsOpenDir(const char *path) {
    return forward<&OsOpenDir>(CALLER, kNull, path);
}

OsDirEntry *OsReadDir(OsDir *dir) {
    return forward<&OsReadDir>(CALLER, kNull, dir);
}

void OsCloseDir(OsDir *dir) {
    forward<&OsCloseDir>(
        CALLER, [] {}, dir);
}

int32_t OsCopyFile(const char *source, const char *destination) {
    return forward<&OsCopyFile>(CALLER, kOne, source, destination);
}

int32_t OsRemove(const char *path) {
    return forward<&OsRemove>(CALLER, kOne, path);
}

FILE *OsFopen(const char *path, const char *mode) {
    return forward<&OsFopen>(CALLER, kNull, path, mode);
}

const char *OsFileNativePath(const char *devicePath, char *buffer, size_t size) {
    return forward<&OsFileNativePath>(CALLER, kNull, devicePath, buffer, size);
}

/* ---- tamo_os_lock.h ---- */

uint32_t OsMutexInit(OsMutex *mutex, const void *attributes) {
    return forward<&OsMutexInit>(CALLER, kOne, mutex, attributes);
}

uint32_t OsMutexLock(OsMutex *mutex) {
    return forward<&OsMutexLock>(CALLER, kOne, mutex);
}

uint32_t OsMutexUnLock(OsMutex *mutex) {
    return forward<&OsMutexUnLock>(CALLER, kOne, mutex);
}

uint32_t OsMutexDestroy(OsMutex *mutex) {
    return forward<&OsMutexDestroy>(CALLER, kOne, mutex);
}

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

uint32_t OsMsgSynSend(OsMsgHeader *header, OsMsgHeader **response, uint32_t timeout) {
    return forward<&OsMsgSynSend>(CALLER, kOne, header, response, timeout);
}

uint32_t OsMsgSynRespFree(OsMsgHeader *response) {
    return forward<&OsMsgSynRespFree>(CALLER, kOne, response);
}

uint32_t OsMsgAsynSend(OsMsgHeader *header) {
    return forward<&OsMsgAsynSend>(CALLER, kOne, header);
}

uint32_t OsMsgSynSendResp(OsMsgHeader *header, void *body, uint32_t bodyLength) {
    return forward<&OsMsgSynSendResp>(CALLER, kOne, header, body, bodyLength);
}

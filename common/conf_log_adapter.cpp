/* Logging: the level filter, the log file, and records for the platform's log client. */
#include "include/conf_log_adapter.h"

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "common/log.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_om_log_client.h"

namespace {

constexpr char kUnit[] = "conf_log_adapter";
constexpr char kLogFileName[] = "Conference.log";

constexpr size_t kRecordSize = 512; /* with the terminator */
constexpr size_t kPieceLength = 352;
constexpr uint32_t kSegmentThreshold = 400;
constexpr uint32_t kSegmentLength = 256;

std::atomic<uint8_t> levelFilter{CONF_LOG_INFO};
uint16_t logFileId = 0;

bool passesFilter(uint8_t level) {
    return level <= levelFilter.load(std::memory_order_relaxed);
}

void handToClient(uint8_t level, const char *fileName, int32_t line, const char *text) {
    TamoOmLogModuleLogRecord(level, logFileId, fileName, static_cast<uint8_t>(strlen(fileName)),
                             line, "%s", text);
}

/* Writes "[functionName]" and returns its length, or kRecordSize when it does not fit. By hand,
 * since the formatter would take as long for it as for the rest of a short record. */
size_t putPrefix(char *record, const char *functionName) {
    size_t length = 0;
    record[length++] = '[';
    for (const char *c = functionName == nullptr ? "(null)" : functionName; *c != '\0'; c++) {
        if (length == kRecordSize - 2) {
            return kRecordSize;
        }
        record[length++] = *c;
    }
    record[length++] = ']';
    return length;
}

/* A function of its own, so that a suppressed record does not pay for this one's stack frame. */
__attribute__((noinline)) void formatRecord(uint8_t level, const char *functionName,
                                            const char *fileName, int32_t line, const char *format,
                                            va_list arguments) {
    if (fileName == nullptr || format == nullptr) {
        return;
    }
    char record[kRecordSize];
    const size_t prefix = putPrefix(record, functionName);
    const size_t room = kRecordSize - prefix;
    const int length = vsnprintf(record + prefix, room, format, arguments);
    /* A record that does not fit is dropped whole: half a record misleads. */
    if (length < 0 || static_cast<size_t>(length) >= room) {
        return;
    }
    handToClient(level, fileName, line, record);
}

/* The length of the next piece of a text: all that is left, or up to the last line feed near
 * enough. */
size_t pieceLength(const char *text) {
    const size_t length = strnlen(text, kPieceLength + 1);
    if (length <= kPieceLength) {
        return length;
    }
    const void *lineFeed = memrchr(text, '\n', kPieceLength);
    if (lineFeed == nullptr) {
        return kPieceLength;
    }
    return static_cast<size_t>(static_cast<const char *>(lineFeed) - text) + 1;
}

/* Copies a segment into a terminated text; 0, or the platform's error codes added up. Any other value
 * is a failure: platforms differ in the sign of their codes. */
int copySegment(char (&buffer)[kSegmentLength + 2], const char *data, uint32_t length) {
    const int cleared = memset_s(buffer, sizeof(buffer), 0, sizeof(buffer));
    return cleared + memcpy_s(buffer, sizeof(buffer), data, length);
}

}  // namespace

int32_t ConfLogInit(void) {
    int32_t result = TamoOmLogClientInit("C", 1);
    if (result != 0) {
        return result;
    }
    OmLogCreateParam param = {kRecordSize, 9, 10 * 1024 * 1024, {}};
    result = strcpy_s(param.name, sizeof(param.name), kLogFileName);
    if (result != 0) {
        return result;
    }
    return TamoOmLogCreateLog(&param, &logFileId);
}

int32_t ConfLogUnInit(void) {
    TamoOmLogClientUnInit();
    return 0;
}

uint32_t GetConfLogFileId(void) {
    return logFileId;
}

uint8_t GetLogLevel(void) {
    return levelFilter.load(std::memory_order_relaxed);
}

int32_t SetLogLevel(uint8_t level) {
    if (level > CONF_LOG_DEBUG) {
        return -1;
    }
    levelFilter.store(level, std::memory_order_relaxed);
    return 0;
}

/* For what is suppressed: within one line of the cache, and without a jump more than it needs. */
__attribute__((aligned(64))) void ConfLogPrintf(uint8_t level, const char *functionName,
                                                const char *fileName, int32_t line,
                                                const char *format, ...) {
    if (!passesFilter(level)) [[likely]] {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    formatRecord(level, functionName, fileName, line, format, arguments);
    va_end(arguments);
}

void ConfLogPrintfStr(uint8_t level, const char *functionName, const char *fileName, int32_t line,
                      const char *text) {
    if (text == nullptr || fileName == nullptr) {
        return;
    }
    bool first = true;
    while (*text != '\0') {
        char piece[kPieceLength + 1];
        const size_t length = pieceLength(text);
        if (strncpy_s(piece, sizeof(piece), text, length) != 0) {
            return;
        }
        if (first) {
            ConfLogPrintf(level, functionName, fileName, line, "%s", piece);
        } else if (passesFilter(level)) {
            handToClient(level, fileName, line, piece);
        }
        first = false;
        text += length;
    }
}

void ConfLogSegmentPrint(const char *sourcePath, int32_t line, uint8_t level, const char *data,
                         uint32_t length) {
    if (sourcePath == nullptr || data == nullptr || length == 0) {
        CONF_LOG(CONF_LOG_ERROR, "[%d] param is null", line);
        return;
    }
    const char *slash = strrchr(sourcePath, '/');
    const char *baseName = slash == nullptr ? sourcePath : slash + 1;
    if (length < kSegmentThreshold) {
        CONF_LOG(level, "[%s : %d] \n%s", baseName, line, data);
        return;
    }

    char segment[kSegmentLength + 2];
    const uint32_t remainder = length % kSegmentLength;
    for (uint32_t offset = 0; offset < length - remainder; offset += kSegmentLength) {
        const int result = copySegment(segment, data + offset, kSegmentLength);
        if (result != 0) {
            CONF_LOG(CONF_LOG_ERROR, " [%s : %d] secure func fail,ret:%d", baseName, line, result);
            break;
        }
        CONF_LOG(level, "[%s : %d] \n%s", baseName, line, segment);
    }
    if (remainder == 0) {
        return;
    }
    const int result = copySegment(segment, data + length - remainder, remainder);
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "[%s : %d] secure func fail,ret:%d ", baseName, line, result);
        return;
    }
    CONF_LOG(level, "[%s : %d] \n%s", baseName, line, segment);
}

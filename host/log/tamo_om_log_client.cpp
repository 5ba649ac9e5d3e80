/* The log client: which records go where. A record is formatted, made a line and written with one
 * call of the system, all on the calling thread's stack. */
#include "platform/tamo_om_log_client.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <iterator>
#include <mutex>

#include "host/base/device_root.h"
#include "host/base/log.h"
#include "host/log/log_file.h"

namespace {

using namespace tamo::log;

constexpr char kUnit[] = "tamo_om_log_client";
constexpr uint8_t kLeastSevereShown = tamo::kWarning; /* on standard error, without a file */
constexpr uint32_t kMostFiles = 1000;

std::mutex clientLock; /* for starting, ending and creating */
bool started;
LogFile files[8]; /* a file's id is its index and 1 */

LogFile *activeFile(uint16_t id) {
    if (id == 0 || id > std::size(files) || !files[id - 1].active.load(std::memory_order_acquire)) {
        return nullptr;
    }
    return &files[id - 1];
}

LogFile *firstActiveFile() {
    for (LogFile &file : files) {
        if (file.active.load(std::memory_order_acquire)) {
            return &file;
        }
    }
    return nullptr;
}

/* `file` null: to standard error, where only what is severe goes. */
int32_t writeText(LogFile *file, const LogOrigin &origin, const char *text) {
    if (file == nullptr && (origin.level > kLeastSevereShown || origin.level == 0)) {
        return -1;
    }
    const size_t limit = file == nullptr ? kLogTextMax : file->limits.recordSize.load();
    LogLine line;
    const uint32_t now = composeLogLine(&line, origin, text, limit);
    if (file == nullptr) {
        (void)!write(STDERR_FILENO, line.text, line.length);
        return -1;
    }
    return writeLogLine(file, line, now) ? 0 : -1;
}

int32_t writeFormatted(LogFile *file, const LogOrigin &origin, const char *format,
                       va_list arguments) {
    char text[kLogTextMax + 2]; /* one more than the most, to see that it is cut */
    if (vsnprintf(text, sizeof(text), format, arguments) < 0) {
        return -1;
    }
    return writeText(file, origin, text);
}

/* A name that stays within the log directory and apart from what lies there unseen. */
bool isFileName(const char (&name)[kLogNameMax]) {
    const size_t length = strnlen(name, sizeof(name));
    if (length == 0 || length == sizeof(name) || name[0] == '.') {
        return false;
    }
    for (size_t i = 0; i < length; i++) {
        const auto c = static_cast<unsigned char>(name[i]);
        if (c < ' ' || c == 0x7F || c == '/' || c == '\\') {
            return false;
        }
    }
    return true;
}

/* The entry of a name, or a free one; null when all are taken. */
LogFile *findEntry(const char *name) {
    for (LogFile &file : files) {
        if (file.name[0] == '\0' || strcmp(file.name, name) == 0) {
            return &file;
        }
    }
    return nullptr;
}

const char *faultOf(const OmLogCreateParam &param) {
    if (!isFileName(param.name)) {
        return "its name must have 1 to 31 characters and no separator, and not begin with a dot";
    }
    if (param.recordSize == 0 || param.recordSize > kLogTextMax) {
        return "its records must be limited to 1 to 4096 bytes";
    }
    if (param.fileCount == 0 || param.fileCount > kMostFiles) {
        return "1 to 1000 files must be kept";
    }
    if (param.fileSize == 0 || param.fileSize > INT32_MAX) {
        return "its files must be limited to 1 to 2147483647 bytes";
    }
    return nullptr;
}

int32_t refuseCreation(int line, const char *reason) {
    tamo::hostRecord(tamo::kError, kUnit, line, "a log file is not created: %s", reason);
    return -1;
}

}  // namespace

int32_t TamoOmLogClientInit(const char *mode, uint32_t flag) {
    if (mode == nullptr || strcmp(mode, "C") != 0 || flag != 1) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "the log client is started with mode \"C\" and flag 1 only");
        return -1;
    }
    /* These record their failure. */
    if (tamo::rootDirectory("log") < 0 || tamo::rootDirectory("run") < 0) {
        return -1;
    }
    const std::lock_guard guard(clientLock);
    started = true;
    return 0;
}

/* Files stay open, as another thread may be writing; opened again, a file takes the same place. */
int32_t TamoOmLogClientUnInit(void) {
    const std::lock_guard guard(clientLock);
    started = false;
    for (LogFile &file : files) {
        file.active.store(false, std::memory_order_release);
    }
    return 0;
}

int32_t TamoOmLogCreateLog(const OmLogCreateParam *param, uint16_t *logFileId) {
    if (param == nullptr || logFileId == nullptr) {
        return refuseCreation(__LINE__, "it needs a description and a place for its id");
    }
    const char *fault = faultOf(*param);
    if (fault != nullptr) {
        return refuseCreation(__LINE__, fault);
    }
    const std::lock_guard guard(clientLock);
    if (!started) {
        return refuseCreation(__LINE__, "the log client is not started");
    }
    LogFile *file = findEntry(param->name);
    if (file == nullptr) {
        return refuseCreation(__LINE__, "this process has 8 log files, use one of them");
    }
    if (file->name[0] == '\0') {
        memcpy(file->name, param->name, strlen(param->name));
    }
    file->limits.recordSize = param->recordSize;
    file->limits.fileCount = param->fileCount;
    file->limits.fileSize = param->fileSize;
    if (!openLogFile(file)) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "log/%s below the device root cannot be opened (%s): it must be a file "
                         "that is yours to write",
                         param->name, strerror(errno));
        return -1;
    }
    file->active.store(true, std::memory_order_release);
    *logFileId = static_cast<uint16_t>(file - files + 1);
    return 0;
}

int32_t TamoOmLogModuleLogRecord(uint8_t level, uint16_t logFileId, const char *fileName, uint8_t,
                                 int32_t line, const char *format, ...) {
    if (format == nullptr) {
        return -1;
    }
    const int error = errno;
    const LogOrigin origin{level, fileName, line};
    LogFile *file = activeFile(logFileId);
    int32_t result = -1;
    va_list arguments;
    va_start(arguments, format);
    if (strcmp(format, "%s") == 0) {
        const char *text = va_arg(arguments, const char *);
        result = writeText(file, origin, text == nullptr ? "(null)" : text);
    } else {
        result = writeFormatted(file, origin, format, arguments);
    }
    va_end(arguments);
    errno = error;
    return result;
}

void tamo::hostRecord(RecordLevel level, const char *unit, int line, const char *format, ...) {
    const int error = errno;
    va_list arguments;
    va_start(arguments, format);
    (void)writeFormatted(firstActiveFile(), LogOrigin{level, unit, line}, format, arguments);
    va_end(arguments);
    errno = error;
}

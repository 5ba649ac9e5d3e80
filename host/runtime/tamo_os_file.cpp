/* libtamo_os_file: the file layer.
 *
 * The device root judges every path; what is left here are the C library's own operations, and
 * replacing files (replace_file.h). Failures leave errno set. */
#include "tamo_os_file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>

#include "host/base/descriptor.h"
#include "host/base/device_root.h"
#include "host/base/log.h"
#include "host/runtime/replace_file.h"

struct OsDir {
    DIR *stream;
    OsDirEntry entry;
};

namespace {

constexpr const char *kUnit = "tamo_os_file";
constexpr size_t kCompareChunk = 16U << 10;

void recordFailure(int line, const char *what, const char *path) {
    int error = errno;
    /* A file that is not there is an ordinary answer. */
    tamo::RecordLevel level = error == ENOENT ? tamo::kDebug : tamo::kWarning;
    tamo::hostRecord(level, kUnit, line, "%s %s failed: %s%s", what, path, strerror(error),
                     tamo::adviceOn(error));
}

bool toNative(const char *path, char (&native)[PATH_MAX]) {
    if (path == nullptr) {
        tamo::hostRecord(tamo::kWarning, kUnit, __LINE__, "a file operation was given no path");
        errno = EINVAL;
        return false;
    }
    return tamo::nativePath(path, native, sizeof(native));
}

bool sameContents(int source, int target, off_t size) {
    char expected[kCompareChunk];
    char found[kCompareChunk];
    for (off_t at = 0; at < size;) {
        ssize_t length = pread(source, expected, sizeof(expected), at);
        if (length <= 0 || pread(target, found, static_cast<size_t>(length), at) != length ||
            memcmp(expected, found, static_cast<size_t>(length)) != 0) {
            return false;
        }
        at += length;
    }
    return true;
}

/* Copying once more what is there already, as a refresh of a directory does, writes nothing. A
 * destination that shares its contents with another name is not left that way. */
bool isCopied(int source, const char *path) {
    struct stat status, there;
    const tamo::Descriptor target(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    return target.isOpen() && fstat(source, &status) == 0 && fstat(target.get(), &there) == 0 &&
           S_ISREG(there.st_mode) && there.st_nlink == 1 && there.st_size == status.st_size &&
           sameContents(source, target.get(), there.st_size);
}

bool copyTo(int source, const char *path) {
    const tamo::Contents contents(source);
    const tamo::Replaced replaced = tamo::replaceByCopy(path, contents);
    return replaced == tamo::Replaced::kDone ||
           (replaced == tamo::Replaced::kOnlyInPlace && tamo::writeInPlace(path, contents));
}

}  // namespace

OsDir *OsOpenDir(const char *path) {
    char native[PATH_MAX];
    if (!toNative(path, native)) {
        return nullptr;
    }
    DIR *stream = opendir(native);
    if (stream == nullptr) {
        recordFailure(__LINE__, "the walk of", path);
        return nullptr;
    }
    OsDir *dir = new (std::nothrow) OsDir{stream, {nullptr}};
    if (dir == nullptr) {
        closedir(stream);
    }
    return dir;
}

OsDirEntry *OsReadDir(OsDir *dir) {
    if (dir == nullptr) {
        return nullptr;
    }
    errno = 0;
    const struct dirent *found = readdir(dir->stream);
    if (found == nullptr) {
        if (errno != 0) {
            recordFailure(__LINE__, "the walk of", "a directory");
        }
        return nullptr;
    }
    dir->entry.name = found->d_name;
    return &dir->entry;
}

void OsCloseDir(OsDir *dir) {
    if (dir != nullptr) {
        closedir(dir->stream);
        delete dir;
    }
}

int32_t OsCopyFile(const char *source, const char *destination) {
    char from[PATH_MAX];
    char to[PATH_MAX];
    if (!toNative(source, from) || !toNative(destination, to)) {
        return -1;
    }
    /* Not blocking: a pipe is refused instead of waited for. */
    const tamo::Descriptor opened(open(from, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status;
    if (!opened.isOpen() || fstat(opened.get(), &status) != 0) {
        recordFailure(__LINE__, "copying", source);
        return -1;
    }
    if (!S_ISREG(status.st_mode) || to[strlen(to) - 1] == '/') {
        tamo::hostRecord(tamo::kWarning, kUnit, __LINE__,
                         "%s is not copied to %s: only a regular file is, to a file name", source,
                         destination);
        errno = EINVAL;
        return -1;
    }
    if (!isCopied(opened.get(), to) && !copyTo(opened.get(), to)) {
        recordFailure(__LINE__, "copying to", destination);
        return -1;
    }
    return 0;
}

int32_t OsReplaceFile(const char *path, const void *contents, size_t size, int32_t inPlace) {
    char native[PATH_MAX];
    if (!toNative(path, native) || contents == nullptr) {
        return OS_REPLACE_FAILED;
    }
    const tamo::Contents bytes(contents, size);
    const tamo::Replaced replaced =
        inPlace == 0 ? tamo::replaceFile(native, bytes) : tamo::Replaced::kOnlyInPlace;
    if (replaced == tamo::Replaced::kDone) {
        return OS_REPLACE_DONE;
    }
    if (inPlace == 0 && replaced == tamo::Replaced::kOnlyInPlace) {
        tamo::hostRecord(tamo::kDebug, kUnit, __LINE__, "%s can be written in place only: %s", path,
                         strerror(errno));
        return OS_REPLACE_ONLY_IN_PLACE;
    }
    if (inPlace != 0 && tamo::writeInPlace(native, bytes)) {
        return OS_REPLACE_DONE;
    }
    recordFailure(__LINE__, "replacing", path);
    return OS_REPLACE_FAILED;
}

int32_t OsFlushFile(const char *path) {
    char native[PATH_MAX];
    if (!toNative(path, native)) {
        return -1;
    }
    if (!tamo::flushFile(native)) {
        recordFailure(__LINE__, "flushing", path);
        return -1;
    }
    return 0;
}

int32_t OsRemove(const char *path) {
    char native[PATH_MAX];
    if (!toNative(path, native)) {
        return -1;
    }
    if (remove(native) != 0) {
        recordFailure(__LINE__, "removing", path);
        return -1;
    }
    return 0;
}

FILE *OsFopen(const char *path, const char *mode) {
    char native[PATH_MAX];
    if (mode == nullptr || !toNative(path, native)) {
        return nullptr;
    }
    /* Adds close-on-exec, ahead of any ",ccs=" part. */
    char closing[32];
    if (mode[0] == '\0' ||
        snprintf(closing, sizeof(closing), "%ce%s", mode[0], mode + 1) >= int{sizeof(closing)}) {
        tamo::hostRecord(tamo::kWarning, kUnit, __LINE__, "%.200s is not opened: no such mode",
                         path);
        return nullptr;
    }
    FILE *stream = fopen(native, closing);
    if (stream == nullptr) {
        recordFailure(__LINE__, "opening", path);
    }
    return stream;
}

const char *OsFileNativePath(const char *devicePath, char *buffer, size_t size) {
    return tamo::nativePath(devicePath, buffer, size) ? buffer : nullptr;
}

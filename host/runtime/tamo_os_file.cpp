/* libtamo_os_file: the file layer.
 *
 * The device root judges every path; what is left here are the C library's own operations. A copy
 * is made in a file without a name where the file system has such, so that a walk of the
 * destination's directory meets no half-made file and a killed process leaves none behind. Failures
 * leave errno set. */
#include "tamo_os_file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/random.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>

#include "host/base/descriptor.h"
#include "host/base/device_root.h"
#include "host/base/log.h"

struct OsDir {
    DIR *stream;
    OsDirEntry entry;
};

namespace {

using tamo::Descriptor;

constexpr const char *kUnit = "tamo_os_file";
constexpr size_t kCopyChunk = 16U << 20;
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

/* A name that no other copy uses; hidden, for those who see it all the same. */
bool temporaryName(char (&name)[32]) {
    uint64_t number = 0;
    if (getrandom(&number, sizeof(number), 0) != sizeof(number)) {
        return false;
    }
    (void)snprintf(name, sizeof(name), ".copy-%016llx", static_cast<unsigned long long>(number));
    return true;
}

bool copyContents(int source, int target) {
    for (;;) {
        ssize_t copied = sendfile(target, source, nullptr, kCopyChunk);
        if (copied == 0) {
            return true;
        }
        if (copied < 0 && errno != EINTR) {
            return false;
        }
    }
}

/* On stable storage before it gets its name: the name never stands for less than the whole. */
bool fillCopy(int source, const struct stat &status, int target) {
    return copyContents(source, target) && fchmod(target, status.st_mode & 0777) == 0 &&
           fdatasync(target) == 0;
}

bool nameUnnamed(int target, int directory, const char *name) {
    char self[32];
    (void)snprintf(self, sizeof(self), "/proc/self/fd/%d", target);
    return linkat(AT_FDCWD, self, directory, name, AT_SYMLINK_FOLLOW) == 0;
}

bool moveTo(int directory, const char *temporary, const char *name) {
    if (renameat(directory, temporary, directory, name) == 0) {
        return true;
    }
    int error = errno;
    unlinkat(directory, temporary, 0);
    errno = error;
    return false;
}

bool copyUnnamed(int source, const struct stat &status, int target, int directory,
                 const char *name) {
    if (!fillCopy(source, status, target)) {
        return false;
    }
    if (nameUnnamed(target, directory, name)) {
        return true;
    }
    char temporary[32];
    return errno == EEXIST && temporaryName(temporary) &&
           nameUnnamed(target, directory, temporary) && moveTo(directory, temporary, name);
}

bool copyNamed(int source, const struct stat &status, int directory, const char *name) {
    char temporary[32];
    if (!temporaryName(temporary)) {
        return false;
    }
    Descriptor target(openat(directory, temporary, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!target.isOpen()) {
        return false;
    }
    if (fillCopy(source, status, target.get())) {
        return moveTo(directory, temporary, name);
    }
    int error = errno;
    unlinkat(directory, temporary, 0);
    errno = error;
    return false;
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
bool isCopied(int source, const struct stat &status, int directory, const char *name) {
    Descriptor target(openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat there;
    return target.isOpen() && fstat(target.get(), &there) == 0 && S_ISREG(there.st_mode) &&
           there.st_nlink == 1 && there.st_size == status.st_size &&
           (there.st_mode & 0777) == (status.st_mode & 0777) &&
           sameContents(source, target.get(), there.st_size);
}

bool copyInto(int source, const struct stat &status, const char *parent, const char *name) {
    Descriptor directory(open(parent, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.isOpen()) {
        return false;
    }
    if (isCopied(source, status, directory.get(), name)) {
        return true;
    }
    Descriptor target(openat(directory.get(), ".", O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600));
    if (target.isOpen()) {
        return copyUnnamed(source, status, target.get(), directory.get(), name);
    }
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) {
        return false;
    }
    return copyNamed(source, status, directory.get(), name);
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
    Descriptor opened(open(from, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status;
    if (!opened.isOpen() || fstat(opened.get(), &status) != 0) {
        recordFailure(__LINE__, "copying", source);
        return -1;
    }
    char *name = strrchr(to, '/');
    if (!S_ISREG(status.st_mode) || name[1] == '\0') {
        tamo::hostRecord(tamo::kWarning, kUnit, __LINE__,
                         "%s is not copied to %s: only a regular file is, to a file name", source,
                         destination);
        errno = EINVAL;
        return -1;
    }
    *name++ = '\0';
    if (!copyInto(opened.get(), status, to, name)) {
        recordFailure(__LINE__, "copying to", destination);
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

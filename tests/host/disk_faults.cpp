/* See disk_faults.h. The program exports these functions, so that they stand before the C library's.
 * They make the system calls themselves: a sanitizer writes before the C library can be asked for
 * its own. */
#include "disk_faults.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

namespace support {
std::atomic<bool> diskFull = false;
std::atomic<bool> diskIsFixed = false;
std::atomic<long> diskRoom = -1;
std::atomic<bool> noUnnamedFiles = false;
std::atomic<bool> diskTight = false;
std::atomic<int> flushes = 0;
}  // namespace support

namespace {

bool isRegularFile(int file) {
    struct stat status;
    return fstat(file, &status) == 0 && S_ISREG(status.st_mode);
}

bool refuses(int file) {
    if (!support::diskFull || file <= STDERR_FILENO || !isRegularFile(file)) {
        return false;
    }
    errno = ENOSPC;
    return true;
}

bool refusesGrowth(int file, int64_t end) {
    struct stat status;
    if (!support::diskIsFixed || fstat(file, &status) != 0 || status.st_size >= end) {
        return false;
    }
    errno = ENOSPC;
    return true;
}

/* How much of `size` bytes still fits; 0, with errno set, when nothing does. */
size_t takeRoom(int file, size_t size) {
    if (support::diskRoom < 0 || file <= STDERR_FILENO || !isRegularFile(file)) {
        return size;
    }
    const size_t fits = std::min(size, static_cast<size_t>(support::diskRoom.load()));
    support::diskRoom -= static_cast<long>(fits);
    errno = fits == 0 ? ENOSPC : errno;
    return fits;
}

}  // namespace

/* By the names that the C library gives them, with and without large file offsets. */
extern "C" {
ssize_t faultyWrite(int, const void *, size_t) __asm__("write");
ssize_t faultyPwrite(int, const void *, size_t, long) __asm__("pwrite");
ssize_t faultyPwriteLarge(int, const void *, size_t, int64_t) __asm__("pwrite64");
ssize_t faultySendfile(int, int, void *, size_t) __asm__("sendfile");
ssize_t faultySendfileLarge(int, int, void *, size_t) __asm__("sendfile64");
int faultyOpen(int, const char *, int, mode_t) __asm__("openat");
int faultyOpenLarge(int, const char *, int, mode_t) __asm__("openat64");
int tightStatvfs(int, struct statvfs *) __asm__("fstatvfs");
int tightStatvfsLarge(int, struct statvfs *) __asm__("fstatvfs64");
int countedFsync(int) __asm__("fsync");
int countedFdatasync(int) __asm__("fdatasync");
}

ssize_t faultyWrite(int file, const void *data, size_t size) {
    if (refuses(file)) {
        return -1;
    }
    const size_t fits = takeRoom(file, size);
    return fits == 0 && size != 0 ? -1 : syscall(SYS_write, file, data, fits);
}

ssize_t faultySendfile(int target, int source, void *, size_t count) {
    const size_t fits = takeRoom(target, count);
    return fits == 0 && count != 0 ? -1 : syscall(SYS_sendfile, target, source, nullptr, fits);
}

ssize_t faultySendfileLarge(int target, int source, void *offset, size_t count) {
    return faultySendfile(target, source, offset, count);
}

int faultyOpen(int directory, const char *name, int flags, mode_t mode) {
    if (support::noUnnamedFiles && (flags & O_TMPFILE) == O_TMPFILE) {
        errno = EOPNOTSUPP;
        return -1;
    }
    return static_cast<int>(syscall(SYS_openat, directory, name, flags | O_LARGEFILE, mode));
}

int faultyOpenLarge(int directory, const char *name, int flags, mode_t mode) {
    return faultyOpen(directory, name, flags, mode);
}

ssize_t faultyPwrite(int file, const void *data, size_t size, long at) {
    return faultyPwriteLarge(file, data, size, at);
}

ssize_t faultyPwriteLarge(int file, const void *data, size_t size, int64_t at) {
    /* Where a word holds half of the offset, the other half follows. */
    if (refuses(file) || refusesGrowth(file, at + static_cast<int64_t>(size))) {
        return -1;
    }
    return syscall(SYS_pwrite64, file, data, size, static_cast<long>(at),
                   static_cast<long>(at >> 32));
}

int tightStatvfs(int, struct statvfs *disk) {
    *disk = {};
    disk->f_frsize = 4096;
    disk->f_bavail = support::diskTight ? 0 : 1 << 20;
    return 0;
}

int tightStatvfsLarge(int file, struct statvfs *disk) {
    return tightStatvfs(file, disk);
}

int countedFsync(int file) {
    support::flushes++;
    return static_cast<int>(syscall(SYS_fsync, file));
}

int countedFdatasync(int file) {
    support::flushes++;
    return static_cast<int>(syscall(SYS_fdatasync, file));
}

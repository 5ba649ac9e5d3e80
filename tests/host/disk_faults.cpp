/* See disk_faults.h. The program exports these functions, so that they stand before the C library's.
 * They make the system calls themselves: a sanitizer writes before the C library can be asked for
 * its own. */
#include "disk_faults.h"

#include <errno.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace support {
std::atomic<bool> diskFull = false;
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

}  // namespace

/* By the names that the C library gives them, with and without large file offsets. */
extern "C" {
ssize_t faultyWrite(int, const void *, size_t) __asm__("write");
ssize_t faultyPwrite(int, const void *, size_t, long) __asm__("pwrite");
ssize_t faultyPwriteLarge(int, const void *, size_t, int64_t) __asm__("pwrite64");
int tightStatvfs(int, struct statvfs *) __asm__("fstatvfs");
int tightStatvfsLarge(int, struct statvfs *) __asm__("fstatvfs64");
int countedFsync(int) __asm__("fsync");
int countedFdatasync(int) __asm__("fdatasync");
}

ssize_t faultyWrite(int file, const void *data, size_t size) {
    return refuses(file) ? -1 : syscall(SYS_write, file, data, size);
}

ssize_t faultyPwrite(int file, const void *data, size_t size, long at) {
    return faultyPwriteLarge(file, data, size, at);
}

ssize_t faultyPwriteLarge(int file, const void *data, size_t size, int64_t at) {
    /* Where a word holds half of the offset, the other half follows. */
    return refuses(file) ? -1
                         : syscall(SYS_pwrite64, file, data, size, static_cast<long>(at),
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

/* See disk_faults.h. The program exports these, so that they stand before the C library's. */
#include "disk_faults.h"

#include <dlfcn.h>
#include <errno.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace support {
std::atomic<bool> diskFull = false;
std::atomic<int> flushes = 0;
}  // namespace support

namespace {

template <typename Function>
Function *next(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

bool refuses(int file) {
    struct stat status;
    if (!support::diskFull || file <= STDERR_FILENO || fstat(file, &status) != 0 ||
        !S_ISREG(status.st_mode)) {
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
int countedFsync(int) __asm__("fsync");
int countedFdatasync(int) __asm__("fdatasync");
}

ssize_t faultyWrite(int file, const void *data, size_t size) {
    return refuses(file) ? -1 : next<decltype(faultyWrite)>("write")(file, data, size);
}

ssize_t faultyPwrite(int file, const void *data, size_t size, long at) {
    return refuses(file) ? -1 : next<decltype(faultyPwrite)>("pwrite")(file, data, size, at);
}

ssize_t faultyPwriteLarge(int file, const void *data, size_t size, int64_t at) {
    return refuses(file) ? -1 : next<decltype(faultyPwriteLarge)>("pwrite64")(file, data, size, at);
}

int countedFsync(int file) {
    support::flushes++;
    return next<decltype(countedFsync)>("fsync")(file);
}

int countedFdatasync(int file) {
    support::flushes++;
    return next<decltype(countedFdatasync)>("fdatasync")(file);
}

/* The files of the configuration store, and the lock of those who open it. */
#include "host/configuration/store_directory.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include "host/base/device_root.h"
#include "host/base/log.h"
#include "tamo_host.h"

namespace tamo::configuration {
namespace {

constexpr const char *kUnit = "tamo_om_config_directory";
/* The shared index takes 32 KiB, the first entries of a log some more. */
constexpr uint64_t kTightBytes = 128 << 10;
/* What SQLite keeps beside a file, by the end of its name. */
constexpr const char *kCompanions[] = {"-wal", "-shm", "-journal"};

void companionName(char *buffer, size_t size, const char *file, const char *companion) {
    (void)snprintf(buffer, size, "%s%s", file, companion);
}

bool isTaken(int directory, const char *name) {
    bool taken = directoryHas(directory, name);
    for (const char *companion : kCompanions) {
        char full[80];
        companionName(full, sizeof(full), name, companion);
        taken = taken || directoryHas(directory, full);
    }
    return taken;
}

/* Finds a name that nothing in the directory has. */
void nameAside(int directory, char *name, size_t size) {
    char when[32];
    struct tm parts;
    time_t now = time(nullptr);
    (void)strftime(when, sizeof(when), "%Y%m%dT%H%M%SZ", gmtime_r(&now, &parts));
    (void)snprintf(name, size, "%s.damaged-%s", kStoreFile, when);
    for (int number = 2; isTaken(directory, name); number++) {
        (void)snprintf(name, size, "%s.damaged-%s-%d", kStoreFile, when, number);
    }
}

uint32_t syncDirectory(int directory) {
    int above = openat(directory, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    bool synced = above >= 0 && fsync(directory) == 0 && fsync(above) == 0;
    int error = errno;
    if (above >= 0) {
        close(above);
    }
    errno = error;
    return synced ? uint32_t{TAMO_HOST_OK}
                  : directoryFailure("keeping the fresh configuration store", __LINE__);
}

}  // namespace

OpenLock::OpenLock(int directory, int mostMs)
    : descriptor(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    const struct timespec nap = {.tv_sec = 0, .tv_nsec = 1000000};
    int waited = 0;
    while (descriptor >= 0 && !isTaken) {
        isTaken = flock(descriptor, mostMs < 0 ? LOCK_EX : LOCK_EX | LOCK_NB) == 0;
        if (!isTaken && errno != EINTR && (errno != EWOULDBLOCK || waited++ == mostMs)) {
            return;
        }
        if (!isTaken) {
            (void)nanosleep(&nap, nullptr);
        }
    }
}

OpenLock::~OpenLock() {
    if (descriptor >= 0) {
        close(descriptor);
    }
}

WalFiles findWalFiles() {
    const int directory = rootDirectory("config");
    auto find = [directory](const char *name) {
        struct stat status;
        bool there = fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0;
        return there ? uint64_t{status.st_ino} : 0;
    };
    return {find(kStoreLogFile), find("config.db-shm")};
}

uint32_t directoryFailure(const char *what, int line) {
    const char *advice = errno == ENOSPC || errno == EDQUOT ? ": free space below it" : "";
    hostRecord(kError, kUnit, line, "%s in %s/config failed: %s%s", what, deviceRoot(),
               strerror(errno), advice);
    return TAMO_HOST_SYSTEM;
}

bool directoryHas(int directory, const char *name) {
    struct stat status;
    return fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

bool diskIsTight(int directory) {
    struct statvfs disk;
    if (fstatvfs(directory, &disk) != 0) {
        return false;
    }
    return uint64_t{disk.f_bavail} * disk.f_frsize < kTightBytes;
}

void keepIndex(int directory) {
    /* Not opened where it is there: closing it would drop the locks that this process has on it. */
    int made = openat(directory, "config.db-shm", O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (made >= 0) {
        close(made);
    }
}

/* The log goes along, or it would be taken for the log of the next store. */
uint32_t moveStoreAside(int directory, const char *why) {
    char name[64];
    nameAside(directory, name, sizeof(name));
    if (renameat(directory, kStoreFile, directory, name) != 0 && errno != ENOENT) {
        return directoryFailure("moving the damaged configuration store aside", __LINE__);
    }
    for (const char *companion : kCompanions) {
        char from[80];
        char to[80];
        companionName(from, sizeof(from), kStoreFile, companion);
        companionName(to, sizeof(to), name, companion);
        if (renameat(directory, from, directory, to) != 0 && errno != ENOENT) {
            return directoryFailure("moving the damaged configuration store's log aside", __LINE__);
        }
    }
    hostRecord(kError, kUnit, __LINE__,
               "the configuration store %s/config/%s is %s: it is kept as %s and a fresh store is "
               "begun; to go back to it, end all processes and rename it when it is repaired",
               deviceRoot(), kStoreFile, why, name);
    return TAMO_HOST_OK;
}

void removeUnfinishedStore(int directory) {
    (void)unlinkat(directory, kFreshStoreFile, 0);
    for (const char *companion : kCompanions) {
        char name[80];
        companionName(name, sizeof(name), kFreshStoreFile, companion);
        (void)unlinkat(directory, name, 0);
    }
}

uint32_t nameFreshStore(int directory) {
    if (renameat(directory, kFreshStoreFile, directory, kStoreFile) != 0) {
        return directoryFailure("naming the fresh configuration store", __LINE__);
    }
    return syncDirectory(directory);
}

}  // namespace tamo::configuration

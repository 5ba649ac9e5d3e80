/* Finding, making and locking the counters of a log file. */
#include "host/log/log_counters.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/base/descriptor.h"
#include "host/base/device_root.h"
#include "host/base/shared_page.h"

namespace tamo::log {
namespace {

constexpr uint32_t kMagic = 0x4C4F4732; /* "LOG2": also the version of the layout */

/* What run/log.NAME holds. */
struct CountersFile {
    uint32_t magic;
    int32_t number;
};

static_assert(sizeof(LogCounters) == 80 && sizeof(CountersFile) == 8);

bool setLock(int file, int command, short type) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    int result = 0;
    do {
        result = fcntl(file, command, &lock);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

int numberInFile(int file) {
    CountersFile content = {};
    const ssize_t size = pread(file, &content, sizeof(content), 0);
    return size == ssize_t{sizeof(content)} && content.magic == kMagic ? content.number : -1;
}

void name(LogCounters *counters, const char *name) {
    struct stat directory = {};
    (void)fstat(rootDirectory("log"), &directory);
    counters->device = directory.st_dev;
    counters->directory = directory.st_ino;
    (void)snprintf(counters->name, sizeof(counters->name), "%s", name);
}

bool isOf(const LogCounters &counters, const char *wanted) {
    LogCounters named = {};
    name(&named, wanted);
    return counters.magic.load(std::memory_order_acquire) == kMagic &&
           counters.device == named.device && counters.directory == named.directory &&
           memcmp(counters.name, named.name, sizeof(named.name)) == 0;
}

LogCounters *join(int number, const char *name) {
    auto *counters =
        number < 0 ? nullptr
                   : static_cast<LogCounters *>(joinSharedPage(number, sizeof(LogCounters), false));
    if (counters != nullptr && !isOf(*counters, name)) {
        leaveSharedPage(counters);
        return nullptr;
    }
    return counters;
}

LogCounters *make(const char *wanted, int *number) {
    auto *counters = static_cast<LogCounters *>(makeSharedPage(sizeof(LogCounters), number));
    if (counters != nullptr) {
        name(counters, wanted);
        counters->magic.store(kMagic, std::memory_order_release);
    }
    return counters;
}

/* With the lock: uses the counters that the file tells, or has it tell those that this process has,
 * or new ones. */
bool useCounters(CountersAccess *access, const char *name) {
    const int told = numberInFile(access->file);
    if (access->number >= 0 && told == access->number) {
        return false;
    }
    int number = told;
    LogCounters *counters = join(told, name);
    if (counters == nullptr && access->number < 0) {
        counters = make(name, &number);
    }
    if (counters != nullptr) {
        if (access->number >= 0) {
            leaveSharedPage(access->shared);
        }
        access->shared = counters;
        access->number = number;
    }
    const bool anew = counters != nullptr || access->shared == nullptr;
    if (access->shared == nullptr) {
        access->shared = &access->privateOnes;
    }
    if (access->number >= 0 && access->number != told) {
        const CountersFile content = {kMagic, access->number};
        (void)!pwrite(access->file, &content, sizeof(content), 0);
    }
    return anew;
}

}  // namespace

bool lockLogCounters(CountersAccess *access, const char *name, bool *anew) {
    char path[kLogNameMax + 8];
    (void)snprintf(path, sizeof(path), "log.%s", name);
    const int directory = rootDirectory("run");
    for (;;) {
        if (access->file < 0) {
            access->file =
                openat(directory, path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kLogFileMode);
        }
        if (access->file < 0 || !setLock(access->file, F_SETLKW, F_WRLCK)) {
            return false;
        }
        /* One that was deleted keeps nobody out. */
        if (hasName(access->file, directory, path)) {
            *anew = useCounters(access, name);
            return true;
        }
        close(access->file);
        access->file = -1;
    }
}

void unlockLogCounters(CountersAccess *access) {
    (void)setLock(access->file, F_SETLK, F_UNLCK);
}

bool areCountersInPlace(const CountersAccess &access) {
    struct stat status = {};
    return access.file >= 0 && fstat(access.file, &status) == 0 && status.st_nlink != 0 &&
           (access.number < 0 || numberInFile(access.file) == access.number);
}

}  // namespace tamo::log

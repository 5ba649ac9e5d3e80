/* Opening, mapping and locking the counters of a log file. */
#include "host/log/log_counters.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/base/device_root.h"

namespace tamo {
namespace {

constexpr uint32_t kMagic = 0x4C4F4731; /* "LOG1" */
constexpr size_t kCountersSize = 4096;

static_assert(sizeof(LogCounters) == 16);

/* New counters begin with another generation than this process's: it cannot know whether the file
 * that it has open is still the current one. */
void useCounters(LogFile *file, LogCounters *counters) {
    if (counters->magic.load(std::memory_order_acquire) != kMagic) {
        counters->place.store(makePlace(file->generation.load() + 1, currentLogSize(*file)));
        counters->torn.store(0);
        counters->magic.store(kMagic, std::memory_order_release);
    }
    file->counters.store(counters, std::memory_order_release);
}

/* The space is taken at once: a full disk must not show as a bus error later. An earlier mapping
 * stays, since another thread may be counting in it; that is one page each time that somebody
 * deletes the file. */
void mapCounters(LogFile *file) {
    void *memory = MAP_FAILED;
    if (posix_fallocate(file->countersFile, 0, kCountersSize) == 0) {
        memory =
            mmap(nullptr, kCountersSize, PROT_READ | PROT_WRITE, MAP_SHARED, file->countersFile, 0);
    }
    useCounters(file,
                memory == MAP_FAILED ? &file->privateCounters : static_cast<LogCounters *>(memory));
}

bool waitForLock(int descriptor) {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    int result = 0;
    do {
        result = fcntl(descriptor, F_SETLKW, &lock);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

void dropCounters(LogFile *file) {
    close(file->countersFile);
    file->countersFile = -1;
}

}  // namespace

uint64_t currentLogSize(const LogFile &file) {
    struct stat status = {};
    const int result = fstatat(rootDirectory("log"), file.name, &status, AT_SYMLINK_NOFOLLOW);
    return result == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

bool lockLogCounters(LogFile *file) {
    char name[kLogNameMax + 8];
    (void)snprintf(name, sizeof(name), "log.%s", file->name);
    const int directory = rootDirectory("run");
    for (;;) {
        const bool opened = file->countersFile < 0;
        if (opened) {
            file->countersFile =
                openat(directory, name, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kLogFileMode);
        }
        if (file->countersFile < 0 || !waitForLock(file->countersFile)) {
            return false;
        }
        struct stat mine = {};
        struct stat named = {};
        if (fstat(file->countersFile, &mine) == 0 &&
            fstatat(directory, name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
            mine.st_dev == named.st_dev && mine.st_ino == named.st_ino) {
            if (opened || file->counters.load() == &file->privateCounters) {
                mapCounters(file);
            }
            return true;
        }
        dropCounters(file);
    }
}

void unlockLogCounters(LogFile *file) {
    struct flock lock = {};
    lock.l_type = F_UNLCK;
    lock.l_whence = SEEK_SET;
    (void)fcntl(file->countersFile, F_SETLK, &lock);
}

}  // namespace tamo

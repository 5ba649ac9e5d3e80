/* Log files: see log_file.h. */
#include "log_file.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "device_root.h"

namespace tamo {
namespace {

constexpr uint32_t kMagic = 0x4C4F4731; /* "LOG1" */
constexpr size_t kCountersSize = 4096;
constexpr uint32_t kCheckInterval = 100;       /* milliseconds */
constexpr uint32_t kComplaintInterval = 10000; /* milliseconds */
constexpr mode_t kMode = 0600;
constexpr int kOpenFlags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

static_assert(sizeof(LogCounters) == 16);

/* One thread of this process opens or rotates at a time. Record locks tell processes apart only. */
pthread_mutex_t fileLock = PTHREAD_MUTEX_INITIALIZER;

struct NumberedName {
    char text[kLogNameMax + 16];
};

class Locked {
  public:
    Locked() { pthread_mutex_lock(&fileLock); }
    ~Locked() { pthread_mutex_unlock(&fileLock); }
    Locked(const Locked &) = delete;
    Locked &operator=(const Locked &) = delete;
};

__attribute__((constructor)) void watchForks() {
    (void)pthread_atfork([] { pthread_mutex_lock(&fileLock); },
                         [] { pthread_mutex_unlock(&fileLock); },
                         [] { pthread_mutex_unlock(&fileLock); });
}

uint32_t generationOf(uint64_t place) {
    return static_cast<uint32_t>(place >> 32);
}

uint32_t bytesOf(uint64_t place) {
    return static_cast<uint32_t>(place);
}

uint64_t makePlace(uint32_t generation, uint64_t bytes) {
    return static_cast<uint64_t>(generation) << 32 | (bytes < INT32_MAX ? bytes : INT32_MAX);
}

/* True for one thread when `interval` passed since it last was. The clock may be set back and the
 * milliseconds wrap around: either only makes it true too early. */
bool isTime(std::atomic<uint32_t> *last, uint32_t interval, uint32_t now) {
    uint32_t before = last->load(std::memory_order_relaxed);
    return now - before >= interval && last->compare_exchange_strong(before, now);
}

NumberedName numbered(const LogFile &file, uint32_t number) {
    NumberedName name;
    if (number == 0) {
        (void)snprintf(name.text, sizeof(name.text), "%s", file.name);
    } else {
        (void)snprintf(name.text, sizeof(name.text), "%s.%u", file.name, number);
    }
    return name;
}

/* To standard error, since the log is what fails; seldom, since it will fail for every record. */
void complain(LogFile *file, uint32_t now, const char *what, int error) {
    if (!isTime(&file->lastComplaint, kComplaintInterval, now)) {
        return;
    }
    char text[512];
    (void)snprintf(text, sizeof(text),
                   "log/%s below the device root cannot be %s (%s): make room on its disk and see "
                   "that the directory is yours to write; records are lost until then",
                   file->name, what, strerror(error));
    LogLine line;
    composeLogLine(&line, LogOrigin{1, "tamo_om_log_client", __LINE__}, text, sizeof(text));
    (void)!write(STDERR_FILENO, line.text, line.length);
}

bool isSameFile(const LogFile &file, const struct stat &status) {
    return status.st_dev == file.device && status.st_ino == file.inode;
}

uint64_t currentSize(const LogFile &file) {
    struct stat status = {};
    const int result = fstatat(rootDirectory("log"), file.name, &status, AT_SYMLINK_NOFOLLOW);
    return result == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

/* ---- the counters ---- */

/* New counters begin with another generation than this process's: it cannot know whether the file
 * that it has open is still the current one. */
void useCounters(LogFile *file, LogCounters *counters) {
    if (counters->magic.load(std::memory_order_acquire) != kMagic) {
        counters->place.store(makePlace(file->generation.load() + 1, currentSize(*file)));
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

void unlockCounters(LogFile *file) {
    struct flock lock = {};
    lock.l_type = F_UNLCK;
    lock.l_whence = SEEK_SET;
    (void)fcntl(file->countersFile, F_SETLK, &lock);
}

void dropCounters(LogFile *file) {
    close(file->countersFile);
    file->countersFile = -1;
}

/* Locks the counters' file that has the name now: one that was deleted keeps nobody out. */
bool lockCounters(LogFile *file) {
    char name[kLogNameMax + 8];
    (void)snprintf(name, sizeof(name), "log.%s", file->name);
    const int directory = rootDirectory("run");
    for (;;) {
        const bool opened = file->countersFile < 0;
        if (opened) {
            file->countersFile =
                openat(directory, name, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kMode);
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

/* ---- opening and rotating, with both locks held ---- */

/* Makes `opened` the file that records go to. */
bool takeDescriptor(LogFile *file, int opened) {
    struct stat status = {};
    bool taken = fstat(opened, &status) == 0;
    if (taken && !S_ISREG(status.st_mode)) {
        errno = EINVAL;
        taken = false;
    }
    const int current = file->descriptor.load();
    if (taken && current < 0) {
        file->descriptor.store(opened);
    } else {
        taken = taken && dup3(opened, current, O_CLOEXEC) >= 0;
        const int error = errno;
        close(opened);
        errno = error;
    }
    if (taken) {
        file->device = status.st_dev;
        file->inode = status.st_ino;
    }
    return taken;
}

bool openCurrent(LogFile *file) {
    const int opened = openat(rootDirectory("log"), file->name, kOpenFlags, kMode);
    return opened >= 0 && takeDescriptor(file, opened);
}

void setPlace(LogFile *file, uint32_t generation, uint64_t bytes) {
    file->counters.load()->place.store(makePlace(generation, bytes));
    file->generation.store(generation);
}

/* The new file is made first: when there is no room for one, the old files stay as they are. */
bool rotate(LogFile *file) {
    const int directory = rootDirectory("log");
    char fresh[kLogNameMax + 8];
    (void)snprintf(fresh, sizeof(fresh), "%s.new", file->name);
    (void)unlinkat(directory, fresh, 0);
    const int opened = openat(directory, fresh, kOpenFlags | O_EXCL, kMode);
    if (opened < 0) {
        return false;
    }
    for (uint32_t number = file->limits.fileCount.load() - 1; number > 0; number--) {
        (void)renameat(directory, numbered(*file, number - 1).text, directory,
                       numbered(*file, number).text);
    }
    if (renameat(directory, fresh, directory, file->name) != 0) {
        const int error = errno;
        close(opened);
        (void)unlinkat(directory, fresh, 0);
        errno = error;
        return false;
    }
    return takeDescriptor(file, opened);
}

/* ---- what writers do now and then ---- */

bool isFull(const LogFile &file, uint64_t place, size_t length) {
    return bytesOf(place) != 0 && bytesOf(place) + length > file.limits.fileSize.load();
}

/* Follows another process's rotation, or rotates; false when that fails, and the file that is open
 * takes the record all the same. */
bool advance(LogFile *file, size_t length, uint32_t now) {
    const Locked locked;
    if (!lockCounters(file)) {
        complain(file, now, "locked", errno);
        return false;
    }
    const uint64_t place = file->counters.load()->place.load();
    bool done = true;
    if (generationOf(place) != file->generation.load()) {
        done = openCurrent(file);
        if (done) {
            file->generation.store(generationOf(place));
        }
    } else if (isFull(*file, place, length)) {
        done = rotate(file);
        /* A failure is not repeated for every record: the file may grow by its size once more. */
        setPlace(file, generationOf(place) + (done ? 1 : 0), 0);
    }
    if (!done) {
        complain(file, now, "rotated", errno);
    }
    unlockCounters(file);
    return done;
}

/* Finds out whether somebody deleted or replaced the file or the counters, and begins anew then;
 * the next generation makes every other writer look, too. */
void check(LogFile *file, uint32_t now) {
    if (!isTime(&file->lastCheck, kCheckInterval, now)) {
        return;
    }
    const Locked locked;
    struct stat named = {};
    struct stat counters = {};
    if (fstatat(rootDirectory("log"), file->name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
        isSameFile(*file, named) && fstat(file->countersFile, &counters) == 0 &&
        counters.st_nlink != 0) {
        return;
    }
    if (!lockCounters(file)) {
        complain(file, now, "locked", errno);
        return;
    }
    const uint32_t generation = generationOf(file->counters.load()->place.load());
    const bool rotated = generation != file->generation.load();
    if (!openCurrent(file)) {
        complain(file, now, "opened", errno);
    } else if (rotated) {
        file->generation.store(generation);
    } else {
        setPlace(file, generation + 1, currentSize(*file));
    }
    unlockCounters(file);
}

/* Takes `length` bytes of the current file. Gives the place that the writer has there. */
uint64_t takeBytes(LogFile *file, size_t length, uint32_t now) {
    for (;;) {
        LogCounters *counters = file->counters.load(std::memory_order_acquire);
        uint64_t place = counters->place.load(std::memory_order_acquire);
        const uint32_t generation = file->generation.load(std::memory_order_relaxed);
        if (generationOf(place) == generation && !isFull(*file, place, length)) {
            place = counters->place.fetch_add(length);
            if (generationOf(place) == generation && !isFull(*file, place, length)) {
                return place;
            }
        }
        if (!advance(file, length, now)) {
            return place;
        }
    }
}

/* Not when the next file has begun: its bytes are others'. */
void returnBytes(LogFile *file, uint64_t taken, size_t length) {
    std::atomic<uint64_t> *place = &file->counters.load()->place;
    uint64_t current = place->load();
    while (generationOf(current) == generationOf(taken) && bytesOf(current) >= length &&
           !place->compare_exchange_weak(current, current - length)) {
    }
}

}  // namespace

bool openLogFile(LogFile *file) {
    const Locked locked;
    if (rootDirectory("log") < 0 || !lockCounters(file)) {
        return false;
    }
    const bool opened = openCurrent(file);
    if (opened) {
        setPlace(file, generationOf(file->counters.load()->place.load()), currentSize(*file));
    }
    const int error = errno;
    unlockCounters(file);
    errno = error;
    return opened;
}

bool writeLogLine(LogFile *file, LogLine *line, uint32_t now) {
    check(file, now);
    const uint64_t place = takeBytes(file, line->length, now);
    LogCounters *counters = file->counters.load(std::memory_order_acquire);
    const char *start = line->text;
    size_t length = line->length;
    /* Somebody's write ended early: this record must not continue that line. */
    if (counters->torn.load(std::memory_order_relaxed) != 0 && counters->torn.exchange(0) != 0) {
        line->before = '\n';
        start = &line->before;
        length++;
    }
    ssize_t written = 0;
    do {
        written = write(file->descriptor.load(std::memory_order_relaxed), start, length);
    } while (written < 0 && errno == EINTR);
    if (written == static_cast<ssize_t>(length)) {
        return true;
    }
    const int error = written < 0 ? errno : ENOSPC;
    if (written > 0 || start != line->text) {
        counters->torn.store(1);
    }
    returnBytes(file, place, line->length);
    complain(file, now, "written", error);
    return false;
}

}  // namespace tamo

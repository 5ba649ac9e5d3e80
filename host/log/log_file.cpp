/* Log files: see log_file.h. Here is what their writers do. */
#include "host/log/log_file.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/base/device_root.h"
#include "host/base/fork.h"
#include "host/log/log_counters.h"

namespace tamo {
namespace {

constexpr uint32_t kCheckInterval = 100;       /* milliseconds */
constexpr uint32_t kComplaintInterval = 10000; /* milliseconds */
constexpr int kOpenFlags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

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
    guardForks(ForkStage::kLogFile,
               {[] { pthread_mutex_lock(&fileLock); }, [] { pthread_mutex_unlock(&fileLock); },
                [] { pthread_mutex_unlock(&fileLock); }});
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
    const bool stillWritten = strcmp(what, "rotated") == 0;
    if (!isTime(&file->lastComplaint, kComplaintInterval, now)) {
        return;
    }
    char text[512];
    (void)snprintf(text, sizeof(text),
                   "log/%s below the device root cannot be %s (%s): see that its disk has room and "
                   "that its directory is yours to write; until then %s",
                   file->name, what, strerror(error),
                   stillWritten ? "the file grows on" : "records are lost");
    LogLine line;
    composeLogLine(&line, LogOrigin{1, "tamo_om_log_client", __LINE__}, text, sizeof(text));
    (void)!write(STDERR_FILENO, line.text, line.length);
}

bool isSameFile(const LogFile &file, const struct stat &status) {
    return status.st_dev == file.device && status.st_ino == file.inode;
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

/* A writer that was killed, or the machine's sudden end, may have cut the last line off. A line that
 * is being written may show in parts, too: a change of the mode waits for its end, and what ends
 * without a line feed before and after that is cut off. */
bool endsWithinLine(const LogFile &file) {
    const int reader =
        openat(rootDirectory("log"), file.name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (reader < 0) {
        return false;
    }
    char last = '\n';
    struct stat status = {};
    for (off_t before = -1; fstat(reader, &status) == 0 && status.st_size > before;) {
        before = status.st_size;
        (void)fchmod(reader, status.st_mode & 07777);
        if (before == 0 || pread(reader, &last, 1, before - 1) != 1 || last == '\n') {
            last = '\n';
            break;
        }
    }
    close(reader);
    return last != '\n';
}

bool openCurrent(LogFile *file) {
    const int opened = openat(rootDirectory("log"), file->name, kOpenFlags, kLogFileMode);
    return opened >= 0 && takeDescriptor(file, opened);
}

void setPlace(LogFile *file, uint32_t generation, uint64_t bytes) {
    file->counters.load()->place.store(makePlace(generation, bytes));
    file->generation.store(generation);
}

/* Moves a file to a free name. A file system that cannot tell whether it is free just moves. */
bool moveFile(int directory, const char *from, const char *to) {
    return renameat2(directory, from, directory, to, RENAME_NOREPLACE) == 0 ||
           ((errno == EINVAL || errno == ENOSYS) && renameat(directory, from, directory, to) == 0);
}

/* Makes the current file's name free by moving each file to the next number, up to the first free
 * one (a process that was killed here left one in between) or the last, whose file is dropped. No
 * other file is ever replaced, even if somebody deletes the lock while it is held. */
bool moveUp(const LogFile &file, int directory) {
    const uint32_t last = file.limits.fileCount.load() - 1;
    uint32_t number = 1;
    while (number <= last &&
           faccessat(directory, numbered(file, number).text, F_OK, AT_SYMLINK_NOFOLLOW) == 0) {
        number++;
    }
    if (number > last) {
        (void)unlinkat(directory, numbered(file, last).text, 0);
        number = last;
    }
    for (; number > 0; number--) {
        if (!moveFile(directory, numbered(file, number - 1).text, numbered(file, number).text) &&
            errno != ENOENT) {
            return false;
        }
    }
    return true;
}

/* Without room for a new file, the one that is open stays the current one. */
bool rotate(LogFile *file) {
    const int directory = rootDirectory("log");
    if (!moveUp(*file, directory)) {
        return false;
    }
    if (openCurrent(file)) {
        return true;
    }
    const int error = errno;
    (void)moveFile(directory, numbered(*file, 1).text, file->name);
    errno = error;
    return false;
}

/* ---- what writers do now and then ---- */

bool isFull(const LogFile &file, uint64_t place, size_t length) {
    return bytesOf(place) != 0 && bytesOf(place) + length > file.limits.fileSize.load();
}

/* Follows another process's rotation, or rotates; false when that fails, and the file that is open
 * takes the record all the same. */
bool advance(LogFile *file, size_t length, uint32_t now) {
    const Locked locked;
    if (!lockLogCounters(file)) {
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
    unlockLogCounters(file);
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
    if (!lockLogCounters(file)) {
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
        setPlace(file, generation + 1, currentLogSize(*file));
    }
    unlockLogCounters(file);
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
    if (rootDirectory("log") < 0 || !lockLogCounters(file)) {
        return false;
    }
    const bool opened = openCurrent(file);
    if (opened) {
        file->lastComplaint.store(0);
        setPlace(file, generationOf(file->counters.load()->place.load()), currentLogSize(*file));
        if (endsWithinLine(*file)) {
            file->counters.load()->torn.store(1);
        }
    }
    const int error = errno;
    unlockLogCounters(file);
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

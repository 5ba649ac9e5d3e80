/* Log files: see log_file.h. Here is what their writers do. */
#include "host/log/log_file.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/base/descriptor.h"
#include "host/base/device_root.h"
#include "host/base/fast_tls.h"
#include "host/base/fork.h"

namespace tamo::log {
namespace {

constexpr uint32_t kCheckInterval = 100;       /* milliseconds */
constexpr uint32_t kComplaintInterval = 10000; /* milliseconds */
constexpr int kOpenFlags = O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

/* One thread of this process writes, opens or rotates at a time. */
pthread_mutex_t fileLock = PTHREAD_MUTEX_INITIALIZER;
uint32_t forks; /* under the lock */
__thread bool isInside TAMO_FAST_TLS;

struct NumberedName {
    char text[kLogNameMax + 16];
};

class Locked {
  public:
    Locked() {
        pthread_mutex_lock(&fileLock);
        isInside = true;
    }
    ~Locked() {
        isInside = false;
        pthread_mutex_unlock(&fileLock);
    }
    Locked(const Locked &) = delete;
    Locked &operator=(const Locked &) = delete;
};

void afterForkInChild() {
    forks++;
    pthread_mutex_unlock(&fileLock);
}

__attribute__((constructor)) void watchForks() {
    guardForks(ForkStage::kLogFile, {[] { pthread_mutex_lock(&fileLock); },
                                     [] { pthread_mutex_unlock(&fileLock); }, afterForkInChild});
}

/* True when `interval` passed since it last was. The clock may be set back and the milliseconds wrap
 * around: either only makes it true too early. */
bool isTime(uint32_t *last, uint32_t interval, uint32_t now) {
    if (now - *last < interval) {
        return false;
    }
    *last = now;
    return true;
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

/* ---- opening and rotating, with both locks held ---- */

/* The descriptor's file becomes the one that records go to. */
bool openCurrent(LogFile *file) {
    Descriptor opened(openat(rootDirectory("log"), file->name, kOpenFlags, kLogFileMode));
    struct stat status = {};
    if (!opened.isOpen() || fstat(opened.get(), &status) != 0) {
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return false;
    }
    if (file->descriptor >= 0) {
        close(file->descriptor);
    }
    file->descriptor = opened.release();
    file->forks = forks;

    LogCounters *counters = file->counters.shared;
    uint64_t place = counters->place.load();
    const auto size = static_cast<uint64_t>(status.st_size);
    if (counters->inode.exchange(status.st_ino) != status.st_ino) {
        /* Another file than the counters were of: whoever has that one open must look, too. What
         * ended here before may have ended within a line: nobody stands alone yet. */
        place = makePlace(generationOf(place) + 1, size);
        counters->place.store(place);
        if (size != 0) {
            (void)counters->writers.fetch_add(1);
        }
    } else {
        /* Bytes that none of the writers took are somebody else's. */
        while (bytesOf(place) < size && !counters->place.compare_exchange_weak(
                                            place, makePlace(generationOf(place), size))) {
        }
    }
    file->generation = generationOf(place);
    return true;
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

/* Without room for a new file, the one that is open stays the current one, and may grow by its size
 * once more: the failure is not repeated for every record. */
bool rotate(LogFile *file) {
    const int directory = rootDirectory("log");
    bool done = moveUp(*file, directory);
    if (done && !openCurrent(file)) {
        const int error = errno;
        (void)moveFile(directory, numbered(*file, 1).text, file->name);
        errno = error;
        done = false;
    }
    if (!done) {
        file->counters.shared->place.store(makePlace(file->generation, 0));
    }
    return done;
}

/* ---- what writers do now and then, with this process's lock ---- */

bool isFull(const LogFile &file, uint64_t place, size_t length) {
    return bytesOf(place) != 0 && bytesOf(place) + length > file.limits.fileSize.load();
}

/* Follows another process's rotation, or rotates; false when that fails, and the file that is open
 * takes the record all the same. */
bool advance(LogFile *file, size_t length, uint32_t now) {
    bool anew = false;
    if (!lockLogCounters(&file->counters, file->name, &anew)) {
        complain(file, now, "locked", errno);
        return false;
    }
    const uint64_t place = file->counters.shared->place.load();
    bool done = true;
    if (anew || generationOf(place) != file->generation || file->forks != forks) {
        done = openCurrent(file);
    } else if (isFull(*file, place, length)) {
        done = rotate(file);
    }
    if (!done) {
        complain(file, now, "rotated", errno);
    }
    unlockLogCounters(&file->counters);
    return done;
}

/* Finds out whether somebody deleted or replaced the file or the counters, and begins anew then. */
void check(LogFile *file, uint32_t now) {
    if (!isTime(&file->lastCheck, kCheckInterval, now) ||
        (hasName(file->descriptor, rootDirectory("log"), file->name) &&
         areCountersInPlace(file->counters))) {
        return;
    }
    bool anew = false;
    if (!lockLogCounters(&file->counters, file->name, &anew)) {
        complain(file, now, "locked", errno);
        return;
    }
    if (!openCurrent(file)) {
        complain(file, now, "opened", errno);
    }
    unlockLogCounters(&file->counters);
}

/* Takes `length` bytes of the current file. Gives the place that the writer has there. */
uint64_t takeBytes(LogFile *file, size_t length, uint32_t now) {
    for (;;) {
        std::atomic<uint64_t> *place = &file->counters.shared->place;
        uint64_t taken = place->load(std::memory_order_acquire);
        if (generationOf(taken) == file->generation && file->forks == forks &&
            !isFull(*file, taken, length)) {
            taken = place->fetch_add(length);
            if (generationOf(taken) == file->generation && !isFull(*file, taken, length)) {
                return taken;
            }
        }
        if (!advance(file, length, now)) {
            return taken;
        }
    }
}

/* Not when the next file has begun: its bytes are others'. */
void returnBytes(LogFile *file, uint64_t taken, size_t length) {
    std::atomic<uint64_t> *place = &file->counters.shared->place;
    uint64_t current = place->load();
    while (generationOf(current) == generationOf(taken) && bytesOf(current) >= length &&
           !place->compare_exchange_weak(current, current - length)) {
    }
}

/* ---- one record ---- */

/* Ends the piece of a line that may stand before the record of `length` bytes that was just written.
 * The file position is behind that record: this process's threads take turns, and a child of fork
 * opens the file anew. */
void endPieceBefore(const LogFile &file, size_t length) {
    const off_t start = lseek(file.descriptor, 0, SEEK_CUR) - static_cast<off_t>(length);
    char last = '\n';
    if (start <= 0 || pread(file.descriptor, &last, 1, start - 1) != 1 || last == '\n') {
        return;
    }
    /* While it appends, the kernel heeds no other position. */
    const int flags = fcntl(file.descriptor, F_GETFL);
    (void)fcntl(file.descriptor, F_SETFL, flags & ~O_APPEND);
    (void)!pwrite(file.descriptor, "\n", 1, start - 1);
    (void)fcntl(file.descriptor, F_SETFL, flags);
}

/* Takes this writer off those that are under way, and behind a whole record all others with it when
 * they have not moved for a while: they were killed. */
void endRecord(LogFile *file, uint64_t begun, bool isWhole, uint32_t now) {
    std::atomic<uint64_t> *writers = &file->counters.shared->writers;
    if (underWay(begun) == 0 || begun != file->writersSeen) {
        file->aloneSince = now;
    }
    uint64_t current = begun + kOneRecord + 1;
    if (isWhole && now - file->aloneSince >= kCheckInterval &&
        writers->compare_exchange_strong(current, current - underWay(current))) {
        file->writersSeen = current - underWay(current);
        return;
    }
    current = writers->load();
    while (underWay(current) != 0 && !writers->compare_exchange_weak(current, current - 1)) {
    }
    file->writersSeen = underWay(current) != 0 ? current - 1 : current;
}

bool writeRecord(LogFile *file, const LogLine &line, uint32_t now) {
    const uint64_t place = takeBytes(file, line.length, now);
    std::atomic<uint64_t> *writers = &file->counters.shared->writers;
    const uint64_t begun = writers->fetch_add(kOneRecord + 1);
    ssize_t written = 0;
    do {
        written = write(file->descriptor, line.text, line.length);
    } while (written < 0 && errno == EINTR);
    const int error = written < 0 ? errno : ENOSPC;
    const bool isWhole = written == static_cast<ssize_t>(line.length);
    if (isWhole && (underWay(begun) != 0 || writers->load() != begun + kOneRecord + 1)) {
        endPieceBefore(*file, line.length);
    }
    if (isWhole || written <= 0) {
        endRecord(file, begun, isWhole, now);
    }
    if (!isWhole) { /* after a piece this writer stays under way: the next one looks behind itself */
        returnBytes(file, place, line.length - static_cast<size_t>(written > 0 ? written : 0));
        complain(file, now, "written", error);
    }
    return isWhole;
}

}  // namespace

bool openLogFile(LogFile *file) {
    const Locked locked;
    bool anew = false;
    if (rootDirectory("log") < 0 || !lockLogCounters(&file->counters, file->name, &anew)) {
        return false;
    }
    const bool opened = openCurrent(file);
    const int error = errno;
    file->lastComplaint = opened ? 0 : file->lastComplaint;
    unlockLogCounters(&file->counters);
    errno = error;
    return opened;
}

bool writeLogLine(LogFile *file, const LogLine &line, uint32_t now) {
    if (isInside) { /* a signal's handler: its thread holds the lock */
        return false;
    }
    const Locked locked;
    check(file, now);
    return writeRecord(file, line, now);
}

}  // namespace tamo::log

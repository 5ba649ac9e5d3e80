/* See tamo_om_config_watchers.h. */
#include "host/configuration/subscribers.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/futex.h>
#include <pthread.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>

#include "host/base/descriptor.h"
#include "host/base/device_root.h"
#include "host/base/log.h"

namespace tamo {

namespace {

constexpr uint32_t kPlaces = 252;
/* Of handlers and of watches that one process holds at a time. */
constexpr int kSeatsOfProcess = 32;

struct Place {
    std::atomic<uint64_t> seen;
    std::atomic<uint64_t> origin; /* 0: left; one who was killed has not left, but holds no lock */
};

}  // namespace

/* Begins as zero. */
struct WatcherBoard {
    alignas(64) std::atomic<uint32_t> wakes;
    alignas(64) Place places[kPlaces];
};

namespace {

constexpr const char *kUnit = "tamo_om_config_watchers";
constexpr const char *kBoardFile = "config.watchers";

/* With 32-bit pointers an 8-byte integer alone is aligned to 4, which a lock-free one must not be. */
static_assert(sizeof(WatcherBoard) == 4096 && alignof(std::atomic<uint64_t>) == 8);

/* The seats' descriptors, apart from their objects: a child of fork closes them, or it would hold its
 * parent's places beyond the parent's end. 0 is none. */
std::atomic<int> seatFiles[kSeatsOfProcess];
std::atomic<uint32_t> forks;
std::atomic<uint64_t> ownOrigin;

/* The writers' board of this process. Guarded by the connections' locks against a fork. */
std::mutex boardLock;
Descriptor boardFile;
WatcherBoard *mappedBoard;

void forgetSeats() {
    for (std::atomic<int> &file : seatFiles) {
        int descriptor = file.exchange(0);
        if (descriptor != 0) {
            close(descriptor);
        }
    }
    ownOrigin = 0;
    forks++;
}

void watchForks() {
    static std::once_flag once;
    std::call_once(once, [] { pthread_atfork(nullptr, nullptr, forgetSeats); });
}

/* Whether it has its name and its size: touching a page that was cut off would end the process. */
bool isInPlace(int file) {
    struct stat own;
    struct stat named;
    return fstat(file, &own) == 0 && own.st_size >= off_t{sizeof(WatcherBoard)} &&
           fstatat(rootDirectory("run"), kBoardFile, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           named.st_ino == own.st_ino;
}

WatcherBoard *mapBoard(int file) {
    if (!isInPlace(file)) {
        return nullptr;
    }
    void *memory = mmap(nullptr, sizeof(WatcherBoard), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<WatcherBoard *>(memory);
}

void unmapBoard(WatcherBoard *board) {
    if (board != nullptr) {
        munmap(board, sizeof(WatcherBoard));
    }
}

Descriptor openBoard(int flags) {
    int directory = rootDirectory("run");
    return Descriptor(directory < 0 ? -1
                                    : openat(directory, kBoardFile,
                                             O_RDWR | O_CLOEXEC | O_NOFOLLOW | flags, 0600));
}

/* The board where there is one; the caller holds the lock. */
WatcherBoard *writersBoard() {
    if (mappedBoard != nullptr && isInPlace(boardFile.get())) {
        return mappedBoard;
    }
    unmapBoard(mappedBoard);
    mappedBoard = nullptr;
    boardFile = openBoard(0);
    if (boardFile.isOpen()) {
        mappedBoard = mapBoard(boardFile.get());
    }
    return mappedBoard;
}

/* Asked for each place apart: of several locks the system names any one. */
bool isPlaceHeld(int file, uint32_t place) {
    struct flock question = {};
    question.l_type = F_WRLCK;
    question.l_whence = SEEK_SET;
    question.l_start = static_cast<off_t>(place);
    question.l_len = 1;
    return fcntl(file, F_OFD_GETLK, &question) != 0 || question.l_type != F_UNLCK;
}

void wakeAll(WatcherBoard *board) {
    board->wakes.fetch_add(1);
    (void)syscall(SYS_futex, &board->wakes, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

bool refuse(int line, const char *why, int error) {
    hostRecord(kError, kUnit, line,
               "changes of the configuration are not reported: %s%s%s, look at %s/run/%s", why,
               error == 0 ? "" : ": ", error == 0 ? "" : strerror(error), deviceRoot(), kBoardFile);
    return false;
}

}  // namespace

uint64_t configOrigin() {
    uint64_t origin = ownOrigin.load();
    while (origin == 0) {
        watchForks();
        uint64_t made = 0;
        if (getrandom(&made, sizeof(made), 0) != sizeof(made)) {
            struct timespec now;
            (void)clock_gettime(CLOCK_MONOTONIC, &now);
            made = static_cast<uint64_t>(now.tv_nsec) << 32 | static_cast<uint32_t>(getpid());
        }
        /* As the store holds it, in a signed number. */
        made = (made >> 1) | 2;
        origin = ownOrigin.compare_exchange_strong(origin, made) ? made : origin;
    }
    return origin;
}

ConfigAudience configAudience(uint64_t origin) {
    std::lock_guard guard(boardLock);
    ConfigAudience audience = {false, UINT64_MAX};
    const WatcherBoard *board = writersBoard();
    if (board == nullptr) {
        return audience;
    }
    for (uint32_t at = 0; at < kPlaces; at++) {
        const uint64_t whose = board->places[at].origin;
        if (whose != 0 && isPlaceHeld(boardFile.get(), at)) {
            audience.others = audience.others || whose != origin;
            audience.slowest = std::min(audience.slowest, board->places[at].seen.load());
        }
    }
    return audience;
}

void wakeConfigWatchers() {
    std::lock_guard guard(boardLock);
    WatcherBoard *board = writersBoard();
    if (board != nullptr) {
        wakeAll(board);
    }
}

bool WatcherSeat::lockAPlace() {
    struct flock wish = {};
    wish.l_type = F_WRLCK;
    wish.l_whence = SEEK_SET;
    wish.l_len = 1;
    for (place = 0; place < kPlaces; place++) {
        wish.l_start = static_cast<off_t>(place);
        if (fcntl(seatFiles[entry], F_OFD_SETLK, &wish) == 0) {
            return true;
        }
    }
    return false;
}

bool WatcherSeat::take(uint64_t origin) {
    leave();
    watchForks();
    madeAfter = forks;
    Descriptor file = openBoard(O_CREAT);
    int error = errno;
    if (file.isOpen()) {
        /* With its room on the disk: a page that cannot be had would end a process that writes it. */
        error = posix_fallocate(file.get(), 0, sizeof(WatcherBoard));
    }
    if (!file.isOpen() || error != 0) {
        return refuse(__LINE__, "the list of watchers cannot be made", error);
    }
    for (entry = 0; entry < kSeatsOfProcess; entry++) {
        int none = 0;
        if (seatFiles[entry].compare_exchange_strong(none, file.get())) {
            (void)file.release();
            break;
        }
    }
    if (entry == kSeatsOfProcess) {
        entry = -1;
        return refuse(__LINE__, "this process has too many watches, close one", 0);
    }
    /* Through another descriptor: the mapping lives on in a child of fork, and would keep the lock. */
    board = mapBoard(openBoard(0).get());
    if (board == nullptr || !lockAPlace()) {
        error = board == nullptr ? errno : 0;
        leave();
        return refuse(__LINE__, "no place in the list of watchers, end some processes", error);
    }
    board->places[place].seen = 0;
    board->places[place].origin = origin;
    return isHeld();
}

void WatcherSeat::leave() {
    int file = entry < 0 || madeAfter != forks ? 0 : seatFiles[entry].exchange(0);
    if (file != 0) {
        if (board != nullptr && place < kPlaces && isInPlace(file)) {
            board->places[place].origin = 0;
        }
        close(file);
    }
    unmapBoard(board);
    board = nullptr;
    entry = -1;
}

bool WatcherSeat::isHeld() const {
    int file = entry < 0 || madeAfter != forks ? 0 : seatFiles[entry].load();
    return file != 0 && isInPlace(file) && board->places[place].origin != 0;
}

void WatcherSeat::setSeen(uint64_t number) {
    if (isHeld()) {
        board->places[place].seen = number;
    }
}

uint32_t WatcherSeat::wakes() const {
    return isHeld() ? board->wakes.load() : 0;
}

void WatcherSeat::wait(uint32_t known, int64_t timeoutMs) const {
    struct timespec timeout = {};
    timeout.tv_sec = static_cast<time_t>(timeoutMs / 1000);
    timeout.tv_nsec = static_cast<long>(timeoutMs % 1000 * 1000000);
    if (board == nullptr) {
        (void)nanosleep(&timeout, nullptr);
        return;
    }
    (void)syscall(SYS_futex, &board->wakes, FUTEX_WAIT, known, &timeout, nullptr, 0);
}

}  // namespace tamo

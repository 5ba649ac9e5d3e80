/* What the writers of a log file share. */
#pragma once
#include <stdint.h>
#include <sys/types.h>

#include <atomic>

namespace tamo::log {

constexpr size_t kLogNameMax = 32;
constexpr mode_t kLogFileMode = 0600;

/* A shared page (base/shared_page.h); the same in both pointer widths. */
struct LogCounters {
    std::atomic<uint32_t> magic; /* stored last */
    char name[kLogNameMax];      /* the log's, and its directory: */
    alignas(8) uint64_t device;
    uint64_t directory;
    std::atomic<uint64_t> inode;   /* of the current file */
    std::atomic<uint64_t> place;   /* its generation (upper half), bytes given out in it */
    std::atomic<uint64_t> writers; /* records begun (upper 48 bits), records not ended yet */
};

/* The counters as one process has them. */
struct CountersAccess {
    LogCounters *shared = nullptr;
    int number = -1;         /* of the shared page; negative: private memory, without the file */
    int file = -1;           /* run/log.NAME, for its number and its lock */
    LogCounters privateOnes; /* in use while no page can be shared */
};

inline uint32_t generationOf(uint64_t place) {
    return static_cast<uint32_t>(place >> 32);
}

inline uint32_t bytesOf(uint64_t place) {
    return static_cast<uint32_t>(place);
}

inline uint64_t makePlace(uint32_t generation, uint64_t bytes) {
    return static_cast<uint64_t>(generation) << 32 | (bytes < INT32_MAX ? bytes : INT32_MAX);
}

constexpr uint64_t kOneRecord = 1 << 16;

inline uint32_t underWay(uint64_t writers) {
    return static_cast<uint32_t>(writers % kOneRecord);
}

/* Locks the counters of the log `name`, between processes; waits for others. False, with errno set,
 * when there can be no such file. Then `access->shared` are those to use, and `*anew` tells that they
 * are other ones than before. */
bool lockLogCounters(CountersAccess *access, const char *name, bool *anew);
void unlockLogCounters(CountersAccess *access);

/* Whether others find these counters where they look for them. */
bool areCountersInPlace(const CountersAccess &access);

}  // namespace tamo::log

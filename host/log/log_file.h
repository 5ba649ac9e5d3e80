/* A log file that several threads and processes write at once, and that begins anew when it is full:
 * NAME is the current file, NAME.1 the one before it, and so on.
 *
 * Writers agree through a file of counters, run/log.NAME below the device root, that each of them
 * maps: the generation of the current file and the bytes given out in it. A writer first takes its
 * bytes by one atomic addition. The answer tells whether its descriptor is still the current file's
 * and whether the file is full; so neither another process's rotation nor the limit costs a system
 * call. Opening and rotating happen under a record lock on the same file.
 *
 * The descriptor's number never changes once it is open: a new file takes its place with dup3. A
 * thread that was about to write then writes to the old file or to the new one, never to a
 * stranger's. */
#pragma once
#include <stdint.h>
#include <sys/types.h>

#include <atomic>

#include "host/log/log_line.h"

namespace tamo {

constexpr size_t kLogNameMax = 32;

struct LogLimits {
    std::atomic<uint32_t> recordSize, fileCount, fileSize;
};

/* What writers share. A new file of zero bytes is a valid one. */
struct LogCounters {
    std::atomic<uint32_t> magic;
    std::atomic<uint32_t> torn;             /* the file ends within a line */
    alignas(8) std::atomic<uint64_t> place; /* generation (upper half), bytes given out */
};

/* In static storage, zeroed but for the descriptors. What is not atomic is used with the lock of
 * log_file.cpp held. */
struct LogFile {
    std::atomic<bool> active; /* records are taken */
    char name[kLogNameMax];   /* empty: never used; else it does not change any more */
    LogLimits limits;
    std::atomic<int> descriptor{-1};
    std::atomic<uint32_t> generation; /* of the file that is open */
    std::atomic<LogCounters *> counters;
    std::atomic<uint32_t> lastCheck, lastComplaint; /* in milliseconds, wrapping around */
    int countersFile = -1;
    dev_t device; /* of the file that is open */
    ino_t inode;
    LogCounters privateCounters; /* in use while the shared ones cannot be had */
};

/* Opens or continues the file that `file` names; false when it cannot be, with errno set. */
bool openLogFile(LogFile *file);

/* Writes a line that was composed at `now` (milliseconds); false when it is not in the file. */
bool writeLogLine(LogFile *file, LogLine *line, uint32_t now);

}  // namespace tamo

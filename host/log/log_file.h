/* A log file that several threads and processes write at once, and that begins anew when it is full:
 * NAME is the current file, NAME.1 the one before it, and so on.
 *
 * How it works. A record is one write with O_APPEND, and nearly always nothing else. Writers agree
 * through counters in shared memory (log_counters.h):
 *
 * - The place: the generation of the current file and the bytes given out in it. A writer takes its
 *   bytes by one atomic addition before it writes. The answer tells whether the file that it has open
 *   is still the current one and whether the record fits: no file grows beyond its limit, and neither
 *   another process's rotation nor the limit costs a system call. Opening and rotating happen under a
 *   record lock on run/log.NAME.
 * - The writers under way. The kernel writes one record after the other, but a writer that is killed,
 *   or finds the disk full, may leave a piece of a line. A writer that was alone from before its
 *   write until after it stands at the beginning of a line. Any other one looks at the byte before its
 *   record, and where a piece without an end stands there, ends it by a line feed in place of its last
 *   byte. A killed writer stays under way; the first one that found nobody else for a while takes it
 *   off.
 *
 * Somebody may delete or replace files at any time: the writers look a few times in a second whether
 * what they use has still its name. */
#pragma once
#include <stdint.h>
#include <sys/types.h>

#include <atomic>

#include "host/log/log_counters.h"
#include "host/log/log_line.h"

namespace tamo::log {

struct LogLimits {
    std::atomic<uint32_t> recordSize, fileCount, fileSize;
};

/* In static storage. What is not atomic is used with the lock of log_file.cpp held. */
struct LogFile {
    std::atomic<bool> active; /* records are taken */
    char name[kLogNameMax];   /* empty: never used; else it does not change any more */
    LogLimits limits;
    int descriptor = -1;
    uint32_t generation; /* of the file that is open */
    uint32_t forks;      /* of this process when it was opened: a child has its own */
    CountersAccess counters;
    uint64_t writersSeen; /* after this process's last record */
    uint32_t aloneSince;  /* since then only this process wrote; in milliseconds, wrapping around */
    uint32_t lastCheck, lastComplaint; /* likewise */
};

/* Opens or continues the file that `file` names; false when it cannot be, with errno set. */
bool openLogFile(LogFile *file);

/* Writes a line that was composed at `now` (milliseconds); false when it is not in the file. */
bool writeLogLine(LogFile *file, const LogLine &line, uint32_t now);

}  // namespace tamo::log

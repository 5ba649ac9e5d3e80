/* The counters that the writers of a log file share: see log_file.h. */
#pragma once
#include "host/log/log_file.h"

namespace tamo {

constexpr mode_t kLogFileMode = 0600;

inline uint32_t generationOf(uint64_t place) {
    return static_cast<uint32_t>(place >> 32);
}

inline uint32_t bytesOf(uint64_t place) {
    return static_cast<uint32_t>(place);
}

inline uint64_t makePlace(uint32_t generation, uint64_t bytes) {
    return static_cast<uint64_t>(generation) << 32 | (bytes < INT32_MAX ? bytes : INT32_MAX);
}

/* Locks the counters' file that has the name now, for this process: one that was deleted keeps nobody
 * out. Waits for other processes; false, with errno set, when there can be no such file. Then
 * `file->counters` are those to use: private ones when they cannot be mapped, and such a process
 * sees others' rotations a little later. */
bool lockLogCounters(LogFile *file);
void unlockLogCounters(LogFile *file);

/* Bytes in the file that has the log's name now. */
uint64_t currentLogSize(const LogFile &file);

}  // namespace tamo

/* The clocks. */
#pragma once
#include <stdint.h>
#include <time.h>

namespace tamo {

constexpr uint64_t kNsPerSecond = 1000000000;
constexpr uint64_t kNsPerMs = 1000000;

inline uint64_t readClock(clockid_t clock) {
    timespec now = {};
    (void)clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * kNsPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

/* Since the machine's start; nobody sets this one. */
inline uint64_t monotonicNs() {
    return readClock(CLOCK_MONOTONIC);
}

inline uint64_t monotonicMs() {
    return monotonicNs() / kNsPerMs;
}

/* Since 1970. */
inline uint64_t wallClockNs() {
    return readClock(CLOCK_REALTIME);
}

}  // namespace tamo

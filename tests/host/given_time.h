/* The time of the timer manager as the test gives it: the program's monotonic clock stands still but for
 * passTime, and kernel timers ring by it. */
#pragma once
#include <cstdint>

namespace support {

/* The monotonic clock, in nanoseconds. */
uint64_t givenNow();

void passTime(uint64_t nanoseconds);

/* Waits until the manager has done what was due and sleeps. */
void awaitManager();

}  // namespace support

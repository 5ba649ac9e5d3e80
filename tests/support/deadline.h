/* Deadlines of tests. They are for what hangs, so they are generous; TEST_SLOWDOWN multiplies all
 * of them on a slow machine, and under a debugger there are none. */
#pragma once
#include <chrono>

namespace support {

/* The multiplier: TEST_SLOWDOWN, else 1, or more in a build with sanitizers. */
double slowdown();

/* A span of time for something that normally takes far less than `seconds`. */
std::chrono::milliseconds patience(double seconds = 10);

}  // namespace support

/* The platform's memory operations, counted and made to fail. A program that links this sees every
 * block that the platform itself takes and releases too. */
#pragma once
#include <cstdint>

namespace counted {

/* Blocks taken and not released. */
int64_t outstanding();

/* The next request fails. */
void failNext();

}  // namespace counted

/* "Allocates nothing", as a check. */
#pragma once
#include <cstdint>

namespace support {

/* Blocks that this thread took from the C library (malloc and its kin, operator new included) since
 * the object was made. A program that uses this defines malloc; with a sanitizer its hooks count.
 */
class AllocationCount {
  public:
    AllocationCount();
    uint64_t taken() const;

  private:
    uint64_t before_;
};

}  // namespace support

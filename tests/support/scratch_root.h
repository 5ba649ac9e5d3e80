/* The private device root of a test program, which main makes. */
#pragma once
#include <conference_testkit.h>

#include <cstdlib>
#include <string>

namespace support {

using testkit::ScratchDirectory;

/* The root that this process and its children use. */
inline std::string scratchRoot() {
    const char *root = std::getenv("TAMO_DEVICE_ROOT");
    return root != nullptr ? root : "";
}

}  // namespace support

/* A device root for a fuzz target, removed at its end. */
#pragma once
#include <cstdlib>
#include <filesystem>
#include <string>

namespace fuzz {

/* Makes the root, names it in the environment and returns its path. Called once, before the host
 * platform is first used. */
inline std::string scratchRoot() {
    static std::string root = std::filesystem::temp_directory_path() / "fuzz.XXXXXX";
    if (mkdtemp(root.data()) == nullptr) {
        abort();
    }
    setenv("TAMO_DEVICE_ROOT", root.c_str(), 1);
    atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    });
    return root;
}

}  // namespace fuzz

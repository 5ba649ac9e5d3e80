/* What fuzz targets share: checks, files, and a device root that is removed at the end. */
#pragma once
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace fuzz {

inline void require(bool good) {
    if (!good) {
        abort();
    }
}

/* Writes a file, and the folders above it. */
inline void writeFile(const std::string &path, const uint8_t *data, size_t size) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char *>(data), static_cast<std::streamsize>(size));
    require(file.good());
}

/* Makes the root, names it in the environment and returns its path. Called once, before the host
 * platform is first used. */
inline std::string scratchRoot() {
    static std::string root = std::filesystem::temp_directory_path() / "fuzz.XXXXXX";
    require(mkdtemp(root.data()) != nullptr);
    setenv("TAMO_DEVICE_ROOT", root.c_str(), 1);
    atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    });
    return root;
}

}  // namespace fuzz

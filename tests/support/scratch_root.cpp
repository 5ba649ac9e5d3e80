/* See scratch_root.h. */
#include "scratch_root.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace support {
namespace {

constexpr char kRootVariable[] = "TAMO_DEVICE_ROOT";

[[noreturn]] void giveUp(const char *what) {
    std::perror(what);
    std::exit(2);
}

std::string makeDirectory() {
    const char *base = std::getenv("TMPDIR");
    std::string path =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tamo-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        giveUp(("cannot create a directory " + path).c_str());
    }
    return path;
}

void removeDirectory(const std::string &path) {
    // A test may have taken permissions away; give them back where we can.
    std::error_code ignored;
    chmod(path.c_str(), 0700);
    std::filesystem::remove_all(path, ignored);
}

}  // namespace

void beginScratchRoot() {
    setenv(kRootVariable, makeDirectory().c_str(), 1);
}

void endScratchRoot() {
    removeDirectory(scratchRoot());
}

std::string scratchRoot() {
    const char *root = std::getenv(kRootVariable);
    return root != nullptr ? root : "";
}

ScratchDirectory::ScratchDirectory() : path_(makeDirectory()) {}

ScratchDirectory::~ScratchDirectory() {
    removeDirectory(path_);
}

}  // namespace support

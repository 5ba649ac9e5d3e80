/* A scratch device root: see conference_testkit.h. */
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "testkit/include/conference_testkit.h"

namespace testkit {

ScratchDirectory::ScratchDirectory() : owner_(getpid()) {
    const char *base = std::getenv("TMPDIR");
    path_ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tamo-XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) {
        std::perror(("cannot create a directory " + path_).c_str());
        std::exit(2);
    }
}

ScratchDirectory::~ScratchDirectory() {
    if (getpid() != owner_) {
        return; /* a child of fork */
    }
    /* A test may have taken permissions away; give them back where we can. */
    std::error_code ignored;
    chmod(path_.c_str(), 0700);
    std::filesystem::remove_all(path_, ignored);
}

ScratchRoot::ScratchRoot() {
    setenv("TAMO_DEVICE_ROOT", directory_.path().c_str(), 1);
}

ScratchRoot::~ScratchRoot() {
    unsetenv("TAMO_DEVICE_ROOT");
}

std::string ScratchRoot::path(std::string_view devicePath) const {
    const char *separator = devicePath.empty() || devicePath.front() == '/' ? "" : "/";
    return directory_.path() + separator + std::string(devicePath);
}

void ScratchRoot::write(std::string_view devicePath, std::string_view contents) const {
    const std::filesystem::path file = path(devicePath);
    std::error_code ignored;
    std::filesystem::create_directories(file.parent_path(), ignored);
    if (!(std::ofstream(file, std::ios::binary) << contents << std::flush)) {
        std::perror(("cannot write " + file.string()).c_str());
        std::exit(2);
    }
}

std::string ScratchRoot::read(std::string_view devicePath) const {
    std::ifstream file(path(devicePath), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

}  // namespace testkit

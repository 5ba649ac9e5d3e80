/* See open_descriptors.h. */
#include "open_descriptors.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <unistd.h>

#include <cstdlib>

namespace support {

std::map<int, std::string> openDescriptors() {
    std::map<int, std::string> found;
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        return found;
    }
    while (const dirent *entry = readdir(dir)) {
        const int fd = std::atoi(entry->d_name);
        if (entry->d_name[0] == '.' || fd == dirfd(dir)) {
            continue;
        }
        char target[PATH_MAX];
        const ssize_t length = readlinkat(dirfd(dir), entry->d_name, target, sizeof(target));
        found[fd] = std::string(target, length > 0 ? static_cast<size_t>(length) : 0);
    }
    closedir(dir);
    return found;
}

DescriptorCheck::~DescriptorCheck() {
    for (const auto &[fd, target] : openDescriptors()) {
        if (before_.find(fd) == before_.end()) {
            ADD_FAILURE() << "descriptor " << fd << " was left open: " << target;
        }
    }
}

}  // namespace support

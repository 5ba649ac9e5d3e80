/* See open_descriptors.h. */
#include "open_descriptors.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace support {

std::map<int, std::string> openDescriptors() {
    std::map<int, std::string> found;
    std::error_code closed; /* of the walk itself */
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const auto target = std::filesystem::read_symlink(entry.path(), closed);
        if (!closed && !target.string().ends_with("/fd")) {
            found[std::stoi(entry.path().filename())] = target;
        }
    }
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

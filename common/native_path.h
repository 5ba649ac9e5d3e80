/* Device paths for libraries that open files by themselves. */
#pragma once
#include <climits>

#include "platform/tamo_os_file.h"

/* Only a workstation has it; a terminal's device paths are its file system's. */
extern "C" __attribute__((weak)) decltype(OsFileNativePath) OsFileNativePath;

/* A device path as such a library can open it, held by the object where it differs. */
class NativePath {
  public:
    explicit NativePath(const char *devicePath)
        : path_(OsFileNativePath == nullptr
                    ? devicePath
                    : OsFileNativePath(devicePath, buffer_, sizeof(buffer_))) {}
    NativePath(const NativePath &) = delete;
    NativePath &operator=(const NativePath &) = delete;

    /* Null when the path leads out of the device or is too long. */
    const char *get() const { return path_; }

  private:
    char buffer_[PATH_MAX];
    const char *path_;
};

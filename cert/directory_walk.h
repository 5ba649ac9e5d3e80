/* A walk over a device directory. */
#pragma once

#include <cstring>

#include "platform/tamo_common.h"
#include "platform/tamo_os_file.h"

class DirectoryWalk {
  public:
    explicit DirectoryWalk(const char *path) : dir_(OsOpenDir(path)) {}
    ~DirectoryWalk() {
        if (dir_ != nullptr) {
            OsCloseDir(dir_);
        }
    }
    DirectoryWalk(const DirectoryWalk &) = delete;
    DirectoryWalk &operator=(const DirectoryWalk &) = delete;

    bool opened() const { return dir_ != nullptr; }

    /* The next entry's name but "." and ".."; null at the end. */
    const char *next() {
        while (OsDirEntry *entry = OsReadDir(dir_)) {
            if (entry->name != nullptr && KIRU_StrCmp(entry->name, ".") != 0 &&
                KIRU_StrCmp(entry->name, "..") != 0) {
                return entry->name;
            }
        }
        return nullptr;
    }

  private:
    OsDir *dir_;
};

/* Does a name contain one of two texts? */
inline bool containsEither(const char *name, const char *lower, const char *upper) {
    return strstr(name, lower) != nullptr || strstr(name, upper) != nullptr;
}

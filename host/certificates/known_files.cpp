/* Pictures of directories: see cert_watch.h. */
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "host/certificates/watch.h"

namespace tamo {

struct KnownFile {
    char name[NAME_MAX + 1];
    uint64_t device, inode;
    int64_t size, seconds, nanoseconds;

    bool operator==(const KnownFile &) const = default;
};

namespace {

bool isBefore(const KnownFile &one, const KnownFile &other) {
    return strcmp(one.name, other.name) < 0;
}

/* Links are followed; what is no file does not count. */
bool examine(int directory, const char *name, KnownFile *file) {
    struct stat status;
    const size_t length = strlen(name);
    if (length > NAME_MAX || fstatat(directory, name, &status, 0) != 0 ||
        !S_ISREG(status.st_mode)) {
        return false;
    }
    *file = {};
    memcpy(file->name, name, length);
    file->device = status.st_dev;
    file->inode = status.st_ino;
    file->size = status.st_size;
    file->seconds = status.st_mtim.tv_sec;
    file->nanoseconds = status.st_mtim.tv_nsec;
    return true;
}

/* The kernel grants a lease for reading unless somebody has the file open for writing, and would signal
 * this thread if somebody came to write meanwhile. Where it grants none to anybody, files count as whole. */
bool isBeingWritten(int directory, const char *name) {
    const Descriptor file(openat(directory, name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    const struct f_owner_ex self = {F_OWNER_TID, gettid()};
    if (!file.isOpen() || fcntl(file.get(), F_SETOWN_EX, &self) != 0) {
        return false;
    }
    if (fcntl(file.get(), F_SETLEASE, F_RDLCK) != 0) {
        return errno == EAGAIN;
    }
    (void)fcntl(file.get(), F_SETLEASE, F_UNLCK);
    return false;
}

/* Whether a file's looks are those of a whole file: nobody writes it, nor did between two looks. */
bool isWhole(int directory, const KnownFile &file) {
    KnownFile again;
    return !isBeingWritten(directory, file.name) && examine(directory, file.name, &again) &&
           again == file;
}

}  // namespace

KnownFiles::~KnownFiles() {
    free(files_);
}

bool KnownFiles::add(const KnownFile &file) {
    if (count_ == capacity_) {
        const size_t larger = capacity_ == 0 ? 8 : 2 * capacity_;
        void *moved = realloc(files_, larger * sizeof(KnownFile));
        if (moved == nullptr) {
            return false;
        }
        files_ = static_cast<KnownFile *>(moved);
        capacity_ = larger;
    }
    files_[count_++] = file;
    return true;
}

const KnownFile *KnownFiles::find(const char *name) const {
    const KnownFile *end = files_ + count_;
    const KnownFile *found = std::lower_bound(
        static_cast<const KnownFile *>(files_), end, name,
        [](const KnownFile &file, const char *wanted) { return strcmp(file.name, wanted) < 0; });
    return found != end && strcmp(found->name, name) == 0 ? found : nullptr;
}

bool KnownFiles::look(int directory, const KnownFiles &former) {
    const int again =
        directory < 0 ? -1 : openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *walk = again < 0 ? nullptr : fdopendir(again);
    if (walk == nullptr) {
        if (again >= 0) {
            close(again);
        }
        return directory < 0;
    }
    bool complete = true;
    const struct dirent *entry = nullptr;
    while (complete && (entry = readdir(walk)) != nullptr) {
        KnownFile file;
        if (entry->d_name[0] == '.' || !examine(again, entry->d_name, &file)) {
            continue;
        }
        const KnownFile *before = former.find(file.name);
        if ((before != nullptr && *before == file) || isWhole(again, file)) {
            complete = add(file);
            continue;
        }
        pending_ = true;
        complete = before == nullptr || add(*before);
    }
    closedir(walk);
    std::sort(files_, files_ + count_, isBefore);
    return complete;
}

bool KnownFiles::operator==(const KnownFiles &other) const {
    return std::equal(files_, files_ + count_, other.files_, other.files_ + other.count_);
}

void KnownFiles::swap(KnownFiles &other) {
    std::swap(files_, other.files_);
    std::swap(count_, other.count_);
    std::swap(capacity_, other.capacity_);
}

}  // namespace tamo

#include "host/runtime/replace_file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string_view>

#include "host/base/descriptor.h"

namespace tamo {
namespace {

constexpr size_t kChunk = 16U << 20;
constexpr size_t kMostAttribute = 64U << 10; /* bytes of the names of a file, and of one value */
constexpr char kAccessList[] = "system.posix_acl_access";

constexpr mode_t kAll = 0777, kOwner = 0700;

/* ---- attributes ---- */

/* The extended attributes of one file, and room for one value. */
struct Attributes {
    char names[kMostAttribute];
    char others[kMostAttribute]; /* names of the other file */
    char value[kMostAttribute];
    char current[kMostAttribute];
};

/* Their names, each ended by a NUL; false when they cannot be told. */
bool listNames(int file, char (&names)[kMostAttribute], std::string_view *list) {
    const ssize_t size = flistxattr(file, names, sizeof(names));
    *list = {names, size < 0 ? 0 : static_cast<size_t>(size)};
    return size >= 0 || errno == EOPNOTSUPP;
}

template <typename Visit>
bool forEachName(std::string_view list, Visit visit) {
    while (!list.empty()) {
        if (!visit(list.data())) {
            return false;
        }
        list.remove_prefix(strlen(list.data()) + 1);
    }
    return true;
}

bool hasNoAttributes(int file) {
    const ssize_t size = flistxattr(file, nullptr, 0);
    return size == 0 || (size < 0 && errno == EOPNOTSUPP);
}

/* Gives `target` the extended attributes of `model` and no others; false when that fails. */
bool copyAttributes(int target, int model) {
    /* Of most files; the kernel clears as much memory as a reader of names has room. */
    if (hasNoAttributes(model) && hasNoAttributes(target)) {
        return true;
    }
    const std::unique_ptr<Attributes> all(new (std::nothrow) Attributes);
    std::string_view wanted, present;
    if (all == nullptr || !listNames(model, all->names, &wanted) ||
        !listNames(target, all->others, &present)) {
        return false;
    }
    const auto copyOne = [&](const char *name) {
        const ssize_t size = fgetxattr(model, name, all->value, sizeof(all->value));
        if (size < 0) {
            return errno == ENODATA;
        }
        const ssize_t current = fgetxattr(target, name, all->current, sizeof(all->current));
        return (current == size &&
                memcmp(all->current, all->value, static_cast<size_t>(size)) == 0) ||
               fsetxattr(target, name, all->value, static_cast<size_t>(size), 0) == 0;
    };
    const auto removeOther = [&](const char *name) {
        return !forEachName(wanted, [&](const char *one) { return strcmp(one, name) != 0; }) ||
               fremovexattr(target, name) == 0;
    };
    return forEachName(wanted, copyOne) && forEachName(present, removeOther);
}

/* Gives `target` the owner, group, mode and extended attributes of `model`; false when one of them
 * cannot be given. */
bool keepAttributes(int target, int model) {
    struct stat wanted, now;
    if (fstat(model, &wanted) != 0 || fstat(target, &now) != 0) {
        return false;
    }
    if ((now.st_uid != wanted.st_uid || now.st_gid != wanted.st_gid) &&
        fchown(target, wanted.st_uid, wanted.st_gid) != 0) {
        return false;
    }
    if (!copyAttributes(target, model) || fchmod(target, wanted.st_mode & 07777) != 0 ||
        fstat(target, &now) != 0) {
        return false;
    }
    errno = EPERM; /* a set-group-id bit of a foreign group is dropped without a word */
    return now.st_mode == wanted.st_mode;
}

/* Lets nobody read the new copy who may not read the file that it is made of. */
bool limitReaders(int target, int model) {
    struct stat source;
    if (fstat(model, &source) != 0) {
        return false;
    }
    (void)fremovexattr(target, kAccessList); /* from the directory's default */
    mode_t mode = source.st_mode & kAll;
    if (fgetxattr(model, kAccessList, nullptr, 0) >= 0) {
        mode &= kOwner;
    } else if (fchown(target, static_cast<uid_t>(-1), source.st_gid) != 0) {
        mode &= kOwner | (mode >> 3 & 07); /* the group's members are among the others now */
    }
    return fchmod(target, mode) == 0;
}

/* What a new file is to look like. */
enum class Look { kOwn, kOfModel, kNotMoreOpen };

bool adjust(int file, Look look, int model) {
    return look == Look::kOwn ||
           (look == Look::kOfModel ? keepAttributes(file, model) : limitReaders(file, model));
}

/* ---- writing beside ---- */

/* Where the new file goes. */
struct Place {
    Descriptor directory;
    const char *name;
    bool taken; /* the name stands for something that is replaced */
    Look look;  /* of the new file */
    int model;  /* the open file that it looks like */
};

/* A hidden name; the same for one file, or one that no other writer has. */
bool hiddenName(const char *name, bool random, char (&hidden)[32]) {
    uint64_t number = 0xCBF29CE484222325U; /* FNV-1a */
    for (const char *at = name; *at != '\0'; at++) {
        number = (number ^ static_cast<unsigned char>(*at)) * 0x100000001B3U;
    }
    if (random && getrandom(&number, sizeof(number), 0) != sizeof(number)) {
        return false;
    }
    (void)snprintf(hidden, sizeof(hidden), ".new-%016llx", static_cast<unsigned long long>(number));
    return true;
}

bool link(int file, int directory, const char *name) {
    char self[32];
    (void)snprintf(self, sizeof(self), "/proc/self/fd/%d", file);
    return linkat(AT_FDCWD, self, directory, name, AT_SYMLINK_FOLLOW) == 0;
}

bool moveTo(const Place &place, const char *hidden) {
    if (renameat(place.directory.get(), hidden, place.directory.get(), place.name) == 0) {
        return true;
    }
    const int error = errno;
    (void)unlinkat(place.directory.get(), hidden, 0);
    errno = error;
    return false;
}

/* A file without a name takes one. A writer that was killed in between has left the hidden name
 * behind, which is used again. When two take turns there, what either moves is whole, and the one
 * whose hidden name has gone tries once more. */
bool nameUnnamed(int file, const Place &place) {
    if (!place.taken && link(file, place.directory.get(), place.name)) {
        return true;
    }
    char hidden[32];
    for (const bool random : {false, true}) {
        if (!hiddenName(place.name, random, hidden)) {
            return false;
        }
        (void)unlinkat(place.directory.get(), hidden, 0);
        if (link(file, place.directory.get(), hidden) && moveTo(place, hidden)) {
            return true;
        }
        if (errno != EEXIST && errno != ENOENT) {
            return false;
        }
    }
    return false;
}

/* On stable storage before it has its name: the name never stands for less than the whole. Its
 * attributes come last, since writing would take some of them away. */
bool fill(int file, const Place &place, const Contents &contents) {
    return contents.writeTo(file, 0, contents.size()) && adjust(file, place.look, place.model) &&
           fsync(file) == 0;
}

mode_t modeOf(const Place &place) {
    return place.look == Look::kOwn ? 0666 : S_IRUSR | S_IWUSR;
}

bool writeNamed(const Place &place, const Contents &contents) {
    char hidden[32];
    if (!hiddenName(place.name, true, hidden)) {
        return false;
    }
    const Descriptor file(openat(place.directory.get(), hidden,
                                 O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, modeOf(place)));
    if (!file.isOpen()) {
        return false;
    }
    if (fill(file.get(), place, contents)) {
        return moveTo(place, hidden);
    }
    const int error = errno;
    (void)unlinkat(place.directory.get(), hidden, 0);
    errno = error;
    return false;
}

bool writeBeside(const Place &place, const Contents &contents) {
    const Descriptor file(
        openat(place.directory.get(), ".", O_WRONLY | O_TMPFILE | O_CLOEXEC, modeOf(place)));
    if (!file.isOpen()) {
        const bool unsupported = errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL;
        return unsupported && writeNamed(place, contents);
    }
    return fill(file.get(), place, contents) && nameUnnamed(file.get(), place);
}

/* Cuts the path in two; false when it names no file. */
bool openPlace(char (&path)[PATH_MAX], bool taken, Place *place) {
    char *slash = strrchr(path, '/');
    place->name = slash == nullptr ? path : slash + 1;
    place->taken = taken;
    if (slash == nullptr || *place->name == '\0') {
        errno = EISDIR;
        return false;
    }
    *slash = '\0';
    place->directory =
        Descriptor(open(slash == path ? "/" : path, O_PATH | O_DIRECTORY | O_CLOEXEC));
    return place->directory.isOpen();
}

bool isFlushed(int file) {
    return fsync(file) == 0 || errno == EINVAL || errno == EROFS;
}

/* A directory that may be searched but not read is flushed along with its file system. */
bool flushDirectory(const Place &place, int file) {
    const Descriptor directory(
        openat(place.directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory.isOpen() ? isFlushed(directory.get()) : file < 0 || syncfs(file) == 0;
}

bool copyPath(const char *path, char (&copy)[PATH_MAX]) {
    if (strlen(path) >= sizeof(copy)) {
        errno = ENAMETOOLONG;
        return false;
    }
    memcpy(copy, path, strlen(path) + 1);
    return true;
}

/* ---- writing in place ---- */

bool mayBe(off_t size) {
    rlimit most = {};
    errno = EFBIG;
    return getrlimit(RLIMIT_FSIZE, &most) != 0 || static_cast<rlim_t>(size) <= most.rlim_cur;
}

/* What is longer than before comes first: for want of room the old contents stay. The first byte
 * comes last, and marks the file until then. */
bool overwrite(int file, const Contents &contents, off_t oldSize) {
    const off_t size = contents.size();
    if (!mayBe(size)) {
        return false;
    }
    if (size > oldSize && !contents.writeTo(file, oldSize, size)) {
        const int error = errno;
        (void)ftruncate(file, oldSize);
        errno = error;
        return false;
    }
    if (oldSize == 0) {
        return fsync(file) == 0;
    }
    if (pwrite(file, "", 1, 0) != 1 || fsync(file) != 0 ||
        !contents.writeTo(file, 1, std::min(size, oldSize)) || ftruncate(file, size) != 0 ||
        fsync(file) != 0) {
        return false;
    }
    return size == 0 || (contents.writeTo(file, 0, 1) && fsync(file) == 0);
}

}  // namespace

/* ---- contents ---- */

Contents::Contents(const void *bytes, size_t size)
    : bytes_(static_cast<const char *>(bytes)), size_(static_cast<off_t>(size)) {}

Contents::Contents(int source) : source_(source) {
    struct stat status;
    size_ = fstat(source, &status) == 0 ? status.st_size : 0;
}

bool Contents::writeTo(int target, off_t from, off_t to) const {
    if (source_ >= 0 &&
        (lseek(source_, from, SEEK_SET) != from || lseek(target, from, SEEK_SET) != from)) {
        return false;
    }
    for (off_t at = from; at < to;) {
        const auto left = static_cast<size_t>(to - at);
        ssize_t written = 0;
        if (source_ >= 0) {
            written = sendfile(target, source_, nullptr, std::min(left, kChunk));
        } else {
            written = pwrite(target, bytes_ + at, left, at);
            if (written < 0 && errno == ESPIPE) {
                written = write(target, bytes_ + at, left);
            }
        }
        if (written > 0) {
            at += written;
        } else if (written == 0 || errno != EINTR) {
            errno = written == 0 ? EIO : errno;
            return false;
        }
    }
    return true;
}

/* ---- files ---- */

Replaced replaceFile(const char *path, const Contents &contents) {
    char target[PATH_MAX];
    struct stat old, link;
    const bool exists = stat(path, &old) == 0;
    if (!exists && errno != ENOENT) {
        return Replaced::kFailed;
    }
    Descriptor writable;
    if (exists && S_ISREG(old.st_mode)) {
        writable = Descriptor(open(path, O_WRONLY | O_CLOEXEC));
        if (!writable.isOpen()) {
            return Replaced::kFailed;
        }
        if (old.st_nlink > 1 || realpath(path, target) == nullptr) {
            errno = EMLINK;
            return Replaced::kOnlyInPlace;
        }
    } else if (exists) { /* a device or a pipe: nothing of it could be lost */
        return writeInPlace(path, contents) ? Replaced::kDone : Replaced::kFailed;
    } else if (lstat(path, &link) == 0) {
        errno = ELOOP;
        return Replaced::kOnlyInPlace; /* a link that leads to nothing yet */
    } else if (!copyPath(path, target)) {
        return Replaced::kFailed;
    }
    Place place = {};
    if (!openPlace(target, exists, &place)) {
        return exists ? Replaced::kOnlyInPlace : Replaced::kFailed;
    }
    place.look = exists ? Look::kOfModel : Look::kOwn;
    place.model = writable.get();
    if (!writeBeside(place, contents)) {
        return Replaced::kOnlyInPlace;
    }
    return flushDirectory(place, writable.get()) ? Replaced::kDone : Replaced::kFailed;
}

Replaced replaceByCopy(const char *path, const Contents &contents) {
    char target[PATH_MAX];
    struct stat old;
    const bool exists = lstat(path, &old) == 0;
    Place place = {};
    if (!copyPath(path, target) || !openPlace(target, exists, &place)) {
        return Replaced::kFailed;
    }
    const bool keeps = exists && S_ISREG(old.st_mode);
    const Descriptor model(keeps ? open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC) : -1);
    place.look = keeps ? Look::kOfModel : Look::kNotMoreOpen;
    place.model = keeps ? model.get() : contents.source();
    if (!writeBeside(place, contents)) {
        const int error = errno;
        struct stat source;
        const bool sameFile = fstat(contents.source(), &source) != 0 ||
                              (source.st_dev == old.st_dev && source.st_ino == old.st_ino);
        errno = error;
        return keeps && !sameFile ? Replaced::kOnlyInPlace : Replaced::kFailed;
    }
    return flushDirectory(place, -1) ? Replaced::kDone : Replaced::kFailed;
}

bool writeInPlace(const char *path, const Contents &contents) {
    const Descriptor file(open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    struct stat old;
    if (!file.isOpen() || fstat(file.get(), &old) != 0) {
        return false;
    }
    if (!S_ISREG(old.st_mode)) {
        return contents.writeTo(file.get(), 0, contents.size());
    }
    return overwrite(file.get(), contents, old.st_size) &&
           (old.st_size > 0 || flushFile(path)); /* its name may be new */
}

bool flushFile(const char *path) {
    Descriptor file(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.isOpen() && errno == EACCES) {
        file = Descriptor(open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    }
    char target[PATH_MAX];
    Place place = {};
    return file.isOpen() && isFlushed(file.get()) && realpath(path, target) != nullptr &&
           openPlace(target, true, &place) && flushDirectory(place, file.get());
}

}  // namespace tamo

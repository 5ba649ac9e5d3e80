#include "xml/whole_file.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/native_path.h"
#include "platform/bounds_checked.h"
#include "xml/no_memory.h"
#include "xml/xml_document.h"

namespace {

constexpr char kBeside[] = "%s.saving";

/* Open for the scope; a stream takes it over. */
class Descriptor {
  public:
    explicit Descriptor(int opened) : value_(opened) {}
    ~Descriptor() {
        if (value_ >= 0) {
            (void)close(value_);
        }
    }
    Descriptor(Descriptor &&other) noexcept : value_(other.release()) {}
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    int get() const { return value_; }
    int release() {
        const int value = value_;
        value_ = -1;
        return value;
    }

  private:
    int value_;
};

struct StreamClose {
    void operator()(FILE *stream) const { (void)fclose(stream); }
};

using Stream = std::unique_ptr<FILE, StreamClose>;

bool flush(const char *native) {
    const Descriptor opened(open(native, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    return opened.get() >= 0 && fsync(opened.get()) == 0;
}

struct Directory {
    char text[PATH_MAX];
};

/* Of a file; empty when its path is too long. */
void nameDirectory(const char *native, Directory *directory) {
    if (strcpy_s(directory->text, sizeof(directory->text), native) != 0) {
        directory->text[0] = '\0';
        return;
    }
    char *slash = strrchr(directory->text, '/');
    (void)strcpy_s(slash == nullptr ? directory->text : slash + 1, 2, slash == nullptr ? "." : "");
}

/* The stream holds all of the document, or false. The XML library does not look whether it could
 * write. */
bool print(ConfXmlNode *root, FILE *stream) {
    /* It writes in pieces of a few bytes; no other thread knows the stream. */
    (void)__fsetlocking(stream, FSETLOCKING_BYCALLER);
    const bool printed = unlessNoMemory(false, [&] {
        return elementOf(root)->GetDocument()->SaveFile(stream, false) == tinyxml2::XML_SUCCESS;
    });
    return printed && fflush(stream) == 0 && ferror(stream) == 0;
}

bool printAsItStands(ConfXmlNode *root, const char *native) {
    const Stream stream(fopen(native, "we"));
    return stream != nullptr && print(root, stream.get());
}

bool isStill(int descriptor, const char *name, struct stat *held) {
    struct stat named = {};
    return fstat(descriptor, held) == 0 && lstat(name, &named) == 0 &&
           held->st_ino == named.st_ino && held->st_dev == named.st_dev;
}

/* The file beside, empty and locked: a save by another process is waited for, what a killed one
 * left is used again. */
Descriptor takeBeside(const char *beside) {
    for (;;) {
        Descriptor file(open(beside, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666));
        if (file.get() < 0) {
            return file;
        }
        int locked = flock(file.get(), LOCK_EX);
        while (locked != 0 && errno == EINTR) {
            locked = flock(file.get(), LOCK_EX);
        }
        struct stat held = {};
        if (isStill(file.get(), beside, &held)) {
            const bool empty = held.st_size == 0 || ftruncate(file.get(), 0) == 0;
            return Descriptor(empty ? file.release() : -1);
        }
    }
}

/* Another user's file stays theirs where that is possible. */
void keepOwner(int descriptor, const struct stat &old) {
    struct stat now = {};
    const bool known = fstat(descriptor, &now) == 0;
    const bool owned = known && now.st_uid == old.st_uid && now.st_gid == old.st_gid;
    if (!owned && fchown(descriptor, old.st_uid, old.st_gid) != 0 && geteuid() != old.st_uid) {
        return;
    }
    if (!owned || now.st_mode != old.st_mode) {
        (void)fchmod(descriptor, old.st_mode & 07777);
    }
}

/* `old`: of the file that is replaced, or null. */
bool replace(ConfXmlNode *root, const char *native, const struct stat *old) {
    char beside[PATH_MAX];
    if (sprintf_s(beside, sizeof(beside), kBeside, native) < 0) {
        return false;
    }
    Descriptor file = takeBeside(beside);
    if (file.get() < 0) {
        return false;
    }
    if (old != nullptr) {
        keepOwner(file.get(), *old);
    }
    const Stream stream(fdopen(file.get(), "w"));
    if (stream != nullptr) {
        (void)file.release();
    }
    if (stream == nullptr || !print(root, stream.get()) || fdatasync(fileno(stream.get())) != 0 ||
        rename(beside, native) != 0) {
        (void)unlink(beside);
        return false;
    }
    return true;
}

}  // namespace

bool saveWhole(ConfXmlNode *root, const char *path) {
    const NativePath native(path);
    if (native.get() == nullptr) {
        return false;
    }
    struct stat old = {};
    if (stat(native.get(), &old) != 0) {
        return replace(root, native.get(), nullptr);
    }
    if (!S_ISREG(old.st_mode)) {
        return printAsItStands(root, native.get());
    }
    /* The file, not a link that leads to it, is what the new one replaces. */
    char target[PATH_MAX];
    return realpath(native.get(), target) != nullptr && replace(root, target, &old);
}

bool flushFiles(const char *path, const char *otherPath) {
    const NativePath native(path);
    const NativePath otherNative(otherPath);
    if (native.get() == nullptr || otherNative.get() == nullptr) {
        return false;
    }
    Directory directory;
    Directory other;
    nameDirectory(native.get(), &directory);
    nameDirectory(otherNative.get(), &other);
    const bool same = strcmp(directory.text, other.text) == 0;
    const bool flushed = flush(native.get());
    return flush(otherNative.get()) && flushed && flush(directory.text) &&
           (same || flush(other.text));
}

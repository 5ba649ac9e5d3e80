/* Files whose contents are replaced as a whole.
 *
 * How it works: the new contents go into a file without a name beside the old one, with the old
 * one's owner, group, mode and extended attributes, and are flushed before they take the name: at
 * any moment the name stands for the old file or for the whole new one. On a file system without
 * unnamed files the new one has a random hidden name until then.
 *
 * Where that cannot be done (the directory may not be written, the file has other names or is a
 * mount point, an attribute cannot be given to another file, the disk has no room for both), the
 * contents are written over the old ones. Such a file begins with a NUL byte until it is whole
 * again, so that nobody takes a mixture of old and new for a document. */
#pragma once
#include <stddef.h>
#include <sys/stat.h>
#include <sys/types.h>

namespace tamo {

/* What is written: bytes in memory, or an open file from its beginning. */
class Contents {
  public:
    Contents(const void *bytes, size_t size);
    explicit Contents(int source);

    /* Writes the bytes from `from` up to `to` to the same place of `target`; one that has no places,
     * as a pipe, gets them in turn. False with errno set. */
    bool writeTo(int target, off_t from, off_t to) const;

    off_t size() const { return size_; }
    int source() const { return source_; }

  private:
    const char *bytes_ = nullptr;
    int source_ = -1;
    off_t size_ = 0;
};

enum class Replaced {
    kDone,
    kOnlyInPlace, /* nothing has changed; errno says why */
    kFailed       /* nothing has changed; errno says why */
};

/* Replaces the file that `path`, a native path, leads to, or makes it. What is no regular file is
 * written to. */
Replaced replaceFile(const char *path, const Contents &contents);

/* Replaces what has the name `path`, whatever it is, with a copy of an open file. A regular file's
 * attributes are kept; a new copy is readable by nobody who may not read the source. */
Replaced replaceByCopy(const char *path, const Contents &contents);

/* Writes over what `path` leads to, or makes it. False, with errno set, on failure; for want of room
 * nothing has changed then. */
bool writeInPlace(const char *path, const Contents &contents);

/* Flushes a file and its name to the disk; false with errno set. */
bool flushFile(const char *path);

}  // namespace tamo

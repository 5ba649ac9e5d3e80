/* libtamo_os_file: files by device path.
 *
 * 1. A device path is absolute in the device's own layout ("/data/certfile/CA/"), with '/' or '\'
 *    as separator, also mixed. The layer knows where the device's files really are; a path that
 *    would lead out of them is refused.
 * 2. Results are 0 for success and another value for failure, or a pointer that is null on failure.
 * 3. Any thread may call; one directory walk belongs to one thread at a time. */
#pragma once
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A directory walk that has begun. */
typedef struct OsDir OsDir;

/* One entry of a walk: its name without a path. */
typedef struct OsDirEntry {
    const char *name;
} OsDirEntry;

/* Begins a walk; ended with OsCloseDir. */
OsDir *OsOpenDir(const char *path);

/* The next entry, "." and ".." among them, in no given order; null at the end. It is valid until
 * the next call for the same walk. */
OsDirEntry *OsReadDir(OsDir *dir);

/* Ends a walk; null is ignored. */
void OsCloseDir(OsDir *dir);

/* Copies a regular file, replacing the destination, whose owner, group, mode and extended attributes
 * stay; a new one is readable by nobody who may not read the source. A reader of the destination
 * sees the old file or the whole new one, unless a regular file can only be written in place. */
int32_t OsCopyFile(const char *source, const char *destination);

/* Removes a file or an empty directory. */
int32_t OsRemove(const char *path);

/* Opens a stream, as fopen does; closed with fclose. */
FILE *OsFopen(const char *path, const char *mode);

/* Turns a device path into one that the C library, OpenSSL and TinyXML-2 can open. Returns
 * `buffer`, or null when the path leads out of the device or does not fit `size`; PATH_MAX bytes
 * always suffice for a device path of 511 characters. Only a workstation has this operation:
 * callers declare it weak and use the path as it is where it is absent. */
const char *OsFileNativePath(const char *devicePath, char *buffer, size_t size);

/* Results of OsReplaceFile. */
enum {
    OS_REPLACE_DONE = 0,
    OS_REPLACE_FAILED = -1,
    OS_REPLACE_ONLY_IN_PLACE = 1 /* nothing has changed, and a call with `inPlace` may succeed */
};

/* Puts `size` bytes in place of a file's contents, or makes the file. They are on the disk, and the
 * file's name with them, when this returns. An existing file keeps its owner, group, mode and
 * extended attributes; one that may not be written is not replaced.
 *
 * Without `inPlace` the name stands for the old file or for the whole new one at any moment, also
 * when the process is killed. Where that cannot be (a directory that may not be written, a file
 * with several names, a full disk), nothing changes. With `inPlace` the bytes are written over the
 * old ones, and the file begins with a NUL byte until it is whole.
 *
 * Only a workstation has this operation and the next one: callers declare them weak. */
int32_t OsReplaceFile(const char *path, const void *contents, size_t size, int32_t inPlace);

/* Flushes a file and its name to the disk. */
int32_t OsFlushFile(const char *path);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

/* Opening a PEM file by its device path. */
#pragma once

#include <sys/stat.h>

#include "common/native_path.h"
#include "common/openssl_owner.h"

/* For OpenSSL, which opens no empty path. */
inline const char *openable(const NativePath &path) {
    return path.get() == nullptr ? "" : path.get();
}

/* Opens a file for reading; null for one that is not there, and for what would keep a reader waiting
 * or never end: a pipe, a socket, a device. */
inline BioOwner openPemFile(const char *devicePath) {
    const NativePath path(devicePath);
    struct stat status;
    if (stat(openable(path), &status) != 0 ||
        !(S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))) {
        return nullptr;
    }
    return BioOwner(BIO_new_file(openable(path), "rb"));
}

/* The engine's shared object, put into the device root.
 *
 * It is a copy of the one that is installed beside this library: device paths do not lead out of the
 * root, not by a link either; and it finds its keys from where it lies. */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sendfile.h>
#include <sys/stat.h>

#include <algorithm>

#include "host/base/descriptor.h"
#include "host/base/device_root.h"
#include "host/base/log.h"
#include "host/certificates/engine_file.h"
#include "host/certificates/layout.h"
#include "tamo_host.h"

namespace tamo::certificates {

namespace {

constexpr const char *kUnit = "cert_engine_file";
constexpr char kInstalledEngine[] = "conference_common/libopenssl_engine.so";

/* The engine's place below the directory of this library. */
bool findInstalled(char (&path)[PATH_MAX]) {
    Dl_info self;
    if (dladdr(reinterpret_cast<const void *>(&placeEngine), &self) == 0 ||
        realpath(self.dli_fname, path) == nullptr) {
        return false;
    }
    char *name = strrchr(path, '/') + 1;
    const size_t room = sizeof(path) - static_cast<size_t>(name - path);
    return snprintf(name, room, "%s", kInstalledEngine) < static_cast<int>(room);
}

bool isSameFile(int first, int second, size_t size) {
    struct stat status;
    if (second < 0 || fstat(second, &status) != 0 || static_cast<size_t>(status.st_size) != size) {
        return false;
    }
    /* Read, not mapped: somebody who cuts one of them must not end this process. */
    char one[8192], other[8192];
    size_t at = 0;
    while (at < size) {
        const size_t part = std::min(size - at, sizeof(one));
        if (pread(first, one, part, static_cast<off_t>(at)) != static_cast<ssize_t>(part) ||
            pread(second, other, part, static_cast<off_t>(at)) != static_cast<ssize_t>(part) ||
            memcmp(one, other, part) != 0) {
            return false;
        }
        at += part;
    }
    return true;
}

/* Beside, then renamed: a process that has loaded the former copy keeps it. */
bool copyEngine(int source, size_t size, const char *target) {
    char fresh[PATH_MAX + 32];
    (void)snprintf(fresh, sizeof(fresh), "%s.XXXXXX", target);
    const Descriptor copy(mkostemp(fresh, O_CLOEXEC));
    if (!copy.isOpen()) {
        return false;
    }
    off_t at = 0;
    while (static_cast<size_t>(at) < size &&
           sendfile(copy.get(), source, &at, size - static_cast<size_t>(at)) > 0) {
    }
    const bool copied = static_cast<size_t>(at) == size && fchmod(copy.get(), 0700) == 0 &&
                        rename(fresh, target) == 0;
    const int error = errno;
    if (!copied) {
        unlink(fresh);
    }
    errno = error;
    return copied;
}

}  // namespace

uint32_t placeEngine() {
    char installed[PATH_MAX];
    char target[PATH_MAX];
    struct stat status;
    if (!nativePath(kEngineDevicePath, target, sizeof(target))) {
        return TAMO_HOST_NO_ROOT;
    }
    const Descriptor source(findInstalled(installed) ? open(installed, O_RDONLY | O_CLOEXEC) : -1);
    if (!source.isOpen() || fstat(source.get(), &status) != 0) {
        hostRecord(
            kWarning, kUnit, __LINE__,
            "the engine is not installed: certificates whose keys it keeps cannot be used; put "
            "%s beside libtamo_host",
            kInstalledEngine);
        return TAMO_HOST_OK;
    }
    const size_t size = static_cast<size_t>(status.st_size);
    const Descriptor present(open(target, O_RDONLY | O_CLOEXEC));
    if (isSameFile(source.get(), present.get(), size) || copyEngine(source.get(), size, target)) {
        return TAMO_HOST_OK;
    }
    hostRecord(kError, kUnit, __LINE__,
               "the engine cannot be copied to %s (%s): make room there and connect again", target,
               strerror(errno));
    return TAMO_HOST_SYSTEM;
}

}  // namespace tamo::certificates

/* The device root.
 *
 * The log layer asks for its directory here, so nothing is recorded while the lock is held: a
 * failure is kept as text and recorded after it, once. Symbolic links that lead out of the root are
 * refused as of the moment of the call; the root is private, so only its owner could swap one in
 * later. */
#include "host/base/device_root.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <pwd.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "host/base/fork.h"
#include "host/base/log.h"

namespace tamo {
namespace {

constexpr const char *kUnit = "device_root";
constexpr size_t kDevicePathSize = 512;
/* Leaves room for every device path within PATH_MAX. */
constexpr size_t kRootSize = PATH_MAX - kDevicePathSize;
constexpr size_t kMaxDirectories = 16;
constexpr size_t kDirectoryNameSize = 32;

struct Directory {
    char name[kDirectoryNameSize];
    int descriptor;
};

struct Failure {
    int line;
    char text[PATH_MAX + 256];
};

std::mutex rootLock;
std::atomic<bool> rootTried;
char rootPath[kRootSize];
int rootDescriptor = -1;
/* Entries below the count never change, so that they are read without the lock. */
Directory directories[kMaxDirectories];
std::atomic<size_t> directoryCount;

__attribute__((constructor)) void watchForks() {
    guardForks(ForkStage::kDeviceRoot,
               {[] { rootLock.lock(); }, [] { rootLock.unlock(); }, [] { rootLock.unlock(); }});
}

__attribute__((format(printf, 3, 4))) bool fail(Failure *failure, int line, const char *format,
                                                ...) {
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(failure->text, sizeof(failure->text), format, arguments);
    va_end(arguments);
    failure->line = line;
    return false;
}

void record(const Failure &failure) {
    if (failure.line != 0) {
        hostRecord(kError, kUnit, failure.line, "%s", failure.text);
    }
}

const char *homeDirectory(char *buffer, size_t size) {
    const char *home = getenv("HOME");
    if (home != nullptr && home[0] == '/') {
        return home;
    }
    struct passwd entry;
    struct passwd *found = nullptr;
    if (getpwuid_r(geteuid(), &entry, buffer, size, &found) != 0 || found == nullptr) {
        return nullptr;
    }
    return found->pw_dir;
}

bool findRoot(char *path, Failure *failure) {
    char buffer[PATH_MAX];
    int length = -1;
    const char *named = getenv("TAMO_DEVICE_ROOT");
    const char *dataHome = getenv("XDG_DATA_HOME");
    const char *home = nullptr;
    if (named != nullptr && named[0] == '/') {
        length = snprintf(path, kRootSize, "%s", named);
    } else if (named != nullptr && named[0] != '\0') {
        if (getcwd(buffer, sizeof(buffer)) == nullptr) {
            return fail(failure, __LINE__,
                        "the current directory cannot be found (%s): make TAMO_DEVICE_ROOT=%s an "
                        "absolute path",
                        strerror(errno), named);
        }
        length = snprintf(path, kRootSize, "%s/%s", buffer, named);
    } else if (dataHome != nullptr && dataHome[0] == '/') {
        length = snprintf(path, kRootSize, "%s/tamo", dataHome);
    } else if ((home = homeDirectory(buffer, sizeof(buffer))) != nullptr) {
        length = snprintf(path, kRootSize, "%s/.local/share/tamo", home);
    }
    if (length < 0) {
        return fail(failure, __LINE__,
                    "no device root: this user has no home directory, set TAMO_DEVICE_ROOT to a "
                    "directory of your own");
    }
    if (length >= static_cast<int>(kRootSize)) {
        return fail(failure, __LINE__,
                    "the path of the device root has more than %zu characters: set "
                    "TAMO_DEVICE_ROOT to a shorter one",
                    kRootSize - 1);
    }
    while (length > 1 && path[length - 1] == '/') {
        path[--length] = '\0';
    }
    return true;
}

bool createRoot(const char *root, Failure *failure) {
    char path[kRootSize];
    memcpy(path, root, sizeof(path));
    for (char *at = strchr(path + 1, '/'); at != nullptr; at = strchr(at + 1, '/')) {
        *at = '\0';
        if (mkdir(path, 0755) != 0 && errno != EEXIST) {
            /* One that cannot be made may still be there and lead on (a read-only mount). */
            struct stat status;
            int error = errno;
            if (stat(path, &status) != 0) {
                return fail(failure, __LINE__,
                            "the device root %s cannot be created below %s (%s): create it or set "
                            "TAMO_DEVICE_ROOT",
                            root, path, strerror(error));
            }
        }
        *at = '/';
    }
    if (mkdir(path, 0700) != 0 && errno != EEXIST) {
        return fail(failure, __LINE__,
                    "the device root %s cannot be created (%s): create it with mode 0700 or set "
                    "TAMO_DEVICE_ROOT",
                    root, strerror(errno));
    }
    return true;
}

bool checkRoot(const char *root, int descriptor, Failure *failure) {
    struct stat status;
    if (fstat(descriptor, &status) != 0) {
        return fail(failure, __LINE__, "the device root %s cannot be examined (%s)", root,
                    strerror(errno));
    }
    uid_t user = geteuid();
    if (status.st_uid != user && user != 0) {
        return fail(failure, __LINE__,
                    "the device root %s belongs to user %u: set TAMO_DEVICE_ROOT to a directory of "
                    "your own",
                    root, status.st_uid);
    }
    if ((status.st_mode & 077) != 0) {
        return fail(failure, __LINE__,
                    "the device root %s is open to other users (mode %04o): if it is meant, run "
                    "chmod 700 %s",
                    root, status.st_mode & 07777, root);
    }
    return true;
}

/* What device paths name is there from the start: copying to /data/file needs no directory made. */
void createDeviceDirectories(int root) {
    for (const char *name : {"data", "system", "system/lib64"}) {
        (void)mkdirat(root, name, 0700);
    }
}

bool openRoot(char *path, int *descriptor, Failure *failure) {
    if (!findRoot(path, failure)) {
        return false;
    }
    int opened = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (opened < 0 && errno == ENOENT) {
        if (!createRoot(path, failure)) {
            return false;
        }
        opened = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    if (opened < 0) {
        return fail(failure, __LINE__,
                    "the device root %s cannot be opened (%s): it must be a directory of mode "
                    "0700, or set TAMO_DEVICE_ROOT to another",
                    path, strerror(errno));
    }
    if (!checkRoot(path, opened, failure)) {
        close(opened);
        return false;
    }
    createDeviceDirectories(opened);
    *descriptor = opened;
    return true;
}

int openDirectory(const char *name, Failure *failure) {
    if (directoryCount == kMaxDirectories) {
        fail(failure, __LINE__, "more than %zu directories of the device root are in use",
             kMaxDirectories);
        return -1;
    }
    if (mkdirat(rootDescriptor, name, 0700) != 0 && errno != EEXIST) {
        fail(failure, __LINE__, "%s/%s cannot be created (%s)%s", rootPath, name, strerror(errno),
             adviceOn(errno));
        return -1;
    }
    int opened = openat(rootDescriptor, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (opened < 0) {
        fail(failure, __LINE__, "%s/%s cannot be opened as a directory (%s)%s", rootPath, name,
             strerror(errno), adviceOn(errno));
    }
    return opened;
}

int findDirectory(const char *name) {
    size_t count = directoryCount.load(std::memory_order_acquire);
    for (size_t at = 0; at < count; at++) {
        if (strcmp(directories[at].name, name) == 0) {
            return directories[at].descriptor;
        }
    }
    return -1;
}

bool isSeparator(char c) {
    return c == '/' || c == '\\';
}

/* Writes the path's components to `relative`, each behind a '/', with "." and ".." resolved. */
bool resolveComponents(const char *devicePath, char *relative) {
    size_t length = 0;
    const char *at = devicePath;
    while (*at != '\0') {
        while (isSeparator(*at)) {
            at++;
        }
        size_t part = 0;
        while (at[part] != '\0' && !isSeparator(at[part])) {
            part++;
        }
        if (part == 2 && at[0] == '.' && at[1] == '.') {
            if (length == 0) {
                return false;
            }
            while (relative[--length] != '/') {
            }
        } else if (part != 0 && !(part == 1 && at[0] == '.')) {
            relative[length++] = '/';
            memcpy(relative + length, at, part);
            length += part;
        } else if (part == 0 && length != 0) {
            relative[length++] = '/'; /* the path asks for a directory */
        }
        at += part;
    }
    relative[length] = '\0';
    return true;
}

/* Looks the path up as far as it exists. A kernel that cannot tell (before 5.6, or a sandbox that
 * forbids the call) refuses nothing. */
bool leadsOut(const char *relative) {
    struct open_how how = {};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH;
    long opened = syscall(SYS_openat2, rootDescriptor, relative[0] == '\0' ? "." : relative + 1,
                          &how, sizeof(how));
    if (opened >= 0) {
        close(static_cast<int>(opened));
        return false;
    }
    return errno == EXDEV;
}

const char *pathFault(const char *devicePath, char *relative) {
    size_t length = strnlen(devicePath, kDevicePathSize);
    if (length == kDevicePathSize) {
        return "too long";
    }
    if (!isSeparator(devicePath[0])) {
        return "not absolute";
    }
    for (size_t at = 0; at < length; at++) {
        if (static_cast<unsigned char>(devicePath[at]) < ' ' || devicePath[at] == 0x7F) {
            return "not a path: it holds control characters";
        }
    }
    if (!resolveComponents(devicePath, relative)) {
        return "outside the device";
    }
    return leadsOut(relative) ? "outside the device, by a symbolic link" : nullptr;
}

}  // namespace

const char *deviceRoot() {
    if (!rootTried.load(std::memory_order_acquire)) {
        Failure failure = {};
        {
            std::lock_guard guard(rootLock);
            if (!rootTried.load(std::memory_order_relaxed)) {
                (void)openRoot(rootPath, &rootDescriptor, &failure);
                rootTried.store(true, std::memory_order_release);
            }
        }
        record(failure);
    }
    return rootDescriptor < 0 ? nullptr : rootPath;
}

int rootDirectory(const char *name) {
    int descriptor = findDirectory(name);
    if (descriptor >= 0 || deviceRoot() == nullptr) {
        return descriptor;
    }
    size_t length = strlen(name);
    Failure failure = {};
    if (length == 0 || length >= kDirectoryNameSize || strchr(name, '/') != nullptr ||
        name[0] == '.') {
        fail(&failure, __LINE__, "'%s' is no directory of the device root", name);
    } else {
        std::lock_guard guard(rootLock);
        descriptor = findDirectory(name);
        if (descriptor < 0) {
            descriptor = openDirectory(name, &failure);
            if (descriptor >= 0) {
                Directory *entry = &directories[directoryCount];
                memcpy(entry->name, name, length + 1);
                entry->descriptor = descriptor;
                directoryCount.fetch_add(1, std::memory_order_release);
            }
        }
    }
    record(failure);
    return descriptor;
}

bool nativePath(const char *devicePath, char *buffer, size_t size) {
    errno = EINVAL;
    if (devicePath == nullptr || buffer == nullptr || deviceRoot() == nullptr) {
        return false;
    }
    char relative[kDevicePathSize + 1];
    const char *fault = pathFault(devicePath, relative);
    if (fault != nullptr) {
        hostRecord(kWarning, kUnit, __LINE__, "the device path %.200s is %s: it is refused",
                   devicePath, fault);
        errno = EINVAL;
        return false;
    }
    int length = snprintf(buffer, size, "%s%s", rootPath, relative);
    errno = ENAMETOOLONG;
    return length >= 0 && static_cast<size_t>(length) < size;
}

}  // namespace tamo

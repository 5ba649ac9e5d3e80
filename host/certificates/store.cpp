#include "host/certificates/store.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <set>

#include "host/base/device_root.h"
#include "host/base/log.h"
#include "host/certificates/key.h"
#include "host/certificates/version.h"

namespace tamo::certificates {

namespace {

using std::string;

constexpr const char *kUnit = "cert_store";
constexpr char kWritersLock[] = "certificates.lock";
constexpr char kUsersLock[] = "certificates.users";
constexpr int64_t kLongestWaitSeconds = 3600;

/* The lock of this process as a user of the service; it is shared with children of fork. */
constinit std::mutex usersLock;
constinit int usersFile = -1;

int openLock(const char *name) {
    const int run = rootDirectory("run");
    return run < 0 ? -1 : openat(run, name, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
}

bool writeAll(int file, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(file, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
    }
    return fsync(file) == 0;
}

/* Seconds until the next version's time; -1 when there is none. */
int64_t sweep(int server, bool all, uint32_t certId) {
    int64_t next = -1;
    for (const KeptVersion &version : keptVersions(server)) {
        const int64_t left = version.until - time(nullptr);
        if (all || version.certId == certId || left <= 0) {
            removeTree(server, version.name);
        } else {
            next = next < 0 ? left : std::min(next, left);
        }
    }
    removeUnusedKeys(server);
    return next;
}

}  // namespace

void refuse(uint32_t code, const char *format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    throw Fault{code, text};
}

void failSystem(const char *what, const string &name) {
    const int error = errno;
    refuse(TAMO_HOST_SYSTEM, "%s '%s' failed: %s%s", what, name.c_str(), strerror(error),
           adviceOn(error));
}

uint32_t tellFault(const Fault &fault, char *why, uint32_t size) {
    const char *text = fault.code == TAMO_HOST_NO_MEMORY
                           ? "there is not enough memory: end programs"
                           : fault.text.c_str();
    if (why != nullptr && size > 0) {
        (void)snprintf(why, size, "%s", text);
    } else if (fault.code != TAMO_HOST_OK) {
        hostRecord(kError, kUnit, __LINE__, "%s", text);
    }
    return fault.code;
}

/* ---- directories and files ---- */

string nativeOf(const char *devicePath) {
    char native[PATH_MAX];
    if (!nativePath(devicePath, native, sizeof(native))) {
        refuse(TAMO_HOST_NO_ROOT, "the device root cannot be used: set TAMO_DEVICE_ROOT");
    }
    return native;
}

Descriptor openDirectory(const char *devicePath) {
    const string path = nativeOf(devicePath);
    Descriptor opened(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened.isOpen()) {
        failSystem("opening", path);
    }
    return opened;
}

std::vector<string> namesIn(int directory, bool hidden) {
    std::vector<string> names;
    const int again = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *walk = again < 0 ? nullptr : fdopendir(again);
    while (const dirent *entry = walk == nullptr ? nullptr : readdir(walk)) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != ".." && (hidden || name[0] != '.')) {
            names.emplace_back(name);
        }
    }
    if (walk != nullptr) {
        closedir(walk);
    }
    std::sort(names.begin(), names.end());
    return names;
}

void removeTree(int parent, const string &name) {
    {
        const Descriptor directory(
            openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        for (const string &file :
             directory.isOpen() ? namesIn(directory.get(), true) : std::vector<string>{}) {
            unlinkat(directory.get(), file.c_str(), 0);
        }
    }
    if (unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0) {
        unlinkat(parent, name.c_str(), 0);
    }
}

string freshName(const string &prefix) {
    uint64_t number = 0;
    (void)!getrandom(&number, sizeof(number), 0);
    char digits[17];
    (void)snprintf(digits, sizeof(digits), "%016llx", static_cast<unsigned long long>(number));
    return "." + prefix + "-" + digits;
}

void writeNew(int directory, const string &name, std::string_view text) {
    const Descriptor file(
        openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file.isOpen() || !writeAll(file.get(), text)) {
        failSystem("writing", name);
    }
}

/* ---- writers and users ---- */

WritersTurn::WritersTurn() : file_(openLock(kWritersLock)) {
    if (!file_.isOpen() || flock(file_.get(), LOCK_EX) != 0) {
        failSystem("locking", kWritersLock);
    }
    if (makeCertDirectories() != TAMO_HOST_OK) {
        refuse(TAMO_HOST_SYSTEM, "the certificate service's directories cannot be made");
    }
    const Descriptor fresh = openDirectory(kNewDirectory);
    for (const string &name : namesIn(fresh.get(), true)) {
        unlinkat(fresh.get(), name.c_str(), 0);
    }
}

void joinUsers() {
    const std::lock_guard guard(usersLock);
    if (usersFile < 0) {
        usersFile = openLock(kUsersLock);
        while (usersFile >= 0 && flock(usersFile, LOCK_SH) != 0 && errno == EINTR) {
        }
    }
}

/* ---- versions of server certificates ---- */

string versionInUse(int server, const string &entry) {
    char target[kVersionNameSize];
    const ssize_t length = readlinkat(server, entry.c_str(), target, sizeof(target));
    return length < 0 ? "" : string(target, static_cast<size_t>(length));
}

std::vector<KeptVersion> keptVersions(int server) {
    std::vector<KeptVersion> kept;
    for (const string &name : namesIn(server, true)) {
        uint32_t certId = 0;
        int length = 0;
        struct stat status;
        if (sscanf(name.c_str(), ".%3u-%n", &certId, &length) == 1 && length == 5 &&
            versionInUse(server, std::to_string(certId)) != name &&
            fstatat(server, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
            kept.push_back({certId, name, int64_t{status.st_mtim.tv_sec} + kReplacedSeconds});
        }
    }
    return kept;
}

void removeUnusedKeys(int server) {
    std::set<string> used;
    for (const string &version : namesIn(server, true)) {
        SecretFile identifier;
        if (readSecretFile(server, (version + "/" + kEngineKeyFile).c_str(), &identifier) == 0) {
            used.emplace(identifier.data, strcspn(identifier.data, "\n"));
        }
    }
    const Descriptor keys = openDirectory(kEngineKeyDirectory);
    for (const string &name : namesIn(keys.get(), true)) {
        const size_t begin = name[0] == '.' ? 1 : 0; /* a writer that was killed left it */
        const string identifier = name.substr(begin, KeyIdentifier::kLength);
        if (isKeyIdentifier(identifier.c_str()) && (begin > 0 || !used.contains(identifier))) {
            unlinkat(keys.get(), name.c_str(), 0);
        }
    }
}

void removeVersions(int server, uint32_t certId) {
    const std::lock_guard guard(usersLock);
    /* While it is held, no other process begins to use the service. */
    const Descriptor users(usersFile < 0 ? openLock(kUsersLock) : -1);
    const bool alone = users.isOpen() && flock(users.get(), LOCK_EX | LOCK_NB) == 0;
    (void)sweep(server, alone, certId);
}

int removeReplacedVersions() {
    const Descriptor lock(openLock(kWritersLock));
    if (!lock.isOpen() || flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        return 1000; /* a writer's turn */
    }
    int64_t next = -1;
    char why[256] = "";
    (void)guarded(why, sizeof(why),
                  [&] { next = sweep(openDirectory(kServerDirectory).get(), false, 0); });
    return next < 0 ? -1 : static_cast<int>(std::min(next, kLongestWaitSeconds)) * 1000 + 1000;
}

}  // namespace tamo::certificates

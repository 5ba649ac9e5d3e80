#include "host/certificates/watch.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "host/base/device_root.h"
#include "host/base/log.h"
#include "host/certificates/store.h"
#include "host/certificates/version.h"
#include "tamo_host.h"

namespace tamo::certificates {

/* ---- the files of one directory ---- */

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

/* Links are followed; what is not a regular file does not count. */
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

/* The kernel grants a lease for reading unless a process has the file open for writing, and would signal
 * this thread if one came to write meanwhile. Where it grants none at all, files count as whole. */
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

/* Whether what was examined is a whole file: no process writes it, nor did meanwhile. */
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

bool KnownFiles::scan(int directory, const KnownFiles &former) {
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

/* ---- the watch ---- */

namespace {

constexpr const char *kUnit = "cert_watch";
/* A file is whole when its writer closes it or moves it in; links are only created. */
constexpr uint32_t kEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE |
                             IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

/* A file is announced as closed a moment before it counts as closed, hence a second look at one that is
 * being written; at a slow writer's file, ever more rarely. */
constexpr int kLongestRetryMs = 1000;

Descriptor openDeviceDirectory(const char *devicePath) {
    char native[PATH_MAX];
    const bool found = nativePath(devicePath, native, sizeof(native));
    return Descriptor(found ? ::open(native, O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1);
}

}  // namespace

uint32_t CertWatch::open() {
    for (int &watched : watchedVersions_) {
        watched = -1;
    }
    events_ = Descriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!events_.isOpen()) {
        hostRecord(
            kError, kUnit, __LINE__,
            "certificates cannot be watched (%s): raise fs.inotify.max_user_instances, or end "
            "programs that watch files",
            strerror(errno));
        return TAMO_HOST_SYSTEM;
    }
    (void)look();
    return TAMO_HOST_OK;
}

bool CertWatch::wait() {
    char events[4096];
    pollfd polled = {events_.get(), POLLIN, 0};
    retryMs_ = retryMs_ == 0 ? 1 : std::min(2 * retryMs_, kLongestRetryMs);
    int timeoutMs = sweepMs_;
    if (pending_ && (timeoutMs < 0 || retryMs_ < timeoutMs)) {
        timeoutMs = retryMs_;
    }
    while (poll(&polled, 1, timeoutMs) < 0 && errno == EINTR) {
    }
    ssize_t got = 0;
    while ((got = read(events_.get(), events, sizeof(events))) > 0) {
        retryMs_ = 0;
    }
    return got < 0 && (errno == EAGAIN || errno == EINTR);
}

/* Follows the directory that has the path now. */
void CertWatch::follow(const char *devicePath, int *watched) {
    char native[PATH_MAX];
    const int before = *watched;
    const bool found = nativePath(devicePath, native, sizeof(native));
    *watched = found ? inotify_add_watch(events_.get(), native, kEvents) : -1;
    if (*watched < 0 && errno != ENOENT) {
        hostRecord(kWarning, kUnit, __LINE__, "%s cannot be watched: %s%s", devicePath,
                   strerror(errno), errno == ENOSPC ? ", raise fs.inotify.max_user_watches" : "");
    }
    if (before >= 0 && before != *watched) {
        (void)inotify_rm_watch(events_.get(), before);
    }
}

bool CertWatch::scanDirectory(const char *devicePath, int *watched, KnownFiles *known) {
    follow(devicePath, watched);
    KnownFiles now;
    const Descriptor directory = openDeviceDirectory(devicePath);
    const bool complete = now.scan(directory.get(), *known);
    pending_ = pending_ || now.isPending();
    if (!complete || now == *known) {
        return false;
    }
    known->swap(now);
    return true;
}

/* Whether a version that has changed can be used, and `snapshot` still shows it. */
bool CertWatch::isWhole(uint32_t index, const KnownFiles &snapshot, const CertVersion &version) {
    const char *why = "a file is being written";
    if (snapshot.isPending() || !isWholeVersion(version, &why)) {
        if (!snapshot.isPending() && !torn_[index]) {
            hostRecord(kWarning, kUnit, __LINE__,
                       "the certificate %u changes, but is not reported before it is complete: in "
                       "%s%s, %s",
                       kFirstCertId + index, deviceRoot(), version.path, why);
            torn_[index] = true;
        }
        return false;
    }
    KnownFiles again;
    const bool complete = again.scan(version.directory.get(), versions_[index]);
    pending_ = pending_ || again.isPending() || !(again == snapshot);
    return complete && !again.isPending() && again == snapshot;
}

/* Without its chain there is no certificate, whatever else is left. */
bool CertWatch::scanServer(uint32_t index) {
    CertVersion version;
    KnownFiles now;
    bool exists = false;
    if (openCurrentVersion(kFirstCertId + index, &version)) {
        follow(version.path, &watchedVersions_[index]);
        exists = hasFile(version, kChainFile);
    }
    if (!now.scan(exists ? version.directory.get() : -1, versions_[index])) {
        return false;
    }
    pending_ = pending_ || now.isPending();
    const bool changed = !(now == versions_[index]);
    if (changed && exists && !isWhole(index, now, version)) {
        return false;
    }
    torn_[index] = torn_[index] && !changed && now.isPending();
    if (changed) {
        versions_[index].swap(now);
        (void)snprintf(names_[index], sizeof(names_[index]), "%s", exists ? version.name : "");
    }
    return changed;
}

CertChanges CertWatch::look() {
    CertChanges changes = {};
    pending_ = false;
    (void)makeCertDirectories();
    follow(kCertDirectory, &watchedAll_);
    follow(kServerDirectory, &watchedServer_);
    for (uint32_t index = 0; index < kCertIds; index++) {
        changes.server[index] = scanServer(index);
    }
    changes.ca = scanDirectory(kCaDirectory, &watchedCa_, &ca_);
    changes.crl = scanDirectory(kCrlDirectory, &watchedCrl_, &crl_);
    sweepMs_ = removeReplacedVersions();
    return changes;
}

void CertWatch::forget() {
    events_ = Descriptor();
}

}  // namespace tamo::certificates

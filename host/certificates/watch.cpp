/* See cert_watch.h. */
#include "host/certificates/watch.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>

#include "host/base/device_root.h"
#include "host/base/log.h"
#include "host/certificates/version.h"
#include "tamo_host.h"

namespace tamo {

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

/* A certificate whose entry is missing is an ordinary thing here, and not recorded. */
bool findVersion(uint32_t certId, CertVersion *version) {
    char entry[PATH_MAX];
    struct stat status;
    char devicePath[64];
    (void)snprintf(devicePath, sizeof(devicePath), "%s/%u", kServerDirectory, certId);
    return nativePath(devicePath, entry, sizeof(entry)) && stat(entry, &status) == 0 &&
           openCertVersion(certId, version) == TAMO_HOST_OK;
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
    while (poll(&polled, 1, pending_ ? retryMs_ : -1) < 0 && errno == EINTR) {
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

bool CertWatch::lookAtDirectory(const char *devicePath, int *watched, KnownFiles *known) {
    follow(devicePath, watched);
    KnownFiles now;
    const Descriptor directory = openDeviceDirectory(devicePath);
    const bool complete = now.look(directory.get(), *known);
    pending_ = pending_ || now.isPending();
    if (!complete || now == *known) {
        return false;
    }
    known->swap(now);
    return true;
}

/* Whether a version that has changed can be used, and `picture` still shows it. */
bool CertWatch::isWhole(uint32_t index, const KnownFiles &picture, const CertVersion &version) {
    const char *why = "a file is being written";
    if (picture.isPending() || !isWholeVersion(version, &why)) {
        if (!picture.isPending() && !torn_[index]) {
            hostRecord(kWarning, kUnit, __LINE__,
                       "the certificate %u changes, but is not reported before it is complete: in "
                       "%s%s, %s",
                       kFirstCertId + index, deviceRoot(), version.path, why);
            torn_[index] = true;
        }
        return false;
    }
    KnownFiles again;
    const bool complete = again.look(version.directory.get(), versions_[index]);
    pending_ = pending_ || again.isPending() || !(again == picture);
    return complete && !again.isPending() && again == picture;
}

/* Without its chain there is no certificate, whatever else is left. */
bool CertWatch::lookAtServer(uint32_t index) {
    CertVersion version;
    KnownFiles now;
    bool exists = false;
    if (findVersion(kFirstCertId + index, &version)) {
        follow(version.path, &watchedVersions_[index]);
        exists = hasFile(version, kChainFile);
    }
    if (!now.look(exists ? version.directory.get() : -1, versions_[index])) {
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
        changes.server[index] = lookAtServer(index);
    }
    changes.ca = lookAtDirectory(kCaDirectory, &watchedCa_, &ca_);
    changes.crl = lookAtDirectory(kCrlDirectory, &watchedCrl_, &crl_);
    return changes;
}

void CertWatch::forget() {
    events_ = Descriptor();
}

}  // namespace tamo

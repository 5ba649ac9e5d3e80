/* What changed among the certificate service's files.
 *
 * A watch keeps a snapshot of all files that were whole when it scanned them. A scan compares the snapshot
 * with the directories; a file that a process has open for writing counts as it was, and so does a server
 * certificate whose key does not belong to it yet. So each change shows once, however many events it made,
 * and nothing half-written shows. */
#pragma once
#include "host/base/descriptor.h"
#include "host/certificates/layout.h"

namespace tamo::certificates {

struct KnownFile;
struct CertVersion;

/* The files of one directory, in order of their names. */
class KnownFiles {
  public:
    KnownFiles() = default;
    ~KnownFiles();
    KnownFiles(const KnownFiles &) = delete;
    KnownFiles &operator=(const KnownFiles &) = delete;

    /* Scans `directory` (below 0: there is none); `former` tells what was whole before. False when
     * there is no memory. */
    bool scan(int directory, const KnownFiles &former);

    /* Whether a file was left as it was because a process writes it. */
    bool isPending() const { return pending_; }

    bool operator==(const KnownFiles &other) const;
    void swap(KnownFiles &other);

  private:
    bool add(const KnownFile &file);
    const KnownFile *find(const char *name) const;

    KnownFile *files_ = nullptr;
    size_t count_ = 0;
    size_t capacity_ = 0;
    bool pending_ = false;
};

/* What a scan found. */
struct CertChanges {
    bool server[kCertIds];
    bool ca, crl;
};

/* Used by one thread, which has all signals blocked: the kernel tells of a writer that meets a scan by a
 * signal. */
class CertWatch {
  public:
    /* Begins to watch; TAMO_HOST_ codes, failures are recorded. */
    uint32_t open();

    /* Waits until something has happened, a file that was being written should be scanned again, or a
     * replaced version is to be removed; false when the watch is gone. */
    bool wait();

    /* What changed since the scan before, or since the beginning. Removes replaced versions whose time
     * has come. */
    CertChanges look();

    /* The name of the version that the last scan of a certificate found whole; empty when there is none. */
    const char *version(uint32_t index) const { return names_[index]; }

    /* For a child of fork, where the descriptor is its parent's. */
    void forget();

  private:
    bool scanServer(uint32_t index);
    bool isWhole(uint32_t index, const KnownFiles &snapshot, const CertVersion &version);
    bool scanDirectory(const char *devicePath, int *watched, KnownFiles *known);
    void follow(const char *devicePath, int *watched);

    Descriptor events_;
    int watchedAll_ = -1, watchedServer_ = -1, watchedCa_ = -1, watchedCrl_ = -1;
    int watchedVersions_[kCertIds];
    KnownFiles versions_[kCertIds], ca_, crl_;
    char names_[kCertIds][kVersionNameSize] = {};
    bool torn_[kCertIds] = {};
    bool pending_ = false; /* a file is being written */
    int retryMs_ = 0;
    int sweepMs_ = -1; /* until a replaced version is to be removed; -1: there is none */
};

}  // namespace tamo::certificates

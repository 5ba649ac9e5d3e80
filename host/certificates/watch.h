/* What changed among the certificate service's files.
 *
 * A watch keeps a picture of all files that were whole when it looked. A look compares the picture with
 * the directories; a file that somebody has open for writing counts as it was, and so does a server
 * certificate whose key does not belong to it yet. So each change shows once, however many events it made,
 * and nothing half-written shows. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "host/base/descriptor.h"
#include "host/certificates/layout.h"

namespace tamo {

struct KnownFile;
struct CertVersion;

/* The files of one directory, in order of their names. */
class KnownFiles {
  public:
    KnownFiles() = default;
    ~KnownFiles();
    KnownFiles(const KnownFiles &) = delete;
    KnownFiles &operator=(const KnownFiles &) = delete;

    /* Looks at `directory` (below 0: there is none) as `former` tells what was whole before. False when
     * there is no memory. */
    bool look(int directory, const KnownFiles &former);

    /* Whether a file was left as it was because somebody writes it. */
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

/* What a look found. */
struct CertChanges {
    bool server[kCertIds];
    bool ca, crl;
};

/* Used by one thread, which has all signals blocked: a writer that comes upon a look is announced by
 * one. */
class CertWatch {
  public:
    /* Begins to watch; TAMO_HOST_ codes, failures are recorded. */
    uint32_t open();

    /* Waits until something has happened, or a file that was being written should be looked at again;
     * false when the watch is gone. */
    bool wait();

    /* What changed since the look before, or since the beginning. */
    CertChanges look();

    /* For a child of fork, where the descriptor is its parent's. */
    void forget();

  private:
    bool lookAtServer(uint32_t index);
    bool isWhole(uint32_t index, const KnownFiles &picture, const CertVersion &version);
    bool lookAtDirectory(const char *devicePath, int *watched, KnownFiles *known);
    void follow(const char *devicePath, int *watched);

    Descriptor events_;
    int watchedAll_ = -1, watchedServer_ = -1, watchedCa_ = -1, watchedCrl_ = -1;
    int watchedVersions_[kCertIds];
    KnownFiles versions_[kCertIds], ca_, crl_;
    bool torn_[kCertIds] = {};
    bool pending_ = false; /* a file is being written */
    int retryMs_ = 0;
};

}  // namespace tamo

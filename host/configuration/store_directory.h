/* The files of the configuration store in the directory config/ of the device root: the order in
 * which openers take turns there, and the renaming of stores as a whole. */
#pragma once
#include <stddef.h>
#include <stdint.h>

namespace tamo::configuration {

constexpr const char *kStoreFile = "config.db";
constexpr const char *kStoreLogFile = "config.db-wal";
constexpr const char *kFreshStoreFile = "config.db.new";

/* Held by the one process that opens, begins, moves or leaves the store. It is a lock of the directory
 * itself, which does not go with the files in it. */
class OpenLock {
  public:
    /* Waits for the lock, at most `mostMs` milliseconds; -1: without an end. */
    explicit OpenLock(int directory, int mostMs = -1);
    ~OpenLock();
    OpenLock(const OpenLock &) = delete;
    OpenLock &operator=(const OpenLock &) = delete;

    bool taken() const { return isTaken; }

  private:
    const int descriptor;
    bool isTaken = false;
};

/* SQLite's files beside the store, by their numbers in the file system; 0 where there is none. */
struct WalFiles {
    uint64_t log = 0;
    uint64_t index = 0;
    bool operator==(const WalFiles &) const = default;
};

WalFiles findWalFiles();

/* Records the failure of a system call, told by errno; returns the TAMO_HOST_ code. */
uint32_t directoryFailure(const char *what, int line);

bool directoryHas(int directory, const char *name);

/* Whether the disk has no room to speak of. */
bool diskIsTight(int directory);

/* Makes an empty shared index where there is none, which takes no room: SQLite reads without one only
 * where it finds one that it cannot use. */
void keepIndex(int directory);

/* Gives a damaged or foreign store a name that nothing has, with its log, and records it. */
uint32_t moveStoreAside(int directory, const char *why);

/* Removes what was left of a beginning that did not come to its end. */
void removeUnfinishedStore(int directory);

/* Gives a fresh store that is whole its name, for good. */
uint32_t nameFreshStore(int directory);

}  // namespace tamo::configuration

/* Who watches the configuration store: the board run/config.watchers, a file that the watchers and
 * the writers of all processes map.
 *
 * A watcher has a place on the board and holds a lock on it; the kernel drops the lock with the
 * process, however that ends. In its place stands how far it has read, which writers heed when they
 * trim the journal. Watchers sleep on the board's counter of wakes. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <atomic>

namespace tamo {

struct WatcherBoard;

/* Who is to hear of a write. */
struct ConfigAudience {
    bool others;      /* somebody but the asking process's own handlers */
    uint64_t slowest; /* the last change that all watchers have read */
};

/* The origin of what nobody hears but those who hear of all. */
constexpr uint64_t kNoOrigin = 1;

/* A number that no other process has, nor a fork of this one. */
uint64_t configOrigin();

/* Looks the watchers over, within a write transaction of the process with that origin. */
ConfigAudience configAudience(uint64_t origin);

/* Wakes the watchers of all processes. */
void wakeConfigWatchers();

/* A watcher's place on the board. A child of fork does not have its parent's. */
class WatcherSeat {
  public:
    WatcherSeat() = default;
    ~WatcherSeat() { leave(); }
    WatcherSeat(const WatcherSeat &) = delete;
    WatcherSeat &operator=(const WatcherSeat &) = delete;

    /* Takes a place, for one who needs not hear of writes of `origin` (kNoOrigin: hears of all).
     * False with a record when there is none. */
    bool take(uint64_t origin);
    void leave();

    /* Whether the place is held and the board the one in use. */
    bool isHeld() const;

    /* Tells writers that what is before `number` was read. */
    void setSeen(uint64_t number);

    uint32_t wakes() const;

    /* Sleeps until there were other wakes than `known`, at most so long, and without a place so long. */
    void wait(uint32_t known, int64_t timeoutMs) const;

  private:
    bool lockAPlace();

    WatcherBoard *board = nullptr;
    int entry = -1;         /* where the process keeps the board's descriptor */
    uint32_t madeAfter = 0; /* so many forks */
    uint32_t place = 0;
};

}  // namespace tamo

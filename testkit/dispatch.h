/* Inside the test kit: the state of one operation, and the decision on one call.
 *
 * How it works: operations.cpp defines every platform operation in one table. A definition judges its
 * call (settings.cpp): the call fails, goes to the test's replacement, or goes on. A call that goes on is
 * taken by the clock (clock.cpp) or a peer (peer.cpp) where one is concerned, and else reaches the next
 * definition in the process, the host's. Calls that come from the host's own module, or from within a
 * call that it is making, are passed on as they are.
 *
 * State is in plain atomics, relaxed: a lock here would order the library's threads and so hide their
 * races from the thread sanitizer. */
#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <utility>

#include "testkit/include/conference_testkit.h"

namespace testkit::detail {

struct Slot {
    std::atomic<uint64_t> calls{0};
    std::atomic<uint64_t> failAt{0}; /* the number of the call that fails; kNever, kAlways */
    std::atomic<bool> failed{false};
    std::atomic<void *> replacement{nullptr};
    std::atomic<void *> next{nullptr}; /* the host's definition */
    void (*releaseReplacement)(void *) = nullptr;
    /* Set before main. */
    const char *name = nullptr;
    const void *address = nullptr;
    Slot *following = nullptr;
};

constexpr uint64_t kNever = 0;
constexpr uint64_t kAlways = UINT64_MAX;

/* One per operation, without a constructor to run: the platform may be called before any. */
template <auto Operation>
inline constinit Slot slotOf{};

/* Adds an operation's slot to the list that names are looked up in. */
class Entry {
  public:
    Entry(Slot *slot, const char *name, const void *address);
};

/* In the table's file: who names it links the table. */
extern const bool isTableLinked;

enum class Verdict { kForward, kFail, kReplace, kPlatformsOwn };

/* Counts a call and says what becomes of it. `caller` is the address it returns to. */
Verdict judge(Slot *slot, const void *caller);

/* The host's definition of an operation. */
void *resolve(Slot *slot, const char *name);

/* Within this scope calls are, or are not, the host's own. */
class PlatformDepth {
  public:
    explicit PlatformDepth(bool inside);
    ~PlatformDepth();
    PlatformDepth(const PlatformDepth &) = delete;
    PlatformDepth &operator=(const PlatformDepth &) = delete;

  private:
    int before_;
};

/* Keeps one record; true when it goes to the log too. */
bool captureRecord(uint8_t level, uint16_t logFileId, const char *unit, int32_t line,
                   const char *text);

/* The account of memory: a number of blocks, and as many of them by name as the table holds. */
struct TakenBlock {
    const void *block;
    size_t size;
    const char *unit;
    uint32_t line;
};
void countBlock(int64_t change);
void rememberBlock(const TakenBlock &taken);
void forgetBlocks();
TakenBlock forgetBlock(const void *block); /* null in it when the table does not have the block */

/* What the clock does in place of the host's timers and time; false where there is no clock, or for a
 * timer that is not the clock's. */
bool clockStarts(uint32_t tickMicroseconds, uint32_t *result);
bool clockCreates(const OsTmrCreateParam *param, uint32_t *handle, uint32_t *result);
bool clockDeletes(uint32_t handle, uint32_t *result);
bool clockTells(OsTimeEx *record);
bool clockTells(uint32_t *seconds);

/* What a peer does in place of the host's messages; false for a message to nobody's name, or a response
 * that is the host's. */
bool peerTakes(const OsMsgHeader *header, OsMsgHeader **answer, uint32_t *result);
bool peerFrees(OsMsgHeader *answer);

}  // namespace testkit::detail

/* The lock-free side of the timers; conf_timer_snapshot.h says how it works.
 *
 * Why no reader uses a released block: a reader stores its announcement and then loads the sequence
 * number, a writer changes the sequence number and then loads the announcements, all of it in the one
 * order of the sequentially consistent operations. So either the writer sees the announcement, or the
 * reader sees the change and reads again. An announcement that is not trusted, and may be of a block
 * released long ago, can only delay the release of another block at the same address. */
#include "msg/conf_timer_snapshot.h"

#include <sched.h>
#include <time.h>

#include <atomic>

#include "platform/tamo_os_mem.h"

namespace {

constexpr char kUnit[] = "conf_timer";

/* Expiries that run at once; the platform's timer manager has one thread, or a few. */
constexpr unsigned kSlots = 16;

/* A slot that a reader has holds this mark and the address of its block. Blocks are aligned, so that
 * the lowest bits are free for marks. */
constexpr uintptr_t kTaken = 2;
constexpr uintptr_t kReleaseAtEnd = 1;

std::atomic<uintptr_t> announced[kSlots];
std::atomic<uint32_t> sequence{0};

template <typename Value>
std::atomic_ref<Value> shared(Value *field) {
    return std::atomic_ref<Value>(*field);
}

/* Lets another thread end what takes it some instructions. A thread of real-time priority must sleep
 * for that. */
void giveWay(unsigned attempt) {
    if (attempt < 32) {
        sched_yield();
    } else {
        const timespec pause = {0, 50000};
        nanosleep(&pause, nullptr);
    }
}

/* ---- replacements ---- */

/* Makes the sequence number odd, and even again at the end of the scope. */
class Replacement {
  public:
    Replacement() {
        for (unsigned attempt = 0;; attempt++) {
            odd_ = sequence.load(std::memory_order_relaxed) | 1;
            uint32_t even = odd_ - 1;
            if (sequence.compare_exchange_strong(even, odd_)) {
                return;
            }
            giveWay(attempt);
        }
    }
    ~Replacement() { sequence.store(odd_ + 1, std::memory_order_release); }
    Replacement(const Replacement &) = delete;
    Replacement &operator=(const Replacement &) = delete;

  private:
    uint32_t odd_;
};

/* Releases a block that no timer has any more, or leaves it to a reader that announced it. */
void retire(void *block, uint32_t line = __builtin_LINE()) {
    if (block == nullptr) {
        return;
    }
    const uintptr_t mine = reinterpret_cast<uintptr_t>(block) | kTaken;
    for (std::atomic<uintptr_t> &slot : announced) {
        uintptr_t expected = mine;
        if (slot.load() == mine && slot.compare_exchange_strong(expected, mine | kReleaseAtEnd)) {
            return;
        }
    }
    OSMemTypeFreeMon(block, 0, 0, line, kUnit);
}

/* ---- readers ---- */

unsigned takeSlot() {
    for (unsigned attempt = 0;; attempt++) {
        for (unsigned i = 0; i < kSlots; i++) {
            uintptr_t free = 0;
            if (announced[i].compare_exchange_strong(free, kTaken)) {
                return i;
            }
        }
        giveWay(attempt);
    }
}

/* Puts a new value into a reader's slot. A block that was marked there is retired again: another
 * reader may have announced it too. */
void announce(unsigned slot, uintptr_t value) {
    const uintptr_t previous = announced[slot].exchange(value);
    if ((previous & kReleaseAtEnd) != 0) {
        retire(reinterpret_cast<void *>(previous & ~(kReleaseAtEnd | kTaken)));
    }
}

}  // namespace

void replaceContent(const TimerContent &content, uint32_t param, void *data, uint32_t dataLength) {
    void *previous;
    {
        const Replacement replacement;
        /* Releasing stores and acquiring loads: a reader that sees one of these values sees the odd
         * number too. */
        shared(content.param).store(param, std::memory_order_release);
        shared(content.dataLength).store(dataLength, std::memory_order_release);
        previous = shared(content.data).load(std::memory_order_relaxed);
        shared(content.data).store(data, std::memory_order_release);
    }
    retire(previous);
}

void releaseContent(const TimerContent &content) {
    void *previous;
    {
        const Replacement replacement;
        previous = shared(content.data).load(std::memory_order_relaxed);
        shared(content.data).store(nullptr, std::memory_order_release);
    }
    retire(previous);
}

ContentReader::ContentReader(const TimerContent &content) : slot_(takeSlot()) {
    for (unsigned attempt = 0;; attempt++) {
        const uint32_t before = sequence.load();
        param_ = shared(content.param).load(std::memory_order_acquire);
        dataLength_ = shared(content.dataLength).load(std::memory_order_acquire);
        data_ = shared(content.data).load(std::memory_order_acquire);
        announce(slot_, reinterpret_cast<uintptr_t>(data_) | kTaken);
        if (before % 2 == 0 && sequence.load() == before) {
            return;
        }
        giveWay(attempt);
    }
}

ContentReader::~ContentReader() {
    announce(slot_, 0);
}

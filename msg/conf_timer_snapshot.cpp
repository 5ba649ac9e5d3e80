/* The lock-free side of the timers; conf_timer_snapshot.h says how it works. */
#include "msg/conf_timer_snapshot.h"

#include <sched.h>

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

void releaseBlock(void *block, uint32_t line = __builtin_LINE()) {
    OSMemTypeFreeMon(block, 0, 0, line, kUnit);
}

/* Releases a block that no timer has any more, or leaves it to a reader that announced it. */
void retire(void *block) {
    if (block == nullptr) {
        return;
    }
    const auto address = reinterpret_cast<uintptr_t>(block);
    for (std::atomic<uintptr_t> &slot : announced) {
        uintptr_t expected = address | kTaken;
        if (slot.compare_exchange_strong(expected, expected | kReleaseAtEnd)) {
            return;
        }
    }
    releaseBlock(block);
}

/* Looks at what a slot held: a marked block is retired again, since another reader may have it too. */
void releaseIfMarked(uintptr_t held) {
    if ((held & kReleaseAtEnd) != 0) {
        retire(reinterpret_cast<void *>(held & ~(kReleaseAtEnd | kTaken)));
    }
}

unsigned takeSlot() {
    for (unsigned i = 0;; i = (i + 1) % kSlots) {
        uintptr_t free = 0;
        if (announced[i].compare_exchange_strong(free, kTaken)) {
            return i;
        }
        if (i == kSlots - 1) {
            sched_yield();
        }
    }
}

}  // namespace

void replaceContent(const TimerContent &content, uint32_t param, void *data, uint32_t dataLength) {
    sequence.fetch_add(1);
    shared(content.param).store(param);
    shared(content.dataLength).store(dataLength);
    void *previous = shared(content.data).exchange(data);
    sequence.fetch_add(1);
    retire(previous);
}

void releaseContent(const TimerContent &content) {
    sequence.fetch_add(1);
    void *previous = shared(content.data).exchange(nullptr);
    sequence.fetch_add(1);
    retire(previous);
}

ContentReader::ContentReader(const TimerContent &content) : slot_(takeSlot()) {
    for (;;) {
        const uint32_t before = sequence.load();
        param_ = shared(content.param).load();
        dataLength_ = shared(content.dataLength).load();
        data_ = shared(content.data).load();
        /* Announced first and checked then: a writer that the check does not see sees the block. */
        uintptr_t previous = announced[slot_].exchange(reinterpret_cast<uintptr_t>(data_) | kTaken);
        releaseIfMarked(previous);
        if (before % 2 == 0 && sequence.load() == before) {
            return;
        }
        sched_yield();
    }
}

ContentReader::~ContentReader() { releaseIfMarked(announced[slot_].exchange(0)); }

/* A record that one thread replaces while others read it, without a lock.
 *
 * There are two copies and a version. While the version is even, or odd because a replacement is under
 * way, its half says which copy is current; a replacement fills the other one and then moves the
 * version on. So a writer that is interrupted leaves readers a whole record, and a reader reads again
 * only when two replacements began while it was reading. The odd version also keeps writers apart. */
#pragma once

#include <sched.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

template <typename Record>
class PublishedRecord {
    static_assert(std::is_trivially_copyable_v<Record>);

  public:
    void publish(const Record &record) {
        const uint32_t version = claim();
        const auto *bytes = reinterpret_cast<const unsigned char *>(&record);
        for (size_t i = 0; i < sizeof(Record); i++) {
            /* Releases: who sees one of these bytes sees the odd version too. */
            copies_[(version / 2 + 1) % 2][i].store(bytes[i], std::memory_order_release);
        }
        version_.store(version + 2, std::memory_order_release);
    }

    Record read() const {
        Record record;
        auto *bytes = reinterpret_cast<unsigned char *>(&record);
        for (;;) {
            const uint32_t version = version_.load(std::memory_order_acquire) & ~1U;
            for (size_t i = 0; i < sizeof(Record); i++) {
                bytes[i] = copies_[version / 2 % 2][i].load(std::memory_order_acquire);
            }
            if (version_.load(std::memory_order_relaxed) - version <= 2) {
                return record;
            }
        }
    }

  private:
    /* Makes the version odd and returns the even one before it. */
    uint32_t claim() {
        uint32_t version = version_.load(std::memory_order_relaxed) & ~1U;
        while (!version_.compare_exchange_weak(version, version + 1, std::memory_order_acq_rel,
                                               std::memory_order_relaxed)) {
            if (version % 2 != 0) {
                sched_yield();
            }
            version &= ~1U;
        }
        return version;
    }

    std::atomic<uint32_t> version_{0};
    std::atomic<unsigned char> copies_[2][sizeof(Record)] = {};
};

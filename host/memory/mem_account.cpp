/* The account of outstanding memory blocks: finding a statement's site, and counting.
 *
 * Counting takes no lock: a site is claimed by one atomic exchange, filled, and published; from
 * then on it never changes but for its counters. */
#include "host/memory/mem_account.h"

#include <sched.h>
#include <string.h>

#include "host/memory/mem_table.h"

namespace tamo::memory {
namespace {

/* Full up to here, the search ends and the block counts for the other site. */
constexpr uint32_t kMaxProbes = 32;

struct SiteKey {
    const char *file;
    size_t length;
    uint32_t line;
};

SiteKey makeKey(const char *file, uint32_t line) {
    if (file == nullptr) {
        file = "(unknown)";
    }
    size_t length = strlen(file);
    if (length >= kMemFileSize) {
        file += length - (kMemFileSize - 1);
        length = kMemFileSize - 1;
    }
    return SiteKey{file, length, line};
}

/* Takes the two ends of the name, which tell units apart well enough, and the line. */
uint32_t hashKey(const SiteKey &key) {
    uint64_t head = 0;
    uint64_t tail = 0;
    if (key.length >= sizeof(head)) {
        memcpy(&head, key.file, sizeof(head));
        memcpy(&tail, key.file + key.length - sizeof(tail), sizeof(tail));
    } else {
        for (size_t i = 0; i < key.length; i++) {
            head = head << 8 | static_cast<uint8_t>(key.file[i]);
        }
    }
    const uint64_t mixed = (head ^ (tail << 7 | tail >> 57) ^ key.line) * 0x9E3779B97F4A7C15u;
    return static_cast<uint32_t>(mixed >> 32);
}

bool holds(const MemSite &site, const SiteKey &key) {
    return site.line == key.line && memcmp(site.file, key.file, key.length + 1) == 0;
}

/* Waits for another thread that is filling the site. */
void awaitReady(const MemSite &site) {
    while (site.state.load(std::memory_order_acquire) == kMemSiteClaimed) {
        sched_yield();
    }
}

bool claim(MemSite *site, const SiteKey &key) {
    uint32_t expected = kMemSiteFree;
    if (!site->state.compare_exchange_strong(expected, kMemSiteClaimed)) {
        awaitReady(*site);
        return false;
    }
    memcpy(site->file, key.file, key.length + 1);
    site->line = key.line;
    site->state.store(kMemSiteReady, std::memory_order_release);
    return true;
}

uint32_t findSite(MemTable *table, const SiteKey &key) {
    const uint32_t start = hashKey(key);
    for (uint32_t probe = 0; probe < kMaxProbes; probe++) {
        const uint32_t index = 1 + (start + probe) % (kMemSites - 1);
        MemSite *site = &table->sites[index];
        const uint32_t state = site->state.load(std::memory_order_acquire);
        if (state == kMemSiteClaimed) {
            awaitReady(*site);
        }
        if ((state == kMemSiteFree && claim(site, key)) || holds(*site, key)) {
            return index;
        }
    }
    return kMemOtherSite;
}

}  // namespace

uint32_t memAccountTake(const char *file, uint32_t line, size_t bytes) {
    MemTable *table = ownMemTable();
    if (table == nullptr) {
        return kMemOtherSite;
    }
    const uint32_t index = findSite(table, makeKey(file, line));
    MemSite *site = &table->sites[index];
    site->blocks.value.fetch_add(1, std::memory_order_relaxed);
    site->bytes.value.fetch_add(bytes, std::memory_order_relaxed);
    return index;
}

void memAccountGive(uint32_t site, size_t bytes) {
    MemTable *table = ownMemTable();
    if (table != nullptr) {
        table->sites[site].blocks.value.fetch_sub(1, std::memory_order_relaxed);
        table->sites[site].bytes.value.fetch_sub(bytes, std::memory_order_relaxed);
    }
}

}  // namespace tamo::memory

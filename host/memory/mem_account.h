/* The account of outstanding memory blocks: per statement (file and line) how many blocks it took
 * that were not released yet, and their bytes.
 *
 * How it works. Every block's header (tamo_os_mem) knows its site in the table (mem_account), so that
 * a release finds it without a search; counting takes no lock. The table (mem_table) lies in shared
 * memory. The file run/mem.<pid> below the device root tells where, and its process keeps it locked
 * (a POSIX record lock) as long as it lives: any other process may look at any time (mem_report), and
 * sees by the lock whether the numbers are of a living process. The layout is the same in both pointer
 * widths. Without a usable device root the table is private memory. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <atomic>

namespace tamo::memory {

constexpr uint32_t kMemTableMagic = 0x4D454D32; /* "MEM2": also the version of the layout */
constexpr uint32_t kMemSites = 1024;
constexpr uint32_t kMemOtherSite = 0; /* what found no place in the table */
constexpr size_t kMemFileSize = 40;

/* As wide as an atomic operation is cheap, in 8 bytes of storage. May become negative: a block that
 * another thread took while the process forked may be missing from the child's copy. */
struct MemCounter {
    alignas(8) std::atomic<size_t> value;
};

enum MemSiteState : uint32_t { kMemSiteFree = 0, kMemSiteClaimed = 1, kMemSiteReady = 2 };

struct alignas(64) MemSite {
    std::atomic<uint32_t> state;
    uint32_t line;
    char file[kMemFileSize]; /* NUL-terminated; of a longer name the end */
    MemCounter blocks, bytes;
};

struct alignas(64) MemTable {
    std::atomic<uint32_t> magic; /* stored last */
    uint32_t pid;
    MemSite sites[kMemSites];
};

static_assert(sizeof(MemSite) == 64);
static_assert(offsetof(MemSite, blocks) == 48 && offsetof(MemSite, bytes) == 56);
static_assert(sizeof(MemTable) == 64 + 64 * kMemSites);

/* Counts a block of `bytes` bytes and returns its site, for memAccountGive. */
uint32_t memAccountTake(const char *file, uint32_t line, size_t bytes);
void memAccountGive(uint32_t site, size_t bytes);

/* This process's table; null when there is no memory for one. */
const MemTable *memTable();

/* Copies the table of another process; false when no living process has one. */
bool readMemTable(uint32_t pid, MemTable *copy);

}  // namespace tamo::memory

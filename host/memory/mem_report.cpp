/* What is outstanding: the host operation that tells it for any process, and the report that a
 * process writes at its end when TAMO_MEM_REPORT=1. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "host/base/device_root.h"
#include "host/base/log.h"
#include "host/memory/mem_account.h"
#include "tamo_host.h"

namespace {

constexpr char kUnit[] = "tamo_os_mem";

struct Free {
    void operator()(void *memory) const { free(memory); }
};

struct Snapshot {
    uint32_t count;
    TamoHostMemSite sites[tamo::memory::kMemSites];
};

using SnapshotOwner = std::unique_ptr<Snapshot, Free>;

/* A counter as its process's width has it; a negative one counts nothing. */
uint64_t reading(const tamo::memory::MemCounter &counter) {
    uint64_t value = counter.value.load(std::memory_order_relaxed);
    if constexpr (sizeof(size_t) < sizeof(value)) {
        uint32_t upper = 0;
        memcpy(&upper, reinterpret_cast<const char *>(&counter) + sizeof(upper), sizeof(upper));
        value |= static_cast<uint64_t>(upper) << 32;
    }
    return value;
}

bool isOutstanding(uint64_t blocks) {
    /* Either width's negative numbers are above this. */
    return blocks != 0 && blocks < INT32_MAX;
}

void takeSite(const tamo::memory::MemSite &site, Snapshot *snapshot) {
    const uint64_t blocks = reading(site.blocks);
    if (site.state.load(std::memory_order_acquire) != tamo::memory::kMemSiteReady ||
        !isOutstanding(blocks)) {
        return;
    }
    TamoHostMemSite *taken = &snapshot->sites[snapshot->count++];
    memcpy(taken->file, site.file, sizeof(site.file));
    taken->file[sizeof(site.file) - 1] = '\0';
    taken->line = site.line;
    taken->blocks = blocks;
    taken->bytes = reading(site.bytes);
}

bool isLarger(const TamoHostMemSite &a, const TamoHostMemSite &b) {
    if (a.bytes != b.bytes) {
        return a.bytes > b.bytes;
    }
    const int order = strcmp(a.file, b.file);
    return order != 0 ? order < 0 : a.line < b.line;
}

SnapshotOwner takeSnapshot(const tamo::memory::MemTable &table) {
    SnapshotOwner snapshot(static_cast<Snapshot *>(calloc(1, sizeof(Snapshot))));
    if (snapshot != nullptr) {
        for (const tamo::memory::MemSite &site : table.sites) {
            takeSite(site, snapshot.get());
        }
        std::sort(snapshot->sites, snapshot->sites + snapshot->count, isLarger);
    }
    return snapshot;
}

uint32_t snapshotOf(uint32_t pid, SnapshotOwner *snapshot) {
    if (pid == 0 || pid == static_cast<uint32_t>(getpid())) {
        const tamo::memory::MemTable *table = tamo::memory::memTable();
        *snapshot = table == nullptr ? nullptr : takeSnapshot(*table);
    } else {
        if (tamo::rootDirectory("run") < 0) {
            return TAMO_HOST_NO_ROOT;
        }
        std::unique_ptr<tamo::memory::MemTable, Free> copy(static_cast<tamo::memory::MemTable *>(
            aligned_alloc(alignof(tamo::memory::MemTable), sizeof(tamo::memory::MemTable))));
        if (copy != nullptr && !tamo::memory::readMemTable(pid, copy.get())) {
            return TAMO_HOST_NO_RECEIVER;
        }
        *snapshot = copy == nullptr ? nullptr : takeSnapshot(*copy);
    }
    return *snapshot == nullptr ? TAMO_HOST_NO_MEMORY : TAMO_HOST_OK;
}

uint32_t printSite(const TamoHostMemSite *site, void *isAny) {
    *static_cast<bool *>(isAny) = true;
    dprintf(STDERR_FILENO, "  %s:%u: %llu blocks, %llu bytes\n", site->file, site->line,
            static_cast<unsigned long long>(site->blocks),
            static_cast<unsigned long long>(site->bytes));
    return 0;
}

/* Runs after the program's own clean-up: what is outstanding by then stays so. */
__attribute__((destructor)) void reportAtExit() {
    const char *wanted = getenv("TAMO_MEM_REPORT");
    if (wanted != nullptr && strcmp(wanted, "1") == 0) {
        dprintf(STDERR_FILENO, "%s[%d]: outstanding memory blocks:\n",
                program_invocation_short_name, getpid());
        bool isAny = false;
        if (TamoHostMemReport(0, printSite, &isAny) == TAMO_HOST_OK && !isAny) {
            dprintf(STDERR_FILENO, "  none\n");
        }
    }
}

}  // namespace

uint32_t TamoHostMemReport(uint32_t pid,
                           uint32_t (*visit)(const TamoHostMemSite *site, void *context),
                           void *context) {
    if (visit == nullptr) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "TamoHostMemReport needs a function to call");
        return TAMO_HOST_INVALID;
    }
    SnapshotOwner snapshot;
    const uint32_t result = snapshotOf(pid, &snapshot);
    if (result != TAMO_HOST_OK) {
        tamo::hostRecord(
            tamo::kError, kUnit, __LINE__,
            result == TAMO_HOST_NO_MEMORY
                ? "no memory for the report of process %u"
                : "no process %u uses the memory layer below this device root: look at "
                  "its id and at TAMO_DEVICE_ROOT",
            pid);
        return result;
    }
    for (uint32_t i = 0; i < snapshot->count; i++) {
        const uint32_t stopped = visit(&snapshot->sites[i], context);
        if (stopped != 0) {
            return stopped;
        }
    }
    return TAMO_HOST_OK;
}

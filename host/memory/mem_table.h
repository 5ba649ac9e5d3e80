/* Where the account of memory blocks lies: see mem_account.h. */
#pragma once
#include <atomic>

#include "host/memory/mem_account.h"

namespace tamo::memory {

extern std::atomic<MemTable *> mappedMemTable;

/* Makes the table, or takes over the one that this process got by a fork. */
MemTable *openMemTable();

inline MemTable *ownMemTable() {
    MemTable *table = mappedMemTable.load(std::memory_order_acquire);
    return table != nullptr ? table : openMemTable();
}

}  // namespace tamo::memory

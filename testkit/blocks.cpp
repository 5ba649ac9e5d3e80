/* The account of outstanding blocks: a table without locks, whose rows are claimed by their block's
 * address. A block lies in one of the kReach rows from its home on; when those are taken it is counted
 * only. The texts that name units are kept once each. */
#include <algorithm>
#include <cstring>
#include <ostream>

#include "testkit/dispatch.h"

namespace testkit {

namespace {

constexpr size_t kRows = 65536, kReach = 256;
constexpr size_t kUnits = 256, kUnitSize = 48;

struct Row {
    std::atomic<const void *> block{nullptr};
    std::atomic<size_t> size{0};
    std::atomic<const char *> unit{nullptr};
    std::atomic<uint32_t> line{0};
};

constinit Row rows[kRows]{};
constinit std::atomic<int64_t> blockCount{0};

constinit char unitTexts[kUnits][kUnitSize]{};
constinit std::atomic<size_t> unitsBegun{0};
constinit std::atomic<bool> unitReady[kUnits]{};

Row &rowAt(const void *block, size_t step) {
    const size_t home = reinterpret_cast<uintptr_t>(block) / alignof(std::max_align_t);
    return rows[(home * 2654435761U + step) % kRows];
}

/* The kept text of a unit. Two threads that begin a unit at once may keep it twice. */
const char *keptUnit(const char *unit) {
    if (unit == nullptr) {
        return "";
    }
    const size_t begun = std::min(unitsBegun.load(std::memory_order_relaxed), kUnits);
    for (size_t i = 0; i < begun; ++i) {
        if (unitReady[i].load(std::memory_order_acquire) &&
            std::strncmp(unitTexts[i], unit, kUnitSize - 1) == 0) {
            return unitTexts[i];
        }
    }
    const size_t mine = unitsBegun.fetch_add(1, std::memory_order_relaxed);
    if (mine >= kUnits) {
        return "?";
    }
    std::strncpy(unitTexts[mine], unit, kUnitSize - 1);
    unitReady[mine].store(true, std::memory_order_release);
    return unitTexts[mine];
}

}  // namespace

namespace detail {

void countBlock(int64_t change) {
    blockCount.fetch_add(change, std::memory_order_relaxed);
}

void rememberBlock(const TakenBlock &taken) {
    for (size_t step = 0; step < kReach; ++step) {
        Row &row = rowAt(taken.block, step);
        const void *none = nullptr;
        if (row.block.compare_exchange_strong(none, taken.block, std::memory_order_relaxed)) {
            row.size.store(taken.size, std::memory_order_relaxed);
            row.unit.store(keptUnit(taken.unit), std::memory_order_relaxed);
            row.line.store(taken.line, std::memory_order_relaxed);
            return;
        }
    }
}

TakenBlock forgetBlock(const void *block) {
    for (size_t step = 0; block != nullptr && step < kReach; ++step) {
        Row &row = rowAt(block, step);
        if (row.block.load(std::memory_order_relaxed) == block) {
            const TakenBlock taken = {block, row.size.load(std::memory_order_relaxed),
                                      row.unit.load(std::memory_order_relaxed),
                                      row.line.load(std::memory_order_relaxed)};
            row.block.store(nullptr, std::memory_order_relaxed);
            return taken;
        }
    }
    return {};
}

void forgetBlocks() {
    for (Row &row : rows) {
        row.block.store(nullptr, std::memory_order_relaxed);
    }
    blockCount = 0;
}

}  // namespace detail

int64_t outstanding() {
    return blockCount;
}

std::vector<Block> outstandingBlocks() {
    std::vector<Block> blocks;
    for (const Row &row : rows) {
        const void *block = row.block.load(std::memory_order_relaxed);
        const char *unit = row.unit.load(std::memory_order_relaxed);
        if (block != nullptr && unit != nullptr) {
            blocks.push_back({block, row.size.load(std::memory_order_relaxed), unit,
                              row.line.load(std::memory_order_relaxed)});
        }
    }
    std::sort(blocks.begin(), blocks.end(),
              [](const Block &a, const Block &b) { return a.address < b.address; });
    return blocks;
}

std::ostream &operator<<(std::ostream &out, const Block &block) {
    return out << block.unit << ':' << block.line << ' ' << block.size << " bytes";
}

}  // namespace testkit

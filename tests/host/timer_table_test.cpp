/* The timers of the manager, beside a plain model of them. */
#include "host/timer_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <vector>

namespace {

using tamo::kNoSlot;
using tamo::TimerTable;

class Table : public testing::Test {
  protected:
    ~Table() override {
        free(table.slots);
        free(table.places);
        free(table.queue);
        free(table.homes);
    }

    uint32_t add(uint64_t due) {
        OsTmrCreateParam param = {};
        param.ticks = static_cast<uint32_t>(due);
        const uint32_t slot = tamo::addTimer(&table, param);
        tamo::queueTimer(&table, slot, due);
        return table.slots[slot].handle;
    }

    bool remove(uint32_t handle) {
        const uint32_t slot = tamo::findTimer(table, handle);
        if (slot != kNoSlot) {
            tamo::removeTimer(&table, slot);
        }
        return slot != kNoSlot;
    }

    TimerTable table;
};

TEST_F(Table, HoldsItsOrderThroughAddingRemovingAndQueueingAnew) {
    std::mt19937 engine(7);
    const auto random = [&](uint32_t below) { return static_cast<uint32_t>(engine() % below); };
    std::map<uint32_t, uint64_t> model; /* due times by handle */
    std::vector<uint32_t> gone;
    for (int round = 0; round < 100000; round++) {
        /* Grows for the first half, shrinks for the second. */
        const uint32_t kind = random(10);
        const uint64_t due = random(5000);
        auto any = model.empty() ? model.end() : model.lower_bound(random(table.lastHandle));
        if (kind < (round < 50000 ? 5u : 2u)) {
            ASSERT_TRUE(model.emplace(add(due), due).second);
        } else if (kind == 9) {
            EXPECT_EQ(table.queued, model.size());
            const auto first =
                std::min_element(model.begin(), model.end(),
                                 [](const auto &a, const auto &b) { return a.second < b.second; });
            EXPECT_EQ(tamo::firstDue(table), model.empty() ? UINT64_MAX : first->second);
        } else if (any != model.end() && kind == 8) {
            tamo::queueTimer(&table, tamo::findTimer(table, any->first), due);
            any->second = due;
        } else if (any != model.end()) {
            gone.push_back(any->first);
            EXPECT_TRUE(remove(any->first));
            model.erase(any);
        }
    }
    EXPECT_EQ(table.count, model.size());
    for (const uint32_t handle : gone) {
        ASSERT_EQ(tamo::findTimer(table, handle), kNoSlot) << "a stale handle";
    }
    uint64_t last = 0;
    while (table.queued != 0) {
        EXPECT_GE(tamo::firstDue(table), last);
        last = tamo::firstDue(table);
        const uint32_t slot = table.queue[0].slot;
        EXPECT_EQ(model.at(table.slots[slot].handle), last);
        tamo::removeTimer(&table, slot);
    }
    EXPECT_EQ(table.count, 0u);
}

TEST_F(Table, HandlesOfLongLivedTimersAreNotDrawnAgainWhenTheNumbersAreUsedUp) {
    std::set<uint32_t> live;
    for (int i = 0; i < 40; i++) {
        live.insert(add(1));
    }
    table.lastHandle = 0xFFFFFFF0 - 50;
    for (int i = 0; i < 60; i++) {
        const uint32_t handle = add(2);
        EXPECT_TRUE(live.insert(handle).second) << handle;
        EXPECT_NE(handle, 0u);
        EXPECT_LT(handle, 0xFFFFFFF0u);
    }
    EXPECT_EQ(table.count, live.size());
    for (const uint32_t handle : live) {
        EXPECT_NE(tamo::findTimer(table, handle), kNoSlot);
    }
    tamo::clearTimers(&table);
    EXPECT_EQ(table.queued, 0u);
    for (const uint32_t handle : live) {
        EXPECT_EQ(tamo::findTimer(table, handle), kNoSlot);
    }
}

}  // namespace

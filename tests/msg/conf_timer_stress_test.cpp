/* Starts, stops and ends of the service while a careless manager fires whatever was once created, for the
 * sanitizers. What a timer delivers follows from its parameter, so that a mixture of two starts shows. */
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <conference_testkit_gtest.h>
#include "include/conf_timer.h"
#include "msg/message_format.h"

namespace {

constexpr uint32_t kTimers = 6;

std::string dataOf(uint32_t param) {
    return std::string(param % 4 == 0 ? 0 : param % 601, static_cast<char>(param >> 24));
}

class TimerStress : public testkit::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        testkit::replace(OsMsgAsynSend, [this](OsMsgHeader *header) {
            auto *body = static_cast<ConfMsgBody *>(header->body);
            const std::string data(static_cast<char *>(bodyData(body)), body->dataLength);
            torn += data == dataOf(body->param) ? 0 : 1;
            delivered++;
            return 0u;
        });
        testkit::replace(OsTmrManagerInit, [](uint32_t, uint32_t, uint32_t) { return 0u; });
        testkit::replace(OsTmrDelete, [](uint32_t) { return 0u; });
        testkit::replace(OsTmrCreate, [this](OsTmrCreateParam *param, uint32_t *handle) {
            const std::lock_guard lock(mutex);
            const auto known = [&](const OsTmrCreateParam &each) { return each.key == param->key; };
            if (std::none_of(created.begin(), created.end(), known)) {
                created.push_back(*param);
            }
            *handle = ++lastHandle;
            return 0u;
        });
        const auto nothing = [](uint32_t, void *, uint32_t) { return 0u; };
        for (uint32_t i = 0; i < kTimers; i++) {
            table[i] = {i, i % 2, 1, "receiver", nothing, 0, 0, nullptr, 0};
            ConfTimerInit(&objects[i], i, i % 2, "receiver", nothing);
        }
    }

    /* Fires what was created, again and again. */
    void fire() {
        for (size_t i = 0; !end; i++) {
            OsTmrCreateParam record = {};
            {
                const std::lock_guard lock(mutex);
                record = created.empty() ? record : created[i % created.size()];
            }
            if (record.expiry != nullptr) {
                record.expiry(&record);
            }
        }
    }

    /* Starts a timer of the table or an object, or stops one, as the dice say. */
    void step(std::mt19937 &dice, bool startOfTheTable = false) {
        const auto param = static_cast<uint32_t>(dice()),
                   at = static_cast<uint32_t>(dice() % kTimers);
        const std::string text = dataOf(param);
        const auto length = static_cast<uint32_t>(text.size());
        const void *data = text.empty() ? nullptr : text.data();
        const auto kind = startOfTheTable ? 2 : dice() % 8;
        EXPECT_EQ(kind == 0       ? ConfCommTimerStop(at)
                  : kind == 1     ? ConfTimerStop(&objects[at])
                  : kind % 2 == 0 ? ConfCommTimerStartEx(at, 1, param, data, length)
                                  : ConfTimerStart(&objects[at], 1, param, data, length),
                  0u);
    }

    std::mutex mutex;
    std::vector<OsTmrCreateParam> created;
    uint32_t lastHandle = 0;
    std::atomic<uint32_t> delivered = 0, torn = 0;
    std::atomic<bool> end = false;
    ConfCommTimerEntry table[kTimers] = {};
    ConfTimer objects[kTimers] = {};
};

TEST_F(TimerStress, ExpiriesReadNoReleasedData) {
    std::vector<std::thread> firing, starting;
    ASSERT_EQ(ConfCommTimerInit(table, kTimers), 0u);
    for (uint32_t seed = 0; seed < 3; seed++) {
        firing.emplace_back([this] { fire(); });
        starting.emplace_back([=, this] {
            for (std::mt19937 dice(seed); delivered < 20000;) {
                step(dice);
            }
        });
    }
    for (std::thread &thread : starting) {
        thread.join();
    }
    for (ConfTimer &object : objects) {
        EXPECT_EQ(ConfTimerStop(&object), 0u);
    }
    /* The service ends and starts again and again, with its timers running. */
    std::mt19937 dice(99);
    for (uint32_t i = 0; i < 100; i++) {
        ConfCommTimerDeInit();
        ASSERT_EQ(ConfCommTimerInit(table, kTimers), 0u);
        for (const uint32_t before = delivered; delivered < before + 5;) {
            step(dice, true);
        }
    }
    end = true;
    for (std::thread &thread : firing) {
        thread.join();
    }
    ConfCommTimerDeInit();
    EXPECT_EQ(torn, 0u);
}

}  // namespace

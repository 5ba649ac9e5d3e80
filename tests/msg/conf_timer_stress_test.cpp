/* Starts, stops and ends of the service while expiries fire, for the sanitizers. The data that a timer
 * delivers follows from its parameter, so that a mixture of two starts shows. */
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include <conference_testkit_gtest.h>
#include "include/conf_timer.h"
#include "msg/message_format.h"

namespace {

constexpr uint32_t kMostBytes = 600;
constexpr int kTimers = 6;
constexpr int kStarters = 3;

/* The data that belongs to a parameter. */
uint32_t lengthOf(uint32_t param) {
    return param % 4 == 0 ? 0 : param % (kMostBytes + 1);
}

int byteOf(uint32_t param) {
    return static_cast<int>(param >> 24);
}

uint32_t nothing(uint32_t, void *, uint32_t) {
    return 0;
}

std::atomic<uint32_t> delivered{0}, torn{0};

/* In the place of the message layer: looks at each message. */
uint32_t look(OsMsgHeader *header) {
    auto *body = static_cast<ConfMsgBody *>(header->body);
    const auto *data = static_cast<const unsigned char *>(bodyData(body));
    const bool whole = body->dataLength == lengthOf(body->param) &&
                       std::all_of(data, data + body->dataLength,
                                   [&](int byte) { return byte == byteOf(body->param); });
    delivered++;
    torn += whole ? 0 : 1;
    return 0;
}

/* One thread's way through the timers. */
class Walk {
  public:
    explicit Walk(uint32_t seed) : engine_(seed) {}

    uint32_t random(uint32_t below) { return static_cast<uint32_t>(engine_() % below); }

    void start(uint32_t id, ConfTimer *object) {
        const auto param = static_cast<uint32_t>(engine_());
        const uint32_t length = lengthOf(param);
        memset(bytes_, byteOf(param), sizeof(bytes_));
        const void *data = length == 0 ? nullptr : bytes_;
        EXPECT_EQ(object == nullptr ? ConfCommTimerStartEx(id, 1, param, data, length)
                                    : ConfTimerStart(object, 1, param, data, length),
                  0u);
    }

    void step(ConfTimer *objects) {
        const uint32_t at = random(kTimers);
        const uint32_t kind = random(8);
        if (kind == 0) {
            EXPECT_EQ(ConfCommTimerStop(at), 0u);
        } else if (kind == 1) {
            EXPECT_EQ(ConfTimerStop(&objects[at]), 0u);
        } else {
            start(at, kind % 2 == 0 ? nullptr : &objects[at]);
        }
    }

  private:
    std::mt19937 engine_;
    unsigned char bytes_[kMostBytes];
};

/* Fires what was created, again and again, from several threads. */
class CarelessManager {
  public:
    CarelessManager() {
        testkit::replace(OsTmrManagerInit, [](uint32_t, uint32_t, uint32_t) { return 0u; });
        testkit::replace(OsTmrDelete, [](uint32_t) { return 0u; });
        testkit::replace(OsTmrCreate, [this](OsTmrCreateParam *param, uint32_t *handle) {
            const std::lock_guard lock(mutex_);
            const auto known = [&](const OsTmrCreateParam &each) { return each.key == param->key; };
            if (std::none_of(timers_.begin(), timers_.end(), known)) {
                timers_.push_back(*param);
            }
            *handle = ++lastHandle_;
            return 0u;
        });
        for (std::thread &thread : threads_) {
            thread = std::thread([this] { fire(); });
        }
    }
    ~CarelessManager() {
        end_ = true;
        for (std::thread &thread : threads_) {
            thread.join();
        }
    }

  private:
    void fire() {
        for (size_t i = 0; !end_; i++) {
            OsTmrCreateParam record = {};
            {
                const std::lock_guard lock(mutex_);
                if (!timers_.empty()) {
                    record = timers_[i % timers_.size()];
                }
            }
            if (record.expiry != nullptr) {
                record.expiry(&record);
            }
        }
    }

    std::mutex mutex_;
    std::vector<OsTmrCreateParam> timers_;
    uint32_t lastHandle_ = 0;
    std::atomic<bool> end_{false};
    std::thread threads_[3];
};

class TimerStress : public testkit::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        delivered = torn = 0;
        testkit::replace(OsMsgAsynSend, look);
        for (uint32_t i = 0; i < kTimers; i++) {
            table[i] = {i, i % 2, 1, "receiver", nothing, 0, 0, nullptr, 0};
            ConfTimerInit(&objects[i], i, i % 2, "receiver", nothing);
        }
    }

    /* Threads start and stop timers until `expiries` were delivered. */
    void walkUntil(uint32_t expiries) {
        std::vector<std::thread> threads;
        for (uint32_t seed = 0; seed < kStarters; seed++) {
            threads.emplace_back([=, this] {
                for (Walk walk(seed); delivered < expiries;) {
                    walk.step(objects);
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
    }

    ConfCommTimerEntry table[kTimers] = {};
    ConfTimer objects[kTimers] = {};
};

TEST_F(TimerStress, ExpiriesOfACarelessManagerReadNoReleasedData) {
    const CarelessManager manager;
    ASSERT_EQ(ConfCommTimerInit(table, kTimers), 0u);
    walkUntil(20000);
    for (ConfTimer &object : objects) {
        EXPECT_EQ(ConfTimerStop(&object), 0u);
    }
    /* The service ends and starts again and again, with its timers running. */
    Walk walk(99);
    for (uint32_t i = 0; i < 100; i++) {
        ConfCommTimerDeInit();
        ASSERT_EQ(ConfCommTimerInit(table, kTimers), 0u);
        for (const uint32_t before = delivered; delivered < before + 5;) {
            walk.start(walk.random(kTimers), nullptr);
        }
    }
    ConfCommTimerDeInit();
    EXPECT_EQ(torn, 0u);
}

}  // namespace

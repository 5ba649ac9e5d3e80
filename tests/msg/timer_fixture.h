/* A timer manager that the test plays: it keeps each created timer's record and calls its expiry when the
 * test says so. Its tests start with a service of four table timers. */
#pragma once
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <conference_testkit_gtest.h>
#include "include/conf_timer.h"
#include "msg/message_format.h"

constexpr uint32_t kUnknownId = 77;

inline uint32_t remind(uint32_t, void *, uint32_t) {
    return 0;
}

struct Sent {
    std::string receiver;
    uint32_t param;
    std::string data;
    bool operator==(const Sent &) const = default;
};

class Timer : public testkit::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        playManager();
        ASSERT_EQ(ConfCommTimerInit(table, 4), 0u);
        testkit::clearRecords();
    }

    void TearDown() override {
        ConfCommTimerDeInit();
        ConfTimerStop(&object);
        PlatformTest::TearDown();
    }

    void playManager() {
        testkit::replace(OsTmrManagerInit, [](uint32_t, uint32_t, uint32_t) { return 0u; });
        testkit::replace(OsTmrCreate, [this](OsTmrCreateParam *param, uint32_t *handle) {
            created.push_back(*param);
            *handle = static_cast<uint32_t>(created.size());
            return 0u;
        });
        testkit::replace(OsTmrDelete, [this](uint32_t handle) {
            deleted.push_back(handle);
            return 0u;
        });
        testkit::replace(OsMutexLock, [this](OsMutex *) { return held++; });
        testkit::replace(OsMutexUnLock, [this](OsMutex *) { return --held; });
        testkit::replace(OsMsgAsynSend, [this](OsMsgHeader *header) {
            EXPECT_EQ(held, 0u) << "no message is sent under the mutex";
            auto *body = static_cast<ConfMsgBody *>(header->body);
            EXPECT_EQ(body->handler, remind);
            sent.push_back({header->receiver, body->param,
                            std::string(static_cast<char *>(bodyData(body)), body->dataLength)});
            return 0u;
        });
    }

    /* Everything as at the begin of a test, for another round. */
    void again() {
        testkit::reset();
        playManager();
        ConfTimerInit(&object, 0, 1, "receiver", remind);
    }

    static void expectRecords(std::initializer_list<const char *> texts) {
        for (const char *text : texts) {
            EXPECT_TRUE(testkit::hasRecord(1, "conf_timer", text)) << text;
        }
    }

    /* The platform fires its n-th timer (from 1). */
    void expire(size_t n) {
        OsTmrCreateParam record = {};
        record.key = created.at(n - 1).key;
        created.at(n - 1).expiry(&record);
    }

    ConfCommTimerEntry table[4] = {
        {10, 0, 1000, "periodic", remind, 0, 0, nullptr, 0},
        {20, 1, 250, "oneShot", remind, 0, 0, nullptr, 0},
        {30, 2, 0, "sixteen_chars_xx", remind, 0, 0, nullptr, 0},
        {10, 1, 10, "hidden", remind, 0, 0, nullptr, 0},
    };
    ConfTimer object = {};
    std::vector<OsTmrCreateParam> created;
    std::vector<uint32_t> deleted;
    std::vector<Sent> sent;
    uint32_t held = 0;
};

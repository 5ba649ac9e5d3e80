/* Notifications and message blocks. */
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include <conference_testkit_gtest.h>
#include "include/conf_msg_api.h"
#include "msg/message_format.h"

namespace {

using testkit::hasRecord;

void expectRecord(const char *part) {
    EXPECT_TRUE(hasRecord(1, "conf_msg_api", part)) << part;
}

constexpr uint32_t kPacket = 4194140;
constexpr uint32_t kLimit = 33554432;

struct Call {
    uint32_t id;
    const void *data;
    uint32_t length, result;
};
std::vector<Call> calls;
MultiPackHeader header;

uint32_t remember(uint32_t id, const void *data, uint32_t length, uint32_t result) {
    if (length == sizeof(header) && data != nullptr) {
        memcpy(&header, data, sizeof(header));
    }
    calls.push_back({id, data, length, result});
    return 40 + result;
}

class Notify : public testkit::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        calls.clear();
    }
};

/* The first test of the program that needs no callback: none can be removed again. */
TEST_F(Notify, CallbackGetsWhatIsNotified) {
    EXPECT_EQ(ConfCommSendNotifyToApp(1, "x", 1), 1u) << "nobody is registered";
    EXPECT_EQ(ConfCommSendMultiPackNotifyToApp(1, "x", 1), 0u);
    ConfRegisterNotifyFunc(remember);
    ConfRegisterNotifyFunc(nullptr);
    EXPECT_EQ(ConfCommSendNotifyToApp(5, "xy", 2), 40u);
    EXPECT_EQ(ConfCommSendNotifyAndResultToApp(6, nullptr, 9, 2), 42u);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].id, 6u);
    EXPECT_EQ(calls[1].length, 9u);
    EXPECT_EQ(testkit::callCount(OsMutexLock), testkit::callCount(OsMutexUnLock));
}

TEST_F(Notify, LargeBlockGoesInPacketsBehindAHeader) {
    ConfRegisterNotifyFunc(remember);
    const std::vector<char> data(kLimit + 1);
    const struct {
        uint32_t length, count, calls, last;
    } cases[] = {
        {1, 1, 2, 1}, {kPacket, 1, 2, kPacket}, {kPacket + 1, 2, 3, 1}, {kLimit, 9, 10, 1312}};
    for (const auto &c : cases) {
        calls.clear();
        EXPECT_EQ(ConfCommSendMultiPackNotifyToApp(8, data.data(), c.length), 0u);
        ASSERT_EQ(calls.size(), c.calls) << c.length;
        EXPECT_EQ(calls[0].length, 12u);
        EXPECT_EQ(header.magic, 74565u);
        EXPECT_EQ(header.packetCount, c.count);
        EXPECT_EQ(header.totalLength, c.length);
        for (uint32_t i = 1; i < c.calls; i++) {
            EXPECT_EQ(calls[i].data, data.data() + (i - 1) * kPacket);
        }
        EXPECT_EQ(calls.back().length, c.last);
    }
    EXPECT_TRUE(hasRecord(3, "conf_msg_api",
                          "[ConfCommSendMultiPackNotifyToApp]MultiPackNotify,pktnum:9, "
                          "len:33554432"));
    EXPECT_TRUE(hasRecord(3, "conf_msg_api", "MultiPackNotify Over"));
    EXPECT_EQ(ConfCommSendMultiPackNotifyToApp(8, data.data(), kLimit + 1), 1u);
    expectRecord("dataLen error .33554433");
}

TEST_F(Notify, NullDataIsToldOnceAndSendsNoPacket) {
    ConfRegisterNotifyFunc(remember);
    EXPECT_EQ(ConfCommSendMultiPackNotifyToApp(8, nullptr, 0), 1u);
    expectRecord("dataLen error .0");
    EXPECT_EQ(ConfCommSendMultiPackNotifyToApp(8, nullptr, 5000), 1u);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].data, nullptr);
    EXPECT_EQ(calls[1].length, 5000u);
    EXPECT_EQ(testkit::callCount(OsMutexLock), 0u);
}

TEST_F(Notify, PacketsOfTwoThreadsDoNotMix) {
    ConfRegisterNotifyFunc(remember);
    const std::vector<char> data(kPacket * 2);
    const auto send = [&](uint32_t id) {
        for (int i = 0; i < 50; i++) {
            ConfCommSendMultiPackNotifyToApp(id, data.data(), kPacket * 2);
        }
    };
    std::thread other(send, 1);
    send(2);
    other.join();
    ASSERT_EQ(calls.size(), 300u);
    for (size_t i = 0; i < calls.size(); i++) {
        EXPECT_EQ(calls[i].id, calls[i - i % 3].id);
    }
}

TEST_F(Notify, BlockHasItsBodyAndRoomForFourBytes) {
    const std::vector<char> body(1152, 'b'), zeros(84);
    const std::pair<const char *, uint32_t> bodies[] = {
        {body.data(), 1152}, {nullptr, 10}, {nullptr, 0}};
    for (const auto &[bytes, length] : bodies) {
        MeetingServerMsgBlock *block = GenerateMeetingServerMsgBlock(bytes, length);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(block->bodyLength, length);
        EXPECT_EQ(GetMeetingServerMsgBlockSize(block), length == 0 ? 84u : length + 83);
        EXPECT_EQ(memcmp(block, zeros.data(), offsetof(MeetingServerMsgBlock, bodyLength)), 0);
        EXPECT_EQ(memcmp(block->body, bytes == nullptr ? zeros.data() : bytes, length), 0);
        block->bodyLength = UINT32_MAX - 10;
        EXPECT_EQ(GetMeetingServerMsgBlockSize(block), UINT32_MAX)
            << "a size that wrapped would lie";
        OSMemTypeFreeMon(block, 0, 0, 1, "test");
    }
}

TEST_F(Notify, BlockFailuresAreRecorded) {
    for (const char *operation : {"OsMemMallocSetCharMon", "memcpy_s"}) {
        testkit::forEachFailure(
            operation, [] {}, [] { return GenerateMeetingServerMsgBlock("body", 4); },
            [](uint64_t, MeetingServerMsgBlock *block) {
                EXPECT_EQ(block, nullptr);
                EXPECT_EQ(testkit::records().size(), 1u);
            },
            [](MeetingServerMsgBlock *block) { OSMemTypeFreeMon(block, 0, 0, 1, "test"); });
    }
    EXPECT_EQ(GenerateMeetingServerMsgBlock(nullptr, UINT32_MAX), nullptr);
    expectRecord("[GenerateMeetingServerMsgBlock]Null ptr.");
    EXPECT_EQ(GetMeetingServerMsgBlockSize(nullptr), 0u);
    expectRecord("[GetMeetingServerMsgBlockSize]msg is nullptr!");
}

}  // namespace

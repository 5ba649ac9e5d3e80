/* Messages between threads of one process: what crosses, what fails at once, and that nothing is
 * left behind. tests/process/message_process_test.cpp has what needs processes. */
#include "platform/tamo_os_msg.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <cstring>
#include <future>

#include "include/conf_msg_api.h"
#include "platform/tamo_os_mem.h"
#include "tests/host/message_parties.h"
#include "tests/support/allocation_count.h"
#include "tests/support/open_descriptors.h"

using namespace parties;

namespace {

constexpr const char *kQueue = "conference";
constexpr uint32_t kLargest = kHead + kMaxData;
constexpr uint32_t kLargestList = 33554432;

/* Blocks that are left fail a test. */
class Messages : public testing::Test {
  protected:
    void SetUp() override {
        /* What stays: connections of this thread. */
        { Server server(kQueue); }
        before_ = outstandingBlocks();
    }
    void TearDown() override { EXPECT_EQ(outstandingBlocks(), before_); }

  private:
    uint64_t before_ = 0;
};

uint32_t increment(uint32_t param, void *data, uint32_t dataLength) {
    auto *bytes = static_cast<uint8_t *>(data);
    for (uint32_t i = 0; i < dataLength; ++i) {
        ++bytes[i];
    }
    return param + 1;
}

/* Hangs a list of `param` bytes on its block. */
uint32_t answerWithList(uint32_t param, void *data, uint32_t) {
    void *list = OsMemMallocSetCharMon(param, 0, 0, 0, __LINE__, "test");
    const Bytes bytes = pattern(param, 9);
    std::copy(bytes.begin(), bytes.end(), static_cast<uint8_t *>(list));
    hangList(data, list, param);
    return 7;
}

void releaseList(void *list) {
    EXPECT_EQ(OSMemTypeFreeMon(list, 0, 0, __LINE__, "test"), 0U);
}

/* Sends in a thread of its own; its result and response are looked at afterwards. */
std::future<uint32_t> sendInThread(Bytes body, uint32_t msgId = 1) {
    return std::async(std::launch::async, [body = std::move(body), msgId] {
        return Exchange(kQueue, body, msgId).result;
    });
}

TEST_F(Messages, BodiesOfEverySizeCrossBothWays) {
    const Server server(kQueue);
    for (uint32_t size : {0U, 1U, 32768U - kHead, 32769U - kHead, 65536U, 131073U - kHead, 576001U,
                          1310720U - kHead, kMaxData}) {
        Bytes data = pattern(size);
        const Exchange exchange(kQueue, bodyOf(increment, size, data));
        ASSERT_EQ(exchange.result, TAMO_HOST_OK) << size;
        ASSERT_EQ(exchange.response->bodyLength, kHead + size);
        increment(0, data.data(), size);
        ASSERT_TRUE(std::equal(data.begin(), data.end(), dataOf(exchange.response))) << size;
    }
    EXPECT_EQ(Exchange(kQueue, Bytes(kLargest + 1)).result, TAMO_HOST_TOO_LARGE);
    EXPECT_EQ(sendAsync(kQueue, Bytes(kLargest + 1)), TAMO_HOST_TOO_LARGE);
}

TEST_F(Messages, AResultListCrossesAndBothSidesReleaseTheirOwn) {
    const Server server(kQueue);
    for (uint32_t size : {0U, 1152U, 40000U, 300000U, kLargestList}) {
        const Exchange exchange(kQueue, bodyOf(answerWithList, size, Bytes(kBlock)), 2);
        ASSERT_EQ(exchange.result, TAMO_HOST_OK) << size;
        ASSERT_EQ(listSizeOf(exchange.response), size);
        const auto *list = static_cast<const uint8_t *>(listOf(exchange.response));
        ASSERT_NE(list, nullptr);
        EXPECT_EQ(Bytes(list, list + size), pattern(size, 9));
        releaseList(listOf(exchange.response));
    }
    /* One byte more cannot cross: the receiver keeps it, and here frees it with the message. */
    EXPECT_EQ(Exchange(kQueue, bodyOf(answerWithList, kLargestList + 1, Bytes(kBlock)), 2).result,
              TAMO_HOST_GONE);
}

TEST_F(Messages, ARequestBringsNoAddressOfItsSender) {
    Queue queue(kQueue);
    Bytes block(kBlock);
    hangList(block.data(), block.data(), 84);
    Bytes shortBody = bodyOf(doNothing, 0, {});
    shortBody.pop_back();
    ASSERT_EQ(sendAsync(kQueue, bodyOf(doNothing, 0, block), 2), 0U);
    ASSERT_EQ(sendAsync(kQueue, shortBody), 0U);
    ASSERT_EQ(sendAsync(kQueue, {}, 1), 0U);
    OsMsgHeader *message = queue.next();
    EXPECT_EQ(listOf(message), nullptr);
    EXPECT_EQ(listSizeOf(message), 0U);
    TamoHostMsgFree(message);
    message = queue.next();
    const Bytes zero(sizeof(void *));
    EXPECT_EQ(message->bodyLength, kHead - 1);
    EXPECT_EQ(std::memcmp(message->body, zero.data(), zero.size()), 0);
    TamoHostMsgFree(message);
    message = queue.next();
    EXPECT_EQ(message->body, nullptr);
    TamoHostMsgFree(message);
}

TEST_F(Messages, ALateResponseFailsAndLeavesItsListToTheReceiver) {
    Queue queue(kQueue);
    EXPECT_EQ(Exchange(kQueue, bodyOf(doNothing, 0, Bytes(kBlock)), 2, 20).result,
              TAMO_HOST_TIMEOUT);
    OsMsgHeader *message = queue.next();
    answerWithList(100, dataOf(message), kBlock);
    EXPECT_EQ(OsMsgSynSendResp(message, message->body, message->bodyLength), TAMO_HOST_GONE);
    ASSERT_NE(listOf(message), nullptr);
    releaseList(listOf(message));
    hangList(dataOf(message), nullptr, 0);
    TamoHostMsgFree(message);
}

bool isReadable(Queue *queue, uint32_t timeoutMs) {
    pollfd entry = {TamoHostMsgDescriptor(queue->get()), POLLIN, 0};
    return poll(&entry, 1, static_cast<int>(timeoutMs)) == 1;
}

TEST_F(Messages, MessagesStayInOrderAlsoAfterAGivenUpOneAndCanBePolledExactly) {
    Queue queue(kQueue);
    uint32_t count = 0;
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 20; ++i) {
            ASSERT_EQ(sendAsync(kQueue, bodyOf(doNothing, count++, Bytes(i * 3000))), 0U);
        }
        EXPECT_EQ(Exchange(kQueue, bodyOf(doNothing, count++, {}), 1, 1).result, TAMO_HOST_TIMEOUT);
    }
    /* A program may begin to poll at any time: here with some received. */
    for (uint32_t expected = 0; expected < count; ++expected) {
        ASSERT_TRUE(expected < 5 || isReadable(&queue, patienceMs()));
        OsMsgHeader *message = queue.next();
        ASSERT_EQ(headOf(message).param, expected);
        TamoHostMsgFree(message);
    }
    EXPECT_FALSE(isReadable(&queue, 0)) << "nothing is left";
    auto sent = std::async(std::launch::async, [&queue] {
        EXPECT_TRUE(isReadable(&queue, patienceMs()));
        serve(queue.next());
        EXPECT_FALSE(isReadable(&queue, 0));
    });
    EXPECT_EQ(Exchange(kQueue, bodyOf(doNothing, 0, {})).result, TAMO_HOST_OK);
}

TEST_F(Messages, AThreadThatSendsToQueuesThatComeAndGoKeepsItsDescriptors) {
    std::thread([] {
        size_t before = 0;
        for (int round = 0; round < 60; ++round) {
            Queue first(kQueue), second("second");
            for (int i = 0; i < 10; ++i) {
                ASSERT_EQ(sendAsync(kQueue, bodyOf(doNothing, 0, Bytes(9000))), TAMO_HOST_OK);
                ASSERT_EQ(sendAsync("second", bodyOf(doNothing, 0, {})), TAMO_HOST_OK);
            }
            TamoHostMsgFree(first.next());
            before = round == 20 ? support::openDescriptors().size() : before;
        }
        EXPECT_LE(support::openDescriptors().size(), before);
    }).join();
}

TEST_F(Messages, AMessageIsAnsweredOnceAndADroppedOneFailsItsSenderAtOnce) {
    Queue queue(kQueue);
    auto sent = sendInThread(bodyOf(doNothing, 0, {}));
    TamoHostMsgFree(queue.next());
    EXPECT_EQ(sent.get(), TAMO_HOST_GONE);

    sent = sendInThread(bodyOf(doNothing, 0, {}));
    OsMsgHeader *message = queue.next();
    EXPECT_EQ(OsMsgSynSendResp(message, message->body, kLargest + 1), TAMO_HOST_TOO_LARGE);
    EXPECT_EQ(OsMsgSynSendResp(message, nullptr, 4), TAMO_HOST_INVALID);
    EXPECT_EQ(OsMsgSynSendResp(message, message->body, message->bodyLength), 0U);
    EXPECT_EQ(OsMsgSynSendResp(message, message->body, message->bodyLength), TAMO_HOST_INVALID);
    TamoHostMsgFree(message);
    EXPECT_EQ(sent.get(), TAMO_HOST_OK);

    ASSERT_EQ(sendAsync(kQueue, bodyOf(doNothing, 0, {})), 0U);
    message = queue.next();
    EXPECT_EQ(message->syncFlag, 0U);
    EXPECT_EQ(OsMsgSynSendResp(message, message->body, message->bodyLength), TAMO_HOST_INVALID);
    TamoHostMsgFree(message);
}

TEST_F(Messages, ClosingFailsWhoWaitsUnreadAndLeavesWhatWasHandedOut) {
    Queue queue(kQueue);
    auto handedOut = sendInThread(bodyOf(increment, 1, {1}));
    OsMsgHeader *message = queue.next();
    auto unread = sendInThread(bodyOf(doNothing, 0, {}));
    while (queueInfo(kQueue).depth == 0) {
        std::this_thread::yield();
    }
    queue.close();
    EXPECT_EQ(unread.get(), TAMO_HOST_GONE);
    serve(message);
    EXPECT_EQ(handedOut.get(), TAMO_HOST_OK);
    EXPECT_EQ(queueInfo(kQueue).name[0], '\0') << "a closed queue leaves no trace";
}

/* Sends bodies of one size, numbered, until the queue is full or `most` are in it. */
uint32_t fill(uint32_t dataBytes, uint32_t most = UINT32_MAX) {
    Bytes body = bodyOf(doNothing, 0, Bytes(dataBytes));
    OsMsgHeader header = headerOf(kQueue, body);
    uint32_t sent = 0;
    for (uint32_t result = TAMO_HOST_OK; sent < most; ++sent) {
        std::memcpy(&body[offsetof(BodyHead, param)], &sent, sizeof(sent));
        result = OsMsgAsynSend(&header);
        if (result != TAMO_HOST_OK) {
            EXPECT_EQ(result, TAMO_HOST_QUEUE_FULL);
            break;
        }
    }
    return sent;
}

void expectInOrder(Queue *queue, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        OsMsgHeader *message = queue->next();
        ASSERT_NE(message, nullptr);
        ASSERT_EQ(headOf(message).param, i);
        TamoHostMsgFree(message);
    }
    EXPECT_TRUE(queue->isEmpty());
    EXPECT_EQ(queueInfo(kQueue).depth, 0U);
    EXPECT_EQ(queueInfo(kQueue).depthBytes, 0U);
}

/* 100,000 small messages, and 96 MiB of bodies of any size, wait for a receiver that stands still. */
TEST_F(Messages, AQueueHoldsWhatIsPromisedAndKeepsItsOrder) {
    Queue queue(kQueue);
    EXPECT_EQ(fill(64, 100000), 100000U);
    EXPECT_EQ(queueInfo(kQueue).depth, 100000U);
    EXPECT_EQ(queueInfo(kQueue).depthBytes, 100000U * (kHead + 64));
    expectInOrder(&queue, 100000);
    for (const uint32_t size : {5000U, 1310720U - kHead, 1310721U - kHead}) {
        const uint32_t count = (96U << 20) / size;
        EXPECT_EQ(fill(size, count), count) << size;
        expectInOrder(&queue, count);
    }
    /* Beyond the limit a send is refused at once, whoever sends, also who has met an empty queue, and works
     * again with room. */
    std::thread([] {
        EXPECT_EQ(sendAsync(kQueue, bodyOf(doNothing, 0, {})), TAMO_HOST_OK);
    }).join();
    TamoHostMsgFree(queue.next());
    const uint32_t sent = fill(12000000);
    EXPECT_EQ(sent, CONF_MSG_QUEUE_BYTES / (12000000 + kHead));
    EXPECT_EQ(sendInThread(bodyOf(doNothing, 0, Bytes(12000000))).get(), TAMO_HOST_QUEUE_FULL);
    TamoHostMsgFree(queue.next());
    EXPECT_EQ(sendAsync(kQueue, bodyOf(doNothing, sent, Bytes(12000000))), TAMO_HOST_OK);
    for (uint32_t i = 1; i <= sent; ++i) {
        OsMsgHeader *message = queue.next();
        ASSERT_EQ(headOf(message).param, i);
        TamoHostMsgFree(message);
    }
}

TEST_F(Messages, AQueueHasOneOwnerAndAProperName) {
    Queue queue("a.b_c-D9");
    TamoHostQueue *second = nullptr;
    EXPECT_EQ(TamoHostMsgOpen("a.b_c-D9", &second), TAMO_HOST_IN_USE);
    EXPECT_EQ(second, nullptr);
    for (const char *name : {"", "sixteen_letters_", "a/b", "..x/", "a b", "a\n"}) {
        EXPECT_EQ(TamoHostMsgOpen(name, &second), TAMO_HOST_INVALID) << name;
        EXPECT_EQ(sendAsync(name, {}), TAMO_HOST_INVALID) << name;
    }
    EXPECT_EQ(TamoHostMsgOpen(nullptr, &second), TAMO_HOST_INVALID);
    EXPECT_EQ(TamoHostMsgOpen("x", nullptr), TAMO_HOST_INVALID);
}

TEST_F(Messages, ALoopOfSendingAndReceivingAllocatesNothing) {
    Queue queue(kQueue);
    Bytes body = bodyOf(doNothing, 0, Bytes(64));
    OsMsgHeader header = headerOf(kQueue, body);
    ASSERT_EQ(OsMsgAsynSend(&header), 0U);
    TamoHostMsgFree(queue.next());
    const support::AllocationCount allocations;
    for (int i = 0; i < 50; ++i) {
        OsMsgAsynSend(&header);
        OsMsgHeader *message = nullptr;
        TamoHostMsgReceive(queue.get(), &message, -1);
        TamoHostMsgFree(message);
    }
    EXPECT_EQ(allocations.taken(), 0U);
}

}  // namespace

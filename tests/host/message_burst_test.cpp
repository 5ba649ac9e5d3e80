/* Bursts: messages that one call received ahead of being handed out. */
#include <gtest/gtest.h>
#include <poll.h>

#include <thread>

#include "host/message_descriptor.h"
#include "tests/host/message_parties.h"
#include "tests/support/open_descriptors.h"

namespace {

using namespace parties;

/* Small ones, and now and then one that travels as a file. */
Bytes dataOfMessage(uint32_t n) {
    return pattern(n % 10 == 5 ? 100000 : n, static_cast<uint8_t>(n));
}

void sendBurst(const std::string &queue, uint32_t count) {
    for (uint32_t n = 0; n < count; ++n) {
        ASSERT_EQ(sendAsync(queue, bodyOf(doNothing, n, dataOfMessage(n))), 0u);
    }
}

void expectMessage(OsMsgHeader *message, uint32_t n) {
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(headOf(message).param, n);
    const Bytes expected = dataOfMessage(n);
    ASSERT_EQ(headOf(message).dataLength, expected.size());
    EXPECT_EQ(Bytes(dataOf(message), dataOf(message) + expected.size()), expected);
    TamoHostMsgFree(message);
}

bool pollsReadable(Queue *queue, int timeoutMs) {
    pollfd entry = {TamoHostMsgDescriptor(queue->get()), POLLIN, 0};
    return poll(&entry, 1, timeoutMs) == 1;
}

std::vector<tamo::Descriptor> copiesOf(const std::string &kind) {
    std::vector<tamo::Descriptor> copies;
    for (const auto &[number, target] : support::openDescriptors()) {
        if (target.find(kind) != std::string::npos) {
            copies.emplace_back(dup(number));
        }
    }
    return copies;
}

TEST(MessageBurst, ArrivesInOrderAlsoFromASenderThatHasEnded) {
    Queue queue("burst");
    std::thread([] { sendBurst("burst", 50); }).join();
    for (uint32_t n = 0; n < 50; ++n) {
        expectMessage(queue.next(), n);
        EXPECT_EQ(queueInfo("burst").received, n + 1) << "what is received ahead still waits";
    }
    EXPECT_TRUE(queue.isEmpty());
}

TEST(MessageBurst, LeavesASynchronousMessageItsAnswer) {
    Queue queue("burst");
    std::thread sender([] {
        sendBurst("burst", 9);
        const Exchange exchange("burst", bodyOf(doNothing, 9, {}));
        EXPECT_EQ(exchange.result, 0u);
        sendBurst("burst", 2);
    });
    for (uint32_t n = 0; n < 9; ++n) {
        expectMessage(queue.next(), n);
    }
    serve(queue.next());
    for (uint32_t n = 0; n < 2; ++n) {
        expectMessage(queue.next(), n);
    }
    sender.join();
}

TEST(MessageBurst, IsSeenByAProgramThatBeginsToPollInItsMiddle) {
    Queue queue("burst");
    std::vector<tamo::Descriptor> held;
    sendBurst("burst", 30);
    for (uint32_t n = 0; n < 3; ++n) {
        expectMessage(queue.next(), n);
    }
    for (uint32_t n = 3; n < 30; ++n) {
        ASSERT_TRUE(pollsReadable(&queue, static_cast<int>(patienceMs()))) << n;
        if (n == 3) {
            held = copiesOf("[eventfd]"); /* as a child has them between fork and exec */
        }
        expectMessage(queue.next(), n);
    }
    EXPECT_EQ(held.size(), 1u);
    EXPECT_FALSE(pollsReadable(&queue, 0));
    EXPECT_TRUE(queue.isEmpty());
}

TEST(MessageBurst, EndsWithItsQueue) {
    const uint64_t before = outstandingBlocks();
    Queue queue("burst");
    sendBurst("burst", 30);
    expectMessage(queue.next(), 0);
    expectMessage(queue.next(), 1);
    queue.close();
    EXPECT_EQ(sendAsync("burst", bodyOf(doNothing, 0, {})), uint32_t{TAMO_HOST_NO_RECEIVER});
    EXPECT_EQ(outstandingBlocks(), before);
}

}  // namespace

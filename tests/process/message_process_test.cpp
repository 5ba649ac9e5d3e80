/* Messages between real processes that end at the wrong moment. */
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>

#include <cstring>
#include <string>

#include "include/conf_log_adapter.h"
#include "include/conf_msg_api.h"
#include "tamo_host.h"
#include "tests/support/child_process.h"

namespace {

using support::ChildArguments;
using support::ChildProcess;
using support::ChildRole;

constexpr char kQueue[] = "Process.Test";
constexpr uint32_t kTimeoutMs = 20000;
constexpr uint32_t kFailed = CONF_COMM_ERR_FAILED;

/* ---- handlers, run by whoever receives ---- */

uint32_t addOne(uint32_t param, void *, uint32_t) {
    return param + 1;
}

uint32_t hang(uint32_t, void *, uint32_t) {
    support::tellParent("running");
    support::hearParent();
    return 0;
}

/* ---- roles ---- */

void serve(TamoHostQueue *queue) {
    OsMsgHeader *message = nullptr;
    while (TamoHostMsgReceive(queue, &message, -1) == TAMO_HOST_OK) {
        ConfCommMsgProcess(message);
        TamoHostMsgFree(message);
    }
}

const ChildRole receiver("receiver", [](const ChildArguments &) {
    TamoHostQueue *queue = nullptr;
    const uint32_t opened = TamoHostMsgOpen(kQueue, &queue);
    if (opened != TAMO_HOST_OK) {
        support::tellParent("refused " + std::to_string(opened));
        return 1;
    }
    support::tellParent("ready");
    serve(queue);
    return 0;
});

class MessageProcesses : public testing::Test {
  protected:
    void SetUp() override { ConfLogInit(); }
    void TearDown() override { ConfLogUnInit(); }
};

TEST_F(MessageProcesses, KilledReceiverFailsItsWaitingSenderAtOnceAndIsReplaced) {
    ChildProcess first("receiver");
    EXPECT_EQ(ConfCommMsgSynSendImpl(kQueue, addOne, 1, nullptr, 0, kTimeoutMs), 2u)
        << "a receiver may start after its sender";
    ASSERT_EQ(first.hear(), "ready");

    ChildProcess second("receiver");
    EXPECT_EQ(second.hear(), "refused 3") << "the name has a live owner";

    ChildProcess killer("killer", {std::to_string(first.pid())});
    char data[4] = {'k', 'e', 'e', 'p'};
    EXPECT_EQ(ConfCommMsgSynSendImpl(kQueue, hang, 0, data, 4, UINT32_MAX), kFailed)
        << "it would wait for ever";
    EXPECT_EQ(memcmp(data, "keep", 4), 0);
    EXPECT_EQ(first.wait(), support::killed(SIGKILL));
    EXPECT_EQ(ConfCommMsgAsynSend(kQueue, addOne, 1, nullptr, 0), kFailed);

    ChildProcess third("receiver");
    ASSERT_EQ(third.hear(), "ready") << "what a dead owner left is taken over";
    EXPECT_EQ(ConfCommMsgSynSendImpl(kQueue, addOne, 5, nullptr, 0, kTimeoutMs), 6u);
    EXPECT_EQ(ConfCommMsgAsynSend(kQueue, addOne, 1, nullptr, 0), 0u);
}

/* Waits until the receiver runs the handler that hangs, which the queue's counts tell, and kills it. */
const ChildRole killer("killer", [](const ChildArguments &arguments) {
    uint64_t received = 0;
    while (received < 2) {
        TamoHostMsgQueues(
            [](const TamoHostQueueInfo *queue, void *context) {
                *static_cast<uint64_t *>(context) = queue->received;
                return 0u;
            },
            &received);
        sched_yield();
    }
    return kill(std::stoi(arguments[0]), SIGKILL);
});

}  // namespace

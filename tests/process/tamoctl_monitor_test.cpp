/* Looking on at messages: what is told of each, and what is told to a reader that does not keep up. */
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tamo_host.h"
#include "tests/host/message_parties.h"

namespace {

using parties::Bytes;

uint32_t five(uint32_t, void *, uint32_t) {
    return 5;
}

/* Receives messages and frees them unanswered. */
void drop(TamoHostQueue *queue, unsigned count) {
    OsMsgHeader *message = nullptr;
    for (unsigned i = 0; i < count; ++i) {
        ASSERT_EQ(TamoHostMsgReceive(queue, &message, -1), TAMO_HOST_OK);
        TamoHostMsgFree(message);
    }
}

struct Looking {
    Looking() { EXPECT_EQ(TamoHostTraceOpen(&trace), TAMO_HOST_OK); }
    ~Looking() { TamoHostTraceClose(trace); }
    TamoHostTrace *trace = nullptr;
};

TEST(Trace, TellsWhatBecameOfEachMessage) {
    const Looking looking;
    TamoHostQueue *queue = nullptr;
    ASSERT_EQ(TamoHostMsgOpen("trace.one", &queue), TAMO_HOST_OK);
    std::thread receiver([queue] {
        OsMsgHeader *message = nullptr;
        ASSERT_EQ(TamoHostMsgReceive(queue, &message, -1), TAMO_HOST_OK);
        EXPECT_EQ(OsMsgSynSendResp(message, message->body, message->bodyLength), TAMO_HOST_OK);
        TamoHostMsgFree(message);
        drop(queue, 1);
    });
    const Bytes body = parties::bodyOf(five, 7, Bytes(10));
    EXPECT_EQ(parties::Exchange("trace.one", body).result, TAMO_HOST_OK);
    EXPECT_EQ(parties::Exchange("trace.one", body).result, TAMO_HOST_GONE);
    receiver.join();
    TamoHostMsgClose(queue);
    EXPECT_EQ(parties::Exchange("trace.nobody", body, 1, 1).result, TAMO_HOST_NO_RECEIVER);

    const struct {
        uint32_t kind, result;
        const char *queue;
    } expected[] = {{TAMO_HOST_TRACE_SENT, 0, "trace.one"},
                    {TAMO_HOST_TRACE_RECEIVED, 0, "trace.one"},
                    {TAMO_HOST_TRACE_RESPONDED, 0, "trace.one"},
                    {TAMO_HOST_TRACE_ANSWERED, 0, "trace.one"},
                    {TAMO_HOST_TRACE_SENT, 0, "trace.one"},
                    {TAMO_HOST_TRACE_RECEIVED, 0, "trace.one"},
                    {TAMO_HOST_TRACE_FAILED, TAMO_HOST_GONE, "trace.one"},
                    {TAMO_HOST_TRACE_FAILED, TAMO_HOST_NO_RECEIVER, "trace.nobody"}};
    for (const auto &wanted : expected) {
        TamoHostTraceEvent event = {};
        uint64_t missed = 0;
        ASSERT_EQ(TamoHostTraceNext(looking.trace, 0, &event, &missed), TAMO_HOST_OK);
        SCOPED_TRACE(event.kind);
        EXPECT_EQ(missed, 0U);
        EXPECT_EQ(event.kind, wanted.kind);
        EXPECT_EQ(event.result, wanted.result);
        EXPECT_STREQ(event.queue, wanted.queue);
        EXPECT_EQ(event.param, 7U);
        EXPECT_STREQ(event.module, "tamoctl_monitor_test");
        EXPECT_EQ(event.bodyLength, body.size());
    }
}

TEST(Trace, AReaderThatDoesNotKeepUpIsToldHowManyEventsItMissed) {
    constexpr unsigned kMessages = 10000;
    const Looking looking;
    TamoHostQueue *queue = nullptr;
    ASSERT_EQ(TamoHostMsgOpen("trace.many", &queue), TAMO_HOST_OK);
    for (unsigned i = 0; i < kMessages; ++i) {
        ASSERT_EQ(parties::sendAsync("trace.many", parties::bodyOf(five, i, {})), TAMO_HOST_OK);
        drop(queue, 1);
    }
    TamoHostMsgClose(queue);
    uint64_t seen = 0;
    uint64_t all = 0;
    TamoHostTraceEvent event = {};
    for (uint64_t missed = 0;
         TamoHostTraceNext(looking.trace, 0, &event, &missed) == TAMO_HOST_OK;) {
        ++seen;
        all += missed + 1;
    }
    EXPECT_EQ(all, 2 * kMessages);
    EXPECT_LT(seen, all);
    EXPECT_EQ(event.param, kMessages - 1);
}

}  // namespace

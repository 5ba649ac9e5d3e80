/* Sending and processing, against a message layer that the test plays. */
#include "include/conf_msg_api.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <conference_testkit_gtest.h>
#include "msg/message_format.h"

namespace {

using std::string;
using testkit::hasRecord;

constexpr uint32_t kFailed = CONF_COMM_ERR_FAILED;
constexpr uint32_t kInvalid = CONF_COMM_ERR_MSG_INVALID;

void expectRecord(const char *part) {
    EXPECT_TRUE(hasRecord(1, "conf_msg_api", part)) << part;
}

uint32_t nothing(uint32_t, void *, uint32_t) {
    return 0;
}

uint32_t answer7(uint32_t param, void *data, uint32_t dataLength) {
    EXPECT_EQ(param, 3u);
    EXPECT_EQ(dataLength, 4u);
    memcpy(data, "back", 4);
    return 7;
}

/* A message layer of one message: the response is a copy of the request, run through
 * ConfCommMsgProcess, and then through `change`. */
class MsgApi : public testkit::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        testkit::replace(OsMsgSynSend, [this](OsMsgHeader *h, OsMsgHeader **r, uint32_t t) {
            return loopBack(h, r, t);
        });
        testkit::replace(OsMsgSynSendResp, [](OsMsgHeader *, void *, uint32_t) { return 0u; });
        testkit::replace(OsMsgSynRespFree, [this](OsMsgHeader *header) {
            freed.push_back(header);
            return 0u;
        });
    }

    uint32_t loopBack(OsMsgHeader *header, OsMsgHeader **out, uint32_t timeout) {
        sent = *header;
        seenTimeout = timeout;
        const auto *bytes = static_cast<const char *>(header->body);
        body.assign(bytes, bytes + header->bodyLength);
        body.resize(body.size() + 64);
        response = *header;
        response.syncFlag = 1;
        response.body = body.data();
        ConfCommMsgProcess(&response);
        if (change) {
            change(reinterpret_cast<ConfMsgBody *>(body.data()));
        }
        *out = &response;
        return 0;
    }

    OsMsgHeader sent = {}, response = {};
    std::vector<char> body;
    uint32_t seenTimeout = 0;
    std::function<void(ConfMsgBody *)> change;
    std::vector<OsMsgHeader *> freed;
};

TEST_F(MsgApi, SynchronousSendBringsResultAndDataBack) {
    char data[4] = {'s', 'e', 'n', 'd'};
    EXPECT_EQ(ConfCommMsgSynSend("Conference", answer7, 3, data, 4), 7u);
    EXPECT_EQ(memcmp(data, "back", 4), 0);
    EXPECT_EQ(seenTimeout, 3000u);
    EXPECT_EQ(sent.msgId, 1u);
    EXPECT_STREQ(sent.sender, "TamoUIConf");
    EXPECT_STREQ(sent.receiver, "Conference");
    EXPECT_EQ(sent.bodyLength, sizeof(ConfMsgBody) + 4);
    EXPECT_EQ(ConfCommMsgSynSendImplHaveResp("Conference", answer7, 3, data, 4, 17), 7u);
    EXPECT_EQ(sent.msgId, 2u);
    EXPECT_EQ(seenTimeout, 17u);
    EXPECT_EQ(freed.size(), 2u);
    EXPECT_TRUE(testkit::records().empty());
}

TEST_F(MsgApi, LongerResponseLeavesAProcessSenderItsDataAndFailsATaskSender) {
    char data[4] = {'k', 'e', 'e', 'p'};
    change = [this](ConfMsgBody *b) {
        b->dataLength = 12;
        response.bodyLength = sizeof(ConfMsgBody) + 12;
    };
    EXPECT_EQ(ConfCommMsgSynSendImpl(
                  "p", [](uint32_t, void *, uint32_t) { return 9u; }, 0, data, 4, 1),
              9u);
    EXPECT_EQ(memcmp(data, "keep", 4), 0);
    EXPECT_EQ(ConfCommMsgSynSendImplHaveResp("p", nothing, 0, data, 4, 1), kFailed);
    expectRecord(
        "[ConfCommMsgSynSendImplHaveResp]ConfCommMsgSynSend "
        "memcpy_s fail, ret:");
    expectRecord(" [4, 12]");
    EXPECT_EQ(freed.size(), 2u);

    /* A bound of 0 takes nothing, not even nothing. */
    change = nullptr;
    EXPECT_EQ(ConfCommMsgSynSendImpl("p", nothing, 0, data, 0, 1), 0u);
    EXPECT_EQ(ConfCommMsgSynSendImplHaveResp("p", nothing, 0, data, 0, 1), kFailed);
    expectRecord(" [0, 0]");
    EXPECT_EQ(ConfCommMsgSynSendImplHaveResp("p", nothing, 0, nullptr, 0, 1), 0u);
}

TEST_F(MsgApi, NoUsableResponseIsAFailedSend) {
    std::vector<char> data(64, 'x');
    testkit::replace(OsMsgSynSend, [this](OsMsgHeader *h, OsMsgHeader **r, uint32_t t) {
        const uint32_t result = loopBack(h, r, t);
        response.bodyLength = sizeof(ConfMsgBody) + 8; /* the body says 64 */
        return result;
    });
    EXPECT_EQ(ConfCommMsgSynSendImpl("p", nothing, 0, data.data(), 64, 1), kFailed);
    EXPECT_EQ(data, std::vector<char>(64, 'x'));

    freed.clear();
    testkit::replace(OsMsgSynSend, [](OsMsgHeader *, OsMsgHeader **, uint32_t) { return 0xABu; });
    EXPECT_EQ(ConfCommMsgSynSendImpl("proc", nothing, 0, nullptr, 0, 1), kFailed);
    expectRecord(
        "[ConfCommMsgSynSendImpl]ConfCommMsgSynSend OsMsgSynSend fail 0xab "
        "recvProcName proc.");
    EXPECT_EQ(ConfCommMsgSynSendImplHaveResp("task", nothing, 0, nullptr, 0, 1), kFailed);
    expectRecord(
        "[ConfCommMsgSynSendImplHaveResp]ConfCommMsgSynSend OsMsgSynSend fail "
        "0xab recvTaskName task.");
    EXPECT_EQ(freed, (std::vector<OsMsgHeader *>{nullptr, nullptr}));

    OsMsgHeader empty = {};
    testkit::replace(OsMsgSynSend, [&](OsMsgHeader *, OsMsgHeader **r, uint32_t) {
        *r = &empty;
        return 0u;
    });
    for (const uint32_t length : {0u, static_cast<uint32_t>(sizeof(ConfMsgBody))}) {
        empty.bodyLength = length;
        EXPECT_EQ(ConfCommMsgSynSendImpl("p", nothing, 0, nullptr, 0, 1), kFailed);
    }
}

TEST_F(MsgApi, RefusedArgumentsReachNoMessageLayer) {
    constexpr char kTooLong[] = "sixteen_chars_xx";
    char data[4] = {};
    EXPECT_EQ(ConfCommMsgSynSend(nullptr, nothing, 0, data, 4), kFailed);
    EXPECT_EQ(ConfCommMsgSynSendImplHaveResp("t", nullptr, 0, data, 4, 1), kFailed);
    expectRecord("[ConfCommMsgSynSendImpl]Null ptr.");
    expectRecord("[ConfCommMsgSynSendImplHaveResp]Null ptr.");
    EXPECT_TRUE(freed.empty());
    EXPECT_EQ(ConfCommMsgSynSend(kTooLong, nothing, 0, data, 4), kFailed);
    expectRecord("ConfCommMsgSynSend strcpy_s fail");
    EXPECT_EQ(freed.size(), 1u) << "the missing response is released too";
    EXPECT_EQ(ConfCommMsgSynSend("p", nothing, 0, data, UINT32_MAX), kFailed);

    testkit::clearRecords();
    const struct {
        const char *receiver;
        ConfMsgHandler handler;
        const void *data;
        uint32_t length;
    } refused[] = {{nullptr, nothing, data, 4},
                   {"p", nullptr, data, 4},
                   {"p", nothing, nullptr, 4},
                   {"p", nothing, data, UINT32_MAX - 4},
                   {kTooLong, nothing, nullptr, 0}};
    for (const auto &each : refused) {
        EXPECT_EQ(ConfCommMsgAsynSend(each.receiver, each.handler, 0, each.data, each.length),
                  kFailed);
    }
    EXPECT_EQ(testkit::callCount(OsMsgSynSend) + testkit::callCount(OsMsgAsynSend), 0u);
    EXPECT_TRUE(testkit::records().empty());
    EXPECT_EQ(ConfCommMsgSynSend("fifteen_chars_x", nothing, 0, nullptr, 0), 0u);
    EXPECT_STREQ(sent.receiver, "fifteen_chars_x");
}

TEST_F(MsgApi, AsynchronousSendQueuesACopy) {
    string seen;
    testkit::replace(OsMsgAsynSend, [&](OsMsgHeader *h) {
        const auto *b = static_cast<ConfMsgBody *>(h->body);
        seen.assign(reinterpret_cast<const char *>(b + 1), b->dataLength);
        EXPECT_EQ(h->msgId, 1u);
        return 0u;
    });
    EXPECT_EQ(ConfCommMsgAsynSend("p", nothing, 1, "data", 4), 0u);
    EXPECT_EQ(seen, "data");
    EXPECT_EQ(ConfCommMsgAsynSend("p", nothing, 1, nullptr, 0), 0u);
    EXPECT_EQ(seen, "");
    testkit::replace(OsMsgAsynSend, [](OsMsgHeader *) { return 6u; });
    EXPECT_EQ(ConfCommMsgAsynSend("p", nothing, 1, nullptr, 0), kFailed);
    expectRecord(
        "[ConfCommMsgAsynSend]ConfCommMsgAsynSend OsMsgAsynSend fail 0x6 "
        "recvProcName p");
}

/* Every operation that a send calls is made to fail at each of its calls. */
TEST_F(MsgApi, EveryFailedStepOfASendReleasesEverything) {
    char data[4] = {};
    const auto send = [&] { return ConfCommMsgSynSendImplHaveResp("t", answer7, 3, data, 4, 5); };
    const auto queue = [] { return ConfCommMsgAsynSend("t", nothing, 0, "data", 4); };
    const auto setUp = [this] {
        SetUp();
        testkit::replace(OsMsgAsynSend, [](OsMsgHeader *) { return 0u; });
    };
    for (const char *operation :
         {"OsMemMallocSetCharMon", "strcpy_s", "memcpy_s", "OsMsgSynSend"}) {
        testkit::forEachFailure(
            operation, setUp, send,
            [](uint64_t, uint32_t result) {
                EXPECT_EQ(result, kFailed);
                EXPECT_EQ(testkit::records().size(), 1u);
            },
            [](uint32_t result) { EXPECT_EQ(result, 7u); });
    }
    for (const char *operation : {"OsMemMallocSetCharMon", "strcpy_s", "memcpy_s"}) {
        testkit::forEachFailure(operation, setUp, queue, [](uint64_t, uint32_t result) {
            EXPECT_EQ(result, kFailed);
            EXPECT_TRUE(testkit::records().empty());
        });
    }
}

/* ---- processing ---- */

struct Message {
    OsMsgHeader header = {};
    alignas(8) char bytes[256] = {};

    Message(uint32_t msgId, ConfMsgHandler handler, uint32_t dataLength) {
        header.msgId = msgId;
        header.body = bytes;
        header.bodyLength = static_cast<uint32_t>(sizeof(ConfMsgBody)) + dataLength;
        body()->handler = handler;
        body()->dataLength = dataLength;
    }
    ConfMsgBody *body() { return reinterpret_cast<ConfMsgBody *>(bytes); }
};

TEST_F(MsgApi, ProcessRefusesWhatItCannotRun) {
    EXPECT_EQ(ConfCommMsgProcess(nullptr), 1u);
    expectRecord("[ConfCommMsgProcess]Null ptr.");
    const struct {
        uint32_t msgId;
        ConfMsgHandler handler;
        bool hasBody;
        uint32_t bodyLength, dataLength, result;
    } cases[] = {{3, nothing, true, sizeof(ConfMsgBody), 0, 1},
                 {2, nullptr, true, sizeof(ConfMsgBody), 0, 1},
                 {1, nothing, false, sizeof(ConfMsgBody), 0, kInvalid},
                 {1, nothing, true, sizeof(ConfMsgBody) - 1, 0, kInvalid},
                 {1, nothing, true, sizeof(ConfMsgBody) + 8, 9, kInvalid},
                 {1, nothing, true, sizeof(ConfMsgBody) + 8, UINT32_MAX - 4, kInvalid}};
    for (const auto &each : cases) {
        Message message(each.msgId, each.handler, each.dataLength);
        message.header.bodyLength = each.bodyLength;
        message.header.body = each.hasBody ? message.bytes : nullptr;
        EXPECT_EQ(ConfCommMsgProcess(&message.header), each.result) << each.bodyLength;
    }
    EXPECT_TRUE(hasRecord(
        1, "conf_msg_api",
        "Check param fail! dataLen:" + std::to_string(sizeof(ConfMsgBody) - 1) + " invalid."));
}

uint32_t hangsAList(uint32_t, void *data, uint32_t) {
    auto *block = static_cast<MeetingServerMsgBlock *>(data);
    block->resultList = OsMemMallocSetCharMon(100, 0, 0, 0, 1, "test");
    block->resultSize = 100;
    return 0;
}

TEST_F(MsgApi, ResultListThatNobodyGetsIsReleased) {
    Message message(2, hangsAList, 84);
    message.header.syncFlag = 1;
    testkit::replace(OsMsgSynSendResp, [](OsMsgHeader *, void *, uint32_t) { return 0x1Fu; });
    EXPECT_EQ(ConfCommMsgProcess(&message.header), 0u);
    expectRecord("ConfCommMsgProcess Resp fail! msgId:2, ret:0x1f");
    const auto *block = reinterpret_cast<MeetingServerMsgBlock *>(message.body() + 1);
    EXPECT_EQ(block->resultList, nullptr);
    EXPECT_EQ(testkit::outstanding(), 0);

    Message tooShort(2, nothing, 66);
    memset(tooShort.body() + 1, 0x5A, 80);
    tooShort.header.syncFlag = 1;
    EXPECT_EQ(ConfCommMsgProcess(&tooShort.header), 0u) << "no list field to look at";
    EXPECT_EQ(ConfCommMsgSynSendImplHaveResp("t", hangsAList, 0, nullptr, 84, 1), 0u)
        << "a sender without a buffer cannot take the list";
}

}  // namespace

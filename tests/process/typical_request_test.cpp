/* A request from end to end between two real processes: what the requester gets, what the store holds
 * afterwards, and that no block stays on either side. */
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "include/conf_config.h"
#include "include/conf_log_adapter.h"
#include "include/conf_msg_api.h"
#include "platform/tamo_os_mem.h"
#include "tamo_host.h"
#include "tests/host/message_parties.h"
#include "tests/support/child_process.h"

namespace {

constexpr const char *kQueue = "Conference";
constexpr const char *kPassword = "tr0ub4dor & three";
constexpr uint32_t kTimeoutMs = 10000;

using Items = std::vector<ConfConfigListItem>;

bool serving = true;

/* Handlers of the test: both sides run this program. */
uint32_t stopServing(uint32_t, void *, uint32_t) {
    serving = false;
    return 0;
}

const support::ChildRole conference("conference", [](const support::ChildArguments &) {
    TamoHostQueue *queue = nullptr;
    OsMsgHeader *message = nullptr;
    if (ConfLogInit() != 0 || TamoHostMsgOpen(kQueue, &queue) != TAMO_HOST_OK) {
        return 1;
    }
    while (serving && TamoHostMsgReceive(queue, &message, -1) == TAMO_HOST_OK) {
        ConfCommMsgProcess(message);
        TamoHostMsgFree(message);
    }
    TamoHostMsgClose(queue);
    return serving ? 2 : 0;
});

/* A block as its sender sees it after a request; releases itself and its list. */
struct Exchange {
    explicit Exchange(const Items &items)
        : block(GenerateMeetingServerMsgBlock(
              items.data(), static_cast<uint32_t>(items.size() * sizeof(items[0])))) {
        block->itemCount = static_cast<uint32_t>(items.size());
    }
    ~Exchange() {
        if (block->resultList != nullptr) {
            EXPECT_EQ(OSMemTypeFreeMon(block->resultList, 0, 0, __LINE__, "test"), 0U);
        }
        EXPECT_EQ(OSMemTypeFreeMon(block, 0, 0, __LINE__, "test"), 0U);
    }
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;

    uint32_t request(ConfMsgHandler handler) {
        return ConfCommMsgSynSendImplHaveResp(kQueue, handler, 0, block,
                                              GetMeetingServerMsgBlockSize(block), kTimeoutMs);
    }

    const ConfConfigListItem *body() const {
        return reinterpret_cast<const ConfConfigListItem *>(block->body);
    }

    Items list() const {
        const auto *items = static_cast<const ConfConfigListItem *>(block->resultList);
        return items == nullptr ? Items()
                                : Items(items, items + block->resultSize / sizeof(*items));
    }

    MeetingServerMsgBlock *block;
};

ConfConfigListItem item(const char *key, const char *value = "") {
    ConfConfigListItem made = {};
    snprintf(made.key, sizeof(made.key), "%s", key);
    snprintf(made.value, sizeof(made.value), "%s", value);
    return made;
}

/* Whether any file below a directory holds the text. */
bool filesContain(const std::filesystem::path &directory, std::string_view text) {
    for (const auto &entry : std::filesystem::recursive_directory_iterator(directory)) {
        if (!entry.is_regular_file()) {
            continue;
        }
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(file), {}};
        if (bytes.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

class TypicalRequest : public testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_EQ(ConfLogInit(), 0); }
    static void TearDownTestSuite() { ConfLogUnInit(); }

    /* Ends the conference process; by then nothing may be outstanding on either side. */
    void TearDown() override {
        EXPECT_EQ(parties::outstandingBlocks(), 0U);
        // A list is released after its response went out: by the next message it is.
        EXPECT_EQ(ConfCommMsgSynSend(kQueue, parties::doNothing, 0, nullptr, 0), 0U);
        EXPECT_EQ(parties::outstandingBlocks(static_cast<uint32_t>(child_.pid())), 0U);
        EXPECT_EQ(ConfCommMsgAsynSend(kQueue, stopServing, 0, nullptr, 0), 0U);
        EXPECT_EQ(child_.wait(), support::exited(0));
    }

    /* Not waited for: a synchronous request finds a receiver that comes to life in time. */
    support::ChildProcess child_{"conference"};
};

TEST_F(TypicalRequest, bringsStoredValuesInTheOrderOfTheKeys) {
    Exchange set({item("Conf.A", "first"), item("Conf.B", ""), item("Conf.C", "third")});
    ASSERT_EQ(set.request(ConfConfigSetConfConfig), 0U);
    EXPECT_EQ(set.block->resultList, nullptr);

    Exchange get({item("Conf.C"), item("Conf.B"), item("Conf.A")});
    ASSERT_EQ(get.request(ConfConfigGetConfConfig), 0U);
    EXPECT_EQ(get.block->resultSize, 3 * sizeof(ConfConfigListItem));
    const Items values = get.list();
    ASSERT_EQ(values.size(), 3U);
    EXPECT_STREQ(values[0].key, "Conf.C");
    EXPECT_STREQ(values[0].value, "third");
    EXPECT_STREQ(values[1].value, "");
    EXPECT_STREQ(values[2].value, "first");
    EXPECT_STREQ(get.body()[0].key, "Conf.C") << "the request's own body came back too";
}

TEST_F(TypicalRequest, storesAPasswordEncryptedOnlyAndWipesItFromTheBlock) {
    Exchange set({item("Conf.SIPCallParam.sipPwd", kPassword), item("Conf.Plain", "readable")});
    ASSERT_EQ(set.request(ConfConfigSetConfConfig), 0U);
    const ConfConfigListItem *sent = set.body();
    EXPECT_TRUE(std::all_of(std::begin(sent[0].value), std::end(sent[0].value),
                            [](char c) { return c == 0; }));
    EXPECT_STREQ(sent[1].value, "readable");

    Exchange get({item("Conf.SIPCallParam.sipPwd")});
    ASSERT_EQ(get.request(ConfConfigGetConfConfig), 0U);
    const Items stored = get.list();
    ASSERT_EQ(stored.size(), 1U);
    char plain[64];
    uint32_t length = sizeof(plain);
    ASSERT_EQ(TamoHostKeymDecrypt("TamoUIConf", stored[0].value, plain, &length), TAMO_HOST_OK);
    EXPECT_STREQ(plain, kPassword);

    const std::filesystem::path root = getenv("TAMO_DEVICE_ROOT");
    EXPECT_TRUE(filesContain(root, "readable"));
    EXPECT_FALSE(filesContain(root, kPassword)) << "in no store, log or socket file";
}

}  // namespace

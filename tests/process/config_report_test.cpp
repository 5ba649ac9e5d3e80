/* Reports of changes between processes: one for each write, in order, to whoever registered, whatever
 * becomes of the others. */
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "include/conf_config.h"
#include "tamo_host.h"
#include "tests/host/config_records.h"
#include "tests/support/child_process.h"

namespace {

using support::ChildArguments;
using support::ChildProcess;
using support::get;
using support::record;
using support::set;
using support::tellParent;

std::string asText(const ConfConfigChangeList *changes) {
    std::string text;
    for (uint32_t at = 0; at < changes->count; at++) {
        const ConfConfigChangeItem &item = changes->items[at];
        if (item.key.length != strlen(item.key.text) ||
            item.value->length != strlen(item.value->text)) {
            return "wrong lengths";
        }
        text += std::string(at == 0 ? "" : " ") + item.key.text + "=" + item.value->text;
    }
    return text;
}

void tell(uint32_t msgId, uint32_t, uint32_t, const ConfConfigChangeList *changes) {
    tellParent(msgId == 65536 ? asText(changes) : "wrong message");
}

bool watchWith(ConfConfigChangeHandler handler, const char *module = "module") {
    return TamoOmConfigInit(0, "owner", module) == 0 &&
           TamoOmConfigNotifyCallback(handler, module) == 0;
}

/* Tells each report; stores or leaves when it is told so. */
const support::ChildRole watcherRole("watcher", [](const ChildArguments &) {
    tellParent(watchWith(tell) ? "watching" : "failed");
    for (std::string order = support::hearParent(); !order.empty(); order = support::hearParent()) {
        if (order == "store") {
            tellParent(set("own", std::to_string(getpid())) == 0 ? "stored" : "failed");
        }
        if (order == "leave") {
            tellParent(TamoOmConfigUnInit("module") == 0 ? "left" : "failed");
        }
    }
    return 0;
});

std::unique_ptr<ChildProcess> start(const char *role = "watcher", const ChildArguments &more = {}) {
    auto watcher = std::make_unique<ChildProcess>(role, more);
    EXPECT_EQ("watching", watcher->hear());
    return watcher;
}

/* Hears until it is told of the change, alone or among all keys. */
void hearOf(ChildProcess &watcher, const std::string &change) {
    for (std::string heard; heard.find(change) == std::string::npos;) {
        heard = watcher.hear();
        ASSERT_NE("", heard) << "instead of " << change;
    }
}

/* What the store's file itself holds, or -1 for a statement without an answer. */
int ask(const char *question) {
    sqlite3 *database = nullptr;
    sqlite3_stmt *row = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_open(support::configFile().c_str(), &database));
    EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(database, question, -1, &row, nullptr))
        << sqlite3_errmsg(database);
    int answer = sqlite3_step(row) == SQLITE_ROW ? sqlite3_column_int(row, 0) : -1;
    sqlite3_finalize(row);
    sqlite3_close(database);
    return answer;
}

class ConfigReports : public testing::Test {
  protected:
    ConfigReports() { support::clearStore(); }
};

TEST_F(ConfigReports, EveryWriteIsOneReportOfTheKeysThatItChanged) {
    ASSERT_EQ(0, set("a", "0"));
    auto watcher = start();
    auto other = start();
    ConfConfigOmRecord write[] = {record("a", "1"), record("b", ""), record("c", "3")};
    ASSERT_EQ(0, TamoOmConfigStringMset(write, 3));
    ASSERT_EQ(0, TamoOmConfigStringMset(write, 3)) << "changes nothing";
    ConfConfigOmRecord twice[] = {record("a", "9"), record("b", "9"), record("C", "4"),
                                  record("A", "1"), record("b", "5")};
    ASSERT_EQ(0, TamoOmConfigStringMset(twice, 5));
    const char *removed[] = {"B", "none"};
    ASSERT_EQ(TAMO_HOST_NOT_FOUND, TamoHostConfigReset(removed, 2));
    EXPECT_EQ(support::kMissing, get("b"));
    for (auto *each : {watcher.get(), other.get()}) {
        EXPECT_EQ("a=1 b= c=3", each->hear());
        EXPECT_EQ("c=4 b=5", each->hear()) << "under the first spelling";
        EXPECT_EQ("b=", each->hear());
    }
    watcher->tell("store");
    const std::string own = "own=" + std::to_string(watcher->pid());
    std::string heard[] = {watcher->hear(), watcher->hear()}; /* of two threads */
    std::sort(heard, heard + 2);
    EXPECT_EQ(own + " stored", heard[0] + " " + heard[1]) << "one's own too";
    EXPECT_EQ(own, other->hear());
    watcher->tell("leave");
    EXPECT_EQ("left", watcher->hear());
    ASSERT_EQ(0, set("a", "2"));
    EXPECT_EQ("a=2", other->hear());
    watcher->tell("store");
    EXPECT_EQ("stored", watcher->hear()) << "one that has left hears nothing";
}

/* What a writer leaves that is killed when it has committed and has woken nobody. */
TEST_F(ConfigReports, ReportOfADeadWriterComesSoon) {
    ASSERT_EQ(0, set("a", "1"));
    auto watcher = start();
    for (int round = 0; round < 5; round++) {
        ASSERT_EQ(-1, ask("INSERT INTO change SELECT max(number) + 5, 0, 0, 1, 'dead', "
                          "CAST(x'61003D3700' AS BLOB) FROM change"));
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ("a=7", watcher->hear());
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    }
}

TEST_F(ConfigReports, WatcherThatIsKilledOrStandsStillHarmsNobody) {
    ASSERT_EQ(0, set("a", "0"));
    auto killed = start();
    auto stopped = start();
    killed->kill();
    /* Not while it reads, which would hold the log. */
    stopped->signal(SIGSTOP);
    while (ask("PRAGMA wal_checkpoint(RESTART)") != 0) {
        stopped->signal(SIGCONT);
        stopped->signal(SIGSTOP);
    }
    std::vector<ConfConfigOmRecord> write;
    for (int at = 0; at < 100; at++) {
        write.push_back(record("key" + std::to_string(at)));
    }
    auto writeAll = [&](int number) {
        for (ConfConfigOmRecord &one : write) {
            TamoOmConfigcopyStr2Val(&one.value,
                                    (std::string(1000, 'f') + std::to_string(number)).c_str());
        }
        return TamoOmConfigStringMset(write.data(), 100);
    };
    for (int number = 0; number < 100; number++) {
        ASSERT_EQ(0, writeAll(number));
    }
    EXPECT_LE(ask("SELECT sum(length(records)) FROM change"), (4 << 20) + (256 << 10));
    EXPECT_LE(std::filesystem::file_size(support::configFile("config.db")), 8U << 20);
    EXPECT_LE(std::filesystem::file_size(support::configFile("config.db-wal")), 8U << 20);
    stopped->signal(SIGCONT);
    hearOf(*stopped, std::string(1000, 'f') + "99");
    ASSERT_EQ(0, set("a", "1"));
    EXPECT_EQ("a=1", stopped->hear()) << "goes on one by one";
}

/* Connects again and leaves while its callback runs. */
std::atomic<int> callback = 0; /* 1: runs, 2: may end, 3: has ended */

const support::ChildRole waitingRole("waiting", [](const ChildArguments &) {
    auto handler = [](const ConfConfigListItem *, uint32_t) {
        callback = 1;
        callback.notify_all();
        callback.wait(1);
        set("b", "stored by the callback");
        callback = 3;
    };
    static ConfConfigItemCallback bound = handler;
    static int value;
    tellParent(ConfConfigInit([] { ConfConfigBind("a", CONF_VALUE_INT, &value, 4, bound); },
                              "TamoUIConf", "Conf") == 0
                   ? "watching"
                   : "failed");
    callback.wait(0);
    ConfConfigReInit();
    tellParent(callback == 1 ? "connected again" : "waited");
    callback = 2;
    callback.notify_all();
    ConfConfigUnInit();
    tellParent(callback == 3 ? "callback has ended" : "callback still runs");
    return 0;
});

TEST_F(ConfigReports, WhoConnectsAgainDoesNotWaitForTheRunningCallbackAndWhoLeavesDoes) {
    auto waiting = start("waiting");
    ASSERT_EQ(0, set("a", "1"));
    EXPECT_EQ("connected again", waiting->hear());
    EXPECT_EQ("callback has ended", waiting->hear());
}

/* Whichever of its files are gone, reports go on: with all keys, for what was missed. */
TEST_F(ConfigReports, RemovedFilesOfTheStoreDoNotEndReports) {
    auto watcher = start();
    const std::vector<std::string> removals[] = {{"config.db", "config.db-wal", "config.db-shm"},
                                                 {"config.db"},
                                                 {"config.db-shm"},
                                                 {"config.db-wal"}};
    for (const auto &removed : removals) {
        SCOPED_TRACE(testing::PrintToString(removed));
        for (const std::string &name : removed) {
            std::filesystem::remove(support::configFile(name));
        }
        ASSERT_EQ(0, set("first", removed[0]));
        for (const char *key : {"last", "next"}) {
            ASSERT_EQ(0, set(key, removed[0]));
            hearOf(*watcher, std::string(key) + "=" + removed[0]);
        }
        EXPECT_EQ(removed[0], get("first"));
    }
}

}  // namespace

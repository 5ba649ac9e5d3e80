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
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "include/conf_config.h"
#include "tamo_host.h"
#include "tests/host/config_records.h"
#include "tests/host/disk_faults.h"
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

/* Tells each report; stores, leaves or forks when it is told so. */
const support::ChildRole watcherRole("watcher", [](const ChildArguments &) {
    tellParent(watchWith(tell) ? "watching" : "failed");
    for (std::string order = support::hearParent(); !order.empty(); order = support::hearParent()) {
        if (order == "fork" && fork() == 0) {
            /* Has no handler; what it stores is its parent's to hear. */
            tellParent(set("of.fork", "1") == 0 ? std::to_string(getpid()) : "0");
            pause();
        }
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

/* The next two lines, which come from two threads or processes. */
std::vector<std::string> hearTwo(ChildProcess &child) {
    std::vector<std::string> heard = {child.hear(), child.hear()};
    std::sort(heard.begin(), heard.end());
    return heard;
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
    ~ConfigReports() override { support::diskFull = false; }
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
    EXPECT_EQ((std::vector<std::string>{own, "stored"}), hearTwo(*watcher)) << "one's own too";
    EXPECT_EQ(own, other->hear());
    watcher->tell("leave");
    EXPECT_EQ("left", watcher->hear());
    ASSERT_EQ(0, set("a", "2"));
    EXPECT_EQ("a=2", other->hear());
    watcher->tell("store");
    EXPECT_EQ("stored", watcher->hear()) << "one that has left hears nothing";
}

/* Holds up its first report until all is written. */
const support::ChildRole slowRole("slow", [](const ChildArguments &) {
    static std::map<std::string, int> last;
    static int count;
    auto handler = [](uint32_t, uint32_t, uint32_t, const ConfConfigChangeList *changes) {
        if (count++ == 0) {
            tellParent("first");
            support::hearParent();
        }
        const int number = atoi(changes->items[0].value->text);
        const int before = last[changes->items[0].key.text]++;
        if (changes->count != 1 || number != before + 1) {
            tellParent("lost or disordered: " + asText(changes));
        }
        if (count == 1200) {
            tellParent("all");
        }
    };
    tellParent(watchWith(handler) ? "watching" : "failed");
    pause();
    return 0;
});

const support::ChildRole writerRole("writer", [](const ChildArguments &arguments) {
    for (int number = 1; number <= 400; number++) {
        if (set(arguments[0], std::to_string(number)) != 0) {
            return 1;
        }
    }
    return 0;
});

TEST_F(ConfigReports, NoneIsLostOrDisorderedWhereTheHandlerIsSlowerThanThreeWriters) {
    auto slow = start("slow");
    std::vector<std::unique_ptr<ChildProcess>> writers;
    for (const char *key : {"one", "two", "three"}) {
        writers.push_back(std::make_unique<ChildProcess>("writer", ChildArguments{key}));
    }
    EXPECT_EQ("first", slow->hear());
    for (auto &writer : writers) {
        EXPECT_EQ(support::exited(0), writer->wait(40)) << "a writer waits for no handler";
    }
    slow->tell("go on");
    EXPECT_EQ("all", slow->hear(40));
}

/* A program with a bound variable, which it sets itself and by reports; slowly, if it is told so. */
int shared, last, calls;
std::mutex applying;
bool isSlow;
uint8_t writesBack;

void apply(const ConfConfigListItem *items, uint32_t count) {
    if (isSlow) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    std::lock_guard guard(applying);
    calls++;
    ConfConfigSetList(items, static_cast<int32_t>(count), writesBack);
    if (last != 0) {
        tellParent(std::to_string(shared) + " after " + std::to_string(calls));
    }
}

const support::ChildRole settingRole("applying", [](const ChildArguments &arguments) {
    isSlow = arguments[0] == "slow";
    writesBack = arguments[0] == "writes back" ? 1 : 0;
    auto bind = [] {
        ConfConfigBind("Shared", CONF_VALUE_INT, &shared, sizeof(shared), apply);
        ConfConfigBind("Zlast", CONF_VALUE_INT, &last, sizeof(last), apply);
    };
    tellParent(ConfConfigInit(bind, "owner", "Conf") == 0 ? "watching" : "failed");
    const int begin = atoi(support::hearParent().c_str());
    for (int number = begin; begin != 0 && number < begin + 100; number++) {
        ConfConfigListItem item = {"Shared", ""};
        (void)snprintf(item.value, sizeof(item.value), "%d", number);
        std::lock_guard guard(applying);
        ConfConfigSetList(&item, 1, 1);
    }
    tellParent("done");
    support::hearParent();
    return 0;
});

TEST_F(ConfigReports, VariablesOfFourProcessesEndAsTheStore) {
    std::vector<std::unique_ptr<ChildProcess>> all;
    for (const char *manner : {"quick", "slow", "quick", "slow"}) {
        all.push_back(start("applying", {manner}));
    }
    for (size_t at = 0; at < all.size(); at++) {
        all[at]->tell(std::to_string(1000 * (at + 1)));
    }
    for (auto &each : all) {
        EXPECT_EQ("done", each->hear(40));
    }
    ASSERT_EQ(0, set("Zlast", "1"));
    for (auto &each : all) {
        const std::string heard = each->hear(40);
        EXPECT_EQ(get("Shared") + " ", heard.substr(0, heard.find("after"))) << heard;
    }
}

TEST_F(ConfigReports, CallbackThatAppliesItsItemsEndsWhetherItWritesThemBackOrNot) {
    for (const char *manner : {"quick", "writes back"}) {
        support::clearStore();
        auto applies = start("applying", {manner});
        applies->tell("0");
        EXPECT_EQ("done", applies->hear());
        ASSERT_EQ(0, set("Shared", "7"));
        ASSERT_EQ(0, set("Zlast", "1"));
        EXPECT_EQ("7 after 2", applies->hear()) << manner;
    }
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

/* Stops in the middle of its write. */
const support::ChildRole importerRole("importer", [](const ChildArguments &) {
    std::vector<TamoHostConfigPair> pairs(300, {"a", "2"});
    std::vector<std::string> keys(pairs.size());
    for (size_t at = 1; at < pairs.size(); at++) {
        keys[at] = "key" + std::to_string(at);
        pairs[at].key = keys[at].c_str();
    }
    auto stop = [](uint32_t, void *) {
        tellParent("in the middle");
        support::hearParent();
    };
    return static_cast<int>(TamoHostConfigImport(pairs.data(), 300, 0, stop, nullptr));
});

TEST_F(ConfigReports, WatcherThatBeginsWhileAWriteHoldsTheStoreHearsOfIt) {
    ChildProcess importer("importer");
    ASSERT_EQ("in the middle", importer.hear());
    auto watcher = start();
    importer.tell("go on");
    EXPECT_EQ(support::exited(0), importer.wait());
    EXPECT_EQ("a=2 key1=2 key10=2", watcher->hear().substr(0, 18));
}

TEST_F(ConfigReports, WatcherThatIsKilledOrStandsStillHarmsNobody) {
    auto killed = start();
    auto stopped = start();
    killed->kill();
    stopped->signal(SIGSTOP);
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

/* Its handler uses the store, and leaves by itself. */
const support::ChildRole leavingRole("leaving", [](const ChildArguments &) {
    auto handler = [](uint32_t, uint32_t, uint32_t, const ConfConfigChangeList *changes) {
        bool works = get(changes->items[0].key.text) == "1" && TamoOmConfigUnInit("module") == 0 &&
                     set("answer", "1!") == 0 && watchWith(tell, "second") &&
                     asText(changes) == "a=1";
        tellParent(works ? "left" : "failed");
    };
    tellParent(watchWith(handler) ? "watching" : "failed");
    support::hearParent();
    return 0;
});

TEST_F(ConfigReports, HandlerMayUseTheStoreAndLeave) {
    auto leaving = start("leaving");
    ASSERT_EQ(0, set("a", "1"));
    EXPECT_EQ("left", leaving->hear());
    EXPECT_EQ("1!", get("answer"));
    ASSERT_EQ(0, set("a", "2"));
    EXPECT_EQ("a=2", leaving->hear()) << "told by the handler that came in its place";
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

TEST_F(ConfigReports, ChildOfForkHasNoHandlers) {
    auto watcher = start();
    watcher->tell("fork");
    const std::vector<std::string> heard = hearTwo(*watcher);
    const pid_t fork = atoi(heard[0].c_str());
    ASSERT_GT(fork, 0);
    EXPECT_EQ("of.fork=1", heard[1]);
    ASSERT_EQ(0, set("a", "1"));
    ASSERT_EQ(0, set("a", "2"));
    EXPECT_EQ("a=1", watcher->hear());
    EXPECT_EQ("a=2", watcher->hear());
    EXPECT_EQ(0, kill(fork, SIGKILL));
}

TEST_F(ConfigReports, RefusedWriteIsNotReported) {
    auto watcher = start();
    ASSERT_EQ(0, set("a", "1"));
    support::diskFull = true;
    ConfConfigOmRecord write[] = {record("a", "2"), record("b", "2")};
    testing::internal::CaptureStderr();
    EXPECT_NE(0, TamoOmConfigStringMset(write, 2));
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("disk full"));
    support::diskFull = false;
    EXPECT_EQ("1", get("a"));
    ASSERT_EQ(0, set("b", "3"));
    EXPECT_EQ("a=1", watcher->hear());
    EXPECT_EQ("b=3", watcher->hear());
}

/* Whichever of its files are gone, reports go on: with all keys, for what was missed. */
TEST_F(ConfigReports, RemovedFilesOfTheStoreDoNotEndReports) {
    auto watcher = start();
    const std::vector<std::string> removals[] = {{"config.db", "config.db-wal", "config.db-shm"},
                                                 {"config.db"},
                                                 {"config.db-wal", "config.db-shm"},
                                                 {"config.db-shm"},
                                                 {"config.db-wal"},
                                                 {"config.db", "config.db-wal", "config.db-shm"}};
    int number = 0;
    for (const auto &removed : removals) {
        SCOPED_TRACE(testing::PrintToString(removed));
        for (const std::string &name : removed) {
            std::filesystem::remove(support::configFile(name));
        }
        const std::string next = "last=" + std::to_string(++number);
        ASSERT_EQ(0, set("first", std::to_string(number)));
        ASSERT_EQ(0, set("last", std::to_string(number)));
        hearOf(*watcher, next);
        ASSERT_EQ(0, set("next", next));
        hearOf(*watcher, "next=" + next);
        EXPECT_EQ(std::to_string(number), get("first"));
    }
}

TEST_F(ConfigReports, ForeignValueThatFitsNoReportIsLeftOut) {
    auto watcher = start();
    for (const char *foreign :
         {"INSERT INTO setting VALUES ('big', printf('%.2000c', 'x'), 'big')",
          "INSERT INTO setting VALUES ('k', '', printf('%.200c', 'k'))",
          "INSERT INTO setting VALUES ('c', '1', CAST(x'63003D' AS TEXT))", "DELETE FROM change"}) {
        ASSERT_EQ(-1, ask(foreign));
    }
    ASSERT_EQ(0, set("d", "2"));
    hearOf(*watcher, "c=1 d=2");
}

}  // namespace

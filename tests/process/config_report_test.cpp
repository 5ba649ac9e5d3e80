/* Reports of changes between processes: one for each write, in order, to whoever registered, whatever
 * becomes of the others. */
#include <gtest/gtest.h>

#include <signal.h>
#include <sqlite3.h>
#include <unistd.h>
#include <fstream>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

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
    support::tellParent(msgId == 65536 ? asText(changes) : "wrong message");
}

bool watchWith(ConfConfigChangeHandler handler, const char *module = "module") {
    return TamoOmConfigInit(0, "owner", module) == 0 &&
           TamoOmConfigNotifyCallback(handler, module) == 0;
}

/* Tells each report; stores, leaves or forks when it is told so. */
const support::ChildRole watcherRole("watcher", [](const ChildArguments &) {
    support::tellParent(watchWith(tell) ? "watching" : "failed");
    for (std::string order = support::hearParent(); !order.empty(); order = support::hearParent()) {
        if (order == "fork" && fork() == 0) {
            /* Has no handler; what it stores is its parent's to hear. */
            support::tellParent(set("of.fork", "1") == 0 ? std::to_string(getpid()) : "0");
            pause();
        }
        if (order == "store") {
            support::tellParent(set("own", get("own") + "+") == 0 ? "stored" : "failed");
        }
        if (order == "leave") {
            support::tellParent(TamoOmConfigUnInit("module") == 0 ? "left" : "failed");
        }
    }
    return 0;
});

std::unique_ptr<ChildProcess> startWatcher(const char *role = "watcher") {
    auto watcher = std::make_unique<ChildProcess>(role);
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

/* What the store's file itself holds. */
int ask(const char *question) {
    sqlite3 *database = nullptr;
    sqlite3_stmt *row = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_open(support::configFile().c_str(), &database));
    EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(database, question, -1, &row, nullptr));
    int answer = sqlite3_step(row) == SQLITE_ROW ? sqlite3_column_int(row, 0) : -1;
    sqlite3_finalize(row);
    sqlite3_close(database);
    return answer;
}

const char *const kRows = "SELECT count(*) FROM change";

class ConfigReports : public testing::Test {
  protected:
    ConfigReports() { support::clearStore(); }
    ~ConfigReports() override { support::diskFull = false; }
};

TEST_F(ConfigReports, EveryWriteIsOneReportOfTheKeysThatItChanged) {
    ASSERT_EQ(0, set("a", "0"));
    EXPECT_EQ(1, ask(kRows)) << "nothing is noted while nobody watches";
    auto watcher = startWatcher();
    auto other = startWatcher();
    ConfConfigOmRecord write[] = {record("a", "1"), record("b", ""), record("c", "3")};
    ASSERT_EQ(0, TamoOmConfigStringMset(write, 3));
    ASSERT_EQ(0, TamoOmConfigStringMset(write, 3)) << "changes nothing";
    ConfConfigOmRecord twice[] = {record("a", "9"), record("b", "9"), record("c", "4"),
                                  record("a", "1"), record("b", "5")};
    ASSERT_EQ(0, TamoOmConfigStringMset(twice, 5));
    watcher->tell("store");
    for (auto *each : {watcher.get(), other.get()}) {
        EXPECT_EQ("a=1 b= c=3", each->hear());
        EXPECT_EQ("c=4 b=5", each->hear());
    }
    EXPECT_EQ("own=failed: 12+", other->hear());
    EXPECT_EQ("stored", watcher->hear()) << "one's own write is not reported";
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
            support::tellParent("first");
            support::hearParent();
        }
        const int number = atoi(changes->items[0].value->text);
        const int before = last[changes->items[0].key.text]++;
        if (changes->count != 1 || number != before + 1) {
            support::tellParent("lost or disordered: " + asText(changes));
        }
        if (count == 1200) {
            support::tellParent("all");
        }
    };
    support::tellParent(watchWith(handler) ? "watching" : "failed");
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
    auto slow = startWatcher("slow");
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

TEST_F(ConfigReports, WatcherThatIsKilledOrStoppedHarmsNobody) {
    auto killed = startWatcher();
    auto stopped = startWatcher();
    stopped->signal(SIGSTOP);
    const std::string filler(1000, 'f');
    std::vector<ConfConfigOmRecord> write;
    for (int at = 0; at < 100; at++) {
        write.push_back(record("key" + std::to_string(at)));
    }
    auto writeAll = [&](int number) {
        for (ConfConfigOmRecord &one : write) {
            TamoOmConfigcopyStr2Val(&one.value, (filler + std::to_string(number)).c_str());
        }
        return TamoOmConfigStringMset(write.data(), 100);
    };
    for (int number = 0; number < 10; number++) {
        ASSERT_EQ(0, writeAll(number));
    }
    EXPECT_EQ(11, ask(kRows)) << "the stopped one has not read them";
    stopped->signal(SIGCONT);
    killed->kill();
    for (int number = 0; number < 10; number++) {
        EXPECT_NE(std::string::npos, stopped->hear().find(filler + std::to_string(number) + " "));
    }
    ASSERT_EQ(0, writeAll(10));
    EXPECT_LE(ask(kRows), 4) << "the journal was trimmed";
    stopped->kill();
    const int before = ask(kRows);
    ASSERT_EQ(0, writeAll(11));
    EXPECT_EQ(before, ask(kRows));
}

/* Its handler uses the store, and leaves by itself. */
const support::ChildRole leavingRole("leaving", [](const ChildArguments &) {
    auto handler = [](uint32_t, uint32_t, uint32_t, const ConfConfigChangeList *changes) {
        bool works = set("answer", get(changes->items[0].key.text) + "!") == 0 &&
                     TamoOmConfigUnInit("module") == 0 && watchWith(tell, "second") &&
                     asText(changes) == "a=1";
        support::tellParent(works ? "left" : "failed");
    };
    support::tellParent(watchWith(handler) ? "watching" : "failed");
    support::hearParent();
    return 0;
});

TEST_F(ConfigReports, HandlerMayUseTheStoreAndLeave) {
    auto leaving = startWatcher("leaving");
    ASSERT_EQ(0, set("a", "1"));
    EXPECT_EQ("left", leaving->hear());
    EXPECT_EQ("1!", get("answer"));
    ASSERT_EQ(0, set("a", "2"));
    EXPECT_EQ("a=2", leaving->hear()) << "told by the handler that came in its place";
}

/* Leaves while its handler runs, and says in which order they came to their ends. */
const support::ChildRole waitingRole("waiting", [](const ChildArguments &) {
    static std::atomic<bool> isRunning = false;
    auto handler = [](uint32_t, uint32_t, uint32_t, const ConfConfigChangeList *) {
        isRunning = true;
        isRunning.notify_all();
        set("a", "stored by the handler");
        isRunning = false;
    };
    support::tellParent(watchWith(handler) ? "watching" : "failed");
    isRunning.wait(false);
    TamoOmConfigUnInit("module");
    support::tellParent(isRunning ? "handler still runs" : "handler has ended");
    return 0;
});

TEST_F(ConfigReports, WhoLeavesWaitsForTheRunningHandler) {
    auto waiting = startWatcher("waiting");
    ASSERT_EQ(0, set("b", "1"));
    EXPECT_EQ("handler has ended", waiting->hear());
}

TEST_F(ConfigReports, ForkHasNoHandlersAndHoldsNoPlaceOfItsParent) {
    auto watcher = startWatcher();
    watcher->tell("fork");
    std::string heard[] = {watcher->hear(), watcher->hear()};
    std::sort(heard, heard + 2); /* they come from two processes */
    const pid_t fork = atoi(heard[0].c_str());
    ASSERT_GT(fork, 0);
    EXPECT_EQ("of.fork=1", heard[1]);
    ASSERT_EQ(0, set("a", "1"));
    EXPECT_EQ("a=1", watcher->hear());
    watcher->signal(SIGKILL);
    (void)watcher->wait();
    const int before = ask(kRows);
    ASSERT_EQ(0, set("a", "2"));
    EXPECT_EQ(before, ask(kRows)) << "nobody watches";
    EXPECT_EQ(0, kill(fork, SIGKILL));
}

TEST_F(ConfigReports, RefusedWriteIsNotReportedAndTheJournalIsPartOfTheWrite) {
    auto watcher = startWatcher();
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
    auto watcher = startWatcher();
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
        const std::string last = "last=" + std::to_string(++number);
        ASSERT_EQ(0, set("first", std::to_string(number)));
        ASSERT_EQ(0, set("last", std::to_string(number)));
        hearOf(*watcher, last);
        ASSERT_EQ(0, set("next", last));
        EXPECT_EQ("next=" + last, watcher->hear()) << "goes on one by one";
        EXPECT_EQ(std::to_string(number), get("first"));
    }
}

TEST_F(ConfigReports, ListOfWatchersThatIsSpoiltIsMendedOrRefused) {
    const auto board = std::filesystem::path(support::scratchRoot()) / "run/config.watchers";
    auto watcher = startWatcher();
    /* An empty one in its place: cutting the mapped one may end whoever just looks at it. */
    std::ofstream(board.string() + ".empty").close();
    std::filesystem::rename(board.string() + ".empty", board);
    ASSERT_EQ(0, set("a", "1"));
    auto other = startWatcher();
    ASSERT_EQ(0, set("b", "2"));
    EXPECT_EQ("b=2", other->hear());
    hearOf(*watcher, "b=2");
    ASSERT_EQ(0, set("b", "3"));
    EXPECT_EQ("b=3", watcher->hear());
    std::filesystem::rename(board, board.string() + ".kept");
    std::filesystem::create_symlink(board.string() + ".kept", board);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(watchWith(tell));
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find(board.string()));
    std::filesystem::remove(board);
}

TEST_F(ConfigReports, ForeignValueThatFitsNoReportIsLeftOut) {
    auto watcher = startWatcher();
    ASSERT_EQ(-1, ask("INSERT INTO setting VALUES ('big', printf('%.2000c', 'x'))"));
    ASSERT_EQ(-1, ask("INSERT INTO setting VALUES (printf('%.200c', 'k'), '')"));
    ASSERT_EQ(-1, ask("INSERT INTO setting VALUES (CAST(x'63003D' AS TEXT), '1')"));
    ASSERT_EQ(-1, ask("DELETE FROM change"));
    ASSERT_EQ(0, set("d", "2"));
    EXPECT_EQ("c=1 d=2", watcher->hear());
}

TEST_F(ConfigReports, StoreOfTheFirstVersionGetsItsJournal) {
    ASSERT_EQ(0, set("a", "1"));
    ASSERT_EQ(-1, ask("DROP TABLE change"));
    ASSERT_EQ(-1, ask("PRAGMA user_version = 1"));
    auto watcher = startWatcher();
    EXPECT_EQ(2, ask("PRAGMA user_version"));
    EXPECT_EQ("1", get("a"));
    ChildProcess writer("watcher");
    ASSERT_EQ("watching", writer.hear());
    writer.tell("store");
    EXPECT_EQ("own=failed: 12+", watcher->hear());
}

}  // namespace

/* The configuration store between processes: what survives a kill, who waits for whom, who begins a
 * fresh store when several find the old one damaged, and a start on a full disk. */
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tamo_host.h"
#include "tests/host/config_records.h"
#include "tests/host/disk_faults.h"
#include "tests/support/child_process.h"

namespace fs = std::filesystem;

namespace {

using support::clearStore;
using support::configFile;
using support::get;
using support::kMissing;
using support::record;
using support::set;

/* A connection that holds what the client's own never hold for long. */
const support::ChildRole holderRole("holder", [](const support::ChildArguments &arguments) {
    sqlite3 *database = nullptr;
    sqlite3_open(configFile().c_str(), &database);
    const char *statements = arguments[0].c_str();
    const int done = sqlite3_exec(database, statements, nullptr, nullptr, nullptr);
    support::tellParent(done == SQLITE_OK ? "holds" : sqlite3_errmsg(database));
    support::hearParent();
    return sqlite3_close(database);
});

const support::ChildRole settingRole("setting", [](const support::ChildArguments &arguments) {
    support::tellParent("ready");
    support::hearParent();
    return set(arguments[0], arguments[1]) == 0 && get(arguments[0]) == arguments[1] ? 0 : 1;
});

/* Stores, replaces and removes values below a root of its own, and ends. */
const support::ChildRole secretiveRole("secretive", [](const support::ChildArguments &arguments) {
    setenv("TAMO_DEVICE_ROOT", arguments[0].c_str(), 1);
    const char *removed = "removed";
    bool done = set("a", "secret 1") == 0 && set("removed", "secret 2") == 0 &&
                set("a", "now") == 0 && TamoHostConfigReset(&removed, 1) == 0 && get("a") == "now";
    if (arguments[1] == "killed") {
        raise(SIGKILL);
    }
    return done ? 0 : 1;
});

/* Meets a disk that refuses to be written to, or that tells beforehand that it has no room. */
const support::ChildRole fullDiskRole("fullDisk", [](const support::ChildArguments &arguments) {
    std::atomic<bool> &fault = arguments[0] == "full" ? support::diskFull : support::diskTight;
    fault = true;
    bool held = get("a") == "1" && get("b") == kMissing && set("a", "2") != 0 && get("a") == "1";
    fault = false;
    return held && set("a", "3") == 0 && get("a") == "3" && set("a", "1") == 0 ? 0 : 1;
});

TEST(ConfigStoreProcesses, WriterAndReaderDoNotWaitForEachOther) {
    ASSERT_EQ(0, set("a", "1"));
    support::ChildProcess reader("holder", {"BEGIN; SELECT count(*) FROM setting"});
    ASSERT_EQ("holds", reader.hear());
    EXPECT_EQ(0, set("a", "2"));
    EXPECT_EQ("2", get("a"));

    support::ChildProcess writer("holder", {"BEGIN IMMEDIATE; DELETE FROM setting"});
    ASSERT_EQ("holds", writer.hear());
    EXPECT_EQ("2", get("a"));
    auto waiting = std::async(std::launch::async, [] { return set("a", "3"); });
    EXPECT_EQ("2", get("a")) << "a writer of this process that waits holds up no reader";
    EXPECT_NE(std::future_status::ready, waiting.wait_for(std::chrono::seconds(0)));
    writer.hangUp();
    EXPECT_EQ(0, waiting.get());
    EXPECT_EQ("3", get("a"));
    reader.hangUp();
    EXPECT_EQ(support::exited(0), reader.wait());
}

TEST(ConfigStoreProcesses, LastOneToLeaveTakesOldValuesAlong) {
    const support::ScratchDirectory root;
    for (const char *end : {"killed", "orderly"}) {
        support::ChildProcess child("secretive", {root.path(), end});
        EXPECT_EQ(end[0] == 'k' ? support::killed(SIGKILL) : support::exited(0), child.wait());
    }
    const fs::path config = fs::path(root.path()) / "config";
    EXPECT_FALSE(fs::exists(config / "config.db-wal"));
    std::ifstream file(config / "config.db", std::ios::binary);
    const std::string all{std::istreambuf_iterator<char>(file), {}};
    EXPECT_NE(std::string::npos, all.find("now"));
    EXPECT_EQ(std::string::npos, all.find("secret"));
}

TEST(ConfigStoreProcesses, ThoseWhoFindADamagedStoreTogetherBeginOneFreshStore) {
    for (int round = 0; round < 5; round++) {
        clearStore();
        std::ofstream(configFile()) << std::string(20000, 'x');
        std::vector<std::unique_ptr<support::ChildProcess>> children;
        for (int at = 0; at < 6; at++) {
            std::string number = std::to_string(at);
            children.push_back(std::make_unique<support::ChildProcess>(
                "setting", support::ChildArguments{"key" + number, number}));
            ASSERT_EQ("ready", children.back()->hear());
        }
        for (auto &child : children) {
            child->tell("go");
        }
        for (size_t at = 0; at < children.size(); at++) {
            EXPECT_EQ(support::exited(0), children[at]->wait());
            EXPECT_EQ(std::to_string(at), get("key" + std::to_string(at)));
        }
        int kept = 0;
        for (const auto &entry : fs::directory_iterator(configFile().parent_path())) {
            kept += entry.path().filename().string().find(".damaged-") != std::string::npos;
        }
        EXPECT_EQ(1, kept);
    }
}

TEST(ConfigStoreProcesses, FullDiskLeavesTheStoreReadableToAStartingProcess) {
    clearStore();
    {
        support::ChildProcess child("setting", {"a", "1"});
        ASSERT_EQ("ready", child.hear());
        child.tell("go");
        ASSERT_EQ(support::exited(0), child.wait());
    }
    for (const char *others : {"none has it open", "this process has it open"}) {
        for (const char *kind : {"full", "tight", "tight, without an index"}) {
            SCOPED_TRACE(std::string(others) + ", the disk is " + kind);
            if (kind == std::string("tight, without an index") && others[0] == 'n') {
                fs::remove(configFile().string() + "-shm");
            }
            support::ChildProcess child("fullDisk", {kind});
            EXPECT_EQ(support::exited(0), child.wait());
        }
        EXPECT_EQ("1", get("a"));
    }
}

}  // namespace

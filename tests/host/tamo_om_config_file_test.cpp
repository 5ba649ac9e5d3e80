/* The configuration store's file: what a write costs it, a full disk, and what becomes of one that is
 * not as it should be. */
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "config_records.h"
#include "disk_faults.h"
#include "tamo_host.h"

namespace fs = std::filesystem;

namespace {

using support::configFile;
using support::get;
using support::kMissing;
using support::record;
using support::set;

class ConfigFile : public testing::Test {
  protected:
    ConfigFile() { support::clearStore(); }
    ~ConfigFile() override { support::diskFull = support::diskIsFixed = false; }
};

/* The names of stores that were moved aside. */
std::vector<std::string> keptAside(const std::string &companion = "") {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(configFile().parent_path())) {
        std::string name = entry.path().filename();
        bool isCompanion = name.ends_with("-shm") || name.ends_with("-wal");
        if (name.find(".damaged-") != std::string::npos && name.ends_with(companion) &&
            isCompanion == !companion.empty()) {
            names.push_back(name);
        }
    }
    return names;
}

/* Puts a file where the store is, with nobody having it open. */
void replaceFile(const std::string &contents) {
    support::clearStore();
    std::ofstream(configFile(), std::ios::binary) << contents;
}

std::string contents(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void onFile(const char *statements) {
    sqlite3 *database = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(configFile().c_str(), &database));
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(database, statements, nullptr, nullptr, nullptr))
        << sqlite3_errmsg(database);
    sqlite3_close(database);
}

TEST_F(ConfigFile, WriteIsFlushedOnce) {
    std::vector<ConfConfigOmRecord> stored;
    for (int at = 0; at < 50; at++) {
        stored.push_back(record("key" + std::to_string(at), "first"));
    }
    ASSERT_EQ(0, TamoOmConfigStringMset(stored.data(), 50));
    for (ConfConfigOmRecord &one : stored) {
        TamoOmConfigcopyStr2Val(&one.value, "second");
    }
    const int before = support::flushes;
    ASSERT_EQ(0, TamoOmConfigStringMset(stored.data(), 50));
    EXPECT_EQ(before + 1, support::flushes);
    ASSERT_EQ(0, TamoOmConfigStringMset(stored.data(), 50));
    EXPECT_EQ(before + 1, support::flushes) << "what is stored already needs no flush";
    ASSERT_EQ(0, TamoOmConfigStringMget(stored.data(), 50));
    EXPECT_EQ(before + 1, support::flushes);
}

TEST_F(ConfigFile, StoreWhoseKeysHadTwoLetterCasesIsTakenOverOnce) {
    ASSERT_EQ(0, set("a", "1"));
    onFile(
        "DROP TABLE setting; DROP TABLE change;"
        "CREATE TABLE setting (key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;"
        "CREATE TABLE change (number INTEGER PRIMARY KEY, time INTEGER NOT NULL,"
        " origin INTEGER NOT NULL, pid INTEGER NOT NULL, writer TEXT NOT NULL,"
        " records BLOB NOT NULL);"
        "INSERT INTO setting VALUES ('Conf.A', 'first'), ('conf.a', 'second'), ('b', '2');"
        "PRAGMA user_version = 2; PRAGMA wal_checkpoint(TRUNCATE)");
    replaceFile(contents(configFile()));
    testing::internal::CaptureStderr();
    EXPECT_EQ("first", get("conf.A"));
    EXPECT_EQ("2", get("B"));
    EXPECT_EQ(0, set("b", "3"));
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, said.find("'Conf.A' and 'conf.a' are one key now")) << said;
    EXPECT_EQ(said.find("one key now"), said.rfind("one key now"));
    EXPECT_TRUE(keptAside().empty());
}

/* The log cannot grow, but its own room serves again once it is carried over. */
TEST_F(ConfigFile, DiskWithoutRoomForALongerLogIsWrittenToAllTheSame) {
    const std::string filler(1000, 'f');
    for (int at = 0; at < 200; at++) {
        ASSERT_EQ(0, set("key" + std::to_string(at), filler));
    }
    onFile(
        "DELETE FROM change WHERE number < (SELECT max(number) FROM change);"
        "PRAGMA wal_checkpoint(TRUNCATE)");
    for (int at = 0; at < 20; at++) {
        ASSERT_EQ(0, set("key" + std::to_string(at), "before"));
    }
    support::diskIsFixed = true;
    for (int at = 0; at < 100; at++) {
        ASSERT_EQ(0, set("key" + std::to_string(at), "after")) << at;
    }
    support::diskIsFixed = false;
    EXPECT_EQ("after", get("key99"));
}

TEST_F(ConfigFile, FullDiskFailsWritesWholeAndLetsReadsGoOn) {
    ConfConfigOmRecord stored[] = {record("a", "2"), record("b", std::string(1000, 'b'))};
    for (const bool isBegun : {false, true}) {
        support::diskFull = true;
        testing::internal::CaptureStderr();
        EXPECT_NE(0, TamoOmConfigStringMset(stored, 2));
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_NE(std::string::npos,
                  said.find("disk full: free space below " + support::scratchRoot()))
            << said;
        EXPECT_EQ(isBegun, fs::exists(configFile()));
        if (isBegun) {
            EXPECT_EQ("1" + kMissing, get("a") + get("b"));
        }
        support::diskFull = false;
        EXPECT_EQ(0, set("a", "1"));
    }
    EXPECT_EQ(0, TamoOmConfigStringMset(stored, 2));
    EXPECT_EQ("2", get("a"));
}

TEST_F(ConfigFile, FileThatIsNotOursIsKeptAsideAndAFreshStoreBegun) {
    ASSERT_EQ(0, set("a", "1"));
    ASSERT_EQ(0, set("b", std::string(1000, 'b')));
    onFile("PRAGMA wal_checkpoint(TRUNCATE)");
    std::string whole = contents(configFile());
    std::string otherDatabase = whole;
    memset(otherDatabase.data() + 68, 7, 4);
    std::string scrambledPage = whole;
    memset(scrambledPage.data() + 4096, 0xA5, 4096);
    for (const std::string &file : {std::string("[section]\nkey=value\n"), std::string(100000, 'x'),
                                    std::string(), whole.substr(0, 5000), whole.substr(0, 4096),
                                    whole.substr(0, 60), otherDatabase, scrambledPage}) {
        SCOPED_TRACE(file.size());
        replaceFile(file);
        testing::internal::CaptureStderr();
        EXPECT_EQ(kMissing, get("a"));
        std::string said = testing::internal::GetCapturedStderr();
        ASSERT_EQ(1U, keptAside().size());
        EXPECT_EQ(file, contents(configFile(keptAside()[0])));
        EXPECT_NE(std::string::npos, said.find(keptAside()[0])) << said;
        EXPECT_EQ(0, set("a", "2"));
        EXPECT_EQ("2", get("a"));
    }
}

TEST_F(ConfigFile, NewerStoreIsRefusedAndLeftInPlace) {
    ASSERT_EQ(0, set("a", "1"));
    onFile("PRAGMA user_version = 1000; PRAGMA wal_checkpoint(TRUNCATE)");
    std::string newer = contents(configFile());
    replaceFile(newer);
    EXPECT_EQ("failed: 8", get("a"));
    EXPECT_EQ(TAMO_HOST_REFUSED, set("a", "2"));
    EXPECT_EQ(newer, contents(configFile()));
    EXPECT_TRUE(keptAside().empty());
}

TEST_F(ConfigFile, DamageDoneWhileTheStoreIsOpenIsFoundWhenItIsMet) {
    std::string filler(1000, 'f');
    std::vector<ConfConfigOmRecord> stored;
    for (int at = 0; at < 2000; at++) {
        stored.push_back(record("key" + std::to_string(at), filler));
    }
    ASSERT_EQ(0, TamoOmConfigStringMset(stored.data(), 2000));
    onFile("PRAGMA wal_checkpoint(TRUNCATE)");
    ASSERT_EQ(filler, get("key0"));
    fs::resize_file(configFile(), fs::file_size(configFile()) / 2);
    for (ConfConfigOmRecord &one : stored) {
        TamoOmConfigcopyStr2Val(&one.value, "new");
    }
    EXPECT_EQ(0, TamoOmConfigStringMset(stored.data(), 2000));
    EXPECT_EQ("new", get("key0"));
    EXPECT_EQ("new", get("key1999"));
    EXPECT_EQ(1U, keptAside().size());
}

TEST_F(ConfigFile, LogWithoutItsStoreIsKeptAsideToo) {
    for (size_t times = 1; times <= 3; times++) {
        ASSERT_EQ(0, set("a", "1"));
        fs::remove(configFile());
        EXPECT_EQ(kMissing, get("a")) << "the old log is not the new store's";
        EXPECT_EQ(times, keptAside("-wal").size());
    }
}

}  // namespace

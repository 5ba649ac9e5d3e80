/* The configuration store of one process: records, and its file: what a write costs it, a full disk, and
 * what becomes of one that is not as it should be. */
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
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

/* ---- records ---- */

TEST(ConfigRecords, KeysAndValuesThatDoNotFitAreRefusedAndCleared) {
    ConfConfigOmRecord made;
    memset(&made, 0xA5, sizeof(made));
    std::string longestKey(127, 'k');
    std::string longestValue(1023, 'v');
    EXPECT_EQ(0, TamoOmConfigcopyStr2Key(&made, longestKey.c_str()));
    EXPECT_EQ(longestKey, made.key.text);
    EXPECT_EQ(127, made.key.length);
    EXPECT_EQ(0, TamoOmConfigcopyStr2Val(&made.value, longestValue.c_str()));
    EXPECT_EQ(longestValue, made.value.text);
    EXPECT_EQ(1023U, made.value.length);

    for (const char *key : {"", (longestKey += 'k').c_str(), static_cast<const char *>(nullptr)}) {
        made.key.length = 9;
        EXPECT_NE(0, TamoOmConfigcopyStr2Key(&made, key));
        EXPECT_EQ(0, made.key.text[0] + made.key.length);
    }
    for (const char *value : {(longestValue += 'v').c_str(), static_cast<const char *>(nullptr)}) {
        made.value.length = 9;
        EXPECT_NE(0, TamoOmConfigcopyStr2Val(&made.value, value));
        EXPECT_EQ(0U, made.value.length + static_cast<unsigned char>(made.value.text[0]));
    }
    EXPECT_NE(0, TamoOmConfigcopyStr2Key(nullptr, "key"));
    EXPECT_NE(0, TamoOmConfigcopyStr2Val(nullptr, "value"));
}

/* The keys that are listed, and read while they are. */
std::string listed(const char *pattern) {
    std::string keys;
    const auto visit = [](const char *key, const char *, void *text) -> uint32_t {
        *static_cast<std::string *>(text) += std::string(key) + " ";
        return get(key) == kMissing ? 1 : 0;
    };
    EXPECT_EQ(0U, TamoHostConfigList(pattern, visit, &keys));
    return keys;
}

TEST_F(ConfigFile, KeepsOneTextPerKeyInAnyLetterCaseUnderItsFirstSpelling) {
    std::string bytes;
    for (int c = 1; c < 256; c++) {
        bytes += static_cast<char>(c);
    }
    const struct {
        std::string key, value;
    } stored[] = {{"Conf.Key", "one"},
                  {"conf.KEY", "two"},
                  {"Conf.Key_", "underscore"},
                  {"CONF.\xC3\x84", "only ASCII letters have two cases"},
                  {"\xFF%'\"*", bytes},
                  {std::string(127, 'k'), std::string(1023, 'v')},
                  {"empty", ""}};
    EXPECT_EQ(kMissing, get("Conf.Key"));
    for (const auto &[key, value] : stored) {
        EXPECT_EQ(0, set(key, value));
        EXPECT_EQ(value, get(key));
    }
    EXPECT_EQ("two", get("Conf.Key"));
    EXPECT_EQ(kMissing, get("conf.\xC3\xA4"));
    EXPECT_EQ("Conf.Key Conf.Key_ CONF.\xC3\x84 ", listed("C*"));
    const TamoHostConfigPair pairs[] = {{"conf.key", "three"}, {"CONF.Key", "four"}, {"New", "5"}};
    EXPECT_EQ(0U, TamoHostConfigImport(pairs, 3, 1, nullptr, nullptr));
    EXPECT_EQ("Conf.Key New ", listed(nullptr));
    EXPECT_EQ("four", get("Conf.Key"));
}

TEST_F(ConfigFile, SeveralAreWrittenAndRemovedAllOrNotAtAllAndReadAsFarAsTheyAreThere) {
    ConfConfigOmRecord stored[] = {record("a", "1"), record("b", "2"), record("a", "3")};
    stored[0].key.length = 255; /* no length is believed */
    stored[0].value.length = 0xFFFFFFFF;
    EXPECT_EQ(0, TamoOmConfigStringMset(stored, 3));
    EXPECT_EQ("3", get("a")) << "the later record of a key wins";
    ConfConfigOmRecord faulty[] = {record("a", "4"), record("b", "5")};
    memset(faulty[1].value.text, 'v', sizeof(faulty[1].value.text));
    EXPECT_EQ(TAMO_HOST_INVALID, TamoOmConfigStringMset(faulty, 2));
    faulty[1] = {};
    EXPECT_EQ(TAMO_HOST_INVALID, TamoOmConfigStringMset(faulty, 2));

    ConfConfigOmRecord asked[] = {record("a", "x"), record("none", "x"), record("b", "x")};
    EXPECT_EQ(TAMO_HOST_NOT_FOUND, TamoOmConfigStringMget(asked, 3));
    EXPECT_STREQ("3", asked[0].value.text);
    EXPECT_EQ(0U, asked[1].value.length + static_cast<unsigned char>(asked[1].value.text[0]));
    EXPECT_STREQ("2", asked[2].value.text);
    asked[0].key = {};
    memset(asked[1].key.text, 'k', sizeof(asked[1].key.text));
    EXPECT_EQ(TAMO_HOST_INVALID, TamoOmConfigStringMget(asked, 3));
    EXPECT_EQ(0U, asked[0].value.length + asked[1].value.length);
    EXPECT_STREQ("2", asked[2].value.text);

    const char *const keys[] = {"A", "b", ""};
    EXPECT_EQ(TAMO_HOST_INVALID, TamoHostConfigReset(keys, 3));
    EXPECT_EQ("32", get("a") + get("b"));
    EXPECT_EQ(0U, TamoHostConfigReset(keys, 2));
    EXPECT_EQ(kMissing + kMissing, get("a") + get("b"));
    EXPECT_EQ(TAMO_HOST_NOT_FOUND, TamoHostConfigReset(keys, 1));
}

TEST_F(ConfigFile, RefusesCountsThatCannotBe) {
    ConfConfigOmRecord one = record("a", "1");
    EXPECT_EQ(0, TamoOmConfigStringMget(nullptr, 0) + TamoOmConfigStringMset(nullptr, 0));
    EXPECT_EQ(0U, TamoHostConfigReset(nullptr, 0));
    EXPECT_EQ(TAMO_HOST_INVALID, TamoHostConfigReset(nullptr, 1));
    EXPECT_NE(0, TamoOmConfigStringGet(nullptr));
    const std::pair<ConfConfigOmRecord *, uint32_t> cases[] = {
        {nullptr, 1}, {nullptr, 0x80000000}, {&one, 0xFFFFFFFF}};
    for (const auto &[records, count] : cases) {
        EXPECT_NE(0, TamoOmConfigStringMget(records, count)) << count;
        EXPECT_NE(0, TamoOmConfigStringMset(records, count)) << count;
    }
}

/* ---- the file ---- */

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

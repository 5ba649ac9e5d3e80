/* The file layer, by device path, and the directories of customised files. */
#include "tamo_os_file.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include "tamo_om_cust_util.h"
#include "tests/host/disk_faults.h"
#include "tests/support/scratch_root.h"

namespace fs = std::filesystem;

namespace {

class FileLayer : public testing::Test {
  protected:
    FileLayer() {
        char buffer[PATH_MAX];
        EXPECT_EQ(buffer, OsFileNativePath("/data", buffer, sizeof(buffer)));
        place = fs::path(buffer);
        fs::remove_all(place);
        fs::create_directory(place);
    }
    ~FileLayer() override {
        support::diskRoom = -1;
        support::noUnnamedFiles = false;
    }

    void write(const std::string &name, const std::string &text) {
        std::ofstream(place / name, std::ios::binary) << text;
    }
    std::string read(const std::string &name) {
        std::ifstream file(place / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    static std::set<std::string> walk(const char *path) {
        std::set<std::string> names;
        OsDir *dir = OsOpenDir(path);
        EXPECT_NE(nullptr, dir);
        while (OsDirEntry *entry = OsReadDir(dir)) {
            EXPECT_TRUE(names.insert(entry->name).second) << entry->name;
        }
        OsCloseDir(dir);
        return names;
    }

    fs::path place;
};

TEST_F(FileLayer, WalksADirectoryByEitherSeparator) {
    write("one", "1");
    fs::create_directory(place / "two");
    std::set<std::string> expected = {".", "..", "one", "two"};
    EXPECT_EQ(expected, walk("/data/"));
    EXPECT_EQ(expected, walk("\\data"));
    EXPECT_EQ(nullptr, OsOpenDir("/data/one"));
    EXPECT_EQ(nullptr, OsOpenDir("/data/three"));
    EXPECT_EQ(nullptr, OsOpenDir("/data/../.."));
    EXPECT_EQ(nullptr, OsOpenDir(nullptr));
    EXPECT_EQ(nullptr, OsReadDir(nullptr));
    OsCloseDir(nullptr);
    EXPECT_EQ(0, OsRemove("/data\\two\\"));
    EXPECT_EQ(0, OsRemove("/data/one"));
    EXPECT_NE(0, OsRemove("/../file"));
    EXPECT_TRUE(fs::is_empty(place));
}

TEST_F(FileLayer, CopyTakesTheModeWhereTheDestinationHasNone) {
    std::string large(3 << 20, 'x');
    for (bool named : {false, true}) {
        support::noUnnamedFiles = named;
        write("from", large);
        write("to", "old");
        ASSERT_EQ(0, chmod((place / "from").c_str(), 04640));
        ASSERT_EQ(0, chmod((place / "to").c_str(), 0600));
        ASSERT_EQ(0, OsCopyFile("/data/from", "/data\\to"));
        ASSERT_EQ(0, OsCopyFile("/data/from", "/data/new"));
        EXPECT_TRUE(large == read("to") && large == read("new"));
        struct stat status;
        ASSERT_EQ(0, stat((place / "new").c_str(), &status));
        EXPECT_EQ(0640U, status.st_mode & 07777);
        ASSERT_EQ(0, stat((place / "to").c_str(), &status));
        EXPECT_EQ(0600U, status.st_mode & 07777);
        EXPECT_EQ((std::set<std::string>{".", "..", "from", "to", "new"}), walk("/data"));
        fs::remove(place / "new");
    }
}

TEST_F(FileLayer, CopyOfWhatIsThereWritesNothing) {
    struct stat before, after;
    write("from", std::string(100000, 'x'));
    ASSERT_EQ(0, OsCopyFile("/data/from", "/data/to"));
    ASSERT_EQ(0, stat((place / "to").c_str(), &before));
    ASSERT_EQ(0, OsCopyFile("/data/from", "/data/to"));
    ASSERT_EQ(0, stat((place / "to").c_str(), &after));
    EXPECT_EQ(before.st_ino, after.st_ino);
    fs::remove(place / "to");
    fs::create_hard_link(place / "from", place / "to");
    ASSERT_EQ(0, OsCopyFile("/data/from", "/data/to"));
    EXPECT_EQ(1U, fs::hard_link_count(place / "to"));
}

TEST_F(FileLayer, CopyThatFailsLeavesTheDestinationAndNothingElse) {
    write("from", std::string(100000, 'n'));
    write("to", "old");
    ASSERT_EQ(0, mkfifo((place / "pipe").c_str(), 0600));
    std::set<std::string> before = walk("/data");
    for (bool named : {false, true}) {
        support::noUnnamedFiles = named;
        support::diskRoom = 50000; /* half of it */
        EXPECT_NE(0, OsCopyFile("/data/from", "/data/to"));
        EXPECT_EQ(ENOSPC, errno);
        support::diskRoom = -1;
        EXPECT_NE(0, OsCopyFile("/data/from", "/data/no/such"));
        EXPECT_EQ(ENOENT, errno);
        const std::pair<const char *, const char *> refused[] = {
            {"/data/absent", "/data/to"}, {"/data/pipe", "/data/to"}, {"/data", "/data/to"},
            {"/data/from", "/data/to/"},  {"/data/from", "/../to"},   {"/data/from", nullptr}};
        for (const auto &[from, to] : refused) {
            EXPECT_NE(0, OsCopyFile(from, to)) << from;
        }
        EXPECT_EQ("old", read("to"));
        EXPECT_EQ(before, walk("/data"));
    }
}

TEST(CustomisedPaths, LeadToPrivateDirectoriesThatAreMadeAgainWhenTheyAreGone) {
    const std::string configuration = TamoOmCustUtilGetCfgPath(0);
    const std::string storage = TamoOmCustUtilGetStoragePath();
    for (const std::string &path : {configuration, storage}) {
        const std::string native = support::scratchRoot() + path;
        EXPECT_EQ(fs::status(native).permissions(), fs::perms::owner_all) << native;
    }
    const fs::path parent = fs::path(support::scratchRoot() + storage).parent_path();
    fs::remove_all(parent);
    EXPECT_EQ(TamoOmCustUtilGetStoragePath(), storage);
    EXPECT_TRUE(fs::is_directory(support::scratchRoot() + storage));
    fs::remove_all(parent);
    std::ofstream(parent) << "a file in the way";
    EXPECT_EQ(TamoOmCustUtilGetStoragePath(), nullptr);
    EXPECT_EQ(TamoOmCustUtilGetCfgPath(0), nullptr);
    fs::remove_all(parent);
}

}  // namespace

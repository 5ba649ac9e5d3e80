/* The device root, built into this program: it is found once per process, so each case is a child
 * process of its own. */
#include "host/base/device_root.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <stdarg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "host/base/log.h"
#include "tests/support/child_process.h"

namespace fs = std::filesystem;

namespace {
std::vector<std::string> records;
}

void tamo::hostRecord(RecordLevel, const char *, int, const char *format, ...) {
    char text[2 * PATH_MAX];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    records.push_back(text);
}

namespace {

class DeviceRoot : public testing::Test {
  protected:
    DeviceRoot() {
        char pattern[] = "/tmp/device_root_test.XXXXXX";
        place = fs::canonical(mkdtemp(pattern));
    }
    ~DeviceRoot() override { fs::remove_all(place); }

    static void expectRefused(const std::string &root, const std::string &advice) {
        support::inFork([&] {
            setenv("TAMO_DEVICE_ROOT", root.c_str(), 1);
            char path[PATH_MAX];
            EXPECT_EQ(nullptr, tamo::deviceRoot());
            EXPECT_EQ(-1, tamo::rootDirectory("log"));
            EXPECT_FALSE(tamo::nativePath("/data/a", path, sizeof(path)));
            ASSERT_EQ(1U, records.size()) << "the failure is recorded once";
            EXPECT_NE(std::string::npos, records[0].find(advice)) << records[0];
        });
    }

    static std::string native(const std::string &devicePath) {
        char path[PATH_MAX];
        return tamo::nativePath(devicePath.c_str(), path, sizeof(path)) ? path : "refused";
    }

    static mode_t modeOf(const fs::path &path) {
        struct stat status = {};
        EXPECT_EQ(0, stat(path.c_str(), &status)) << path;
        return status.st_mode & 07777;
    }

    fs::path place;
};

TEST_F(DeviceRoot, IsCreatedPrivateWithTheDirectoriesThatDevicePathsName) {
    support::inFork([&] {
        umask(022);
        setenv("TAMO_DEVICE_ROOT", (place / "a/b/root//").c_str(), 1);
        EXPECT_EQ(place / "a/b/root", tamo::deviceRoot());
        EXPECT_EQ(0755U, modeOf(place / "a/b"));
        EXPECT_EQ(0700U, modeOf(place / "a/b/root"));
        EXPECT_TRUE(fs::is_directory(place / "a/b/root/data"));
        EXPECT_TRUE(fs::is_directory(place / "a/b/root/system/lib64"));
        EXPECT_TRUE(records.empty());
    });
}

TEST_F(DeviceRoot, IsRefusedWhenOthersMayEnterOrItCannotBeUsed) {
    fs::path open = place / "open";
    ASSERT_EQ(0, mkdir(open.c_str(), 0700));
    for (mode_t mode : {0750U, 0701U, 0777U}) {
        ASSERT_EQ(0, chmod(open.c_str(), mode));
        expectRefused(open, "chmod 700 " + open.string());
    }
    std::ofstream(place / "file") << "no directory";
    expectRefused(place / "file", "must be a directory");
    expectRefused(place / "file/below", "set TAMO_DEVICE_ROOT");
    expectRefused("/" + std::string(PATH_MAX, 'x'), "shorter");
}

TEST_F(DeviceRoot, OfAnotherUserIsRefused) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs the right to become another user";
    }
    ASSERT_EQ(0, chmod(place.c_str(), 0755));
    support::inFork([&] {
        ASSERT_EQ(0, setresuid(65534, 65534, 65534));
        setenv("TAMO_DEVICE_ROOT", place.c_str(), 1);
        EXPECT_EQ(nullptr, tamo::deviceRoot());
        ASSERT_EQ(1U, records.size());
        EXPECT_NE(std::string::npos, records[0].find("belongs to user 0")) << records[0];
    });
}

TEST_F(DeviceRoot, TurnsDevicePathsIntoPathsBelowIt) {
    support::inFork([&] {
        const std::string root = place, longest = "/" + std::string(510, 'x');
        setenv("TAMO_DEVICE_ROOT", root.c_str(), 1);
        const std::pair<std::string, std::string> paths[] = {
            {"/data/certfile/CA/", root + "/data/certfile/CA/"},
            {"\\data\\certfile/CA\\\\x.pem", root + "/data/certfile/CA/x.pem"},
            {"/./data//a/.././/b", root + "/data/b"},
            {"/data/..", root},
            {"/..data/...", root + "/..data/..."},
            {longest, root + longest},
            {longest + "x", "refused"},
            {"/..", "refused"},
            {"/data/../../x", "refused"},
            {"/data\\..\\..\\x", "refused"},
            {"data/a", "refused"},
            {"", "refused"},
            {"/data/a\nb", "refused"}};
        for (const auto &[device, expected] : paths) {
            EXPECT_EQ(expected, native(device));
            EXPECT_EQ(records.empty(), expected != "refused");
            records.clear();
        }
        char small[8];
        EXPECT_FALSE(tamo::nativePath("/data", small, sizeof(small)));
        EXPECT_FALSE(tamo::nativePath(nullptr, small, sizeof(small)));
    });
}

TEST_F(DeviceRoot, RefusesLinksThatLeadOutAndFollowsThoseThatStay) {
    fs::create_directories(place / "root/data/real");
    fs::create_symlink("real", place / "root/data/inside");
    fs::create_symlink("../../..", place / "root/data/up");
    fs::create_symlink("/etc", place / "root/data/etc");
    fs::create_symlink("/tmp", place / "root/log");
    std::ofstream(place / "root/keys") << "no directory";
    ASSERT_EQ(0, chmod((place / "root").c_str(), 0700));
    support::inFork([&] {
        setenv("TAMO_DEVICE_ROOT", (place / "root").c_str(), 1);
        EXPECT_EQ(place / "root/data/inside/new", native("/data/inside/new"));
        EXPECT_EQ("refused", native("/data/up/new"));
        EXPECT_EQ("refused", native("/data/etc/passwd"));
        EXPECT_GE(tamo::rootDirectory("run"), 0);
        EXPECT_EQ(0700U, modeOf(place / "root/run"));
        for (const char *refused : {"log", "keys", "..", "", "a/b"}) {
            EXPECT_EQ(-1, tamo::rootDirectory(refused)) << refused;
        }
    });
}

}  // namespace

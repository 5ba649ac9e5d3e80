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
#include <functional>
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

fs::path place;

/* Runs `body` in a child process with that device root. */
void withRoot(const std::string &root, const std::function<void()> &body) {
    support::inFork([&] {
        umask(022);
        setenv("TAMO_DEVICE_ROOT", root.c_str(), 1);
        body();
    });
}

std::string native(const std::string &devicePath) {
    char path[PATH_MAX];
    return tamo::nativePath(devicePath.c_str(), path, sizeof(path)) ? path : "refused";
}

mode_t modeOf(const fs::path &path) {
    struct stat status = {};
    EXPECT_EQ(0, stat(path.c_str(), &status)) << path;
    return status.st_mode & 07777;
}

class DeviceRoot : public testing::Test {
  protected:
    DeviceRoot() {
        char pattern[] = "/tmp/device_root_test.XXXXXX";
        place = fs::canonical(mkdtemp(pattern));
    }
    ~DeviceRoot() override { fs::remove_all(place); }
};

TEST_F(DeviceRoot, IsCreatedPrivateWithTheDirectoriesThatDevicePathsName) {
    withRoot(place / "a/b/root//", [] {
        EXPECT_EQ(place / "a/b/root", tamo::deviceRoot());
        EXPECT_EQ(0755U, modeOf(place / "a/b"));
        EXPECT_EQ(0700U, modeOf(place / "a/b/root"));
        EXPECT_TRUE(fs::is_directory(place / "a/b/root/data"));
        EXPECT_TRUE(fs::is_directory(place / "a/b/root/system/lib64"));
        EXPECT_TRUE(records.empty());
    });
}

TEST_F(DeviceRoot, IsRefusedWhenOthersMayEnterOrOwnItOrItCannotBeUsed) {
    const uid_t other = geteuid() == 0 ? 65534 : geteuid(); /* only root can become another user */
    ASSERT_EQ(0, chmod(place.c_str(), 0755));
    std::ofstream(place / "file") << "no directory";
    for (const mode_t mode : {0750U, 0701U, 0777U, 0700U}) {
        const std::string name = place / std::to_string(mode);
        ASSERT_EQ(0, mkdir(name.c_str(), 0700) | chmod(name.c_str(), mode));
    }
    const struct {
        std::string root, advice;
        uid_t user;
    } cases[] = {
        {place / std::to_string(0750), "chmod 700 " + place.string(), geteuid()},
        {place / std::to_string(0701), "chmod 700 " + place.string(), geteuid()},
        {place / std::to_string(0777), "chmod 700 " + place.string(), geteuid()},
        {place / "file", "must be a directory", geteuid()},
        {place / "file/below", "set TAMO_DEVICE_ROOT", geteuid()},
        {"/" + std::string(PATH_MAX, 'x'), "shorter", geteuid()},
        {place, other == geteuid() ? "chmod 700" : "belongs to user 0", other},
    };
    for (const auto &each : cases) {
        withRoot(each.root, [&] {
            ASSERT_EQ(0, setresuid(each.user, each.user, each.user));
            char path[PATH_MAX];
            EXPECT_EQ(nullptr, tamo::deviceRoot());
            EXPECT_EQ(-1, tamo::rootDirectory("log"));
            EXPECT_FALSE(tamo::nativePath("/data/a", path, sizeof(path)));
            ASSERT_EQ(1U, records.size()) << "the failure is recorded once";
            EXPECT_NE(std::string::npos, records[0].find(each.advice)) << records[0];
        });
    }
}

using Paths = std::vector<std::pair<std::string, std::string>>;

/* Compares the native path of each device path, and that a refusal leaves a record. */
void expectNative(const Paths &paths) {
    for (const auto &[device, expected] : paths) {
        EXPECT_EQ(expected, native(device));
        EXPECT_EQ(records.empty(), expected != "refused");
        records.clear();
    }
}

TEST_F(DeviceRoot, LetsNoLinkLeadOut) {
    fs::create_directories(place / "data/real");
    fs::create_symlink("real", place / "data/inside");
    fs::create_symlink("../..", place / "data/up");
    fs::create_symlink("/etc", place / "data/etc");
    fs::create_symlink("/tmp", place / "log");
    withRoot(place, [] {
        expectNative({{"/data/inside/new", std::string(place) + "/data/inside/new"},
                      {"/data/up/new", "refused"},
                      {"/data/etc/passwd", "refused"}});
        EXPECT_EQ(-1, tamo::rootDirectory("log"));
    });
}

TEST_F(DeviceRoot, TurnsDevicePathsIntoPathsBelowIt) {
    std::ofstream(place / "keys") << "no directory";
    withRoot(place, [] {
        const std::string root = place, longest = "/" + std::string(510, 'x');
        expectNative({
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
            {"/data/a\nb", "refused"},
        });
        char small[8];
        EXPECT_FALSE(tamo::nativePath("/data", small, sizeof(small)));
        EXPECT_FALSE(tamo::nativePath(nullptr, small, sizeof(small)));
        EXPECT_GE(tamo::rootDirectory("run"), 0);
        EXPECT_EQ(0700U, modeOf(place / "run"));
        for (const char *refused : {"keys", "..", "", "a/b"}) {
            EXPECT_EQ(-1, tamo::rootDirectory(refused)) << refused;
        }
    });
}

}  // namespace

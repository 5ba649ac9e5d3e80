/* Structures in files that belong to somebody. A save that is killed is in examples/settings_file.cpp. */
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "include/conf_log_adapter.h"
#include "include/xml_utility.h"
#include "tests/support/scratch_root.h"

namespace {

namespace fs = std::filesystem;

constexpr uint16_t kCount = 500; /* several writes of the file */
constexpr char kFile[] = "/data/store/store.xml", kBackup[] = "/data/store/store.bak";

uint32_t values[kCount];

ConfXmlNode *describe(int32_t) {
    ConfXmlNode *root = ConfXmlAddSingleStructNode(nullptr, "Root");
    for (uint16_t at = 0; at < kCount; at++) {
        const std::string address = std::to_string(reinterpret_cast<uintptr_t>(&values[at]));
        const ConfXmlValueNodeDesc desc = {"value", "UINT32"};
        ConfXmlValue value = {CONF_XML_ATTR_UINT32, {}, 0};
        value.value.text = address.c_str();
        ConfXmlAddSingleValueNode(ConfXmlAddMultiStructNode(root, "item", at), &desc, &value);
    }
    return root;
}

bool save(uint32_t number, const char *path = kFile) {
    std::fill_n(values, kCount, number);
    return ConfXmlSave(describe, path, kBackup) == 0;
}

/* The number of the one save that all values come from; 0 when they do not, or nothing loads. */
uint32_t loaded(const char *path, const char *backup) {
    std::fill_n(values, kCount, 0U);
    const bool good = ConfXmlLoad(describe, path, backup) == 0 &&
                      std::count(values, values + kCount, values[0]) == kCount;
    return good ? values[0] : 0;
}

class XmlStore : public testing::Test {
  protected:
    XmlStore() : folder(support::scratchRoot() + "/data/store") {
        fs::create_directories(folder);
        EXPECT_TRUE(save(1));
    }
    ~XmlStore() override { fs::remove_all(folder); }

    fs::path folder;
};

/* Runs `action` in a child as the user and group 2000, who is also in group 2001; its answer. */
bool asOther(const std::function<bool()> &action) {
    const pid_t child = fork();
    if (child == 0) {
        const gid_t groups[] = {2000, 2001};
        const bool changed = setgroups(2, groups) == 0 && setresgid(2000, 2000, 2000) == 0 &&
                             setresuid(2000, 2000, 2000) == 0;
        _exit(changed && action() ? 0 : 1);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/* What others can tell of a file, its contents apart. */
std::string lookOf(const fs::path &file) {
    struct stat status = {};
    char list[256] = {};
    if (stat(file.c_str(), &status) != 0) {
        return "absent";
    }
    const ssize_t size = getxattr(file.c_str(), "system.posix_acl_access", list, sizeof(list));
    return std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid) + " " +
           std::to_string(status.st_mode) + " " + std::to_string(status.st_nlink) + " " +
           std::string(list, size < 0 ? 0 : static_cast<size_t>(size));
}

/* Owner rw, user 2002 r, group r, mask r, others none. */
bool giveAccessList(const fs::path &file) {
    const unsigned char list[] = {2,    0,   0,   0,   1,  0, 6, 0, 255, 255, 255, 255, 2,  0, 4, 0,
                                  0xD2, 7,   0,   0,   4,  0, 4, 0, 255, 255, 255, 255, 16, 0, 4, 0,
                                  255,  255, 255, 255, 32, 0, 0, 0, 255, 255, 255, 255};
    return setxattr(file.c_str(), "system.posix_acl_access", list, sizeof(list), 0) == 0;
}

void change(const fs::path &file, uid_t user, gid_t group, mode_t mode) {
    (void)removexattr(file.c_str(), "system.posix_acl_access");
    ASSERT_EQ(chown(file.c_str(), user, group), 0);
    ASSERT_EQ(chmod(file.c_str(), mode), 0);
}

/* Each file is saved by another user as its row says, and both keep their look. */
TEST_F(XmlStore, WhoeverSavesTakesNothingAway) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "other users' files take root";
    }
    for (const char *passed : {"", "/data", "/data/store"}) {
        chmod((support::scratchRoot() + passed).c_str(), 0755);
    }
    if (!asOther([&] { return access(folder.c_str(), X_OK) == 0; })) {
        GTEST_SKIP() << "the directory of temporary files is closed to other users";
    }
    SetLogLevel(0);
    const fs::path file = folder / "store.xml", backup = folder / "store.bak";
    std::string longName = "/data/store/" + std::string(255, 'n');
    enum Special { kNothing, kList, kOtherName, kClosedFolder, kLink };
    const struct {
        const char *name;
        uid_t user; /* of the file and its backup */
        gid_t group;
        mode_t mode;
        bool saved;
        Special special;
        const char *path = kFile;
    } cases[] = {
        {"a member of the group", 0, 2001, 0660, true, kNothing},
        {"an owner, another group", 2000, 2001, 0640, true, kNothing},
        {"an access list", 2000, 2000, 0640, true, kList},
        {"a file that may not be written", 2000, 2000, 0400, false, kNothing},
        {"another user's file", 0, 0, 0644, false, kNothing},
        {"another name", 2000, 2000, 0600, true, kOtherName},
        {"a folder that may not be written", 2000, 2000, 0600, true, kClosedFolder},
        {"a long name", 2000, 2000, 0600, true, kNothing, longName.c_str()},
        {"a link to nothing yet", 2000, 2000, 0600, true, kLink, "/data/store/link"},
    };
    for (const auto &one : cases) {
        change(file, one.user, one.group, one.mode);
        change(backup, one.user, one.group, one.mode);
        EXPECT_TRUE(one.special != kList || (giveAccessList(file) && giveAccessList(backup)));
        if (one.special == kOtherName) {
            fs::create_hard_link(file, folder / "other");
        } else if (one.special == kLink) {
            fs::create_symlink("target", folder / "link");
        }
        const bool isClosed = one.special == kClosedFolder;
        change(folder, isClosed ? 0 : 2000, isClosed ? 0 : 2000, isClosed ? 0755 : 0700);
        const fs::path saved = support::scratchRoot() + one.path;
        const std::string before = lookOf(saved), backupBefore = lookOf(backup);
        EXPECT_EQ(asOther([&] { return save(7, one.path); }), one.saved) << one.name;
        EXPECT_EQ(loaded(one.path, one.path), one.saved ? 7u : 1u) << one.name;
        EXPECT_EQ(loaded(kBackup, kBackup), one.saved ? 7u : 1u) << one.name;
        if (before != "absent") {
            EXPECT_EQ(lookOf(saved), before) << one.name;
        }
        EXPECT_EQ(lookOf(backup), backupBefore) << one.name;
        change(file, 0, 0, 0600);
        fs::remove(folder / "other");
        EXPECT_TRUE(save(1));
    }
    EXPECT_TRUE(fs::is_symlink(folder / "link"));
    /* A new backup is read by nobody who may not read the file. */
    change(file, 0, 2001, 0660);
    fs::remove(backup);
    EXPECT_TRUE(asOther([] { return save(7); }));
    EXPECT_EQ(lookOf(backup).substr(0, 9), "2000:2001");
    change(file, 2000, 2002, 0664);
    fs::remove(backup);
    EXPECT_TRUE(asOther([] { return save(7); }));
    EXPECT_EQ(lookOf(backup).substr(0, 15), "2000:2000 33156");
    SetLogLevel(3);
}

}  // namespace

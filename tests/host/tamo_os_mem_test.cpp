/* Monitored memory, and the account of it that processes show each other. */
#include "platform/tamo_os_mem.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "tamo_host.h"
#include "tests/support/child_process.h"
#include "tests/support/scratch_root.h"

namespace {

namespace fs = std::filesystem;

constexpr char kFile[] = "tamo_os_mem_test";

void *take(size_t size, uint32_t line, const char *file = kFile) {
    return OsMemMallocSetCharMon(size, 0, 0, 0, line, file);
}

uint32_t give(void *block) {
    return OSMemTypeFreeMon(block, 0, 0, __LINE__, kFile);
}

using Sites = std::vector<TamoHostMemSite>;

Sites sitesOf(uint32_t pid) {
    Sites sites;
    EXPECT_EQ(TamoHostMemReport(
                  pid,
                  [](const TamoHostMemSite *site, void *context) {
                      static_cast<Sites *>(context)->push_back(*site);
                      return 0u;
                  },
                  &sites),
              0u);
    return sites;
}

/* "blocks/bytes" of one statement. */
std::string account(uint32_t pid, uint32_t line, const std::string &file = kFile) {
    for (const TamoHostMemSite &site : sitesOf(pid)) {
        if (site.line == line && site.file == file) {
            return std::to_string(site.blocks) + "/" + std::to_string(site.bytes);
        }
    }
    return "none";
}

uint32_t stopAtOnce(const TamoHostMemSite *, void *) {
    return 7;
}

fs::path tableOf(pid_t pid) {
    return fs::path(support::scratchRoot()) / "run" / ("mem." + std::to_string(pid));
}

std::string contents(const fs::path &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(Memory, BlocksAreZeroedAlignedAndOfPossibleSizes) {
    for (size_t size : std::initializer_list<size_t>{0, 1, 17, 4096, 5000000, 5000000}) {
        auto *block = static_cast<char *>(take(size, 1));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t), 0u);
        EXPECT_TRUE(std::all_of(block, block + size, [](char c) { return c == 0; })) << size;
        std::fill(block, block + size, 'x');
        EXPECT_EQ(give(block), 0u);
    }
    for (size_t size : {SIZE_MAX, SIZE_MAX - 15, SIZE_MAX - 16, SIZE_MAX / 2}) {
        EXPECT_EQ(take(size, 2), nullptr);
    }
    EXPECT_NE(give(nullptr), 0u);
    EXPECT_EQ(account(0, 1) + account(0, 2), "nonenone");
}

TEST(Memory, SecondReleaseAndForeignPointerAreRefusedWithARecord) {
    void *other = take(100, 3);
    void *block = take(100, 3);
    alignas(std::max_align_t) char foreign[64] = {};
    EXPECT_EQ(give(block), 0u);
    for (void *wrong :
         {block, static_cast<void *>(foreign + 32), static_cast<void *>(foreign + 33)}) {
        testing::internal::CaptureStderr();
        EXPECT_NE(OSMemTypeFreeMon(wrong, 0, 0, 4711, "culprit"), 0u);
        EXPECT_NE(testing::internal::GetCapturedStderr().find("culprit:4711"), std::string::npos);
    }
    EXPECT_EQ(account(0, 3), "1/100");
    EXPECT_EQ(give(other), 0u);
}

/* Takes a block, and ends when it is told to. */
const support::ChildRole holder("holder", [](const support::ChildArguments &) {
    void *block = take(1000, 30, "holder");
    support::tellParent("ready");
    support::hearParent();
    give(block);
    return 0;
});

TEST(Account, IsReadByAnotherProcessWhileItsProcessLives) {
    for (const bool isKilled : {false, true}) {
        support::ChildProcess child("holder");
        const pid_t pid = child.pid();
        const auto id = static_cast<uint32_t>(pid);
        ASSERT_EQ(child.hear(), "ready");
        EXPECT_EQ(account(id, 30, "holder"), "1/1000");
        EXPECT_EQ(TamoHostMemReport(id, stopAtOnce, nullptr), 7u);
        EXPECT_EQ(TamoHostMemReport(id, nullptr, nullptr), uint32_t{TAMO_HOST_INVALID});
        fs::resize_file(tableOf(pid), 0);
        EXPECT_EQ(TamoHostMemReport(id, stopAtOnce, nullptr), uint32_t{TAMO_HOST_NO_RECEIVER})
            << "somebody cut its file, which harms only its report";
        if (isKilled) {
            child.kill();
        } else {
            child.tell("end");
            EXPECT_EQ(child.wait(), support::exited(0));
        }
        EXPECT_EQ(fs::exists(tableOf(pid)), isKilled);
        EXPECT_EQ(TamoHostMemReport(id, stopAtOnce, nullptr), uint32_t{TAMO_HOST_NO_RECEIVER});
        ASSERT_EQ(mkfifo(tableOf(INT32_MAX).c_str(), 0600), 0);
        support::ChildProcess next("holder");
        ASSERT_EQ(next.hear(), "ready") << "nobody writes to that pipe";
        EXPECT_FALSE(fs::exists(tableOf(pid))) << "the next process cleans up";
        EXPECT_FALSE(fs::exists(tableOf(INT32_MAX)));
    }
}

void *volatile outstanding[2]; /* no leak for others than the account */

/* Its standard error becomes the file that it is given. */
const support::ChildRole leaker("leaker", [](const support::ChildArguments &arguments) {
    if (freopen(arguments.at(0).c_str(), "w", stderr) == nullptr) {
        return 1;
    }
    setenv("TAMO_DEVICE_ROOT", arguments.at(1).c_str(), 1);
    setenv("TAMO_MEM_REPORT", "1", 1);
    give(take(7, 60, "leaker"));
    outstanding[0] = take(300, 61, "leaker");
    outstanding[1] = take(200, 61, "leaker");
    return 0;
});

TEST(Account, IsPrintedAtTheEndOnRequestAlsoWithoutAUsableDeviceRoot) {
    const support::ScratchDirectory directory;
    const std::string output = directory.path() + "/stderr";
    support::ChildProcess child("leaker", {output, "/dev/null/root"});
    EXPECT_EQ(child.wait(), support::exited(0));
    const std::string said = contents(output);
    EXPECT_NE(said.find("leaker:61: 2 blocks, 500 bytes"), std::string::npos) << said;
    EXPECT_EQ(said.find("leaker:60"), std::string::npos);
}

}  // namespace

/* The harness itself: what must make a test red does, and the forwarding platform fails calls as
 * their contracts say. Red tests run in a child, which tells what made them red. */
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <filesystem>
#include <map>
#include <thread>

#include "tests/support/allocation_count.h"
#include "tests/support/child_process.h"
#include "tests/support/deadline.h"
#include "tests/support/forwarding_platform.h"
#include "tests/support/open_descriptors.h"
#include "tests/support/scratch_root.h"

namespace {

using platform::PlatformTest;
using support::ChildArguments;
using support::ChildProcess;
using support::ChildRole;
using support::exited;
using support::killed;

void *take() {
    return OsMemMallocSetCharMon(16, 0, 0, 0, __LINE__, "support_test");
}

void give(void *block) {
    OSMemTypeFreeMon(block, 0, 0, __LINE__, "support_test");
}

/* ---- children ---- */

const ChildRole echo("echo", [](const ChildArguments &arguments) {
    support::tellParent("ready " + support::scratchRoot());
    for (std::string line = support::hearParent(); !line.empty(); line = support::hearParent()) {
        support::tellParent(arguments.at(0) + line);
    }
    return 7;
});

const ChildRole silent("silent", [](const ChildArguments &) {
    support::hearParent();
    return 0;
});

TEST(ChildProcessTest, TalksUnderItsParentsRootAndReportsItsEnd) {
    ChildProcess child("echo", {"> "});
    EXPECT_EQ(child.hear(), "ready " + support::scratchRoot());
    child.tell("one");
    child.tell("two");
    EXPECT_EQ(child.hear(), "> one");
    EXPECT_EQ(child.hear(), "> two");
    child.hangUp();
    EXPECT_EQ(child.wait(), exited(7));
}

TEST(ChildProcessTest, AKilledChildIsHeardAtOnce) {
    const support::DescriptorCheck descriptors;
    ChildProcess child("echo", {""});
    child.hear();
    child.signal(SIGKILL);
    EXPECT_EQ(child.hear(), "");
    EXPECT_EQ(child.wait(), killed(SIGKILL));
}

/* ---- what must be red ---- */

class BlocksLeft : public PlatformTest {
    void TestBody() override { take(); }
};

class DescriptorLeft : public testing::Test {
    void TestBody() override {
        const support::DescriptorCheck check;
        ASSERT_GE(dup(0), 0);
    }
};

class ChildCrashed : public testing::Test {
    void TestBody() override {
        ChildProcess child("killed");
        EXPECT_EQ(child.wait(), exited(0));
    }
};

class ChildSilent : public testing::Test {
    void TestBody() override {
        setenv("TEST_SLOWDOWN", "0.001", 1);
        ChildProcess child("silent");
        child.hear();
    }
};

class ChildHangs : public testing::Test {
    void TestBody() override {
        setenv("TEST_SLOWDOWN", "0.001", 1);
        ChildProcess child("silent");
        child.wait();
    }
};

class LoopLeavesBlocks : public PlatformTest {
    void TestBody() override {
        platform::forEachFailure(
            "OsMemMallocSetCharMon", [] {},
            [] {
                take();
                return take();
            },
            [](uint64_t, void *) {}, give);
        allowOutstandingBlocks();
    }
};

class LoopReachesNothing : public PlatformTest {
    void TestBody() override {
        platform::forEachFailure(
            "OsFopen", [] {}, [] { return 0; }, [](uint64_t, int) {});
    }
};

template <typename Red>
testing::Test *make() {
    return new Red;
}

const std::map<std::string, testing::Test *(*)()> redTests = {
    {"BlocksLeft", make<BlocksLeft>},
    {"DescriptorLeft", make<DescriptorLeft>},
    {"ChildCrashed", make<ChildCrashed>},
    {"ChildSilent", make<ChildSilent>},
    {"ChildHangs", make<ChildHangs>},
    {"LoopLeavesBlocks", make<LoopLeavesBlocks>},
    {"LoopReachesNothing", make<LoopReachesNothing>},
};

class TellFailures : public testing::EmptyTestEventListener {
    void OnTestPartResult(const testing::TestPartResult &result) override {
        std::string message = result.message();
        std::replace(message.begin(), message.end(), '\n', ' ');
        support::tellParent(message);
    }
};

const ChildRole killedRole("killed", [](const ChildArguments &) { return raise(SIGKILL); });

const ChildRole red("red", [](const ChildArguments &arguments) -> int {
    testing::InitGoogleTest();
    const auto factory = redTests.at(arguments.at(0));
    testing::RegisterTest("Red", arguments[0].c_str(), nullptr, nullptr, __FILE__, __LINE__,
                          [factory] { return factory(); });
    testing::GTEST_FLAG(filter) = "Red.*";
    auto &listeners = testing::UnitTest::GetInstance()->listeners();
    delete listeners.Release(listeners.default_result_printer());
    listeners.Append(new TellFailures);
    const int result = RUN_ALL_TESTS();
    // Not by exit: what the red tests leak is not this test's fault.
    _exit(result);
});

TEST(HarnessTest, WhatMustBeRedIs) {
    const std::pair<const char *, const char *> cases[] = {
        {"BlocksLeft", "blocks taken and not released: 1"},
        {"DescriptorLeft", "was left open"},
        {"ChildCrashed", "signal 9"},
        {"ChildSilent", "said nothing in time"},
        {"ChildHangs", "did not end in time"},
        {"LoopLeavesBlocks", "blocks were left, or released twice"},
        {"LoopReachesNothing", "the operation was never called"},
    };
    for (const auto &[name, reason] : cases) {
        ChildProcess child("red", {name});
        const std::string heard = child.hear();
        EXPECT_NE(heard.find(reason), std::string::npos) << name << " said: " << heard;
        EXPECT_EQ(child.wait(), exited(1)) << name;
    }
}

const ChildRole rooted("rooted", [](const ChildArguments &) {
    support::beginScratchRoot();
    support::tellParent(support::scratchRoot());
    return raise(SIGKILL);
});

TEST(HarnessTest, ADeviceRootIsPrivateAndGoesWithAKilledProgram) {
    struct stat status;
    ASSERT_EQ(stat(support::scratchRoot().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700u);

    const support::ScratchDirectory place;
    const int events = inotify_init1(IN_CLOEXEC);
    ASSERT_GE(inotify_add_watch(events, place.path().c_str(), IN_DELETE), 0);
    const char *before = getenv("TMPDIR");
    const std::string saved = before != nullptr ? before : "";
    setenv("TMPDIR", place.path().c_str(), 1);
    ChildProcess child("rooted");
    before != nullptr ? setenv("TMPDIR", saved.c_str(), 1) : unsetenv("TMPDIR");
    const std::string root = child.hear();
    EXPECT_EQ(root.rfind(place.path(), 0), 0u) << root;
    EXPECT_EQ(child.wait(), killed(SIGKILL));
    while (std::filesystem::exists(root)) {
        pollfd entry{events, POLLIN, 0};
        ASSERT_EQ(poll(&entry, 1, static_cast<int>(support::patience().count())), 1);
        char event[1024];
        ASSERT_GT(read(events, event, sizeof(event)), 0);
    }
    close(events);
}

TEST(HarnessTest, AllocationsAreCountedPerThread) {
    const support::AllocationCount count;
    EXPECT_EQ(count.taken(), 0u);
    uint64_t elsewhere = 0;
    std::thread([&elsewhere] {
        const support::AllocationCount own;
        void *volatile block = malloc(64);  // volatile: else the compiler takes none
        free(block);
        elsewhere = own.taken();
    }).join();
    EXPECT_GE(elsewhere, 1u);
    const uint64_t thread = count.taken();  // the thread's own state
    std::string *volatile text = new std::string(100, 'x');
    delete text;
    EXPECT_GE(count.taken(), thread + 1);
}

/* ---- the forwarding platform ---- */

using ForwardingTest = PlatformTest;

TEST_F(ForwardingTest, FailedCallsFollowTheContract) {
    char text[8] = "before";
    platform::failCall("strcpy_s", 2);
    EXPECT_EQ(strcpy_s(text, sizeof(text), "first"), 0);
    EXPECT_NE(strcpy_s(text, sizeof(text), "second"), 0);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(strcpy_s(text, sizeof(text), "third"), 0);
    EXPECT_EQ(platform::callCount("strcpy_s"), 3u);

    std::array<char, 4> bytes = {1, 2, 3, 4};
    platform::failEveryCall("memcpy_s");
    EXPECT_NE(memcpy_s(bytes.data(), bytes.size(), "ab", 2), 0);
    EXPECT_EQ(bytes, (std::array<char, 4>{}));
    EXPECT_NE(memcpy_s(nullptr, 4, "ab", 2), 0);

    platform::failCall("sprintf_s", 1);
    EXPECT_EQ(sprintf_s(text, sizeof(text), "%d", 5), -1);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(sprintf_s(text, sizeof(text), "%d%%%s", 5, "x"), 3);
    EXPECT_STREQ(text, "5%x");

    platform::failCall("OsMemMallocSetCharMon", 1);
    EXPECT_EQ(take(), nullptr);
    EXPECT_TRUE(platform::failureReached("OsMemMallocSetCharMon"));
    EXPECT_EQ(platform::outstanding(), 0);
}

TEST_F(ForwardingTest, ReplacementsSeeTheCallAndCanReachThePlatform) {
    platform::override(strncpy_s, [](char *dst, size_t size, const char *src, size_t count) {
        return platform::next(strncpy_s)(dst, size, src, count - 1);
    });
    char text[8];
    EXPECT_EQ(strncpy_s(text, sizeof(text), "abc", 3), 0);
    EXPECT_STREQ(text, "ab");

    std::string printed;
    platform::override(sprintf_s, [&](char *, size_t, const char *finished) {
        printed = finished;
        return 0;
    });
    EXPECT_EQ(sprintf_s(text, sizeof(text), "%s-%d", "n", 1), 0);
    EXPECT_EQ(printed, "n-1");
    platform::reset();
    EXPECT_EQ(sprintf_s(text, sizeof(text), "%s", "real"), 4);
    EXPECT_STREQ(text, "real");
}

TEST_F(ForwardingTest, ThePlatformsOwnCallsAreNotTheLibrarys) {
    const uint16_t wide[] = {'a', 0};
    platform::failCall("OsMemMallocSetCharMon", 1);
    char *text = MOX_UnicodeToUtf8(wide);
    ASSERT_STREQ(text, "a");
    EXPECT_FALSE(platform::failureReached("OsMemMallocSetCharMon"));
    EXPECT_EQ(platform::outstanding(), 1);
    give(text);
}

TEST_F(ForwardingTest, RecordsAreKept) {
    TamoOmLogModuleLogRecord(2, 9, "a_unit", 6, 77, "%s and %d", "text", 3);
    ASSERT_EQ(platform::records().size(), 1u);
    const platform::Record record = platform::records()[0];
    EXPECT_EQ(record.text, "text and 3");
    EXPECT_EQ(record.line, 77);
    EXPECT_EQ(record.logFileId, 9);
    EXPECT_TRUE(platform::hasRecord(2, "a_unit", "and"));
    EXPECT_FALSE(platform::hasRecord(1, "a_unit", "and"));
}

TEST_F(ForwardingTest, OneCallOfManyThreadsFails) {
    std::atomic<int> failures{0};
    platform::failCall("OsMutexLock", 500);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&failures] {
            OsMutex mutex{};
            for (int round = 0; round < 250; ++round) {
                OsMutexLock(&mutex) == 0 ? OsMutexUnLock(&mutex)
                                         : static_cast<uint32_t>(failures.fetch_add(1));
            }
        });
    }
    for (std::thread &each : threads) {
        each.join();
    }
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(platform::callCount("OsMutexLock"), 1000u);
}

TEST_F(ForwardingTest, TheLoopVisitsEveryFailure) {
    std::vector<uint64_t> visited;
    const uint64_t failures = platform::forEachFailure(
        "OsMemMallocSetCharMon", [] {},
        [] {
            void *first = take();
            void *second = first != nullptr ? take() : nullptr;
            give(first);
            return second;
        },
        [&](uint64_t n, void *result) {
            EXPECT_EQ(result, nullptr);
            visited.push_back(n);
        },
        give);
    EXPECT_EQ(failures, 2u);
    EXPECT_EQ(visited, (std::vector<uint64_t>{1, 2}));
}

}  // namespace

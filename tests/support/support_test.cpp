/* The harness itself: what must make a test red does, and the forwarding platform fails calls as
 * their contracts say. Red tests run in a child, which tells what made them red. */
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <functional>

#include "tests/support/child_process.h"
#include "tests/support/forwarding_platform.h"
#include "tests/support/open_descriptors.h"

namespace {

using platform::PlatformTest;
using support::ChildArguments;
using support::ChildProcess;
using support::ChildRole;
using support::exited;

void *take() {
    return OsMemMallocSetCharMon(16, 0, 0, 0, __LINE__, "support_test");
}

void give(void *block) {
    OSMemTypeFreeMon(block, 0, 0, __LINE__, "support_test");
}

const ChildRole silent("silent", [](const ChildArguments &) {
    support::hearParent();
    return 0;
});

const ChildRole killedRole("killed", [](const ChildArguments &) { return raise(SIGKILL); });

/* ---- what must be red ---- */

struct Red {
    const char *name, *reason;
    std::function<void()> body;
};

const Red redTests[] = {
    {"BlocksLeft", "blocks taken and not released: 1", [] { take(); }},
    {"DescriptorLeft", "was left open",
     [] {
         const support::DescriptorCheck check;
         ASSERT_GE(dup(0), 0);
     }},
    {"ChildCrashed", "signal 9", [] { EXPECT_EQ(ChildProcess("killed").wait(), exited(0)); }},
    {"ChildSilent", "said nothing in time", [] { ChildProcess("silent").hear(0.01); }},
    {"LoopLeavesBlocks", "blocks were left, or released twice",
     [] {
         const auto takeTwo = [] {
             take();
             return take();
         };
         platform::forEachFailure(
             "OsMemMallocSetCharMon", [] {}, takeTwo, [](uint64_t, void *) {}, give);
     }},
    {"LoopReachesNothing", "the operation was never called",
     [] {
         platform::forEachFailure(
             "OsFopen", [] {}, [] { return 0; }, [](uint64_t, int) {});
     }},
};

class RedTest : public PlatformTest {
  public:
    explicit RedTest(const Red &red) : red_(red) {}
    void TestBody() override { red_.body(); }

  private:
    const Red &red_;
};

class TellFailures : public testing::EmptyTestEventListener {
    void OnTestPartResult(const testing::TestPartResult &result) override {
        std::string message = result.message();
        std::replace(message.begin(), message.end(), '\n', ' ');
        support::tellParent(message);
    }
};

const ChildRole redRole("red", [](const ChildArguments &arguments) -> int {
    testing::InitGoogleTest();
    const Red &red = redTests[std::stoul(arguments.at(0))];
    testing::RegisterTest("Red", red.name, nullptr, nullptr, __FILE__, __LINE__,
                          [&red]() -> PlatformTest * { return new RedTest(red); });
    testing::GTEST_FLAG(filter) = "Red.*";
    auto &listeners = testing::UnitTest::GetInstance()->listeners();
    delete listeners.Release(listeners.default_result_printer());
    listeners.Append(new TellFailures);
    const int result = RUN_ALL_TESTS();
    // Not by exit: what the red tests leak is not this test's fault.
    _exit(result);
});

TEST(HarnessTest, WhatMustBeRedIs) {
    for (size_t i = 0; i < std::size(redTests); ++i) {
        ChildProcess child("red", {std::to_string(i)});
        const std::string heard = child.hear();
        EXPECT_NE(heard.find(redTests[i].reason), std::string::npos)
            << redTests[i].name << " said: " << heard;
        EXPECT_EQ(child.wait(), exited(1)) << redTests[i].name;
    }
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
    platform::failCall("OsMemMallocSetCharMon", 1);
    EXPECT_EQ(take(), nullptr);
    EXPECT_TRUE(platform::failureReached("OsMemMallocSetCharMon"));
    EXPECT_EQ(platform::outstanding(), 0);
}

}  // namespace

/* The harness itself: what must make a test red does. */
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "tests/support/child_process.h"
#include "tests/support/open_descriptors.h"

namespace {

using support::ChildArguments;
using support::ChildProcess;
using support::ChildRole;
using support::exited;

const ChildRole silent("silent", [](const ChildArguments &) {
    support::hearParent();
    return 0;
});

const ChildRole killedRole("killed", [](const ChildArguments &) { return raise(SIGKILL); });

int leaveOneOpen() {
    const support::DescriptorCheck check;
    return dup(0);
}

TEST(HarnessTest, WhatMustBeRedIs) {
    static int left = -1;
    EXPECT_NONFATAL_FAILURE(left = leaveOneOpen(), "was left open");
    close(left);
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(ChildProcess("killed").wait(), exited(0)), "signal 9");
    EXPECT_NONFATAL_FAILURE(ChildProcess("silent").hear(0.01), "said nothing in time");
}

}  // namespace

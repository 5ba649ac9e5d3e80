/* The main of every test program. */
#include <gtest/gtest.h>

#include "child_process.h"
#include "scratch_root.h"

int main(int argc, char **argv) {
    const int childResult = support::runChildRole(argc, argv);
    if (childResult >= 0) {
        return childResult;
    }
    support::beginScratchRoot();
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    support::endScratchRoot();
    return result;
}

/* Signal masks of threads. */
#include "platform/tamo_os_signal.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <thread>

namespace {

bool isBlocked(int signal) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
}

TEST(TamoOsSignal, BlocksTheSetInTheCallingThreadOnly) {
    OsSigSet set, before;
    memset(&set, 0xFF, sizeof(set));
    ASSERT_EQ(OsSigEmptySet(&set), 0u);
    ASSERT_EQ(OsSigAddSet(&set, SIGUSR1), 0u);
    std::thread([&] {
        ASSERT_EQ(OsPthreadSigmask(0, &set, &before), 0u);
        EXPECT_TRUE(isBlocked(SIGUSR1));
        EXPECT_FALSE(isBlocked(SIGUSR2)) << "the set was emptied";
        ASSERT_EQ(OsSigAddSet(&set, SIGUSR2), 0u);
        ASSERT_EQ(OsPthreadSigmask(0, &set, nullptr), 0u);
        EXPECT_TRUE(isBlocked(SIGUSR2));
        ASSERT_EQ(OsPthreadSigmask(SIG_SETMASK, &before, nullptr), 0u);
        EXPECT_FALSE(isBlocked(SIGUSR1)) << "the mask of before came back";
    }).join();
    EXPECT_FALSE(isBlocked(SIGUSR1));
}

TEST(TamoOsSignal, RefusesWhatIsNoSignalOrSet) {
    OsSigSet set;
    ASSERT_EQ(OsSigEmptySet(&set), 0u);
    EXPECT_NE(OsSigAddSet(&set, 0), 0u);
    EXPECT_NE(OsSigAddSet(&set, 1000), 0u);
    EXPECT_NE(OsSigEmptySet(nullptr), 0u);
    EXPECT_NE(OsSigAddSet(nullptr, SIGUSR1), 0u);
    EXPECT_NE(OsPthreadSigmask(0, nullptr, &set), 0u);
    EXPECT_NE(OsPthreadSigmask(77, &set, nullptr), 0u);
}

}  // namespace

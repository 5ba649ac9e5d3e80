/* The test kit with GoogleTest: faults of the kit are failures of the running test, and a fixture begins
 * each test with a clean platform. See conference_testkit.h.
 *
 *     using VolumeTest = testkit::PlatformTest;
 *
 *     TEST_F(VolumeTest, IsRefusedWithoutMemory) {
 *         testkit::failEveryCall(OsMemMallocSetCharMon);
 *         EXPECT_EQ(rememberVolume(80), 1u);
 *     }
 */
#pragma once
#include <conference_testkit.h>
#include <gtest/gtest.h>

namespace testkit {

/* Base of fixtures: each test begins with a reset platform, and fails when it leaves blocks. */
class PlatformTest : public testing::Test {
  protected:
    void SetUp() override { reset(); }

    void TearDown() override {
        if (outstanding() != 0 && !blocksMayStay_) {
            ADD_FAILURE() << "blocks taken and not released: " << outstanding() << '\n'
                          << testing::PrintToString(outstandingBlocks());
        }
        release();
    }

    /* For a test that knows why blocks stay. */
    void allowOutstandingBlocks() { blocksMayStay_ = true; }

  private:
    bool blocksMayStay_ = false;
};

namespace detail {

/* Faults go to GoogleTest in every program that includes this header. */
inline const bool reportsToGoogleTest = [] {
    setReporter({[](const std::string &fault) { ADD_FAILURE() << fault; },
                 [](const std::string &text) {
                     return std::make_shared<testing::ScopedTrace>("", 0, text);
                 }});
    return true;
}();

}  // namespace detail

}  // namespace testkit

/* Runs the plain C user of the boundary. */
#include <gtest/gtest.h>

extern "C" int boundaryFromC(void);

namespace {

TEST(BoundaryTest, PlainCReachesEveryFunction) {
    EXPECT_EQ(boundaryFromC(), 0) << "the line of boundary_c.c that failed";
}

}  // namespace

/* Runs the plain C user of the boundary. */
#include <gtest/gtest.h>

extern "C" int boundaryFromC(void);
extern "C" int boundaryXmlFromC(void);

namespace {

TEST(BoundaryTest, PlainCReachesEveryFunction) {
    EXPECT_EQ(boundaryFromC(), 0) << "the line of boundary_c.c that failed";
    EXPECT_EQ(boundaryXmlFromC(), 0) << "the line of boundary_xml_c.c that failed";
}

}  // namespace

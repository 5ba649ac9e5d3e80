/* Checks and conversions of texts, on good, hostile and missing ones. */
#include "include/param_check.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include <conference_testkit_gtest.h>

namespace {

using std::string;

class ParamCheck : public testkit::PlatformTest {};

TEST_F(ParamCheck, AllowedCharactersAreAllPrintableButFour) {
    for (int c = 1; c < 256; c++) {
        const string text(1, static_cast<char>(c));
        const bool printable = c >= ' ' && c <= '~';
        const bool allowed = printable && c != '"' && c != '[' && c != '\\' && c != ']';
        EXPECT_EQ(ConfParamCheckContainValidChar(text.c_str(), 0), allowed ? 0u : 1u) << c;
        EXPECT_EQ(ConfParamCheckContainValidChar(text.c_str(), 9), isdigit(c) ? 0u : 1u) << c;
    }
    EXPECT_EQ(ConfParamCheckContainValidChar("a-b_c.d:e", 0), 0u);
    EXPECT_EQ(ConfParamCheckContainValidChar("12a", 1), 1u);
    EXPECT_EQ(ConfParamCheckContainValidChar("", 0), 1u);
    EXPECT_EQ(ConfParamCheckContainValidChar(nullptr, 0), 1u);
}

TEST_F(ParamCheck, AddressesOfBothFamilies) {
    EXPECT_EQ(ConfParamCheckValidIp("192.168.1.10"), 0u);
    EXPECT_EQ(ConfParamCheckValidIp("fe80::1"), 0u);
    for (const char *bad : {"192.168.1.256", "", "fe80::1%eth0", "1.2.3", " 1.2.3.4"}) {
        EXPECT_EQ(ConfParamCheckValidIp(bad), 1u) << bad;
        EXPECT_EQ(ConfParamCheckIpType(bad), -1) << bad;
    }
    EXPECT_EQ(ConfParamCheckIpType("10.0.0.1"), 2);
    testkit::replace(MOX_Socket_Get_AF_INET6, [] { return 4711; });
    EXPECT_EQ(ConfParamCheckIpType("::1"), 4711);
    EXPECT_EQ(ConfParamCheckValidIp(nullptr), 1u);
    EXPECT_EQ(ConfParamCheckIpType(nullptr), -1);
    EXPECT_TRUE(testkit::records().empty());
}

TEST_F(ParamCheck, CharactersAreCountedWhereTheyStart) {
    const string text = "ab\xE2\x82\xAC";
    EXPECT_EQ(ConfParamGetCharNum(text.data(), 5), 3u);
    EXPECT_EQ(ConfParamGetCharNum(text.data(), 3), 3u);
    EXPECT_EQ(ConfParamGetCharNum(text.data(), 0), 0u);
    const string odd("\x00\xC3\xA4\x80\xF0\xEF", 6);
    EXPECT_EQ(ConfParamGetCharNum(odd.data(), 6), 5u);
    EXPECT_EQ(ConfParamGetCharNum(nullptr, 5), 0u);
}

TEST_F(ParamCheck, WholeTextIsANumberOrTheDefault) {
    const std::pair<const char *, int32_t> cases[] = {{"0x1F", 31},
                                                      {"010", 8},
                                                      {" 42", 42},
                                                      {"-2147483648", INT32_MIN},
                                                      {"2147483647", INT32_MAX}};
    for (const auto &[text, number] : cases) {
        EXPECT_EQ(ConfGetAtoi(text, 5), number) << text;
    }
    EXPECT_TRUE(testkit::records().empty());
    for (const char *bad : {"42 ", "", "abc", "2147483648", "-2147483649", "08", "0x",
                            "99999999999999999999", static_cast<const char *>(nullptr)}) {
        testkit::clearRecords();
        EXPECT_EQ(ConfGetAtoi(bad, -5), -5);
        ASSERT_EQ(testkit::records().size(), 1u);
        EXPECT_EQ(testkit::records()[0].whole(), "[ConfGetAtoi]strtol failed. defaultValue:-5");
    }
}

TEST_F(ParamCheck, TrimRemovesWhiteSpaceAtBothEnds) {
    char text[] = "\tab c\r\n\v";
    ConfTrim(text);
    EXPECT_STREQ(text, "ab c");
    string longest(65535, ' ');
    longest[40000] = 'x';
    ConfTrim(longest.data());
    EXPECT_STREQ(longest.c_str(), "x");
    EXPECT_TRUE(testkit::records().empty());

    char blanks[] = "   ";
    ConfTrim(blanks);
    EXPECT_STREQ(blanks, "");
    EXPECT_TRUE(testkit::hasRecord(1, "param_check", "[ConfTrimRight]Invalid param."));
    testkit::clearRecords();
    ConfTrim(nullptr);
    EXPECT_TRUE(testkit::hasRecord(1, "param_check", "[ConfTrim]Invalid param."));
    string tooLong(65536, ' ');
    ConfTrim(tooLong.data());
    EXPECT_EQ(tooLong, string(65536, ' '));

    char refused[] = " a";
    testkit::failCall(memmove_s, 1);
    ConfTrim(refused);
    EXPECT_TRUE(testkit::hasRecord(1, "param_check", "[ConfTrimLeft]secure func failed, err = "));
}

}  // namespace

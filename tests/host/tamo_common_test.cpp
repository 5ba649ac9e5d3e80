/* Text and address services, and the system time beside the C library's. */
#include "platform/tamo_common.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <time.h>

#include <cstring>
#include <string>

#include "platform/tamo_os_mem.h"
#include "platform/tamo_os_time.h"
#include "platform/tamo_socket.h"

namespace {

TEST(TextServices, NullTextIsEmptyHoldsNothingAndSortsFirst) {
    EXPECT_EQ(KIRU_StrLen(nullptr), 0u);
    EXPECT_EQ(KIRU_StrLen("abc"), 3u);
    EXPECT_STREQ(KIRU_StrStr("abcbc", "bc"), "bcbc");
    EXPECT_EQ(KIRU_StrStr("abc", "x"), nullptr);
    EXPECT_EQ(KIRU_StrStr(nullptr, "x"), nullptr);
    EXPECT_EQ(KIRU_StrStr("abc", nullptr), nullptr);
    for (auto compare : {KIRU_StrCmp, KIRU_StriCmp}) {
        EXPECT_LT(compare(nullptr, ""), 0);
        EXPECT_GT(compare("", nullptr), 0);
        EXPECT_EQ(compare(nullptr, nullptr), 0);
        EXPECT_EQ(compare("ab", "ab"), 0);
        EXPECT_LT(compare("ab", "abc"), 0);
        EXPECT_LT(compare("z", "\xC3\xA9"), 0) << "bytes are unsigned";
    }
    EXPECT_NE(KIRU_StrCmp("Name", "nAME"), 0);
    EXPECT_EQ(KIRU_StriCmp("Name", "nAME"), 0);
    EXPECT_LT(KIRU_StriCmp("_", "A"), 0) << "letters compare as lower case";
    EXPECT_NE(KIRU_StriCmp("\xC3\x89", "\xC3\xA9"), 0) << "ASCII letters only";
}

TEST(TextServices, NumberIsTheWholeTextWithinRange) {
    const struct {
        const char *text;
        int32_t number; /* 77: not one */
    } cases[] = {{"-0", 0},          {" \t+42", 42},
                 {"010", 10},        {"2147483647", INT32_MAX},
                 {"2147483648", 77}, {"-2147483648", INT32_MIN},
                 {"-", 77},          {"-2147483649", 77},
                 {"", 77},           {"99999999999999999999", 77},
                 {"1 ", 77},         {"+ 1", 77},
                 {"--1", 77},        {"0x10", 77},
                 {"1.5", 77},        {nullptr, 77}};
    for (const auto &[text, number] : cases) {
        int32_t value = 77;
        EXPECT_EQ(KIRU_StrToInt32(text, &value) == 0, number != 77);
        EXPECT_EQ(value, number);
    }
    EXPECT_NE(KIRU_StrToInt32("1", nullptr), 0);
}

std::string utf8(const char16_t *text) {
    char *converted = MOX_UnicodeToUtf8(reinterpret_cast<const uint16_t *>(text));
    const std::string result = converted;
    EXPECT_EQ(OSMemTypeFreeMon(converted, 0, 0, __LINE__, "tamo_common_test"), 0u);
    return result;
}

TEST(TextServices, WideTextBecomesUtf8) {
    EXPECT_EQ(utf8(u""), "");
    EXPECT_EQ(utf8(u"\u007F\u0080\u07FF\u0800\uFFFF"),
              "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF");
    EXPECT_EQ(utf8(u"a\U00010000\U0010FFFFz"), "a\xF0\x90\x80\x80\xF4\x8F\xBF\xBFz");
    const std::string replaced = "\xEF\xBF\xBD";
    const char16_t lone[] = {0xDC00, 'a', 0xD800, 'b', 0xD800, 0xD800, 0xDC00, 0xD8FF, 0};
    EXPECT_EQ(utf8(lone),
              replaced + "a" + replaced + "b" + replaced + "\xF0\x90\x80\x80" + replaced);
    EXPECT_EQ(MOX_UnicodeToUtf8(nullptr), nullptr);
}

TEST(AddressTexts, FamiliesAreTheDevicesNumbers) {
    uint8_t binary[16] = {0, 0, 0, 0, 0xEE};
    EXPECT_EQ(KIRU_Inet_Pton(2, "192.168.1.10", binary), 1);
    EXPECT_EQ(memcmp(binary, "\xC0\xA8\x01\x0A\xEE", 5), 0);
    EXPECT_EQ(KIRU_Inet_Pton(23, "fe80::1", binary), 1);
    EXPECT_EQ(binary[0] << 8 | binary[15], 0xFE01);
    const struct {
        int32_t family;
        const char *text;
        int32_t result;
    } cases[] = {{2, "192.168.1.256", 0}, {2, "1.2.3", 0},      {2, "", 0},
                 {2, "1.2.3.4 ", 0},      {2, "fe80::1", 0},    {23, "1.2.3.4", 0},
                 {23, nullptr, 0},        {AF_INET6, "::1", -1}};
    for (const auto &[family, text, result] : cases) {
        EXPECT_EQ(KIRU_Inet_Pton(family, text, binary), result) << family;
    }
    EXPECT_EQ(KIRU_Inet_Pton(2, "1.2.3.4", nullptr), -1);
    EXPECT_EQ(MOX_Socket_Get_AF_INET6(), AF_INET6);
}

/* In the time zone of the moment. */
TEST(SystemTime, IsTheCurrentTime) {
    for (const char *zone : {"UTC0", "XXX-5:30", "YYY+11"}) {
        setenv("TZ", zone, 1);
        OsTimeEx now;
        const time_t before = time(nullptr);
        OsGetTimeEx(&now);
        tm fields = {};
        const uint32_t from[] = {now.seconds, now.minutes, now.hours, now.day, now.month, now.year};
        int *to[] = {&fields.tm_sec,  &fields.tm_min, &fields.tm_hour,
                     &fields.tm_mday, &fields.tm_mon, &fields.tm_year};
        for (size_t i = 0; i < std::size(to); ++i) {
            *to[i] = static_cast<int>(from[i]);
        }
        fields.tm_isdst = -1;
        EXPECT_TRUE(mktime(&fields) >= before && mktime(&fields) <= time(nullptr)) << zone;
        EXPECT_LT(now.milliseconds, 1000u);
    }
    OsGetTimeEx(nullptr);
}

}  // namespace

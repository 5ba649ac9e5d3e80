/* Text and address services, and the system time beside the C library's. */
#include "platform/tamo_common.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <time.h>

#include <cstring>
#include <string>
#include <utility>

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
    const std::pair<const char *, int32_t> good[] = {{"-0", 0},
                                                     {" \t+42", 42},
                                                     {"010", 10},
                                                     {"2147483647", INT32_MAX},
                                                     {"-2147483648", INT32_MIN}};
    for (const auto &[text, number] : good) {
        int32_t value = 77;
        EXPECT_EQ(KIRU_StrToInt32(text, &value), 0) << text;
        EXPECT_EQ(value, number);
    }
    for (const char *text : {"2147483648", "-2147483649", "99999999999999999999999", "", "-", "+ 1",
                             "--1", "1 ", "0x10", "1.5", static_cast<const char *>(nullptr)}) {
        int32_t value = 77;
        EXPECT_NE(KIRU_StrToInt32(text, &value), 0);
        EXPECT_EQ(value, 77);
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
    uint8_t binary[16];
    memset(binary, 0xEE, sizeof(binary));
    EXPECT_EQ(KIRU_Inet_Pton(2, "192.168.1.10", binary), 1);
    const uint8_t four[5] = {192, 168, 1, 10, 0xEE};
    EXPECT_EQ(memcmp(binary, four, sizeof(four)), 0);
    EXPECT_EQ(KIRU_Inet_Pton(23, "fe80::1", binary), 1);
    EXPECT_EQ(binary[0] << 8 | binary[15], 0xFE01);

    for (const char *text : {"192.168.1.256", "1.2.3", "", "1.2.3.4 ", "fe80::1"}) {
        EXPECT_EQ(KIRU_Inet_Pton(2, text, binary), 0) << text;
    }
    EXPECT_EQ(KIRU_Inet_Pton(23, "1.2.3.4", binary), 0);
    EXPECT_EQ(KIRU_Inet_Pton(23, nullptr, binary), 0);
    EXPECT_EQ(KIRU_Inet_Pton(AF_INET6, "fe80::1", binary), -1);
    EXPECT_EQ(KIRU_Inet_Pton(2, "1.2.3.4", nullptr), -1);
    EXPECT_EQ(MOX_Socket_Get_AF_INET6(), AF_INET6);
}

TEST(SystemTime, IsTheCurrentTimeInTheTimeZoneOfTheMoment) {
    for (const char *zone : {"UTC0", "XXX-5:30", "YYY+11"}) {
        setenv("TZ", zone, 1);
        timespec before, after;
        OsTimeEx now;
        clock_gettime(CLOCK_REALTIME, &before);
        OsGetTimeEx(&now);
        clock_gettime(CLOCK_REALTIME, &after);
        tm fields = {};
        fields.tm_sec = static_cast<int>(now.seconds);
        fields.tm_min = static_cast<int>(now.minutes);
        fields.tm_hour = static_cast<int>(now.hours);
        fields.tm_mday = static_cast<int>(now.day);
        fields.tm_mon = static_cast<int>(now.month);
        fields.tm_year = static_cast<int>(now.year);
        fields.tm_isdst = -1;
        const time_t seconds = mktime(&fields);
        EXPECT_TRUE(seconds >= before.tv_sec && seconds <= after.tv_sec) << zone;
        EXPECT_LT(now.milliseconds, 1000u);
    }
    OsGetTimeEx(nullptr);
}

}  // namespace

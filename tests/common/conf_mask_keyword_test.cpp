/* Masking: examples, and what no copy may leave behind. The fuzz program holds the operations to their
 * model. */
#include "include/conf_mask_keyword.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

#include <conference_testkit_gtest.h>

namespace {

using std::string;

class MaskKeyword : public testkit::PlatformTest {};

/* The masked text; what is behind it must be gone. */
string masked(decltype(&ConfFilterStr) filter, const string &source) {
    string buffer(512, 'x');
    EXPECT_EQ(filter(source.c_str(), buffer.data(), 512), 0u) << source;
    const string text = buffer.c_str();
    EXPECT_EQ(buffer, text + string(512 - text.size(), '\0'));
    return text;
}

string maskedValues(string text, const string &key, const string &endMark) {
    ConfFilterNonSecurityWordEx(text.data(), key.c_str(), endMark.c_str());
    return text;
}

/* The text with the registered address replaced; the rest of the block must be zero. */
string replaced(const string &text) {
    char *out = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(ConfReplaceIPAddrStr(text.c_str(), &out, &length), 0u);
    const string result(out, length);
    EXPECT_EQ(string(out, text.size() + 100), result + string(text.size() + 100 - length, '\0'));
    EXPECT_EQ(OSMemTypeFreeMon(out, 0, 0, __LINE__, "test"), 0u);
    return result;
}

TEST_F(MaskKeyword, TextsAndAddresses) {
    const char *const cases[][3] = {
        {"::1", "::1", "::1"},
        {"abcdef", "a***ef", "a***ef"},
        {"1::2:3", "1***:3", "1***:3"},
        {"1.2.3.400", "1.2****00", "1.2****00"},
        {"abcdefghij", "abcd****ij", "abcd****ij"},
        {"192.168.1.10", "192******10", "192.**.**.10"},
        {"1.2.3.4", "1.***.4", "1.**.**.4"},
        {"1:2:3:4:5:6:7:8", "1:2******:8", "1:****:****:****:****:****:7:8"},
        {"fe80::1:2:3", "fe8******:3", "fe80:****:2:3"},
        {"::ffff:192.168.1.10", "::f******10", "::f******10"}};
    for (const auto &[source, text, address] : cases) {
        EXPECT_EQ(masked(ConfFilterStr, source), text);
        EXPECT_EQ(masked(ConfFilterIPAddrStr, source), address);
    }
    EXPECT_EQ(masked(ConfFilterStr, string(4000, 'a') + "bc"), "aaa******bc");
    char small[129] = "as it was";
    EXPECT_EQ(ConfFilterStr("abc", small, 128), 1u);
    EXPECT_EQ(ConfFilterIPAddrStr("abc", small, 128), 1u);
    EXPECT_STREQ(small, "as it was");
}

TEST_F(MaskKeyword, RefusedOperationsAreFailures) {
    const char *name = "a-host-name", *ipv4 = "10.2.3.4", *ipv6 = "fe80::1:2:3";
    const std::pair<const char *, const char *> cases[] = {
        {"memcpy_s", ipv4},  {"sprintf_s", ipv4},
        {"sprintf_s", ipv6}, {"strncpy_s", ipv6},
        {"strcat_s", ipv6},  {"memset_s", ipv6},
        {"memcpy_s", name},  {"OsMemMallocSetCharMon", name}};
    for (const auto &[operation, address] : cases) {
        testkit::forEachFailure(
            operation, [text = address] { EXPECT_EQ(ConfFilterSetIPStr(text), 0u); },
            [] {
                char *out = nullptr;
                uint32_t length = 0;
                const uint32_t result = ConfReplaceIPAddrStr("fe80::1:2:3 is", &out, &length);
                OSMemTypeFreeMon(out, 0, 0, __LINE__, "test");
                return result;
            },
            [](uint64_t, uint32_t result) { EXPECT_EQ(result, 1u); });
    }
    static char buffer[CONF_MASK_SIZE];
    testkit::forEachFailure(
        memset_s, [] {}, [] { return ConfFilterStr("fifteen letters", buffer, sizeof(buffer)); },
        [](uint64_t, uint32_t result) { EXPECT_EQ(result, 1u); });
    testkit::failCall(memcpy_s, 1);
    EXPECT_EQ(ConfFilterIPAddrStr(name, buffer, sizeof(buffer)), 1u);
    EXPECT_TRUE(
        testkit::hasRecord(1, "conf_mask_keyword", "[ConfFilterIPAddrStr]ConfFilterStr fail.\n"));
}

TEST_F(MaskKeyword, ValuesBehindAKey) {
    const char *const cases[][4] = {
        {"tel:", ">", "To: <tel:abcdefghij>", "To: <tel:abcd****ij>"},
        {"tel:", ">", "tel:abcd\r>tel:abcdef", "tel:ab*d\r>tel:abcdef"},
        {"tel:", "longer than the rest", "tel:\r", "tel:\r"},
        {"name=", ";", "name=abcdefgh;next=1;", "name=ab****gh;next=1;"},
        {"name=", ";", "name=;name=abcd;name=abcd", "name=;name=ab*d;name=abcd"},
        {"key=", ";", "key=abc\r\nkey=abcdefgh;", "key=abc\r\nkey=ab****gh;"},
        {"key=", "**", "key=abcdkey=abcde**", "key=abc********de**"},
        {"x-eid=", ">", "x-eid=abcd;efghijk>", "x-eid=ab*d;ef***jk>"},
        {"x-eid=", ">", "x-eid=abcd>", "x-eid=ab*d>"},
        {"x-eid=", ">", "x-eid=abcd>efg;hijklmn;o", "x-eid=ab****fg;hi***mn;o"},
        {"x-eid=", ">", "x-eid=abcd;efgh;>\r;ijkl;", "x-eid=ab*d;ef*h;>\r;ijkl;"},
        {"x-eid=", ">", "x-eid=abcd;e>\rx-eid=abcd;efghijk>", "x-eid=ab*d;e>\rx-eid=ab*d;ef***jk>"},
        {"", ";", "key=abcd;", "key=abcd;"},
        {"other", ";", "key=abcd;", "key=abcd;"}};
    for (const auto &[key, endMark, text, expected] : cases) {
        EXPECT_EQ(maskedValues(text, key, endMark), expected);
    }
    ConfFilterNonSecurityWordEx(nullptr, "key=", ";");
}

TEST_F(MaskKeyword, RegisteredAddressIsReplacedWhereThereIsRoom) {
    ASSERT_EQ(ConfFilterSetIPStr("192.168.1.10"), 0u);
    EXPECT_EQ(ConfFilterSetIPStr(string(45, '1').c_str()), 1u) << "the address of before stays";
    EXPECT_EQ(replaced("peer 192.168.1.10 lost, retry 192.168.1.10"),
              "peer 192.**.**.10 lost, retry 192.**.**.10");
    EXPECT_EQ(replaced("nobody"), "nobody");

    /* Each replacement makes the text 15 longer, and the block has 100 bytes more than the text. */
    ASSERT_EQ(ConfFilterSetIPStr("1:2:3:4:5:6:7:8"), 0u);
    const string form = "1:****:****:****:****:****:7:8";
    string text, expected;
    for (int i = 0; i < 7; i++) {
        text += "1:2:3:4:5:6:7:8 ";
        expected += i < 6 ? form + " " : "";
    }
    EXPECT_EQ(replaced(text), expected);

    char *out = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(ConfFilterSetIPStr(""), 0u);
    EXPECT_EQ(ConfReplaceIPAddrStr("text", &out, &length), 1u);
    EXPECT_EQ(out, nullptr);
}

}  // namespace

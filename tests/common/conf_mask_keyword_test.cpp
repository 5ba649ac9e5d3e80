/* Masking: what no copy may leave behind, and the operations beside their model. */
#include "include/conf_mask_keyword.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tests/common/mask_model.h"
#include "tests/support/forwarding_platform.h"

namespace {

using std::string;

class MaskKeyword : public platform::PlatformTest {};

string generate(const std::vector<string> &pieces, size_t most) {
    static std::mt19937 random(4711);
    string text;
    for (size_t left = random() % most; left > 0; left--) {
        text += pieces[random() % pieces.size()];
    }
    return text;
}

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
        platform::forEachFailure(
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
    char buffer[CONF_MASK_SIZE];
    platform::failCall("memcpy_s", 1);
    EXPECT_EQ(ConfFilterIPAddrStr(name, buffer, sizeof(buffer)), 1u);
    EXPECT_TRUE(
        platform::hasRecord(1, "conf_mask_keyword", "[ConfFilterIPAddrStr]ConfFilterStr fail.\n"));
}

TEST_F(MaskKeyword, ValuesAreMaskedAsTheStepsSay) {
    EXPECT_EQ(maskedValues("x-eid=abcd>efg;hijklmn;o", "x-eid=", ">"), "x-eid=ab****fg;hi***mn;o");
    EXPECT_EQ(maskedValues("tel:\r", "tel:", "longer than the rest"), "tel:\r");
    EXPECT_EQ(maskedValues("key=abcd;", "", ";"), "key=abcd;");
    for (const string key : {"tel:", "x-eid=", "-eid", "*-eid", "k=", "k"}) {
        for (const string endMark : {">", ";", "\r\n", "*", "**", ">k", "ij", "not there"}) {
            for (int i = 0; i < 500; i++) {
                const string text =
                    generate({key, key, endMark, "\r", ";", "a", "abcdij", "-eid", "*"}, 40);
                ASSERT_EQ(maskedValues(text, key, endMark), model::maskValues(text, key, endMark))
                    << "text " << text << " key " << key << " end " << endMark;
            }
        }
    }
}

TEST_F(MaskKeyword, AddressIsReplacedAsTheStepsSay) {
    for (const string address :
         {"192.168.1.10", "1.2.3.4", "1:2:3:4:5:6:7:8", "a-name-of-a-host", "aaaaaaa"}) {
        ASSERT_EQ(ConfFilterSetIPStr(address.c_str()), 0u);
        EXPECT_EQ(ConfFilterSetIPStr(string(45, '1').c_str()), 1u);
        const string form = masked(ConfFilterIPAddrStr, address);
        for (size_t i = 0; i < 2000; i++) {
            const string text =
                generate({address, address, address.substr(1), "a", " peer "}, 25 + i % 2 * 135) +
                "x";
            ASSERT_EQ(replaced(text), model::replaceAddress(text, address, form)) << text;
        }
    }
}

/* Bytes that the platform was made to search or copy. */
TEST_F(MaskKeyword, WorkGrowsAsTheText) {
    uint64_t work = 0;
    platform::override(KIRU_StrStr, [&](const char *text, const char *search) {
        char *found = platform::next(KIRU_StrStr)(text, search);
        work += found == nullptr ? strlen(text) : static_cast<uint64_t>(found - text);
        return found;
    });
    platform::override(memcpy_s, [&](void *dst, size_t size, const void *src, size_t count) {
        work += count;
        return platform::next(memcpy_s)(dst, size, src, count);
    });
    ASSERT_EQ(ConfFilterSetIPStr("192.168.1.10"), 0u);
    const char *const cases[][3] = {{"tel:5550123\r", "tel:", "#"},
                                    {"tel:5550123>", "tel:", ">"},
                                    {"key=abcd\r", "key=", "#"},
                                    {"-eidabcdij;", "-eid", "ij"},
                                    {"to 192.168.1.10 ", "", ""}};
    for (const auto &[piece, key, endMark] : cases) {
        string text;
        for (int i = 0; i < 5000; i++) {
            text += piece;
        }
        work = 0;
        *key == '\0' ? replaced(text) : maskedValues(text + "#", key, endMark);
        EXPECT_LT(work, 6 * text.size()) << piece;
    }
}

}  // namespace

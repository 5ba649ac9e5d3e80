/* Masking: the examples, what no copy may leave behind, and the operations beside their model on
 * generated texts. */
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

using Filter = uint32_t (*)(const char *, char *, uint32_t);

class MaskKeyword : public platform::PlatformTest {
  protected:
    std::mt19937 random{4711};

    string oneOf(const std::vector<string> &choices) { return choices[random() % choices.size()]; }

    string generate(const std::vector<string> &pieces, size_t most) {
        string text;
        for (size_t left = random() % most; left > 0; left--) {
            text += oneOf(pieces);
        }
        return text;
    }
};

/* The masked text; what is behind it must be gone, and the result 0. */
string masked(Filter filter, const string &source, uint32_t size = 512) {
    std::vector<char> buffer(size, 'x');
    EXPECT_EQ(filter(source.c_str(), buffer.data(), size), 0u) << source;
    const string text = buffer.data();
    EXPECT_EQ(string(buffer.begin(), buffer.end()), text + string(size - text.size(), '\0'));
    return text;
}

string maskedValues(const string &text, const string &key, const string &endMark) {
    std::vector<char> buffer(text.c_str(), text.c_str() + text.size() + 1);
    ConfFilterNonSecurityWordEx(buffer.data(), key.c_str(), endMark.c_str());
    return {buffer.begin(), buffer.end() - 1};
}

/* The text with the registered address replaced; the rest of the block must be zero. */
string replaced(const string &text) {
    char *out = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(ConfReplaceIPAddrStr(text.c_str(), &out, &length), 0u);
    string result(out, length);
    EXPECT_EQ(string(out, text.size() + 100), result + string(text.size() + 100 - length, '\0'));
    EXPECT_EQ(OSMemTypeFreeMon(out, 0, 0, __LINE__, "test"), 0u);
    return result;
}

TEST_F(MaskKeyword, TextsAndAddresses) {
    const struct {
        const char *source, *text, *address;
    } cases[] = {
        {"", "", ""},
        {"abc", "abc", "abc"},
        {"abcd", "ab*d", "ab*d"},
        {"abcde", "abc*e", "abc*e"},
        {"abcdef", "a***ef", "a***ef"},
        {"abcdefg", "ab***fg", "ab***fg"},
        {"abcdefgh", "ab****gh", "ab****gh"},
        {"abcdefghij", "abcd****ij", "abcd****ij"},
        {"conference-room-7", "con******-7", "con******-7"},
        {"192.168.1.10", "192******10", "192.**.**.10"},
        {"1.2.3.4", "1.***.4", "1.**.**.4"},
        {"1:2:3:4:5:6:7:8", "1:2******:8", "1:****:****:****:****:****:7:8"},
        {"fe80::1:2:3", "fe8******:3", "fe80:****:2:3"},
        {"2001:db8::1", "200******:1", "200******:1"},
        {"::1", "::1", "::1"},
        {"::ffff:192.168.1.10", "::f******10", "::f******10"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(masked(ConfFilterStr, c.source), c.text);
        EXPECT_EQ(masked(ConfFilterStr, c.source, 129), c.text);
        EXPECT_EQ(masked(ConfFilterIPAddrStr, c.source), c.address);
    }
    EXPECT_EQ(masked(ConfFilterStr, string(126, 'a') + "bc"), "aaa******bc");
    EXPECT_EQ(masked(ConfFilterStr, string(4000, 'a') + "bc", 129), "aaa******bc");
    for (const Filter filter : {ConfFilterStr, ConfFilterIPAddrStr}) {
        char small[128] = "as it was";
        EXPECT_EQ(filter("abc", small, sizeof(small)), 1u);
        EXPECT_STREQ(small, "as it was");
        EXPECT_EQ(filter(nullptr, small, 129), 1u);
        EXPECT_EQ(filter("abc", nullptr, 129), 1u);
    }
    EXPECT_TRUE(platform::records().empty());
}

TEST_F(MaskKeyword, RefusedCopiesAreReported) {
    const struct {
        const char *operation, *address;
        size_t records;
    } cases[] = {{"memset_s", "a text of no form", 0}, {"memcpy_s", "a text of no form", 1},
                 {"sprintf_s", "192.168.1.10", 0},     {"sprintf_s", "1:2:3:4:5:6:7:8", 0},
                 {"strncpy_s", "1:2:3:4:5:6:7:8", 0},  {"strcat_s", "1:2:3:4:5:6:7:8", 0}};
    for (const auto &c : cases) {
        platform::clearRecords();
        char buffer[CONF_MASK_SIZE];
        platform::failCall(c.operation, 1);
        EXPECT_EQ(ConfFilterIPAddrStr(c.address, buffer, sizeof(buffer)), 1u) << c.operation;
        EXPECT_EQ(platform::records().size(), c.records);
        EXPECT_EQ(platform::hasRecord(1, "conf_mask_keyword",
                                      "[ConfFilterIPAddrStr]ConfFilterStr fail.\n"),
                  c.records == 1);
    }
    platform::failCall("memset_s", 2); /* the plain rest could not be wiped */
    char buffer[CONF_MASK_SIZE];
    EXPECT_EQ(ConfFilterStr("a long text", buffer, sizeof(buffer)), 1u);
}

TEST_F(MaskKeyword, ValuesInPlace) {
    const struct {
        const char *text, *key, *endMark, *masked;
    } cases[] = {
        {"To: <tel:abcdefghij>", "tel:", ">", "To: <tel:abcd****ij>"},
        {"name=abcdefgh;next=1;", "name=", ";", "name=ab****gh;next=1;"},
        {"x-eid=abcd;efghijk>", "x-eid=", ">", "x-eid=ab*d;ef***jk>"},
        {"x-eid=abcd>efg;hijklmn;o", "x-eid=", ">", "x-eid=ab****fg;hi***mn;o"},
        {"key=abc\r\nkey=abcdefgh;", "key=", ";", "key=abc\r\nkey=ab****gh;"},
        {"tel:abcd\rtel:abcd", "tel:", ">", "tel:ab*d\rtel:abcd"},
        {"tel:\r", "tel:", "a mark longer than the rest", "tel:\r"},
        {"key=abcd;", "", ";", "key=abcd;"},
        {"key=abcd;", "Key=", ";", "key=abcd;"},
        {"key=abcd;", "key=", "", "key=abcd;"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(maskedValues(c.text, c.key, c.endMark), c.masked);
    }
    char text[] = "key=abcd;";
    ConfFilterNonSecurityWordEx(nullptr, "key=", ";");
    ConfFilterNonSecurityWordEx(text, nullptr, ";");
    ConfFilterNonSecurityWordEx(text, "key=", nullptr);
    ConfFilterNonSecurityWordExImpl(nullptr, text);
    ConfFilterNonSecurityWordExImpl(text + 4, text);
    EXPECT_STREQ(text, "key=abcd;");
}

TEST_F(MaskKeyword, ValuesAreMaskedAsTheStepsSay) {
    const std::vector<string> keys = {"tel:", "x-eid=", "-eid", "*-eid", "k=", "k"};
    const std::vector<string> endMarks = {">",  ";",  "\r\n", "*",
                                          "**", ">k", "ij",   "longer than that"};
    for (int i = 0; i < 20000; i++) {
        const string key = oneOf(keys);
        const string endMark = oneOf(endMarks);
        const string text =
            generate({key, key, endMark, "\r", ";", "a", "abcdij", "-eid", "*"}, 40);
        ASSERT_EQ(maskedValues(text, key, endMark), model::maskValues(text, key, endMark))
            << "text " << text << " key " << key << " end " << endMark;
    }
}

TEST_F(MaskKeyword, AddressIsReplacedAsTheStepsSay) {
    for (const string address : {"192.168.1.10", "1.2.3.4", "1:2:3:4:5:6:7:8", "fe80::1:2:3",
                                 "a-name-of-a-host", "aaaaaaa"}) {
        ASSERT_EQ(ConfFilterSetIPStr(address.c_str()), 0u);
        EXPECT_EQ(ConfFilterSetIPStr(string(45, '1').c_str()), 1u);
        EXPECT_EQ(ConfFilterSetIPStr(nullptr), 1u);
        const string form = masked(ConfFilterIPAddrStr, address);
        const std::vector<string> pieces = {address, address, address.substr(1), "a", " peer "};
        for (int i = 0; i < 1500; i++) {
            const string text = "x" + generate(pieces, i % 2 == 0 ? 25 : 160);
            ASSERT_EQ(replaced(text), model::replaceAddress(text, address, form)) << text;
            ASSERT_EQ(replaced(text.substr(1) + "x"),
                      model::replaceAddress(text.substr(1) + "x", address, form));
        }
    }
}

TEST_F(MaskKeyword, ReplacementRefusesAndFails) {
    char *out = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(ConfFilterSetIPStr("192.168.1.10"), 0u);
    EXPECT_EQ(replaced("peer 192.168.1.10 lost, retry 192.168.1.10"),
              "peer 192.**.**.10 lost, retry 192.**.**.10");
    EXPECT_EQ(ConfReplaceIPAddrStr(nullptr, &out, &length), 1u);
    EXPECT_EQ(ConfReplaceIPAddrStr("", &out, &length), 1u);
    EXPECT_EQ(ConfReplaceIPAddrStr("text", nullptr, &length), 1u);
    EXPECT_EQ(ConfReplaceIPAddrStr("text", &out, nullptr), 1u);
    for (const char *operation : {"OsMemMallocSetCharMon", "sprintf_s"}) {
        platform::failCall(operation, 1);
        EXPECT_EQ(ConfReplaceIPAddrStr("text", &out, &length), 1u);
        EXPECT_EQ(out, nullptr);
    }
    for (uint64_t call = 1; call <= 3; call++) {
        platform::failCall("memcpy_s", call);
        EXPECT_EQ(ConfReplaceIPAddrStr("to 192.168.1.10 and on", &out, &length), 1u);
        ASSERT_NE(out, nullptr) << "the caller's to release";
        EXPECT_EQ(OSMemTypeFreeMon(out, 0, 0, __LINE__, "test"), 0u);
    }
    for (const char *tooShort : {"1.2.3.", ""}) {
        EXPECT_EQ(ConfFilterSetIPStr(tooShort), 0u);
        EXPECT_EQ(ConfReplaceIPAddrStr("1.2.3.", &out, &length), 1u);
    }
    platform::failCall("strcpy_s", 1);
    EXPECT_EQ(ConfFilterSetIPStr("192.168.1.10"), 1u);
}

/* Bytes that the platform was made to read or copy. */
uint64_t work;

void countWork() {
    work = 0;
    platform::override(KIRU_StrStr, [](const char *text, const char *search) {
        char *found = platform::next(KIRU_StrStr)(text, search);
        work += found == nullptr ? strlen(text) : static_cast<uint64_t>(found - text);
        return found;
    });
    platform::override(KIRU_StrLen, [](const char *text) {
        work += strlen(text);
        return platform::next(KIRU_StrLen)(text);
    });
    platform::override(memcpy_s, [](void *dst, size_t size, const void *src, size_t count) {
        work += count;
        return platform::next(memcpy_s)(dst, size, src, count);
    });
}

TEST_F(MaskKeyword, WorkGrowsAsTheText) {
    const auto repeat = [](const string &piece) {
        string text;
        for (int i = 0; i < 5000; i++) {
            text += piece;
        }
        return text;
    };
    countWork();
    const struct {
        const char *piece, *key, *endMark;
    } cases[] = {{"tel:5550123\r", "tel:", "#"}, {"tel:5550123>", "tel:", ">"},
                 {"key=abcd\r", "key=", "#"},    {"x-eid=ab>;", "x-eid=", ">"},
                 {"-eidabcdij;", "-eid", "ij"},  {"x-eid=a;b;c\r", "x-eid=", "#"}};
    for (const auto &c : cases) {
        const string text = repeat(c.piece) + "#";
        work = 0;
        maskedValues(text, c.key, c.endMark);
        EXPECT_LT(work, 6 * text.size()) << c.piece;
    }
    ASSERT_EQ(ConfFilterSetIPStr("192.168.1.10"), 0u);
    const string text = repeat("to 192.168.1.10 ");
    work = 0;
    replaced(text);
    EXPECT_LT(work, 4 * text.size());
}

uintptr_t hundreds(uintptr_t a, uintptr_t b, uintptr_t c) {
    return a * 100 + b * 10 + c;
}

TEST_F(MaskKeyword, FilterGetsItsArgumentsInOrder) {
    EXPECT_EQ(ConfFilterCallFilterFn(hundreds, 1, 2, 3), 123u);
}

}  // namespace

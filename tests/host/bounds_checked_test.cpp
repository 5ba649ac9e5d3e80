/* The bounds-checked functions against plain models of them, for every small combination of sizes,
 * on memory that ends at a page which must not be touched. */
#include "platform/bounds_checked.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>

namespace {

using std::string;

constexpr size_t kMost = 7;

/* Bytes between two pages without access, as close to the second as they can be. */
class Guarded {
  public:
    explicit Guarded(const string &bytes)
        : size_(bytes.size()), page_(static_cast<size_t>(getpagesize())) {
        base_ = static_cast<char *>(
            mmap(nullptr, 3 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(base_ + page_, page_, PROT_READ | PROT_WRITE);
        bytes.copy(at(), size_);
    }
    ~Guarded() { munmap(base_, 3 * page_); }
    Guarded(const Guarded &) = delete;
    Guarded &operator=(const Guarded &) = delete;

    char *at() { return base_ + 2 * page_ - size_; }
    string bytes() { return string(at(), size_); }

  private:
    size_t size_, page_;
    char *base_;
};

#define CALL(expression) \
    [](char *d, size_t n, const char *s, size_t c) { return (void)s, (void)c, expression; }

const struct Function {
    const char *name;
    int (*call)(char *dst, size_t size, const char *src, size_t length);
    bool isText;
    bool readsEnd; /* the source's terminator, which elsewhere is not there to be read */
} functions[] = {
    {"memcpy_s", CALL(memcpy_s(d, n, s, c)), false, false},
    {"memmove_s", CALL(memmove_s(d, n, s, c)), false, false},
    {"memset_s", CALL(memset_s(d, n, 'y', c)), false, false},
    {"strcpy_s", CALL(strcpy_s(d, n, s)), true, true},
    {"strncpy_s", CALL(strncpy_s(d, n, s, c)), true, false},
    {"strncpy_s beyond", CALL(strncpy_s(d, n, s, c + 1)), true, true},
    {"strcat_s", CALL(strcat_s(d, n, s)), true, true},
};

TEST(BoundsChecked, AllOrNothingGoesIntoTheDestination) {
    for (const Function &each : functions) {
        for (size_t at = 0; at < kMost * (kMost + 1) * (kMost + 1); ++at) {
            const size_t size = 1 + at % kMost, length = at / kMost % (kMost + 1);
            const size_t used = std::min(at / kMost / (kMost + 1), size);
            const string name = each.name, letters = string("abcdefgh").substr(0, length);
            const string before = string(used, 'x') + string(size - used, '\0');
            Guarded dst(before); /* with `used` == `size`, a text without an end */
            Guarded src(each.readsEnd ? letters + '\0' : letters);
            const string wanted = name == "memset_s"   ? string(length, 'y')
                                  : name == "strcat_s" ? string(used, 'x') + letters
                                                       : letters;
            const bool fits = wanted.size() < size + (each.isText ? 0 : 1);
            EXPECT_EQ(each.call(dst.at(), size, src.at(), length) == 0, fits);
            if (each.isText) {
                EXPECT_EQ(dst.bytes().c_str(), fits ? wanted : "") << name << ' ' << at;
            } else {
                EXPECT_EQ(dst.bytes(), fits ? wanted + before.substr(length) : string(size, '\0'))
                    << name << ' ' << at;
            }
        }
    }
}

TEST(BoundsChecked, OverlapIsRefusedWhereverItBegins) {
    for (const Function &each : functions) {
        const string name = each.name;
        for (size_t to = 0; to <= 8 && name != "memset_s" && name != "strcat_s"; ++to) {
            const bool apart = to == 0 || to == 8, moves = name == "memmove_s";
            string area = "xxxx" + string("abc\0", 4) + "xxxx";
            EXPECT_EQ(each.call(&area[to], 4, &area[4], 4) == 0, apart || moves);
            EXPECT_STREQ(&area[to], apart || moves ? "abc" : "") << name << ' ' << to;
        }
    }
    char text[8] = "ab";
    EXPECT_GT(strcat_s(text, sizeof(text), text), 0);
    EXPECT_STREQ(text, "");
}

TEST(BoundsChecked, UnusableDestinationIsLeftAloneAndWrongSourcesClearIt) {
    for (const Function &each : functions) {
        SCOPED_TRACE(each.name);
        const string name = each.name, cleared(each.isText ? 1 : 4, '\0');
        const bool isCounted = !each.isText || name == "strncpy_s";
        char dst[4] = {'x', 'x', '\0', 'x'};
        for (size_t size : {size_t{0}, size_t{0x80000000}, SIZE_MAX}) {
            EXPECT_GT(each.call(dst, size, "a", 1), 0);
        }
        EXPECT_GT(each.call(nullptr, 4, "a", 1), 0);
        EXPECT_EQ(string(dst, 4), string("xx\0x", 4));
        EXPECT_GT(each.call(dst, 4, isCounted ? "a" : nullptr, SIZE_MAX), 0);
        EXPECT_EQ(string(dst, cleared.size()), cleared);
        dst[0] = 'x';
        EXPECT_EQ(each.call(dst, 4, nullptr, 1) > 0, name != "memset_s");
        EXPECT_EQ(string(dst, cleared.size()), name == "memset_s" ? string("y\0\0\0", 4) : cleared);
    }
}

TEST(BoundsChecked, FormatterPrintsAllOrNothingAndScannerTellsAnEmptyText) {
    char dst[6] = "xxxxx";
    const char *volatile none = nullptr;
    EXPECT_EQ(sprintf_s(dst, sizeof(dst), "%s-%d", "ab", 12), 5);
    EXPECT_STREQ(dst, "ab-12");
    EXPECT_EQ(sprintf_s(dst, 0, "a"), -1);
    EXPECT_EQ(sprintf_s(dst, sizeof(dst), "%s-%d", "ab", 123), -1);
    EXPECT_STREQ(dst, "");
    dst[0] = 'x';
    EXPECT_EQ(sprintf_s(dst, sizeof(dst), none, 0), -1);
    EXPECT_STREQ(dst, "");

    int first = 0, second = 0;
    EXPECT_EQ(sscanf_s(" 12 x", "%d%d", &first, &second), 1);
    EXPECT_EQ(first, 12);
    for (const auto &[text, result] : {std::pair("x", 0), {" ", -1}, {none, -1}}) {
        EXPECT_EQ(sscanf_s(text, "%d", &first), result);
    }
    EXPECT_EQ(sscanf_s("1", none, &first), -1);
}

}  // namespace

/* The bounds-checked functions against plain models of them, for every small combination of sizes,
 * on memory that ends at a page which must not be touched. */
#include "platform/bounds_checked.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

namespace {

constexpr size_t kTooLarge = 0x80000000u;
constexpr size_t kMost = 7;

/* `size` bytes between two pages without access, as close to the second as they can be. */
class Guarded {
  public:
    explicit Guarded(size_t size) : size_(size), page_(static_cast<size_t>(getpagesize())) {
        base_ = static_cast<char *>(
            mmap(nullptr, 3 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(base_ + page_, page_, PROT_READ | PROT_WRITE);
    }
    ~Guarded() { munmap(base_, 3 * page_); }
    Guarded(const Guarded &) = delete;
    Guarded &operator=(const Guarded &) = delete;

    char *at() { return base_ + 2 * page_ - size_; }
    void fill(const std::string &bytes) { bytes.copy(at(), size_); }
    std::string bytes() { return std::string(at(), size_); }
    std::string text() { return bytes().c_str(); }

  private:
    size_t size_, page_;
    char *base_;
};

std::string letters(size_t count) {
    return std::string("abcdefgh").substr(0, count);
}

TEST(BoundsChecked, MemoryFunctionsCopyOrClearTheWholeDestination) {
    for (size_t dstSize = 1; dstSize <= kMost; ++dstSize) {
        for (size_t count = 0; count <= kMost; ++count) {
            SCOPED_TRACE(testing::Message() << dstSize << " " << count);
            Guarded src(count);
            src.fill(letters(count));
            const bool fits = count <= dstSize;
            std::string expected(dstSize, fits ? 'x' : '\0');
            std::string filled = expected;
            if (fits) {
                expected.replace(0, count, letters(count));
                filled.replace(0, count, count, 'y');
            }
            Guarded dst(dstSize);
            for (auto copy : {memcpy_s, memmove_s}) {
                dst.fill(std::string(dstSize, 'x'));
                EXPECT_EQ(copy(dst.at(), dstSize, src.at(), count) == 0, fits);
                EXPECT_EQ(dst.bytes(), expected);
            }
            dst.fill(std::string(dstSize, 'x'));
            EXPECT_EQ(memset_s(dst.at(), dstSize, 'y', count) == 0, fits);
            EXPECT_EQ(dst.bytes(), filled);
        }
    }
}

/* The source of a limited copy has no terminator, and nothing readable behind it. */
TEST(BoundsChecked, TextFunctionsCopyOrEmptyTheDestination) {
    for (size_t dstSize = 1; dstSize <= kMost; ++dstSize) {
        for (size_t length = 0; length <= kMost; ++length) {
            SCOPED_TRACE(testing::Message() << dstSize << " " << length);
            Guarded src(length + 1);
            src.fill(letters(length) + '\0');
            Guarded dst(dstSize);
            const bool fits = length < dstSize;
            dst.fill(std::string(dstSize, 'x'));
            EXPECT_EQ(strcpy_s(dst.at(), dstSize, src.at()) == 0, fits);
            EXPECT_EQ(dst.text(), fits ? letters(length) : "");
            for (size_t count : {length, length + 1}) {
                Guarded limited(count);
                limited.fill(letters(length) + '\0');
                dst.fill(std::string(dstSize, 'x'));
                EXPECT_EQ(strncpy_s(dst.at(), dstSize, limited.at(), count) == 0, fits);
                EXPECT_EQ(dst.text(), fits ? letters(length) : "");
            }
            for (size_t used = 0; used <= dstSize; ++used) {
                std::string before(dstSize, '\0');
                before.replace(0, used, used, 'x');
                dst.fill(before); /* with `used` == `dstSize`, a text without an end */
                const bool joined = used + length < dstSize;
                EXPECT_EQ(strcat_s(dst.at(), dstSize, src.at()) == 0, joined) << used;
                EXPECT_EQ(dst.text(), joined ? std::string(used, 'x') + letters(length) : "");
            }
        }
    }
}

TEST(BoundsChecked, OverlapIsRefusedWhereverItBegins) {
    for (size_t to = 0; to <= 8; ++to) {
        const bool apart = to == 0 || to == 8;
        const std::string area = "xxxx" + std::string("abc\0", 4) + "xxxx";
        std::string moved = area;
        moved.replace(to, 4, "abc\0", 4);
        std::string copied[4] = {area, area, area, area};
        EXPECT_EQ(memcpy_s(&copied[0][to], 4, &copied[0][4], 4) == 0, apart) << to;
        EXPECT_EQ(strcpy_s(&copied[1][to], 4, &copied[1][4]) == 0, apart) << to;
        EXPECT_EQ(strncpy_s(&copied[2][to], 4, &copied[2][4], 4) == 0, apart) << to;
        EXPECT_EQ(memmove_s(&copied[3][to], 4, &copied[3][4], 4), 0);
        EXPECT_EQ(copied[3], moved);
        for (int i = 0; i < 3; i++) {
            EXPECT_STREQ(&copied[i][to], apart ? "abc" : "") << to;
        }
    }
    char text[8] = "ab";
    EXPECT_GT(strcat_s(text, sizeof(text), text), 0);
    EXPECT_STREQ(text, "");
}

TEST(BoundsChecked, UnusableDestinationIsLeftAloneAndWrongSourcesClearIt) {
    const struct {
        size_t cleared;
        int (*call)(char *dst, size_t size, const char *src, size_t count);
    } calls[] = {
        {4, [](char *d, size_t n, const char *s, size_t c) { return memcpy_s(d, n, s, c); }},
        {4, [](char *d, size_t n, const char *s, size_t c) { return memmove_s(d, n, s, c); }},
        {4, [](char *d, size_t n, const char *, size_t c) { return memset_s(d, n, 1, c); }},
        {1, [](char *d, size_t n, const char *s, size_t c) { return strncpy_s(d, n, s, c); }},
        {1, [](char *d, size_t n, const char *s, size_t) { return strcpy_s(d, n, s); }},
        {1, [](char *d, size_t n, const char *s, size_t) { return strcat_s(d, n, s); }},
    };
    for (size_t i = 0; i < std::size(calls); i++) {
        SCOPED_TRACE(i);
        const auto &[cleared, call] = calls[i];
        char dst[4] = {'x', 'x', '\0', 'x'};
        for (size_t size : {size_t{0}, kTooLarge, SIZE_MAX}) {
            EXPECT_GT(call(dst, size, "a", 1), 0);
        }
        EXPECT_GT(call(nullptr, 4, "a", 1), 0);
        EXPECT_EQ(std::string(dst, 4), std::string("xx\0x", 4));
        EXPECT_GT(call(dst, 4, i < 4 ? "a" : nullptr, SIZE_MAX), 0);
        EXPECT_EQ(std::string(dst, cleared), std::string(cleared, '\0'));
        if (i != 2) {
            dst[0] = 'x';
            EXPECT_GT(call(dst, 4, nullptr, 1), 0);
            EXPECT_EQ(std::string(dst, cleared), std::string(cleared, '\0'));
        }
    }
}

TEST(BoundsChecked, FormatterPrintsAllOrNothingAndScannerTellsAnEmptyText) {
    char dst[6] = "xxxxx";
    EXPECT_EQ(sprintf_s(dst, sizeof(dst), "%s-%d", "ab", 12), 5);
    EXPECT_STREQ(dst, "ab-12");
    EXPECT_EQ(sprintf_s(dst, 0, "a"), -1);
    EXPECT_EQ(sprintf_s(dst, sizeof(dst), "%s-%d", "ab", 123), -1);
    EXPECT_STREQ(dst, "");
    const char *volatile none = nullptr;
    dst[0] = 'x';
    EXPECT_EQ(sprintf_s(dst, sizeof(dst), none, 0), -1);
    EXPECT_STREQ(dst, "");

    int first = 0, second = 0;
    EXPECT_EQ(sscanf_s(" 12 x", "%d%d", &first, &second), 1);
    EXPECT_EQ(first, 12);
    EXPECT_EQ(sscanf_s("x", "%d", &first), 0);
    EXPECT_EQ(sscanf_s(" ", "%d", &first), -1);
    EXPECT_EQ(sscanf_s(none, "%d", &first), -1);
    EXPECT_EQ(sscanf_s("1", none, &first), -1);
}

}  // namespace

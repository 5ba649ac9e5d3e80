/* The bounds-checked functions against plain models of them, for every small combination of sizes,
 * on memory that ends at a page which must not be touched. */
#include "platform/bounds_checked.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
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

/* The source has no terminator, and nothing readable behind it. */
TEST(BoundsChecked, LimitedCopyReadsNoMoreThanItsCount) {
    for (size_t dstSize = 1; dstSize <= kMost; ++dstSize) {
        for (size_t count = 0; count <= kMost; ++count) {
            for (size_t length = 0; length <= count; ++length) {
                SCOPED_TRACE(testing::Message() << dstSize << " " << count << " " << length);
                Guarded src(std::min(length + 1, count));
                src.fill(letters(length) + '\0');
                Guarded dst(dstSize);
                dst.fill(std::string(dstSize, 'x'));
                const bool fits = length < dstSize;
                EXPECT_EQ(strncpy_s(dst.at(), dstSize, src.at(), count) == 0, fits);
                EXPECT_EQ(dst.text(), fits ? letters(length) : "");
            }
        }
    }
}

TEST(BoundsChecked, OverlapIsRefusedWhereverItBegins) {
    for (size_t from = 0; from <= 8; ++from) {
        for (size_t to = 0; to <= 8; ++to) {
            SCOPED_TRACE(testing::Message() << from << " " << to);
            const bool apart = from + 4 <= to || to + 4 <= from;
            std::string area(12, 'x');
            area.replace(from, 4, "abc\0", 4);
            std::string moved = area;
            moved.replace(to, 4, "abc\0", 4);

            std::string copied = area;
            EXPECT_EQ(memcpy_s(&copied[to], 4, &copied[from], 4) == 0, apart);
            EXPECT_EQ(copied.substr(to, 4), std::string(apart ? "abc\0" : "\0\0\0\0", 4));
            copied = area;
            EXPECT_EQ(memmove_s(&copied[to], 4, &copied[from], 4), 0);
            EXPECT_EQ(copied, moved);
            copied = area;
            EXPECT_EQ(strcpy_s(&copied[to], 4, &copied[from]) == 0, apart);
            EXPECT_STREQ(&copied[to], apart ? "abc" : "");
            copied = area;
            EXPECT_EQ(strncpy_s(&copied[to], 4, &copied[from], 4) == 0, apart);
            EXPECT_STREQ(&copied[to], apart ? "abc" : "");
        }
    }
    char text[8] = "ab";
    EXPECT_GT(strcat_s(text, sizeof(text), text), 0);
    EXPECT_STREQ(text, "");
}

TEST(BoundsChecked, UnusableDestinationIsLeftAlone) {
    char dst[4] = {'x', 'x', 'x', 'x'};
    const auto expectRefused = [](char *at, size_t size) {
        EXPECT_GT(memcpy_s(at, size, "a", 1), 0);
        EXPECT_GT(memmove_s(at, size, "a", 1), 0);
        EXPECT_GT(memset_s(at, size, 0, 1), 0);
        EXPECT_GT(strcpy_s(at, size, "a"), 0);
        EXPECT_GT(strncpy_s(at, size, "a", 1), 0);
        EXPECT_GT(strcat_s(at, size, "a"), 0);
        EXPECT_EQ(sprintf_s(at, size, "a"), -1);
    };
    for (size_t size : {size_t{0}, kTooLarge, SIZE_MAX}) {
        expectRefused(dst, size);
    }
    expectRefused(nullptr, 4);
    EXPECT_EQ(std::string(dst, 4), "xxxx");
}

TEST(BoundsChecked, NullSourceAndNegativeCountClearTheDestination) {
    const auto expectCleared = [](size_t cleared, auto call) {
        char dst[4] = {'x', 'x', '\0', 'x'};
        EXPECT_GT(call(dst), 0);
        EXPECT_EQ(std::string(dst, cleared), std::string(cleared, '\0'));
    };
    expectCleared(4, [](char *dst) { return memcpy_s(dst, 4, nullptr, 1); });
    expectCleared(4, [](char *dst) { return memmove_s(dst, 4, nullptr, 1); });
    expectCleared(1, [](char *dst) { return strcpy_s(dst, 4, nullptr); });
    expectCleared(1, [](char *dst) { return strncpy_s(dst, 4, nullptr, 1); });
    expectCleared(1, [](char *dst) { return strcat_s(dst, 4, nullptr); });
    for (size_t count : {kTooLarge, SIZE_MAX}) {
        expectCleared(4, [count](char *dst) { return memcpy_s(dst, 4, "a", count); });
        expectCleared(4, [count](char *dst) { return memmove_s(dst, 4, "a", count); });
        expectCleared(4, [count](char *dst) { return memset_s(dst, 4, 1, count); });
        expectCleared(1, [count](char *dst) { return strncpy_s(dst, 4, "a", count); });
    }
}

TEST(BoundsChecked, FormatterPrintsAllOrNothing) {
    char dst[6] = "xxxxx";
    EXPECT_EQ(sprintf_s(dst, sizeof(dst), "%s-%d", "ab", 12), 5);
    EXPECT_STREQ(dst, "ab-12");
    EXPECT_EQ(sprintf_s(dst, sizeof(dst), "%s-%d", "ab", 123), -1);
    EXPECT_STREQ(dst, "");
    const char *volatile none = nullptr;
    dst[0] = 'x';
    EXPECT_EQ(sprintf_s(dst, sizeof(dst), none, 0), -1);
    EXPECT_STREQ(dst, "");
}

TEST(BoundsChecked, ScannerTellsAnEmptyTextFromOneWithoutNumber) {
    int first = 0;
    int second = 0;
    EXPECT_EQ(sscanf_s(" 12 x", "%d%d", &first, &second), 1);
    EXPECT_EQ(first, 12);
    EXPECT_EQ(sscanf_s("x", "%d", &first), 0);
    EXPECT_EQ(sscanf_s(" ", "%d", &first), -1);
    const char *volatile none = nullptr;
    EXPECT_EQ(sscanf_s(none, "%d", &first), -1);
    EXPECT_EQ(sscanf_s("1", none, &first), -1);
}

}  // namespace

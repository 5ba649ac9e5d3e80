/* Masking: the rule for a span of characters, and masked copies of texts. */
#include "include/conf_mask_keyword.h"

#include <algorithm>
#include <cstddef>

#include "platform/bounds_checked.h"
#include "platform/tamo_common.h"

namespace {

constexpr size_t kShort = 10; /* up to here the length may show */
constexpr size_t kKeptBegin = 3;
constexpr size_t kKeptEnd = 2;
constexpr size_t kStars = 6;

/* How many characters at the beginning of a span of at least four stay. */
ptrdiff_t keptAtBegin(ptrdiff_t length) {
    if (length > 10) {
        return 3;
    }
    if (length > 7) {
        return length - 6;
    }
    return length > 5 ? length - 5 : length - 2;
}

/* Turns the copy of a long text into its masked form; `end` is the source's. False when the rest of
 * the copy could not be wiped. */
bool hideMiddle(char *copy, size_t copied, const char *end) {
    char *stars = std::fill_n(copy + kKeptBegin, kStars, '*');
    char *rest = std::copy(end - kKeptEnd, end, stars);
    const size_t left = copied - static_cast<size_t>(rest - copy);
    return memset_s(rest, left, 0, left) == 0;
}

}  // namespace

uint32_t ConfFilterStr(const char *src, char *dst, uint32_t dstSize) {
    if (src == nullptr || dst == nullptr || dstSize < CONF_MASK_SIZE ||
        memset_s(dst, dstSize, 0, dstSize) != 0) {
        return 1;
    }
    const size_t length = KIRU_StrLen(src);
    const size_t copied = std::min<size_t>(length + 1, CONF_MASK_SIZE);
    if (memcpy_s(dst, dstSize, src, copied) != 0) {
        return 1;
    }
    if (length > kShort) {
        return hideMiddle(dst, copied, src + length) ? 0 : 1;
    }
    ConfFilterNonSecurityWordExImpl(dst, dst + length);
    return 0;
}

void ConfFilterNonSecurityWordExImpl(char *begin, char *end) {
    const ptrdiff_t length = begin == nullptr || end <= begin ? 0 : end - begin;
    if (length > 3) {
        std::fill(begin + keptAtBegin(length), end - (length > 5 ? 2 : 1), '*');
    }
}

uintptr_t ConfFilterCallFilterFn(ConfFilterFn filter, uintptr_t a, uintptr_t b, uintptr_t c) {
    return filter(a, b, c);
}

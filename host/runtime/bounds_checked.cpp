/* The runtime's bounds-checked functions on top of the C library's. Each one checks its arguments
 * in the same order (destination, source, room, overlap), and from the moment that the destination
 * is known to be usable every failure clears it. A destination whose size is above the limit is not
 * touched: nobody knows how large it really is. */
#include "platform/bounds_checked.h"

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kLimit = 0x7FFFFFFF;
constexpr int kOverlap = EDOM; /* the system has no code of its own for it */

bool usable(const void *dst, size_t dstSize) {
    return dst != nullptr && dstSize != 0 && dstSize <= kLimit;
}

int refuseDestination(const void *dst) {
    return dst == nullptr ? EINVAL : ERANGE;
}

/* Distances instead of end addresses: those may wrap around with 32-bit pointers. */
bool overlap(const void *a, size_t aSize, const void *b, size_t bSize) {
    const auto first = reinterpret_cast<uintptr_t>(a);
    const auto second = reinterpret_cast<uintptr_t>(b);
    return first <= second ? second - first < aSize : first - second < bSize;
}

int clearMemory(void *dst, size_t dstSize, int error) {
    memset(dst, 0, dstSize);
    return error;
}

int clearText(char *dst, int error) {
    *dst = '\0';
    return error;
}

}  // namespace

int memcpy_s(void *dst, size_t dstSize, const void *src, size_t count) {
    if (!usable(dst, dstSize)) {
        return refuseDestination(dst);
    }
    if (src == nullptr) {
        return clearMemory(dst, dstSize, EINVAL);
    }
    if (count > dstSize) {
        return clearMemory(dst, dstSize, ERANGE);
    }
    if (overlap(dst, count, src, count)) {
        return clearMemory(dst, dstSize, kOverlap);
    }
    memcpy(dst, src, count);
    return 0;
}

int memmove_s(void *dst, size_t dstSize, const void *src, size_t count) {
    if (!usable(dst, dstSize)) {
        return refuseDestination(dst);
    }
    if (src == nullptr) {
        return clearMemory(dst, dstSize, EINVAL);
    }
    if (count > dstSize) {
        return clearMemory(dst, dstSize, ERANGE);
    }
    memmove(dst, src, count);
    return 0;
}

int memset_s(void *dst, size_t dstSize, int value, size_t count) {
    if (!usable(dst, dstSize)) {
        return refuseDestination(dst);
    }
    if (count > dstSize) {
        return clearMemory(dst, dstSize, ERANGE);
    }
    memset(dst, value, count);
    /* Also wipes secrets: the compiler must take the bytes for read, whatever it sees of the
     * caller. */
    __asm__ volatile("" : : "r"(dst) : "memory");
    return 0;
}

int strcpy_s(char *dst, size_t dstSize, const char *src) {
    if (!usable(dst, dstSize)) {
        return refuseDestination(dst);
    }
    if (src == nullptr) {
        return clearText(dst, EINVAL);
    }
    const size_t length = strnlen(src, dstSize);
    if (length == dstSize) {
        return clearText(dst, ERANGE);
    }
    if (overlap(dst, length + 1, src, length + 1)) {
        return clearText(dst, kOverlap);
    }
    memcpy(dst, src, length + 1);
    return 0;
}

int strncpy_s(char *dst, size_t dstSize, const char *src, size_t count) {
    if (!usable(dst, dstSize)) {
        return refuseDestination(dst);
    }
    if (src == nullptr) {
        return clearText(dst, EINVAL);
    }
    if (count > kLimit) {
        return clearText(dst, ERANGE);
    }
    const size_t most = count < dstSize ? count : dstSize;
    const size_t length = strnlen(src, most);
    if (length == dstSize) {
        return clearText(dst, ERANGE);
    }
    const size_t read = length < most ? length + 1 : length;
    if (overlap(dst, length + 1, src, read)) {
        return clearText(dst, kOverlap);
    }
    memcpy(dst, src, length);
    dst[length] = '\0';
    return 0;
}

int strcat_s(char *dst, size_t dstSize, const char *src) {
    if (!usable(dst, dstSize)) {
        return refuseDestination(dst);
    }
    if (src == nullptr) {
        return clearText(dst, EINVAL);
    }
    const size_t used = strnlen(dst, dstSize);
    if (used == dstSize) {
        return clearText(dst, EINVAL);
    }
    const size_t length = strnlen(src, dstSize - used);
    if (length == dstSize - used) {
        return clearText(dst, ERANGE);
    }
    if (overlap(dst, used + length + 1, src, length + 1)) {
        return clearText(dst, kOverlap);
    }
    memcpy(dst + used, src, length + 1);
    return 0;
}

int sprintf_s(char *dst, size_t dstSize, const char *format, ...) {
    if (!usable(dst, dstSize)) {
        return -1;
    }
    if (format == nullptr) {
        return clearText(dst, -1);
    }
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(dst, dstSize, format, arguments);
    va_end(arguments);
    if (length < 0 || static_cast<size_t>(length) >= dstSize) {
        return clearText(dst, -1);
    }
    return length;
}

int sscanf_s(const char *text, const char *format, ...) {
    if (text == nullptr || format == nullptr) {
        return -1;
    }
    va_list arguments;
    va_start(arguments, format);
    const int conversions = vsscanf(text, format, arguments);
    va_end(arguments);
    return conversions;
}

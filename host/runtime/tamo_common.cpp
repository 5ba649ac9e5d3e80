/* Text services. */
#include "platform/tamo_common.h"

#include <cstring>

#include "platform/tamo_os_mem.h"

namespace {

constexpr char kUnit[] = "tamo_common";
constexpr uint32_t kReplacement = 0xFFFD;

bool isSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/* Not tolower: a locale must not change what is equal. */
int lower(char c) {
    return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : static_cast<unsigned char>(c);
}

/* The order of two texts of which at least one is null. */
int32_t compareNull(const char *a, const char *b) {
    return static_cast<int32_t>(a != nullptr) - static_cast<int32_t>(b != nullptr);
}

/* Takes the next character off a text of 16-bit units. */
uint32_t nextCharacter(const uint16_t **units) {
    const uint32_t unit = *(*units)++;
    if (unit < 0xD800 || unit > 0xDFFF) {
        return unit;
    }
    const uint32_t following = **units;
    if (unit > 0xDBFF || following < 0xDC00 || following > 0xDFFF) {
        return kReplacement;
    }
    ++*units;
    return 0x10000 + ((unit - 0xD800) << 10) + (following - 0xDC00);
}

uint32_t encodedSize(uint32_t character) {
    return character < 0x80 ? 1 : character < 0x800 ? 2 : character < 0x10000 ? 3 : 4;
}

char *encode(uint32_t character, char *out) {
    static constexpr uint8_t kLead[] = {0, 0x00, 0xC0, 0xE0, 0xF0};
    const uint32_t size = encodedSize(character);
    for (uint32_t i = size - 1; i > 0; --i) {
        out[i] = static_cast<char>(0x80 | (character & 0x3F));
        character >>= 6;
    }
    out[0] = static_cast<char>(kLead[size] | character);
    return out + size;
}

}  // namespace

uint32_t KIRU_StrLen(const char *text) {
    const size_t length = text == nullptr ? 0 : strlen(text);
    return length > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(length);
}

char *KIRU_StrStr(const char *text, const char *search) {
    if (text == nullptr || search == nullptr) {
        return nullptr;
    }
    return const_cast<char *>(strstr(text, search));
}

int32_t KIRU_StrCmp(const char *a, const char *b) {
    return a == nullptr || b == nullptr ? compareNull(a, b) : strcmp(a, b);
}

int32_t KIRU_StriCmp(const char *a, const char *b) {
    if (a == nullptr || b == nullptr) {
        return compareNull(a, b);
    }
    while (*a != '\0' && lower(*a) == lower(*b)) {
        ++a;
        ++b;
    }
    return lower(*a) - lower(*b);
}

int32_t KIRU_StrToInt32(const char *text, int32_t *value) {
    if (text == nullptr || value == nullptr) {
        return -1;
    }
    while (isSpace(*text)) {
        ++text;
    }
    const bool negative = *text == '-';
    if (*text == '-' || *text == '+') {
        ++text;
    }
    const int64_t largest = negative ? -static_cast<int64_t>(INT32_MIN) : INT32_MAX;
    int64_t number = 0;
    if (!isDigit(*text)) {
        return -1;
    }
    for (; isDigit(*text); ++text) {
        number = number * 10 + (*text - '0');
        if (number > largest) {
            return -1;
        }
    }
    if (*text != '\0') {
        return -1;
    }
    *value = static_cast<int32_t>(negative ? -number : number);
    return 0;
}

char *MOX_UnicodeToUtf8(const uint16_t *wideText) {
    if (wideText == nullptr) {
        return nullptr;
    }
    uint64_t size = 1;
    for (const uint16_t *at = wideText; *at != 0;) {
        size += encodedSize(nextCharacter(&at));
    }
    if (size > SIZE_MAX) {
        return nullptr;
    }
    auto *text = static_cast<char *>(
        OsMemMallocSetCharMon(static_cast<size_t>(size), 0, 0, 0, __LINE__, kUnit));
    if (text == nullptr) {
        return nullptr;
    }
    char *end = text;
    for (const uint16_t *at = wideText; *at != 0;) {
        end = encode(nextCharacter(&at), end);
    }
    *end = '\0';
    return text;
}

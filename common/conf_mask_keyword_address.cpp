/* Masking of addresses: one by itself, and the registered one everywhere in a text. */
#include <cstddef>
#include <cstring>

#include "common/log.h"
#include "common/platform_block.h"
#include "include/conf_mask_keyword.h"
#include "include/param_check.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_common.h"

namespace {

constexpr char kUnit[] = "conf_mask_keyword";

constexpr size_t kShortestAddress = 7;
constexpr size_t kLongestAddress = 45;
constexpr size_t kLongestIpv4 = 15;
constexpr size_t kLongestRegistered = 44;
constexpr size_t kExtraRoom = 100;
constexpr size_t kMostGroups = 12;

char registeredAddress[CONF_MASK_SIZE];

enum class Masked { kDone, kFailed, kOtherForm };

struct Group {
    const char *text;
    size_t length;
};

/* The groups of an address between its separators, without empty ones. */
struct Groups {
    Group all[kMostGroups];
    size_t count;
};

/* Takes up to `most` groups; none when one of them is longer than `longest`. */
Groups split(const char *address, const char *separator, size_t most, size_t longest) {
    Groups groups = {};
    for (const char *at = address + strspn(address, separator); *at != '\0' && groups.count < most;
         at += strspn(at, separator)) {
        const size_t length = strcspn(at, separator);
        if (length > longest) {
            return {};
        }
        groups.all[groups.count++] = {at, length};
        at += length;
    }
    return groups;
}

Masked maskIpv4(const char *address, char *dst, size_t dstSize) {
    const Groups parts = split(address, ".", 4, 3);
    if (parts.count < 4) {
        return Masked::kOtherForm;
    }
    const Group &first = parts.all[0];
    const Group &last = parts.all[3];
    const int written = sprintf_s(dst, dstSize, "%.*s.%s.%s.%.*s", static_cast<int>(first.length),
                                  first.text, "**", "**", static_cast<int>(last.length), last.text);
    return written < 0 ? Masked::kFailed : Masked::kDone;
}

Masked maskIpv6(const char *address, char *dst, size_t dstSize) {
    const Groups groups = split(address, ":", kMostGroups, 4);
    if (groups.count < 4) {
        return Masked::kOtherForm;
    }
    const Group *last = groups.all + groups.count - 1;
    char end[11]; /* ":ffff:ffff" */
    bool good = sprintf_s(end, sizeof(end), ":%.*s:%.*s", static_cast<int>(last[-1].length),
                          last[-1].text, static_cast<int>(last->length), last->text) >= 0 &&
                strncpy_s(dst, dstSize, groups.all[0].text, groups.all[0].length) == 0;
    for (size_t hidden = groups.count - 3; good && hidden > 0; hidden--) {
        good = strcat_s(dst, dstSize, ":****") == 0;
    }
    good = good && strcat_s(dst, dstSize, end) == 0;
    return good ? Masked::kDone : Masked::kFailed;
}

/* Masks what has one of the two forms of an address. */
Masked maskAddress(const char *text, char *dst, size_t dstSize) {
    const size_t length = strnlen(text, kLongestAddress + 1);
    if (length < kShortestAddress || length > kLongestAddress || ConfParamCheckValidIp(text) != 0) {
        return Masked::kOtherForm;
    }
    if (KIRU_StrStr(text, ":") != nullptr) {
        return maskIpv6(text, dst, dstSize);
    }
    return length > kLongestIpv4 ? Masked::kOtherForm : maskIpv4(text, dst, dstSize);
}

/* A text in a zero-filled buffer that always keeps two bytes free, as long as its pieces are asked
 * for first. */
class Output {
  public:
    Output(char *buffer, size_t capacity) : buffer_(buffer), capacity_(capacity) {}

    /* Is there room for `count` characters more? */
    bool takes(size_t count) const { return capacity_ - length_ >= count + 2; }

    void put(const char *text, size_t count) {
        good_ = good_ && memcpy_s(buffer_ + length_, capacity_ - length_, text, count) == 0;
        length_ += count;
    }

    /* Were all pieces copied? */
    bool good() const { return good_; }
    size_t length() const { return length_; }

  private:
    char *buffer_;
    size_t capacity_;
    size_t length_ = 0;
    bool good_ = true;
};

/* Copies a text of `length` characters with the registered address replaced. What follows an address
 * must fit before the next one is looked at, as if the address were the last one; it is copied only
 * once it is known to stay. What precedes the next one is a part of it, and fits for that reason. */
void replaceAddress(const char *text, size_t length, const char *masked, Output &output) {
    const size_t addressLength = KIRU_StrLen(registeredAddress);
    const size_t maskedLength = KIRU_StrLen(masked);
    const char *end = text + length;
    const char *rest = text;
    for (const char *found; (found = KIRU_StrStr(rest, registeredAddress)) != nullptr;) {
        output.put(rest, static_cast<size_t>(found - rest));
        if (!output.takes(maskedLength)) {
            return;
        }
        output.put(masked, maskedLength);
        rest = found + addressLength;
        if (!output.takes(static_cast<size_t>(end - rest))) {
            return;
        }
    }
    output.put(rest, static_cast<size_t>(end - rest));
}

}  // namespace

uint32_t ConfFilterIPAddrStr(const char *src, char *dst, uint32_t dstSize) {
    if (src == nullptr || dst == nullptr || dstSize < CONF_MASK_SIZE ||
        memset_s(dst, dstSize, 0, dstSize) != 0) {
        return 1;
    }
    const Masked masked = maskAddress(src, dst, dstSize);
    if (masked != Masked::kOtherForm) {
        return masked == Masked::kDone ? 0 : 1;
    }
    if (ConfFilterStr(src, dst, dstSize) != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfFilterStr fail.\n");
        return 1;
    }
    return 0;
}

uint32_t ConfFilterSetIPStr(const char *address) {
    if (address == nullptr || KIRU_StrLen(address) > kLongestRegistered) {
        return 1;
    }
    return strcpy_s(registeredAddress, sizeof(registeredAddress), address) == 0 ? 0 : 1;
}

uint32_t ConfReplaceIPAddrStr(const char *text, char **out, uint32_t *outLength) {
    const size_t addressLength = KIRU_StrLen(registeredAddress);
    if (text == nullptr || out == nullptr || outLength == nullptr || *text == '\0' ||
        addressLength < kShortestAddress || addressLength > kLongestAddress) {
        return 1;
    }
    char masked[CONF_MASK_SIZE];
    if (ConfFilterIPAddrStr(registeredAddress, masked, sizeof(masked)) != 0) {
        return 1;
    }
    const size_t length = KIRU_StrLen(text);
    const size_t capacity = length + kExtraRoom;
    *out = takeBlock<char>(capacity, kUnit).release();
    if (*out == nullptr) {
        return 1;
    }
    Output output(*out, capacity);
    replaceAddress(text, length, masked, output);
    if (!output.good()) {
        return 1;
    }
    *outLength = static_cast<uint32_t>(output.length());
    return 0;
}

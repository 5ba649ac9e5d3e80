/* Masking in place of the values that follow a key.
 *
 * Marks are looked for from positions that only move on. What masking changes lies in front of where
 * the next search begins, or holds none of the marks, so that a place found once holds until it is
 * passed: each kind of mark is searched through the text once, not once per value. */
#include <cstddef>
#include <cstring>

#include "include/conf_mask_keyword.h"
#include "platform/tamo_common.h"

namespace {

constexpr char kTelephoneKey[] = "tel:";
constexpr char kListKey[] = "-eid";
constexpr char kLineEnd[] = "\r";
constexpr char kSeparator[] = ";";

/* The next place of a mark, for positions that only move on. */
class NextMark {
  public:
    explicit NextMark(const char *mark) : mark_(mark) {}

    /* The first place at or behind a position; null when there is none. */
    char *from(char *position) {
        if (!searched_ || (place_ != nullptr && place_ < position)) {
            place_ = KIRU_StrStr(position, mark_);
            searched_ = true;
        }
        return place_;
    }

  private:
    const char *mark_;
    char *place_ = nullptr;
    bool searched_ = false;
};

/* Is `place` there, and in front of `other` if that is there? */
bool precedes(const char *place, const char *other) {
    return place != nullptr && (other == nullptr || place < other);
}

/* Values that are lists: each part is masked by itself. */
class Lists {
  public:
    /* Masks the parts of a value in a line that ends at `lineEnd` (null: with the text). */
    void mask(char *value, char *end, const char *lineEnd) {
        char *separator = first_.from(value);
        if (!precedes(separator, lineEnd)) {
            ConfFilterNonSecurityWordExImpl(value, end);
            return;
        }
        ConfFilterNonSecurityWordExImpl(value, separator);
        if (last_ == nullptr || separator > last_) {
            last_ = maskFollowing(separator, lineEnd);
        }
        ConfFilterNonSecurityWordExImpl(last_ + 1, end);
    }

  private:
    /* Masks the parts between the separators behind one and returns the line's last separator. */
    char *maskFollowing(char *separator, const char *lineEnd) {
        for (;;) {
            char *next = following_.from(separator + 1);
            if (!precedes(next, lineEnd)) {
                return separator;
            }
            ConfFilterNonSecurityWordExImpl(separator + 1, next);
            separator = next;
        }
    }

    NextMark first_{kSeparator};
    NextMark following_{kSeparator};
    char *last_ = nullptr; /* up to here all parts between separators are masked */
};

/* What one call looks for, and how far it has come. */
class ValueMasker {
  public:
    ValueMasker(const char *key, const char *endMark)
        : endMarks_(endMark),
          endMarkLength_(KIRU_StrLen(endMark)),
          isTelephone_(KIRU_StrCmp(key, kTelephoneKey) == 0),
          isList_(KIRU_StrStr(key, kListKey) != nullptr) {}

    /* Masks a value; returns where to look for the next key, null when there is nothing more to mask.
     */
    char *mask(char *value) {
        char *lineEnd = lineEnds_.from(value);
        char *end = endMarks_.from(value);
        if (isTelephone_ && precedes(lineEnd, end)) {
            end = lineEnd;
        }
        if (end == nullptr) {
            return nullptr;
        }
        if (precedes(lineEnd, end)) {
            return value;
        }
        if (end == value) {
            /* The mark that is skipped may be longer than what is left of the text. */
            return end + strnlen(end, endMarkLength_);
        }
        if (isList_) {
            lists_.mask(value, end, lineEnd);
        } else {
            ConfFilterNonSecurityWordExImpl(value, end);
        }
        return end;
    }

  private:
    NextMark endMarks_;
    NextMark lineEnds_{kLineEnd};
    Lists lists_;
    size_t endMarkLength_;
    bool isTelephone_;
    bool isList_;
};

}  // namespace

void ConfFilterNonSecurityWordEx(char *text, const char *key, const char *endMark) {
    if (text == nullptr || key == nullptr || endMark == nullptr || *key == '\0') {
        return;
    }
    const size_t keyLength = KIRU_StrLen(key);
    ValueMasker masker(key, endMark);
    char *found = KIRU_StrStr(text, key);
    while (found != nullptr) {
        char *next = masker.mask(found + keyLength);
        found = next == nullptr ? nullptr : KIRU_StrStr(next, key);
    }
}

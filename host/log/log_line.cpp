/* Composing a line costs less than formatting it with the C library would: what stays the same for
 * a second or for a thread's life is kept per thread, and plain text is copied eight bytes at a
 * time. */
#include "host/log/log_line.h"

#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <chrono>

#include "host/base/clock.h"
#include "host/base/fast_tls.h"
#include "host/base/fork.h"

namespace tamo::log {
namespace {

constexpr size_t kDateLength = 19;
constexpr size_t kProcessNameMax = 32;
constexpr int64_t kQuarterHour = 900;

/* Static thread storage: the first use in a thread allocates nothing either. */
struct ThreadPrefix {
    uint32_t forks; /* as of the making of `process`; 0: not made */
    uint32_t processLength;
    int64_t second; /* local time that `date` shows */
    char date[kDateLength + 1];
    char process[kProcessNameMax + 28]; /* name[pid/tid] */
};
__thread ThreadPrefix threadPrefix TAMO_FAST_TLS;

/* Process and thread ids are other ones after a fork. */
std::atomic<uint32_t> forkCount{1};

/* The quarter of an hour (upper half) for which the offset from UTC in seconds (lower half) was
 * asked for: zones change their offset at no other time. Asking takes a lock of the C library, which
 * a fork by another thread may leave locked for ever in the child: hence so rarely. */
std::atomic<int64_t> zoneOffset{-1};

int32_t utcOffset(int64_t now) {
    const int64_t quarter = now / kQuarterHour;
    const int64_t known = zoneOffset.load(std::memory_order_relaxed);
    if (known >> 32 == quarter) {
        return static_cast<int32_t>(known);
    }
    const time_t asked = static_cast<time_t>(now);
    struct tm local = {};
    localtime_r(&asked, &local);
    const auto offset = static_cast<int32_t>(local.tm_gmtoff);
    zoneOffset.store(quarter << 32 | static_cast<uint32_t>(offset), std::memory_order_relaxed);
    return offset;
}

void afterForkInChild() {
    forkCount.fetch_add(1, std::memory_order_relaxed);
}

/* Reading the time zone allocates, and only the first time: hence here, before any record. */
__attribute__((constructor)) void prepareProcess() {
    (void)utcOffset(time(nullptr));
    guardForks(ForkStage::kLogLine, {nullptr, nullptr, afterForkInChild});
}

char *putText(char *at, const char *text, size_t length) {
    memcpy(at, text, length);
    return at + length;
}

char *putNumber(char *at, int64_t number) {
    return std::to_chars(at, at + 20, number).ptr;
}

/* With leading zeros. */
char *putDigits(char *at, uint32_t number, size_t digits) {
    for (size_t i = digits; i > 0; i--) {
        at[i - 1] = static_cast<char>('0' + number % 10);
        number /= 10;
    }
    return at + digits;
}

/* The C library's conversions of a time to a date would take its lock again. */
void makeDate(ThreadPrefix *prefix, int64_t second) {
    const std::chrono::sys_seconds time{std::chrono::seconds(second)};
    const auto midnight = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day day(midnight);
    const auto within = static_cast<uint32_t>((time - midnight).count());
    char *at = putDigits(prefix->date, static_cast<uint32_t>(static_cast<int>(day.year())), 4);
    *at++ = '-';
    at = putDigits(at, static_cast<unsigned>(day.month()), 2);
    *at++ = '-';
    at = putDigits(at, static_cast<unsigned>(day.day()), 2);
    *at++ = ' ';
    at = putDigits(at, within / 3600, 2);
    *at++ = ':';
    at = putDigits(at, within / 60 % 60, 2);
    *at++ = ':';
    putDigits(at, within % 60, 2);
    prefix->second = second;
}

void makeProcess(ThreadPrefix *prefix, uint32_t forks) {
    char *at = prefix->process;
    const char *name = program_invocation_short_name;
    for (size_t i = 0; i < kProcessNameMax && name[i] != '\0'; i++) {
        const bool plain = name[i] > ' ' && name[i] <= '~' && name[i] != '[' && name[i] != ']';
        *at++ = plain ? name[i] : '_';
    }
    *at++ = '[';
    at = putNumber(at, getpid());
    *at++ = '/';
    at = putNumber(at, gettid());
    *at++ = ']';
    prefix->processLength = static_cast<uint32_t>(at - prefix->process);
    prefix->forks = forks;
}

char *putLevel(char *at, uint8_t level) {
    static constexpr char kNames[][9] = {"ERROR  ", "WARNING ", "INFO   ", "DEBUG  "};
    if (level >= 1 && level <= 4) {
        return putText(at, kNames[level - 1], strlen(kNames[level - 1]));
    }
    at = putText(at, "LEVEL", 5);
    at = putNumber(at, level);
    *at++ = ' ';
    return at;
}

/* True when each of the eight characters is a printable one of ASCII. */
bool isPlain(uint64_t characters) {
    constexpr uint64_t kEach = 0x0101010101010101;
    constexpr uint64_t kHigh = kEach * 0x80;
    const uint64_t belowBlank = characters - kEach * ' ';
    const uint64_t differsFromDelete = characters ^ kEach * 0x7F;
    const uint64_t isDelete = (differsFromDelete - kEach) & ~differsFromDelete;
    return ((characters | belowBlank | isDelete) & kHigh) == 0;
}

bool isContinuation(uint8_t byte) {
    return (byte & 0xC0) == 0x80;
}

/* The bytes of the well-formed UTF-8 character at `at` that may stand in a line as it is; 0 for
 * anything else. Control characters beyond ASCII and the two line separators may not. */
size_t characterSize(const uint8_t *at, size_t left) {
    const uint8_t lead = at[0];
    if (lead < 0x80) {
        return lead >= ' ' && lead != 0x7F ? 1 : 0;
    }
    const size_t size = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || size > left) {
        return 0;
    }
    for (size_t i = 1; i < size; i++) {
        if (!isContinuation(at[i])) {
            return 0;
        }
    }
    const uint32_t start = static_cast<uint32_t>(lead) << 8 | at[1];
    const bool overlong =
        (start >= 0xE080 && start < 0xE0A0) || (start >= 0xF080 && start < 0xF090);
    const bool surrogate = start >= 0xEDA0 && start < 0xEE80;
    const bool beyond = start >= 0xF490;
    const bool control = start < 0xC2A0;
    const bool separator = start == 0xE280 && (at[2] == 0xA8 || at[2] == 0xA9);
    return overlong || surrogate || beyond || control || separator ? 0 : size;
}

char *putEscape(char *at, uint8_t byte) {
    static constexpr char kHex[] = "0123456789abcdef";
    *at++ = '\\';
    if (byte == '\n') {
        *at++ = 'n';
        return at;
    }
    *at++ = 'x';
    *at++ = kHex[byte >> 4];
    *at++ = kHex[byte & 15];
    return at;
}

/* Writes at most four times `length` bytes. */
char *putEscaped(char *at, const char *text, size_t length) {
    size_t i = 0;
    while (i < length) {
        uint64_t eight = 0;
        if (length - i >= sizeof(eight)) {
            memcpy(&eight, text + i, sizeof(eight));
            if (isPlain(eight)) {
                at = putText(at, text + i, sizeof(eight));
                i += sizeof(eight);
                continue;
            }
        }
        const auto *byte = reinterpret_cast<const uint8_t *>(text + i);
        const size_t size = characterSize(byte, length - i);
        at = size == 0 ? putEscape(at, *byte) : putText(at, text + i, size);
        i += size == 0 ? 1 : size;
    }
    return at;
}

/* Where to cut: not within a character. */
size_t cutLength(const char *text, size_t limit) {
    size_t length = limit;
    while (length > 0 && limit - length < 3 && isContinuation(static_cast<uint8_t>(text[length]))) {
        length--;
    }
    return isContinuation(static_cast<uint8_t>(text[length])) ? limit : length;
}

/* A line feed at the end belongs to the line, not to the text. */
char *putRecordText(char *at, const char *text, size_t limit) {
    size_t length = strnlen(text, limit + 2);
    if (length > 0 && length <= limit + 1 && text[length - 1] == '\n') {
        length--;
    }
    if (length <= limit) {
        return putEscaped(at, text, length);
    }
    at = putEscaped(at, text, cutLength(text, limit));
    return putText(at, kLogCutMark, sizeof(kLogCutMark) - 1);
}

char *putHead(char *at, uint8_t level, uint64_t now) {
    ThreadPrefix *prefix = &threadPrefix;
    const uint32_t forks = forkCount.load(std::memory_order_relaxed);
    if (prefix->forks != forks) {
        makeProcess(prefix, forks);
    }
    const auto second = static_cast<int64_t>(now / kNsPerSecond);
    const int64_t local = second + utcOffset(second);
    if (prefix->second != local) {
        makeDate(prefix, local);
    }
    at = putText(at, prefix->date, kDateLength);
    *at++ = '.';
    at = putDigits(at, static_cast<uint32_t>(now % kNsPerSecond / 1000), 6);
    *at++ = ' ';
    at = putLevel(at, level);
    at = putText(at, prefix->process, prefix->processLength);
    *at++ = ' ';
    return at;
}

}  // namespace

uint32_t composeLogLine(LogLine *line, const LogOrigin &origin, const char *text, size_t limit) {
    const uint64_t now = wallClockNs();
    const char *unit = origin.unit == nullptr ? "?" : origin.unit;
    char *at = putHead(line->text, origin.level, now);
    at = putEscaped(at, unit, strnlen(unit, kLogUnitMax));
    *at++ = ':';
    at = putNumber(at, origin.line);
    *at++ = ' ';
    at = putRecordText(at, text, limit < kLogTextMax ? limit : kLogTextMax);
    *at++ = '\n';
    line->length = static_cast<size_t>(at - line->text);
    return static_cast<uint32_t>(now / kNsPerMs);
}

}  // namespace tamo::log

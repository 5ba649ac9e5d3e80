/* Records of a log: see log_filter.h. Times are read by strptime, patterns by regcomp and fnmatch. */
#include "log_filter.h"

#include <fnmatch.h>
#include <strings.h>
#include <time.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>

#include "output.h"

namespace tamoctl {

namespace {

constexpr std::string_view kLevels[] = {"ERROR", "WARNING", "INFO", "DEBUG"};

size_t severityOf(std::string_view name) {
    for (size_t at = 0; at < std::size(kLevels); at++) {
        if (name.size() == kLevels[at].size() &&
            strncasecmp(name.data(), kLevels[at].data(), name.size()) == 0) {
            return at + 1;
        }
    }
    return 0;
}

/* Takes the text before `end` off `rest`; nothing when `end` does not come. */
std::optional<std::string_view> takeUntil(std::string_view *rest, std::string_view end) {
    const size_t at = rest->find(end);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view taken = rest->substr(0, at);
    rest->remove_prefix(at + end.size());
    return taken;
}

bool readNumber(std::string_view text, uint64_t *number) {
    const auto [parsed, error] = std::from_chars(text.begin(), text.end(), *number);
    return error == std::errc() && parsed == text.end();
}

/* A pattern without capital letters matches in any letter case. */
bool hasCapital(const char *text) {
    return std::any_of(text, text + strlen(text),
                       [](char c) { return isupper(static_cast<unsigned char>(c)) != 0; });
}

/* The seconds that a text such as "10m" is, -1 when it is not one. */
int64_t agoOf(const char *text) {
    constexpr std::pair<char, int64_t> kUnits[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};
    int64_t number = 0;
    const char *end = text + strlen(text);
    const auto [parsed, error] = std::from_chars(text, end, number);
    for (const auto &[letter, seconds] : kUnits) {
        if (error == std::errc() && parsed + 1 == end && *parsed == letter && number >= 0 &&
            number < INT32_MAX) {
            return number * seconds;
        }
    }
    return -1;
}

/* A local time as the log writes it. */
std::string logTime(time_t seconds) {
    return timeText(int64_t{seconds} * 1000000, false);
}

std::string parseSince(const Command &command, const char *text) {
    const time_t now = time(nullptr);
    const int64_t ago = agoOf(text);
    tm today = {};
    localtime_r(&now, &today);
    if (ago >= 0) {
        return logTime(now - static_cast<time_t>(ago));
    }
    today.tm_hour = today.tm_min = today.tm_sec = 0;
    if (strcmp(text, "today") == 0 || strcmp(text, "yesterday") == 0) {
        today.tm_mday -= text[0] == 'y' ? 1 : 0;
        today.tm_isdst = -1;
        return logTime(mktime(&today));
    }
    for (const char *format :
         {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d", "%H:%M:%S", "%H:%M"}) {
        tm parts = today;
        const char *end = strptime(text, format, &parts);
        if (end != nullptr && *end == 0) {
            parts.tm_isdst = -1;
            return logTime(mktime(&parts));
        }
    }
    failUsage(command,
              "invalid time '%s': must be like '2026-11-25 14:30:00', '2026-11-25', '14:30', "
              "'today', 'yesterday' or '10m'",
              text);
}

void releasePattern(regex_t *pattern) {
    regfree(pattern);
    delete pattern;
}

}  // namespace

std::string LogRecord::universalTime() const {
    tm parts = {};
    std::string local(time);
    const char *rest = strptime(local.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
    uint64_t microseconds = 0;
    if (rest == nullptr || *rest != '.' || !readNumber(rest + 1, &microseconds)) {
        return local;
    }
    parts.tm_isdst = -1;
    return timeText(int64_t{mktime(&parts)} * 1000000 + static_cast<int64_t>(microseconds), true);
}

std::optional<LogRecord> parseRecord(std::string_view line) {
    if (line.size() <= kLogTimeLength) {
        return std::nullopt;
    }
    LogRecord record = {};
    record.time = line.substr(0, kLogTimeLength - 1);
    std::string_view rest = line.substr(kLogTimeLength);
    record.level = takeUntil(&rest, " ").value_or("");
    record.severity = severityOf(record.level);
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
    const std::optional<std::string_view> process = takeUntil(&rest, "] ");
    const std::optional<std::string_view> unit = takeUntil(&rest, " ");
    if (record.severity == 0 || !process.has_value() || !unit.has_value()) {
        return std::nullopt;
    }
    const size_t bracket = process->rfind('['), slash = process->rfind('/'),
                 colon = unit->rfind(':');
    if (bracket == std::string_view::npos || slash == std::string_view::npos || slash < bracket ||
        colon == std::string_view::npos ||
        !readNumber(process->substr(bracket + 1, slash - bracket - 1), &record.pid) ||
        !readNumber(process->substr(slash + 1), &record.tid) ||
        !readNumber(unit->substr(colon + 1), &record.line)) {
        return std::nullopt;
    }
    record.process = process->substr(0, bracket);
    record.unit = unit->substr(0, colon);
    record.text = rest;
    return record;
}

LogFilter::LogFilter(const Command &command, const Arguments &arguments)
    : severity_(arguments.has("level") ? severityOf(arguments.text("level")) : std::size(kLevels)),
      process_(arguments.text("process")),
      unit_(arguments.text("unit")),
      pattern_(nullptr, releasePattern) {
    if (arguments.has("since")) {
        since_ = parseSince(command, arguments.text("since"));
    }
    const char *pattern = arguments.text("grep");
    if (pattern == nullptr) {
        return;
    }
    auto *compiled = new regex_t;
    const int flags = REG_EXTENDED | REG_NOSUB | (hasCapital(pattern) ? 0 : REG_ICASE);
    const int result = regcomp(compiled, pattern, flags);
    if (result != 0) {
        char why[128];
        regerror(result, compiled, why, sizeof(why));
        delete compiled;
        failUsage(command, "invalid pattern '%s': %s", pattern, why);
    }
    pattern_ = Pattern(compiled, releasePattern);
}

bool LogFilter::takes(std::string_view line) const {
    const std::optional<LogRecord> record = parseRecord(line);
    const bool filters =
        process_ != nullptr || unit_ != nullptr || pattern_ != nullptr || !since_.empty();
    if (!record.has_value()) {
        return !filters;
    }
    const auto matches = [](const char *glob, std::string_view text) {
        return glob == nullptr || fnmatch(glob, std::string(text).c_str(), 0) == 0;
    };
    return record->severity <= severity_ && record->time >= since_ &&
           (matches(process_, record->process) || matches(process_, std::to_string(record->pid))) &&
           matches(unit_, record->unit) &&
           (pattern_ == nullptr ||
            regexec(pattern_.get(), std::string(record->text).c_str(), 0, nullptr, 0) == 0);
}

}  // namespace tamoctl

/* The records of a log, and which of them are wanted. */
#pragma once
#include <regex.h>

#include <memory>
#include <string>
#include <string_view>

#include "tamoctl.h"

namespace tamoctl {

/* "2026-11-24 14:46:45.123456 " stands before the level. */
constexpr size_t kLogTimeLength = 27;

/* One line of a log, taken apart; its texts are parts of the line. */
struct LogRecord {
    std::string_view time, level, process, unit, text;
    size_t severity; /* 1 for an error to 4 */
    uint64_t pid, tid, line;

    std::string universalTime() const;
};

/* Nothing for a line that is not a record. */
std::optional<LogRecord> parseRecord(std::string_view line);

class LogFilter {
  public:
    /* Reads the options of 'tamoctl log'. */
    LogFilter(const Command &command, const Arguments &arguments);

    bool takes(std::string_view line) const;

  private:
    using Pattern = std::unique_ptr<regex_t, void (*)(regex_t *)>;

    size_t severity_;
    const char *process_, *unit_;
    std::string since_;
    Pattern pattern_;
};

}  // namespace tamoctl

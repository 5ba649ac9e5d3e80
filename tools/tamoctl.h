/* What the commands of tamoctl share: the table of commands, their command lines and how they end.
 */
#pragma once
#include <getopt.h>

#include <span>
#include <string>
#include <vector>

namespace tamoctl {

enum ExitCode : int { kSuccess = 0, kFailed = 1, kUsage = 2, kCountNotReached = 3 };

/* One command of the tool. */
struct Command {
    const char *name;
    const char *arguments; /* as the usage line shows them */
    const char *summary;   /* for the list of commands */
    const char *help;      /* what stands below the usage line: description, options, examples */
    int (*run)(const Command &command, int argc, char **argv);
};

extern const Command kGetCommand, kSetCommand, kListCommand, kMemCommand, kLogCommand,
    kQueuesCommand, kCertCommand, kWatchCommand, kImportCommand, kExportCommand;

/* Codes of options that have no letter. */
enum LongOption : int {
    kOptionJson = 256,
    kOptionRoot,
    kOptionLevel,
    kOptionColor,
    kOptionReplace,
    kOptionVersion
};

inline const option kJsonOption = {"json", no_argument, nullptr, kOptionJson};

/* The options and operands behind a command's name. Every command knows --help and --root besides
 * its own; a wrong option ends the program with the usage code. */
class CommandLine {
  public:
    /* `shortOptions` as for getopt; a leading '+' ends the options at the first operand. */
    CommandLine(const Command &command, int argc, char **argv, std::string shortOptions,
                std::vector<option> longOptions);

    /* The next option's code, -1 when only operands are left. */
    int next();

    /* For a command whose one option is --json: reads to the operands, true when it was there. */
    bool readJson();

    /* Valid once next() has returned -1. */
    std::span<char *> operands() const;

  private:
    const Command &command_;
    int argc_;
    char **argv_;
    std::string shortOptions_;
    std::vector<option> longOptions_;
};

/* Makes `directory` the device root. A directory that does not exist is refused later, by
 * requireRoot, for the commands that only look. */
void useRoot(const char *directory);
void requireRoot(const Command &command);

/* The native path of a directory below the device root; ends the program when there is no root. */
std::string rootPath(const Command &command, const char *devicePath);

/* One line on standard error, then the end of the program. The message says what to do next. */
[[noreturn]] __attribute__((format(printf, 2, 3))) void fail(const Command &command,
                                                             const char *format, ...);
[[noreturn]] __attribute__((format(printf, 2, 3))) void failUsage(const Command &command,
                                                                  const char *format, ...);

/* Ends the program with what a host operation's result code means. */
[[noreturn]] void failHost(const Command &command, const char *what, uint32_t result);

}  // namespace tamoctl

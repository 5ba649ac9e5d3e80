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

/* Makes `directory`, a name that is not empty, the device root. */
void useRoot(const char *directory);

/* What a command does to the device root. */
enum class Access { look, change };

/* Ends the program when there is no device root: looking makes none, and changing makes the default
 * one alone, not one that was named. A program of user 0 works on as the root's owner, who then owns
 * what it makes there. */
void requireRoot(const Command &command, Access access = Access::look);

/* The end of working as the root's owner, before the caller's own files are written. */
void workAsCaller();

/* For commands that look at the configuration: false when nothing was stored yet. Ends the program
 * when the store is damaged, which opening it would change. */
bool requireStore(const Command &command);

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

/* What the commands of tamoctl share: the table of commands, their command lines and how they end.
 *
 * How it works: command_table.cpp describes every command once. main finds the command there and
 * hands its words to Arguments; command_help.cpp makes the help, the manual page and what the shells
 * complete from the same table. Then a command is a function in a file command_*.cpp; lines.h and
 * rows.h print for it. One thread runs a command; a second one ends it early (lines.h). */
#pragma once
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tamoctl {

enum ExitCode : int { kSuccess = 0, kFailed = 1, kUsage = 2, kCountNotReached = 3 };

/* What a word of a command line stands for; the shells complete it by that. */
enum class Kind {
    text,
    key,
    queue,
    process,
    log,
    file,
    directory,
    command,
    certificate,
    caFile,
    crlFile,
    choice /* one of Option::choices */
};

struct Option {
    char letter; /* 0: it has none */
    std::string name;
    std::string value; /* what the help calls its value; empty: it takes none */
    std::string help;
    Kind kind = Kind::text;
    std::vector<std::string> choices = {};
};

class Arguments;

struct Command {
    std::string name;        /* one to three words */
    std::string operandText; /* as the usage line shows the operands */
    std::string summary;
    std::string
        description; /* paragraphs, one a line; a line that begins with a blank stays as is */
    std::vector<Option> options;
    std::vector<Kind> operands;
    bool repeats; /* the operands may come again and again */
    std::vector<std::string> examples;
    int (*run)(const Command &command, const Arguments &arguments);
    bool optionsFirst =
        false; /* options end at the first operand, so that one may begin with '-' */
};

/* Every command, in the order of the help. */
const std::vector<Command> &commands();

/* The options of the program itself, which every command takes too. */
const std::vector<Option> &commonOptions();

/* The command that the first words name, null when they name none; `used` is how many words. */
const Command *findCommand(std::span<char *const> words, size_t *used);

/* What stands behind a command's name, taken apart. A wrong option ends the program with the usage
 * code. */
class Arguments {
  public:
    /* `words` begins with the last word of the command's name. */
    Arguments(const Command &command, std::span<char *> words);

    bool has(std::string_view option) const;
    /* The option's last value, null when it is not there. */
    const char *text(std::string_view option) const;
    std::vector<const char *> texts(std::string_view option) const;
    /* A whole number of at least `least`; the program ends for another text. */
    std::optional<uint64_t> number(std::string_view option, uint64_t least) const;
    /* A time in seconds, such as 2.5. */
    std::optional<std::chrono::milliseconds> seconds(std::string_view option) const;

    std::span<char *const> operands() const { return operands_; }

  private:
    const Command &command_;
    std::vector<std::pair<std::string, const char *>> values_;
    std::span<char *const> operands_;
};

/* ---- help: the texts that are made of the table ---- */

void printProgramHelp();
void printCommandHelp(const Command &command);

/* The help of the commands whose names begin with a word, such as "cert"; false when there is none. */
bool printGroupHelp(const std::string &word);

int runHelp(const Command &command, const Arguments &arguments);
int runComplete(const Command &command, const Arguments &arguments);

/* ---- the device root ---- */

/* Makes `directory`, a name that is not empty, the device root. */
void useRoot(const char *directory);

/* What a command does to the device root. */
enum class Access { look, change };

/* Where the device root lies, or would lie. */
std::string rootInUse();

/* Whether there is a device root to look into. */
bool holdsDeviceRoot(const std::string &root);

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

/* ---- ends ---- */

/* One line on standard error, then the end of the program. The message says what to do next. */
[[noreturn]] __attribute__((format(printf, 2, 3))) void fail(const Command &command,
                                                             const char *format, ...);
[[noreturn]] __attribute__((format(printf, 2, 3))) void failUsage(const Command &command,
                                                                  const char *format, ...);

/* Ends the program with what a host operation's result code means. */
[[noreturn]] void failHost(const Command &command, const char *what, uint32_t result);

/* "; did you mean 'A' or 'B'?" with the candidates that are most like the word; empty without one. */
std::string suggestion(std::string_view word, const std::vector<std::string> &candidates);

/* ---- names of things below the device root, for completion and suggestions ---- */

std::vector<std::string> storedKeys();
std::vector<std::string> queueNames();
std::vector<std::string> logNames();
/* The living processes that have a table of blocks, by id. */
std::vector<uint32_t> processesWithTable();
/* The program's name as its log records have it; empty when there is no such process. */
std::string processName(uint32_t pid);

}  // namespace tamoctl

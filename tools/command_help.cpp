/* The texts that are made of the table of commands: the help, the manual page tamoctl(1), and what the
 * shells offer to complete a command line. */
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "command_cert.h"
#include "output.h"
#include "tamo_host.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

constexpr const char *kAbout =
    "Shows and changes what the host platform of the conference library keeps: configuration "
    "values, the log, message queues, the memory blocks of running processes, certificates.";
constexpr const char *kExitStatus =
    "0: success. 1: something was not found, or failed. 2: wrong usage. 3: the output ended by its "
    "time or a signal before it was complete, or before COUNT lines.";
constexpr const char *kProgramExamples[] = {
    "tamoctl set Conf.SIPCallParam.sipServerAddr sip.example.com",
    "tamoctl list 'Conf.SIPCallParam.*'", "tamoctl log --follow --level warning"};

/* ---- help ---- */

size_t helpWidth() {
    return onTerminal() ? std::clamp<size_t>(terminalWidth(), 40, 100) : 80;
}

/* Prints a text in lines of at most `width`, each behind `indent` blanks but the first. */
void printWrapped(const std::string &text, size_t indent, size_t width) {
    std::istringstream words(text);
    size_t column = indent;
    bool first = true;
    for (std::string word; words >> word; first = false) {
        if (!first && column + 1 + word.size() > width) {
            printf("\n%*s", static_cast<int>(indent), "");
            column = indent;
        } else if (!first) {
            putchar(' ');
            column++;
        }
        fputs(word.c_str(), stdout);
        column += word.size();
    }
    putchar('\n');
}

std::string optionText(const Option &option) {
    std::string text = option.letter != 0 ? std::string("-") + option.letter + ", " : "";
    text += "--" + option.name + (option.value.empty() ? "" : " " + option.value);
    return text;
}

std::string helpOf(const Option &option) {
    std::string text = option.help;
    for (const std::string &choice : option.choices) {
        text += (&choice == &option.choices[0] ? ": " : ", ") + choice;
    }
    return text;
}

void printOptions(const std::vector<Option> &options) {
    size_t longest = 0;
    for (const Option &option : options) {
        longest = std::max(longest, optionText(option).size());
    }
    for (const Option &option : options) {
        printf("  %-*s  ", static_cast<int>(longest), optionText(option).c_str());
        printWrapped(helpOf(option), longest + 4, helpWidth());
    }
}

std::vector<std::string> linesOf(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string usageOf(const Command &command) {
    return command.name + (command.options.empty() ? "" : " [OPTION...]") +
           (command.operandText.empty() ? "" : " " + command.operandText);
}

void printCommandList(const std::string &group) {
    size_t longest = 0;
    for (const Command &command : commands()) {
        longest = std::max(longest, command.name.size());
    }
    for (const Command &command : commands()) {
        if (group.empty() || command.name.starts_with(group + " ")) {
            printf("  %-*s  ", static_cast<int>(longest), command.name.c_str());
            printWrapped(command.summary, longest + 4, helpWidth());
        }
    }
}

/* ---- the manual page ---- */

/* The text for troff: its own characters stand for themselves. */
std::string roff(const std::string &text) {
    std::string result;
    for (const char c : text) {
        result += c == '\\' ? "\\e" : c == '-' ? "\\-" : c == '\'' ? "\\(aq" : std::string(1, c);
    }
    return result.starts_with(".") ? "\\&" + result : result;
}

void printRoffOptions(const std::vector<Option> &options) {
    for (const Option &option : options) {
        const std::string letter =
            option.letter == 0 ? "" : std::string("\\fB\\-") + option.letter + "\\fR, ";
        const std::string value = option.value.empty() ? "" : " \\fI" + roff(option.value) + "\\fR";
        printf(".TP\n%s\\fB%s\\fR%s\n%s\n", letter.c_str(), roff("--" + option.name).c_str(),
               value.c_str(), roff(helpOf(option)).c_str());
    }
}

template <typename Lines>
void printRoffExamples(const Lines &lines) {
    puts(".PP\n.nf\n.RS 4");
    for (const auto &line : lines) {
        puts(roff(line).c_str());
    }
    puts(".RE\n.fi");
}

void printManualPage() {
    printf(".TH TAMOCTL 1 \"\" \"tamoctl %s\" \"User Commands\"\n", TAMOCTL_VERSION);
    puts(".SH NAME\ntamoctl \\- look into the conference library\\(aqs host platform");
    puts(
        ".SH SYNOPSIS\n\\fBtamoctl\\fR [\\fB\\-\\-root\\fR \\fIDIR\\fR] \\fICOMMAND\\fR "
        "[\\fIARGUMENT\\fR...]");
    printf(".SH DESCRIPTION\n%s\n.SH OPTIONS\n", roff(kAbout).c_str());
    printRoffOptions(commonOptions());
    puts(".SH COMMANDS");
    for (const Command &command : commands()) {
        printf(".SS \"%s\"\n", roff("tamoctl " + usageOf(command)).c_str());
        for (const std::string &line : linesOf(command.description)) {
            printf("%s\n.PP\n", roff(line).c_str());
        }
        printRoffOptions(command.options);
        printRoffExamples(command.examples);
    }
    printf(".SH EXIT STATUS\n%s\n", roff(kExitStatus).c_str());
    puts(".SH ENVIRONMENT");
    puts(".TP\n\\fBTAMO_DEVICE_ROOT\\fR\nThe device root unless \\-\\-root names one.");
    puts(".TP\n\\fBNO_COLOR\\fR\nNo colours on a terminal.");
    puts(".TP\n\\fBCOLUMNS\\fR\nThe width of tables on a terminal.");
    puts(".SH EXAMPLES");
    printRoffExamples(kProgramExamples);
}

/* ---- completion ---- */

void offer(const std::string &prefix, std::string_view word, const std::string &text,
           const std::string &begin = "") {
    if (word.starts_with(prefix) && printable(word) == word) {
        printf("%s%s\t%s\n", begin.c_str(), std::string(word).c_str(), text.c_str());
    }
}

void offerAll(const std::vector<std::string> &words, const std::string &prefix,
              const std::string &begin) {
    for (const std::string &word : words) {
        offer(prefix, word, "", begin);
    }
}

void offerKind(const Option &what, const std::string &prefix, const std::string &begin) {
    switch (what.kind) {
        case Kind::choice:
            offerAll(what.choices, prefix, begin);
            break;
        case Kind::key:
            offerAll(storedKeys(), prefix, begin);
            break;
        case Kind::queue:
            offerAll(queueNames(), prefix, begin);
            break;
        case Kind::log:
            offerAll(logNames(), prefix, begin);
            break;
        case Kind::process:
            for (const uint32_t pid : processesWithTable()) {
                offer(prefix, std::to_string(pid), processName(pid), begin);
            }
            break;
        case Kind::certificate:
            for (const auto &[id, text] :
                 {std::pair("263", "certificate type 0"), std::pair("265", "certificate type 1"),
                  std::pair("259", "certificate type 2"), std::pair("260", "certificate type 3")}) {
                offer(prefix, id, text, begin);
            }
            break;
        case Kind::caFile:
            offerAll(certificateNames("ca"), prefix, begin);
            break;
        case Kind::crlFile:
            offerAll(certificateNames("crl"), prefix, begin);
            break;
        case Kind::file:
            puts("\tfile");
            break;
        case Kind::directory:
            puts("\tdirectory");
            break;
        case Kind::command:
        case Kind::text:
            break;
    }
}

/* The next word of the commands whose names begin with those words. */
void offerCommands(const std::string &words, const std::string &prefix) {
    std::string before;
    for (const Command &command : commands()) {
        if (!command.name.starts_with(words) || command.name == "complete") {
            continue;
        }
        const std::string rest = command.name.substr(words.size());
        const std::string word = rest.substr(0, rest.find(' '));
        if (word != before) {
            offer(prefix, word, word == rest ? command.summary : "commands for certificates");
        }
        before = word;
    }
}

/* A command line as far as it is written. */
struct Line {
    const Command *command = nullptr;
    std::string words; /* of the command's name, each with a blank behind it */
    size_t operands = 0;
    const Option *open = nullptr; /* the option whose value is the last word */
    bool optionsEnded = false;
};

const Option *findOption(const Line &line, const std::string &word) {
    const auto find = [&](const std::vector<Option> &options) -> const Option * {
        for (const Option &option : options) {
            if (word == "--" + option.name ||
                (option.letter != 0 && word == std::string("-") + option.letter)) {
                return &option;
            }
        }
        return nullptr;
    };
    const Option *own = line.command == nullptr ? nullptr : find(line.command->options);
    return own != nullptr ? own : find(commonOptions());
}

/* Takes a word that stands before the one to complete. */
void takeWord(Line *line, const std::string &word) {
    const size_t equals = word.find('=');
    if (line->open != nullptr) {
        if (line->open->name == "root" && !word.empty()) {
            useRoot(word.c_str());
        }
        line->open = nullptr;
    } else if (!line->optionsEnded && word.starts_with("-") && word.size() > 1) {
        line->optionsEnded = word == "--";
        const Option *option = findOption(*line, word.substr(0, equals));
        if (option != nullptr && option->name == "root" && equals < word.size() - 1) {
            useRoot(word.c_str() + equals + 1);
        }
        line->open = option != nullptr && !option->value.empty() && equals == std::string::npos
                         ? option
                         : nullptr;
    } else if (line->command != nullptr) {
        line->operands++;
        line->optionsEnded = line->optionsEnded || line->command->optionsFirst;
    } else {
        const std::string name = line->words + word;
        line->words = name + " ";
        for (const Command &command : commands()) {
            if (command.name == name) {
                line->command = &command;
            }
        }
    }
}

void offerOptions(const Line &line, const std::string &prefix) {
    const auto offerThem = [&](const std::vector<Option> &options) {
        for (const Option &option : options) {
            if (line.command == nullptr || option.name != "version") {
                offer(prefix, "--" + option.name, option.help);
            }
        }
    };
    if (line.command != nullptr) {
        offerThem(line.command->options);
    }
    offerThem(commonOptions());
}

void complete(const Line &line, const std::string &last) {
    const size_t equals = last.find('=');
    if (line.open != nullptr) {
        offerKind(*line.open, last, "");
    } else if (!line.optionsEnded && last.starts_with("--") && equals != std::string::npos) {
        const Option *option = findOption(line, last.substr(0, equals));
        if (option != nullptr) {
            offerKind(*option, last.substr(equals + 1), last.substr(0, equals + 1));
        }
    } else if (!line.optionsEnded && last.starts_with("-")) {
        offerOptions(line, last);
    } else if (line.command == nullptr) {
        offerCommands(line.words, last);
    } else if (line.command->name == "help") {
        offerCommands("", last);
    } else {
        const std::vector<Kind> &kinds = line.command->operands;
        const bool known =
            line.operands < kinds.size() || (line.command->repeats && !kinds.empty());
        if (known) {
            offerKind({0, "", "", "", kinds[line.operands % kinds.size()], {}}, last, "");
        }
    }
}

}  // namespace

void printProgramHelp() {
    puts("Usage: tamoctl [--root DIR] COMMAND [ARGUMENT...]\n");
    printWrapped(kAbout, 0, helpWidth());
    puts("\nCommands:");
    printCommandList("");
    puts("\nOptions:");
    printOptions(commonOptions());
    puts("\nExamples:");
    for (const char *example : kProgramExamples) {
        printf("  %s\n", example);
    }
    printf("\nExit status: ");
    printWrapped(kExitStatus, 0, helpWidth());
}

void printCommandHelp(const Command &command) {
    printf("Usage: tamoctl [--root DIR] %s\n\n", usageOf(command).c_str());
    for (const std::string &line : linesOf(command.description)) {
        printWrapped(line, 0, helpWidth());
    }
    std::vector<Option> options = command.options;
    options.insert(options.end(), commonOptions().begin(), commonOptions().end() - 1);
    puts("\nOptions:");
    printOptions(options);
    puts("\nExamples:");
    for (const std::string &example : command.examples) {
        printf("  %s\n", example.c_str());
    }
}

bool printGroupHelp(const std::string &word) {
    const std::string begin = word + " ";
    const auto isOf = [&](const Command &command) { return command.name.starts_with(begin); };
    if (std::none_of(commands().begin(), commands().end(), isOf)) {
        return false;
    }
    printf("Usage: tamoctl [--root DIR] COMMAND [ARGUMENT...]\n\nCommands:\n");
    printCommandList(word);
    printf("\n'tamoctl help COMMAND' explains one.\n");
    return true;
}

int runHelp(const Command &command, const Arguments &arguments) {
    if (arguments.has("man")) {
        printManualPage();
        return kSuccess;
    }
    const std::span<char *const> words = arguments.operands();
    if (words.empty()) {
        printProgramHelp();
        return kSuccess;
    }
    size_t used = 0;
    std::string name, names;
    for (const char *word : words) {
        name += (name.empty() ? "" : " ") + std::string(word);
    }
    const Command *found = findCommand(words, &used);
    if (found != nullptr && used == words.size()) {
        printCommandHelp(*found);
    } else if (!printGroupHelp(name)) {
        std::vector<std::string> known;
        for (const Command &each : commands()) {
            known.push_back(each.name);
        }
        failUsage(command, "unknown command '%s'%s", name.c_str(), suggestion(name, known).c_str());
    }
    return kSuccess;
}

int runComplete(const Command &, const Arguments &arguments) {
    const std::span<char *const> words = arguments.operands();
    Line line;
    for (size_t at = 1; at + 1 < words.size(); at++) {
        takeWord(&line, words[at]);
    }
    if (words.size() > 1) {
        complete(line, words.back());
    }
    return kSuccess;
}

}  // namespace tamoctl

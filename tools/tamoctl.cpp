/* tamoctl: a look into the host platform's services from the command line, and into its processes.
 */
#include "tamoctl.h"

#include <getopt.h>
#include <stdlib.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "output.h"

using namespace tamoctl;

namespace {

[[noreturn]] void endUsage(const std::string &message) {
    fprintf(stderr, "tamoctl: %s (see 'tamoctl --help')\n", printable(message).c_str());
    exit(kUsage);
}

/* Handles the options before the command; returns when a command follows. */
void readGlobalOptions(int argc, char **argv) {
    constexpr int kRoot = 256, kVersion = 257;
    const option options[] = {{"root", required_argument, nullptr, kRoot},
                              {"help", no_argument, nullptr, 'h'},
                              {"version", no_argument, nullptr, kVersion},
                              {}};
    opterr = 0;
    for (int code; (code = getopt_long(argc, argv, "+:h", options, nullptr)) != -1;) {
        switch (code) {
            case kRoot:
                if (optarg[0] == 0) {
                    endUsage("the directory of --root is empty");
                }
                useRoot(optarg);
                break;
            case 'h':
                printProgramHelp();
                exit(finishOutput(kSuccess));
            case kVersion:
                puts("tamoctl " TAMOCTL_VERSION);
                exit(finishOutput(kSuccess));
            case ':':
                endUsage(std::string("option '") + argv[optind - 1] + "' needs a value");
            default:
                endUsage(std::string("unknown option '") + argv[optind == 1 ? 1 : optind - 1] +
                         "'");
        }
    }
}

/* Bytes are UTF-8, whatever the environment's locale says of messages and numbers. */
void useUtf8() {
    if (setlocale(LC_CTYPE, "") == nullptr || MB_CUR_MAX == 1) {
        setlocale(LC_CTYPE, "C.UTF-8");
    }
}

/* The words name no command: perhaps a group of them, such as "cert". */
[[noreturn]] void failUnknown(std::span<char *const> words) {
    const std::string group = std::string(words[0]) + " ";
    std::vector<std::string> names;
    std::string members;
    for (const Command &command : commands()) {
        names.push_back(command.name);
        if (command.name.starts_with(group)) {
            members += (members.empty() ? "'" : ", '") + command.name + "'";
        } else if (command.name.find(' ') != std::string::npos) {
            names.push_back(command.name.substr(0, command.name.find(' ')));
        }
    }
    if (members.empty()) {
        endUsage("unknown command '" + std::string(words[0]) + "'" + suggestion(words[0], names));
    }
    endUsage("the command is one of " + members);
}

}  // namespace

int main(int argc, char **argv) {
    useUtf8();
    // A reader that went away is met as an error of writing.
    signal(SIGPIPE, SIG_IGN);
    readGlobalOptions(argc, argv);
    if (optind == argc) {
        endUsage("a command is missing");
    }
    const std::span<char *> words(argv + optind, argv + argc);
    size_t used = 0;
    const Command *command = findCommand(words, &used);
    if (command == nullptr) {
        const bool asksHelp =
            words.size() == 1 || strcmp(words[1], "--help") == 0 || strcmp(words[1], "-h") == 0;
        if (asksHelp && words.size() > 1 && printGroupHelp(words[0])) {
            return finishOutput(kSuccess);
        }
        failUnknown(words);
    }
    const Arguments arguments(*command, words.subspan(used - 1));
    return finishOutput(command->run(*command, arguments));
}

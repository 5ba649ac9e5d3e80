/* tamoctl: a look into the host platform's services from the command line, and into its processes.
 */
#include "tamoctl.h"

#include <cstdio>
#include <cstring>

#include "output.h"

using namespace tamoctl;

namespace {

const Command *const kCommands[] = {&kGetCommand,    &kSetCommand,    &kListCommand, &kWatchCommand,
                                    &kImportCommand, &kExportCommand, &kLogCommand,  &kMemCommand,
                                    &kQueuesCommand, &kCertCommand};

void printHelp() {
    fputs(
        "Usage: tamoctl [--root DIR] COMMAND [ARGUMENT...]\n"
        "\n"
        "Shows and changes what the host platform of the conference library keeps: configuration\n"
        "values, the log, message queues, the memory blocks of running processes, certificates.\n"
        "\n"
        "Commands:\n",
        stdout);
    for (const Command *command : kCommands) {
        printf("  %-8s %s\n", command->name, command->summary);
    }
    fputs(
        "\n"
        "Options:\n"
        "  --root DIR     the device root to look into (default: $TAMO_DEVICE_ROOT, else 'tamo' "
        "in\n"
        "                 the user's data directory)\n"
        "  -h, --help     print this help; after a command, that command's\n"
        "  --version      print the version\n"
        "\n"
        "Examples:\n"
        "  tamoctl set Conf.SIPCallParam.sipServerAddr sip.example.com\n"
        "  tamoctl list 'Conf.SIPCallParam.*'\n"
        "  tamoctl log --follow --level warning\n"
        "\n"
        "Exit status: 0 success, 1 not found or failed, 2 wrong usage, 3 a watch that ended before "
        "its\n"
        "count was reached.\n",
        stdout);
}

[[noreturn]] void endUsage(const char *message, const char *word) {
    fprintf(stderr, "tamoctl: %s%s: see 'tamoctl --help'\n", message, printable(word).c_str());
    exit(kUsage);
}

/* Handles the options before the command; returns when a command follows. */
void readGlobalOptions(int argc, char **argv) {
    const option options[] = {{"root", required_argument, nullptr, kOptionRoot},
                              {"help", no_argument, nullptr, 'h'},
                              {"version", no_argument, nullptr, kOptionVersion},
                              {}};
    opterr = 0;
    for (int code; (code = getopt_long(argc, argv, "+:h", options, nullptr)) != -1;) {
        switch (code) {
            case kOptionRoot:
                if (optarg[0] == 0) {
                    endUsage("the directory of --root is empty", "");
                }
                useRoot(optarg);
                break;
            case 'h':
                printHelp();
                exit(finishOutput(kSuccess));
            case kOptionVersion:
                puts("tamoctl " TAMOCTL_VERSION);
                exit(finishOutput(kSuccess));
            case ':':
                endUsage("a value is missing after ", argv[optind - 1]);
            default:
                endUsage("bad option ", argv[optind == 1 ? 1 : optind - 1]);
        }
    }
}

}  // namespace

int main(int argc, char **argv) {
    readGlobalOptions(argc, argv);
    if (optind == argc) {
        endUsage("a command is missing", "");
    }
    char **words = argv + optind;
    for (const Command *command : kCommands) {
        if (strcmp(command->name, words[0]) == 0) {
            return finishOutput(command->run(*command, argc - optind, words));
        }
    }
    endUsage("there is no command ", words[0]);
}

/* Command lines, the device root and the ways to end: see tamoctl.h. */
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "output.h"
#include "tamo_host.h"
#include "tamo_os_file.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

/* The root that --root named; empty when the environment or the default decides. */
std::string namedRoot;

void printHelp(const Command &command) {
    printf("Usage: tamoctl [--root DIR] %s %s\n\n%s", command.name, command.arguments,
           command.help);
    printf(
        "\nCommon options:\n"
        "  --root DIR     the device root to look into (default: $TAMO_DEVICE_ROOT)\n"
        "  -h, --help     print this help\n");
}

[[noreturn]] void endWithMessage(int code, const Command &command, const char *format,
                                 va_list arguments) {
    fflush(stdout);
    char message[1024];
    vsnprintf(message, sizeof(message), format, arguments);
    fprintf(stderr, "tamoctl %s: %s\n", command.name, printable(message).c_str());
    exit(code);
}

}  // namespace

CommandLine::CommandLine(const Command &command, int argc, char **argv, std::string shortOptions,
                         std::vector<option> longOptions)
    : command_(command),
      argc_(argc),
      argv_(argv),
      shortOptions_(std::move(shortOptions)),
      longOptions_(std::move(longOptions)) {
    size_t colon = shortOptions_.starts_with('+') ? 1 : 0;
    shortOptions_.insert(colon, ":h");
    longOptions_.push_back({"root", required_argument, nullptr, kOptionRoot});
    longOptions_.push_back({"help", no_argument, nullptr, 'h'});
    longOptions_.push_back({});
    optind = 0;  // the words before the command were scanned already: start over
    opterr = 0;
}

int CommandLine::next() {
    int code = getopt_long(argc_, argv_, shortOptions_.c_str(), longOptions_.data(), nullptr);
    switch (code) {
        case 'h':
            printHelp(command_);
            exit(finishOutput(kSuccess));
        case kOptionRoot:
            useRoot(optarg);
            return next();
        case ':':
            failUsage(command_, "option '%s' needs a value", argv_[optind - 1]);
        case '?':
            // A letter may stand inside a word that getopt has not finished.
            if (optopt > 0 && optopt < kOptionJson) {
                failUsage(command_, "bad option '-%c'", optopt);
            }
            failUsage(command_, "bad option '%s'", argv_[optind - 1]);
        default:
            return code;
    }
}

bool CommandLine::readJson() {
    bool found = false;
    while (next() != -1) {
        found = true;
    }
    return found;
}

std::span<char *> CommandLine::operands() const {
    return {argv_ + optind, argv_ + argc_};
}

void useRoot(const char *directory) {
    std::error_code error;
    namedRoot = std::filesystem::absolute(directory, error).string();
    setenv("TAMO_DEVICE_ROOT", namedRoot.c_str(), 1);
}

void requireRoot(const Command &command) {
    struct stat status;
    if (!namedRoot.empty() && (stat(namedRoot.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))) {
        fail(command, "no device root at '%s': check --root, or start a program there first",
             namedRoot.c_str());
    }
}

std::string rootPath(const Command &command, const char *devicePath) {
    char path[PATH_MAX];
    if (OsFileNativePath(devicePath, path, sizeof(path)) == nullptr) {
        failHost(command, "cannot find the device root", TAMO_HOST_NO_ROOT);
    }
    return path;
}

void fail(const Command &command, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    endWithMessage(kFailed, command, format, arguments);
}

void failUsage(const Command &command, const char *format, ...) {
    char message[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof(message), format, arguments);
    va_end(arguments);
    fflush(stdout);
    fprintf(stderr, "tamoctl %s: %s: see 'tamoctl %s --help'\n", command.name,
            printable(message).c_str(), command.name);
    exit(kUsage);
}

void failHost(const Command &command, const char *what, uint32_t result) {
    const char *advice = result == TAMO_HOST_NO_ROOT
                             ? "check --root and TAMO_DEVICE_ROOT, and that the directory is yours "
                               "alone"
                             : "the record above tells why";
    fail(command, "%s (result %u): %s", what, result, advice);
}

}  // namespace tamoctl

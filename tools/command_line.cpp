/* Command lines, the device root and the ways to end: see tamoctl.h. */
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "output.h"
#include "tamo_host.h"
#include "tamo_os_file.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

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

bool isRootNamed() {
    const char *named = getenv("TAMO_DEVICE_ROOT");
    return named != nullptr && named[0] != 0;
}

/* Where the host will look for the device root, whether it is there or not. */
std::string rootInUse() {
    const char *home = getenv("HOME");
    const char *data = getenv("XDG_DATA_HOME");
    std::error_code error;
    if (isRootNamed()) {
        return std::filesystem::absolute(getenv("TAMO_DEVICE_ROOT"), error).string();
    }
    if (data != nullptr && data[0] == '/') {
        return std::string(data) + "/tamo";
    }
    const passwd *user = home != nullptr && home[0] == '/' ? nullptr : getpwuid(geteuid());
    return std::string(user != nullptr   ? user->pw_dir
                       : home != nullptr ? home
                                         : "") +
           "/.local/share/tamo";
}

/* Whether a program has worked in the directory. One that this user may not enter is for the host to
 * judge. */
bool holdsDeviceRoot(const std::string &root) {
    return access((root + "/data").c_str(), F_OK) == 0 || errno == EACCES;
}

void workAs(const Command &command, const struct stat &owner) {
    const passwd *user = getpwuid(owner.st_uid);
    const int groups =
        user == nullptr ? setgroups(1, &owner.st_gid) : initgroups(user->pw_name, user->pw_gid);
    if (groups != 0 || setegid(user == nullptr ? owner.st_gid : user->pw_gid) != 0 ||
        seteuid(owner.st_uid) != 0) {
        fail(command, "cannot work as the owner of the device root (%s): run tamoctl as user %u",
             strerror(errno), owner.st_uid);
    }
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
            if (optarg[0] == 0) {
                failUsage(command_, "the directory of --root is empty");
            }
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
    setenv("TAMO_DEVICE_ROOT", std::filesystem::absolute(directory, error).c_str(), 1);
}

void requireRoot(const Command &command, Access access) {
    const std::string root = rootInUse();
    struct stat status = {};
    const bool isThere = stat(root.c_str(), &status) == 0;
    if (isThere && !S_ISDIR(status.st_mode)) {
        fail(command, "'%s' is not a directory: check --root and TAMO_DEVICE_ROOT", root.c_str());
    }
    if (access == Access::change ? !isThere && isRootNamed() : !holdsDeviceRoot(root)) {
        fail(command,
             "there is no device root at '%s': check --root and TAMO_DEVICE_ROOT, or start a "
             "program there%s",
             root.c_str(), access == Access::change ? " or make the directory (mode 0700)" : "");
    }
    if (isThere && geteuid() == 0 && status.st_uid != 0) {
        workAs(command, status);
    }
}

void workAsCaller() {
    if (getuid() != geteuid()) {
        (void)seteuid(getuid());
        (void)setegid(getgid());
    }
}

bool requireStore(const Command &command) {
    char fault[PATH_MAX + 256];
    const uint32_t result = TamoHostConfigCheck(fault, sizeof(fault));
    if (result == TAMO_HOST_REFUSED) {
        fail(command,
             "the configuration store is damaged (%s): nothing was changed; the next program that "
             "opens it sets it aside and begins an empty one",
             fault);
    }
    if (result != TAMO_HOST_OK && result != TAMO_HOST_NOT_FOUND) {
        failHost(command, "cannot read the configuration store", result);
    }
    return result == TAMO_HOST_OK;
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

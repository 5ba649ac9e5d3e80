/* Command lines, the device root and the ways to end: see tamoctl.h. */
#include <getopt.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <climits>
#include <cmath>
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

[[noreturn]] void endWithMessage(int code, const Command &command, const char *format,
                                 va_list arguments) {
    fflush(stdout);
    char message[1024];
    vsnprintf(message, sizeof(message), format, arguments);
    fprintf(stderr, "tamoctl %s: %s\n", command.name.c_str(), printable(message).c_str());
    exit(code);
}

bool isRootNamed() {
    const char *named = getenv("TAMO_DEVICE_ROOT");
    return named != nullptr && named[0] != 0;
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

/* What getopt_long reads, made of the table. */
struct OptionTables {
    std::vector<Option> described;
    std::vector<option> longs;
    std::string letters;

    explicit OptionTables(const Command &command) : described(command.options) {
        described.insert(described.end(), commonOptions().begin(), commonOptions().end());
        letters = command.optionsFirst ? "+:" : ":";
        int code = kFirstCode;
        for (const Option &each : described) {
            const int kind = each.value.empty() ? no_argument : required_argument;
            longs.push_back({each.name.c_str(), kind, nullptr, code++});
            if (each.letter != 0) {
                letters += each.letter;
                letters += each.value.empty() ? "" : ":";
            }
        }
        longs.push_back({});
    }

    const Option *find(int code) const {
        if (code >= kFirstCode) {
            return &described[static_cast<size_t>(code - kFirstCode)];
        }
        for (const Option &each : described) {
            if (each.letter == code) {
                return &each;
            }
        }
        return nullptr;
    }

    static constexpr int kFirstCode = 256;
};

[[noreturn]] void failOption(const Command &command, const OptionTables &tables, const char *word) {
    // A letter may stand inside a word that getopt has not finished.
    if (optopt > 0 && optopt < OptionTables::kFirstCode) {
        failUsage(command, "unknown option '-%c'", optopt);
    }
    if (optopt >= OptionTables::kFirstCode) {
        failUsage(command, "option '--%s' takes no value", tables.find(optopt)->name.c_str());
    }
    std::vector<std::string> names;
    for (const Option &each : tables.described) {
        names.push_back("--" + each.name);
    }
    failUsage(command, "unknown option '%s'%s", word, suggestion(word, names).c_str());
}

void checkChoice(const Command &command, const Option &option, const char *text) {
    std::string known;
    for (const std::string &choice : option.choices) {
        if (strcasecmp(choice.c_str(), text) == 0) {
            return;
        }
        known += (known.empty() ? "" : ", ") + choice;
    }
    failUsage(command, "invalid %s '%s': must be one of %s", option.name.c_str(), text,
              known.c_str());
}

}  // namespace

const Command *findCommand(std::span<char *const> words, size_t *used) {
    constexpr size_t kMostWords = 3;
    const Command *found = nullptr;
    std::string name;
    for (size_t count = 0; count < std::min(words.size(), kMostWords); count++) {
        name += (count == 0 ? "" : " ") + std::string(words[count]);
        for (const Command &command : commands()) {
            if (command.name == name) {
                found = &command;
                *used = count + 1;
            }
        }
    }
    return found;
}

Arguments::Arguments(const Command &command, std::span<char *> words) : command_(command) {
    const OptionTables tables(command);
    const int argc = static_cast<int>(words.size());
    optind = 0;  // the words before the command were scanned already: start over
    opterr = 0;
    for (int code; (code = getopt_long(argc, words.data(), tables.letters.c_str(),
                                       tables.longs.data(), nullptr)) != -1;) {
        if (code == ':') {
            failUsage(command, "option '%s' needs a value", words[static_cast<size_t>(optind - 1)]);
        }
        const Option *option = code == '?' ? nullptr : tables.find(code);
        if (option == nullptr) {
            failOption(command, tables, words[static_cast<size_t>(optind - 1)]);
        }
        if (option->name == "help") {
            printCommandHelp(command);
            exit(finishOutput(kSuccess));
        }
        if (option->name == "root") {
            if (optarg[0] == 0) {
                failUsage(command, "the directory of --root is empty");
            }
            useRoot(optarg);
        } else if (option->name == "version") {
            failUsage(command, "--version stands before the command");
        }
        if (option->kind == Kind::choice) {
            checkChoice(command, *option, optarg);
        }
        values_.emplace_back(option->name, optarg);
        if (option->value == "COUNT") {
            (void)number(option->name, 1);
        } else if (option->value == "SECONDS") {
            (void)seconds(option->name);
        }
    }
    operands_ = words.subspan(static_cast<size_t>(optind));
    const size_t most = command.repeats ? SIZE_MAX : command.operands.size();
    if (operands_.size() > most) {
        failUsage(command, most == 0 ? "unexpected argument '%s'" : "too many arguments: '%s'",
                  operands_[most]);
    }
}

bool Arguments::has(std::string_view option) const {
    return std::any_of(values_.begin(), values_.end(),
                       [&](const auto &value) { return value.first == option; });
}

std::vector<const char *> Arguments::texts(std::string_view option) const {
    std::vector<const char *> found;
    for (const auto &[name, text] : values_) {
        if (name == option) {
            found.push_back(text);
        }
    }
    return found;
}

const char *Arguments::text(std::string_view option) const {
    const std::vector<const char *> found = texts(option);
    return found.empty() ? nullptr : found.back();
}

std::optional<uint64_t> Arguments::number(std::string_view option, uint64_t least) const {
    const char *given = text(option);
    if (given == nullptr) {
        return std::nullopt;
    }
    uint64_t number = 0;
    const char *end = given + strlen(given);
    const auto [parsed, error] = std::from_chars(given, end, number);
    if (parsed != end || error != std::errc() || number < least) {
        failUsage(command_, "invalid %s '%s': must be %" PRIu64 " or more",
                  std::string(option).c_str(), given, least);
    }
    return number;
}

std::optional<std::chrono::milliseconds> Arguments::seconds(std::string_view option) const {
    constexpr double kMost = 1e9;
    const char *given = text(option);
    if (given == nullptr) {
        return std::nullopt;
    }
    double seconds = 0;
    const char *end = given + strlen(given);
    const auto [parsed, error] = std::from_chars(given, end, seconds, std::chars_format::fixed);
    if (parsed != end || error != std::errc() || !(seconds >= 0 && seconds <= kMost)) {
        failUsage(command_, "invalid %s '%s': must be seconds from 0 to 1000000000, such as 2.5",
                  std::string(option).c_str(), given);
    }
    return std::chrono::milliseconds(std::llround(seconds * 1000));
}

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

/* A program has worked there. A directory that this user may not enter is for the host to judge. */
bool holdsDeviceRoot(const std::string &root) {
    return access((root + "/data").c_str(), F_OK) == 0 || errno == EACCES;
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
    fprintf(stderr, "tamoctl %s: %s (see 'tamoctl %s --help')\n", command.name.c_str(),
            printable(message).c_str(), command.name.c_str());
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

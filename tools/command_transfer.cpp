/* tamoctl import and export: configuration stores, or the part below a prefix, as JSON. */
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "commands.h"
#include "config_json.h"
#include "output.h"
#include "progress.h"
#include "secret.h"
#include "tamo_host.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

using File = std::unique_ptr<FILE, int (*)(FILE *)>;

/* ---- import ---- */

/* Far above any store: what has more is no file of ours, and may have no end. */
constexpr size_t kLargestFile = size_t{1} << 30;

/* Reads to the end before anything is stored: a pipe may break in the middle. */
std::string readAll(const Command &command, const char *name) {
    const bool isInput = strcmp(name, "-") == 0;
    const File opened(isInput ? nullptr : fopen(name, "re"), fclose);
    FILE *file = isInput ? stdin : opened.get();
    if (file == nullptr) {
        fail(command, "cannot open '%s' (%s)", name, strerror(errno));
    }
    std::string text;
    char part[65536];
    for (size_t length; (length = fread(part, 1, sizeof(part), file)) > 0;) {
        text.append(part, length);
        if (text.size() > kLargestFile) {
            fail(command, "'%s' has more than 1 GiB: nothing was changed", name);
        }
    }
    if (ferror(file) != 0) {
        fail(command, "cannot read '%s' (%s): nothing was changed", name, strerror(errno));
    }
    return text;
}

void showImported(uint32_t done, void *bar) {
    static_cast<ProgressBar *>(bar)->show(done);
}

bool hasPrefix(std::string_view key, const char *prefix) {
    return prefix == nullptr ||
           (key.size() >= strlen(prefix) && strncasecmp(key.data(), prefix, strlen(prefix)) == 0);
}

/* Leaves those below the prefix, and ends the program for a password in clear text. */
void choose(const Command &command, const char *name, const char *prefix, ConfigEntries *entries) {
    std::erase_if(entries->pairs,
                  [&](const TamoHostConfigPair &pair) { return !hasPrefix(pair.key, prefix); });
    if (prefix != nullptr && entries->pairs.empty()) {
        fail(command, "'%s' has no key that begins with '%s': nothing was changed", name, prefix);
    }
    for (const TamoHostConfigPair &pair : entries->pairs) {
        if (isClearSecret(pair.key, pair.value)) {
            fail(
                command,
                "'%s' holds the password '%s' in clear text: nothing was changed; take it out, and "
                "use 'tamoctl set --secret %s'",
                name, pair.key, pair.key);
        }
    }
}

/* ---- export ---- */

struct Entry {
    std::string key, value;
};

/* The listing's texts are gone with its call. */
uint32_t collectEntry(const char *key, const char *value, void *entries) {
    static_cast<std::vector<Entry> *>(entries)->push_back({key, value});
    return 0;
}

/* The entries below the prefix. Those that JSON cannot hold are left out; the first of their keys goes
 * to `leftOut`. */
std::vector<Entry> readStore(const Command &command, const char *prefix, std::string *leftOut) {
    std::vector<Entry> entries;
    const uint32_t result = requireStore(command)
                                ? TamoHostConfigList(nullptr, collectEntry, &entries)
                                : uint32_t{TAMO_HOST_OK};
    if (result != TAMO_HOST_OK) {
        failHost(command, "cannot read the configuration store", result);
    }
    std::erase_if(entries, [&](const Entry &entry) {
        const bool cannot = !entryProblem(entry.key, entry.value).empty();
        const bool isBelow = hasPrefix(entry.key, prefix);
        if (cannot && isBelow && leftOut->empty()) {
            *leftOut = entry.key;
        }
        return cannot || !isBelow;
    });
    return entries;
}

/* Writes the entries; errors stay with the stream. */
void writeEntries(const std::vector<Entry> &entries, FILE *file, bool withBar) {
    ProgressBar bar("exporting", entries.size(), withBar);
    const char *before = "{\n  ";
    uint64_t done = 0;
    for (const Entry &entry : entries) {
        fputs((before + quoted(entry.key) + ": " + quoted(entry.value)).c_str(), file);
        before = ",\n  ";
        bar.show(++done);
    }
    fputs(entries.empty() ? "{}\n" : "\n}\n", file);
    bar.show(done);
    bar.end();
}

/* The file that a name stands for, across links: a rename would replace the link. */
std::string targetOf(const Command &command, const char *name) {
    struct stat status;
    if (stat(name, &status) != 0) {
        return name;
    }
    if (!S_ISREG(status.st_mode)) {
        fail(command, "'%s' is not a regular file: name another, or none for standard output",
             name);
    }
    std::error_code error;
    const std::string target = std::filesystem::canonical(name, error).string();
    return error ? name : target;
}

/* Writes beside the file, with access for its owner alone, and renames. */
void writeFile(const Command &command, const char *name, const std::vector<Entry> &entries) {
    const std::string target = targetOf(command, name);
    std::string beside = target + ".XXXXXX";
    const int descriptor = mkstemp(beside.data());
    const File file(descriptor < 0 ? nullptr : fdopen(descriptor, "w"), fclose);
    if (file == nullptr) {
        fail(command, "cannot write beside '%s' (%s)", name, strerror(errno));
    }
    writeEntries(entries, file.get(), true);
    if (ferror(file.get()) != 0 || fflush(file.get()) != 0 || fsync(descriptor) != 0 ||
        rename(beside.c_str(), target.c_str()) != 0) {
        const int error = errno;
        unlink(beside.c_str());
        fail(command, "cannot write '%s' (%s): it was not changed", name, strerror(error));
    }
}

}  // namespace

int runImport(const Command &command, const Arguments &arguments) {
    if (arguments.operands().size() != 1) {
        failUsage(command, "name one file, or '-' for standard input");
    }
    const char *name = arguments.operands()[0], *prefix = arguments.text("prefix");
    if (prefix != nullptr && arguments.has("replace")) {
        failUsage(command,
                  "--replace is for a whole store: use 'tamoctl reset' before, for a part");
    }
    ConfigEntries entries;
    const std::string problem = readEntries(readAll(command, name), &entries);
    if (!problem.empty()) {
        fail(command, "'%s' %s; nothing was changed", name, problem.c_str());
    }
    choose(command, name, prefix, &entries);
    requireRoot(command, Access::change);
    const auto count = static_cast<uint32_t>(entries.pairs.size());
    ProgressBar bar("importing", count);
    bar.show(0);
    const uint32_t result = TamoHostConfigImport(entries.pairs.data(), count,
                                                 arguments.has("replace"), showImported, &bar);
    if (result == TAMO_HOST_OK) {
        bar.show(count);
    }
    bar.end();
    if (result != TAMO_HOST_OK) {
        failHost(command, "nothing was changed", result);
    }
    return kSuccess;
}

int runExport(const Command &command, const Arguments &arguments) {
    requireRoot(command);
    const char *prefix = arguments.text("prefix");
    std::string leftOut;
    const std::vector<Entry> entries = readStore(command, prefix, &leftOut);
    if (prefix != nullptr && entries.empty() && leftOut.empty()) {
        fail(command, "no key begins with '%s'%s", prefix,
             suggestion(prefix, storedKeys()).c_str());
    }
    if (arguments.operands().empty() || strcmp(arguments.operands()[0], "-") == 0) {
        writeEntries(entries, stdout, !onTerminal());
    } else {
        workAsCaller();
        writeFile(command, arguments.operands()[0], entries);
    }
    if (!leftOut.empty()) {
        fail(command,
             "the key '%s' or its value is not UTF-8, or too long, and was left out; the rest is "
             "written: 'tamoctl reset' removes it",
             leftOut.c_str());
    }
    return kSuccess;
}

}  // namespace tamoctl

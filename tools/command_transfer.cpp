/* tamoctl import and export: whole configuration stores as JSON. */
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "config_json.h"
#include "output.h"
#include "progress.h"
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
        fail(command, "cannot open '%s' (%s): check its name and that it is yours to read", name,
             strerror(errno));
    }
    std::string text;
    char part[65536];
    for (size_t length; (length = fread(part, 1, sizeof(part), file)) > 0;) {
        text.append(part, length);
        if (text.size() > kLargestFile) {
            fail(command, "'%s' has more than 1 GiB: nothing was changed, import it in parts",
                 name);
        }
    }
    if (ferror(file) != 0) {
        fail(command, "cannot read '%s' (%s): nothing was changed, name a file that can be read",
             name, strerror(errno));
    }
    return text;
}

void showImported(uint32_t done, void *bar) {
    static_cast<ProgressBar *>(bar)->show(done);
}

int runImport(const Command &command, int argc, char **argv) {
    CommandLine line(command, argc, argv, "", {{"replace", no_argument, nullptr, kOptionReplace}});
    bool replace = false;
    while (line.next() != -1) {
        replace = true;
    }
    if (line.operands().size() != 1) {
        failUsage(command, "name one file, or '-' for standard input");
    }
    const char *name = line.operands()[0];
    ConfigEntries entries;
    const std::string problem = readEntries(readAll(command, name), &entries);
    if (!problem.empty()) {
        fail(command, "'%s' %s; nothing was changed", name, problem.c_str());
    }
    requireRoot(command, Access::change);
    const auto count = static_cast<uint32_t>(entries.pairs.size());
    ProgressBar bar("importing " + std::to_string(count) + " keys", count);
    bar.show(0);
    const uint32_t result =
        TamoHostConfigImport(entries.pairs.data(), count, replace, showImported, &bar);
    if (result == TAMO_HOST_OK) {
        bar.show(count);
    }
    bar.end();
    if (result != TAMO_HOST_OK) {
        failHost(command, "nothing was changed", result);
    }
    return kSuccess;
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

/* All entries, or the end of the program: a store that lacks some would be no copy. */
std::vector<Entry> readStore(const Command &command) {
    std::vector<Entry> entries;
    const uint32_t result =
        requireStore(command) ? TamoHostConfigList(nullptr, collectEntry, &entries) : TAMO_HOST_OK;
    if (result != TAMO_HOST_OK) {
        failHost(command, "cannot read the configuration store", result);
    }
    for (const Entry &entry : entries) {
        const std::string problem = entryProblem(entry.key, entry.value);
        if (!problem.empty()) {
            fail(command, "the entry of the key '%.40s' cannot be exported, %s", entry.key.c_str(),
                 problem.c_str());
        }
    }
    return entries;
}

/* Writes the entries; errors stay with the stream. */
void writeEntries(const std::vector<Entry> &entries, FILE *file, bool withBar) {
    ProgressBar bar("exporting " + std::to_string(entries.size()) + " keys", entries.size(),
                    withBar);
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
        fail(command, "'%s' is no regular file: name another, or none for standard output", name);
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
        fail(command, "cannot write beside '%s' (%s): name a file in a directory of yours", name,
             strerror(errno));
    }
    writeEntries(entries, file.get(), true);
    if (ferror(file.get()) != 0 || fflush(file.get()) != 0 || fsync(descriptor) != 0 ||
        rename(beside.c_str(), target.c_str()) != 0) {
        const int error = errno;
        unlink(beside.c_str());
        fail(command, "cannot write '%s' (%s): it is as it was, free space or name another", name,
             strerror(error));
    }
}

int runExport(const Command &command, int argc, char **argv) {
    CommandLine line(command, argc, argv, "", {});
    while (line.next() != -1) {
    }
    if (line.operands().size() > 1) {
        failUsage(command, "one file at most");
    }
    requireRoot(command);
    const std::vector<Entry> entries = readStore(command);
    if (line.operands().empty() || strcmp(line.operands()[0], "-") == 0) {
        writeEntries(entries, stdout, !onTerminal());
    } else {
        workAsCaller();
        writeFile(command, line.operands()[0], entries);
    }
    return kSuccess;
}

}  // namespace

const Command kImportCommand = {
    "import", "[--replace] FILE|-", "store the values of a JSON file",
    "Stores the values of a JSON object of texts, as export writes it, or of standard input (-), "
    "in\n"
    "one transaction: all of them, or none. A file with any fault changes nothing. Keys that are "
    "not\n"
    "in the file keep their values. Values are stored as they stand, so that the passwords of an\n"
    "export, which are encrypted, serve the device root whose key encrypted them.\n"
    "\n"
    "Options:\n"
    "  --replace      make the store exactly the file: remove the keys that are not in it. Who\n"
    "                 follows changes is told an empty value of them\n"
    "\n"
    "Examples:\n"
    "  tamoctl import settings.json\n"
    "  tamoctl export | tamoctl --root /tmp/other import --replace -\n",
    runImport};

const Command kExportCommand = {
    "export", "[FILE|-]", "write all keys and values as JSON",
    "Writes the whole store, as of one moment, as a JSON object in order of key; to standard "
    "output\n"
    "unless a file is named. The file is written beside and renamed: it is the old one or the new\n"
    "one, whole, readable for its owner alone. Passwords are exported as they are stored, "
    "encrypted.\n"
    "\n"
    "Examples:\n"
    "  tamoctl export settings.json\n"
    "  tamoctl export | jq 'with_entries(select(.key | startswith(\"Conf.Audio.\")))'\n",
    runExport};

}  // namespace tamoctl

/* tamoctl mem and queues: what the processes below the device root hold right now. */
#include <fnmatch.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstring>
#include <fstream>

#include "commands.h"
#include "output.h"
#include "rows.h"
#include "tamo_host.h"
#include "tamo_os_file.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

/* What the walks over the directories and the queues collect. */
template <typename Thing>
uint32_t collect(const Thing *thing, void *things) {
    static_cast<std::vector<Thing> *>(things)->push_back(*thing);
    return 0;
}

/* The process id that a text is, 0 when it is none. */
uint32_t pidOf(const char *text) {
    uint32_t pid = 0;
    const char *end = text + strlen(text);
    const auto [parsed, error] = std::from_chars(text, end, pid);
    return parsed == end && error == std::errc() && pid <= INT_MAX ? pid : 0;
}

/* The names in a directory of the device. */
std::vector<std::string> namesIn(const char *devicePath) {
    std::vector<std::string> names;
    if (!holdsDeviceRoot(rootInUse())) {
        return names;
    }
    OsDir *directory = OsOpenDir(devicePath);
    while (const OsDirEntry *entry = directory == nullptr ? nullptr : OsReadDir(directory)) {
        names.emplace_back(entry->name);
    }
    OsCloseDir(directory);
    std::sort(names.begin(), names.end());
    return names;
}

struct MemTotals {
    uint64_t blocks = 0, bytes = 0;
};

uint32_t addToTotals(const TamoHostMemSite *site, void *totals) {
    static_cast<MemTotals *>(totals)->blocks += site->blocks;
    static_cast<MemTotals *>(totals)->bytes += site->bytes;
    return 0;
}

int showProcess(const Command &command, const Arguments &arguments, uint32_t pid) {
    std::vector<TamoHostMemSite> sites;
    const std::vector<uint32_t> known = processesWithTable();
    if (std::find(known.begin(), known.end(), pid) == known.end()) {
        fail(command,
             "process %u does not use the memory layer below this device root: 'tamoctl mem' lists "
             "those that do",
             pid);
    }
    const uint32_t result = TamoHostMemReport(pid, collect<TamoHostMemSite>, &sites);
    if (result != TAMO_HOST_OK) {
        failHost(command, "cannot read the table of blocks", result);
    }
    Rows rows(command, arguments,
              {{nullptr, "pid"},
               {nullptr, "process"},
               {"FILE", "file", false, true},
               {"LINE", "line", true},
               {"BLOCKS", "blocks", true},
               {"BYTES", "bytes", true}});
    const std::string name = processName(pid);
    MemTotals totals;
    for (const TamoHostMemSite &site : sites) {
        addToTotals(&site, &totals);
    }
    for (const TamoHostMemSite &site : sites) {
        if (!rows.add({pid, name, site.file, site.line, site.blocks, site.bytes})) {
            break;
        }
    }
    rows.addTotal({pid, name, "total", "", totals.blocks, totals.bytes});
    return rows.finish();
}

}  // namespace

std::string processName(uint32_t pid) {
    const std::string directory = "/proc/" + std::to_string(pid);
    std::string name;
    std::ifstream words(directory + "/cmdline");
    std::getline(words, name, '\0');
    name.erase(0, name.rfind('/') + 1);
    if (name.empty()) {
        std::ifstream file(directory + "/comm");
        std::getline(file, name);
    }
    return name;
}

std::vector<uint32_t> processesWithTable() {
    constexpr std::string_view kPrefix = "mem.";
    std::vector<uint32_t> pids;
    for (const std::string &name : namesIn("/run")) {
        const uint32_t pid = name.starts_with(kPrefix) ? pidOf(name.c_str() + kPrefix.size()) : 0;
        if (pid != 0 && !processName(pid).empty()) {
            pids.push_back(pid);
        }
    }
    std::sort(pids.begin(), pids.end());
    return pids;
}

std::vector<std::string> queueNames() {
    std::vector<TamoHostQueueInfo> queues;
    std::vector<std::string> names;
    if (holdsDeviceRoot(rootInUse())) {
        (void)TamoHostMsgQueues(collect<TamoHostQueueInfo>, &queues);
    }
    for (const TamoHostQueueInfo &queue : queues) {
        names.emplace_back(queue.name);
    }
    return names;
}

/* Without the rotated files, which are NAME.1 and so on, and what lies beside them. */
std::vector<std::string> logNames() {
    std::vector<std::string> names = namesIn("/log");
    std::erase_if(names, [](const std::string &name) {
        const size_t dot = name.rfind('.');
        return name.starts_with(".") || (dot != std::string::npos && pidOf(name.c_str() + dot + 1));
    });
    return names;
}

std::vector<std::string> storedKeys() {
    std::vector<std::string> keys;
    const auto add = [](const char *key, const char *, void *into) -> uint32_t {
        static_cast<std::vector<std::string> *>(into)->emplace_back(key);
        return 0;
    };
    if (holdsDeviceRoot(rootInUse()) && TamoHostConfigCheck(nullptr, 0) == TAMO_HOST_OK) {
        (void)TamoHostConfigList(nullptr, add, &keys);
    }
    return keys;
}

int runMem(const Command &command, const Arguments &arguments) {
    const char *word = arguments.operands().empty() ? nullptr : arguments.operands()[0];
    const uint32_t asked = word == nullptr ? 0 : pidOf(word);
    if (word != nullptr && asked == 0) {
        failUsage(command, "invalid process id '%s'", word);
    }
    requireRoot(command);
    rootPath(command, "/run");  // or else there is no root to look into
    if (word != nullptr) {
        return showProcess(command, arguments, asked);
    }
    Rows rows(command, arguments,
              {{"PID", "pid", true},
               {"PROCESS", "process", false, true},
               {"BLOCKS", "blocks", true},
               {"BYTES", "bytes", true}});
    for (const uint32_t pid : processesWithTable()) {
        MemTotals totals;
        if (TamoHostMemReport(pid, addToTotals, &totals) == TAMO_HOST_OK &&
            !rows.add({pid, processName(pid), totals.blocks, totals.bytes})) {
            break;
        }
    }
    return rows.finish();
}

int runQueues(const Command &command, const Arguments &arguments) {
    requireRoot(command);
    std::vector<TamoHostQueueInfo> queues;
    const uint32_t result = TamoHostMsgQueues(collect<TamoHostQueueInfo>, &queues);
    if (result != TAMO_HOST_OK) {
        failHost(command, "cannot read the queues", result);
    }
    const char *glob = arguments.operands().empty() ? nullptr : arguments.operands()[0];
    Rows rows(command, arguments,
              {{"QUEUE", "name"},
               {nullptr, "alive"},
               {"PID", "pid", true},
               {"PROCESS", "process", false, true},
               {"DEPTH", "depth", true},
               {"BYTES", "bytes", true},
               {"RECEIVED", "received", true}});
    for (const TamoHostQueueInfo &queue : queues) {
        if (glob != nullptr && fnmatch(glob, queue.name, 0) != 0) {
            continue;
        }
        const bool dead = queue.ownerPid == 0;
        if (!rows.add({queue.name, Cell::truth(!dead),
                       dead ? Cell::none("-") : Cell(queue.ownerPid),
                       dead ? Cell::none("(dead)") : Cell(processName(queue.ownerPid)), queue.depth,
                       queue.depthBytes, queue.received})) {
            break;
        }
    }
    if (rows.empty() && glob != nullptr) {
        fail(command, "no queue matches '%s'%s", glob, suggestion(glob, queueNames()).c_str());
    }
    return rows.finish();
}

}  // namespace tamoctl

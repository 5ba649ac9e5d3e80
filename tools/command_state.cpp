/* tamoctl mem and queues: what the processes below the device root hold right now. */
#include <charconv>
#include <climits>
#include <cstring>
#include <fstream>
#include <set>

#include "output.h"
#include "tamo_host.h"
#include "tamo_os_file.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

/* The program's name as its log records have it; empty when there is no such process. The kernel's own
 * name for it ends after 15 characters, but every process has one. */
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

/* ---- mem ---- */

struct MemTotals {
    uint64_t blocks = 0, bytes = 0;
};

uint32_t addToTotals(const TamoHostMemSite *site, void *totals) {
    static_cast<MemTotals *>(totals)->blocks += site->blocks;
    static_cast<MemTotals *>(totals)->bytes += site->bytes;
    return 0;
}

uint32_t collectSite(const TamoHostMemSite *site, void *sites) {
    static_cast<std::vector<TamoHostMemSite> *>(sites)->push_back(*site);
    return 0;
}

/* The process id that a text is, 0 when it is none. */
uint32_t pidOf(const char *text) {
    uint32_t pid = 0;
    const char *end = text + strlen(text);
    const auto [parsed, error] = std::from_chars(text, end, pid);
    return parsed == end && error == std::errc() && pid <= INT_MAX ? pid : 0;
}

/* The living processes that have a table of blocks (run/mem.PID), in order of their ids. */
std::set<uint32_t> processesWithTable() {
    constexpr std::string_view kPrefix = "mem.";
    std::set<uint32_t> pids;
    OsDir *directory = OsOpenDir("/run");
    while (const OsDirEntry *entry = directory == nullptr ? nullptr : OsReadDir(directory)) {
        const std::string_view name = entry->name;
        if (!name.starts_with(kPrefix)) {
            continue;
        }
        const uint32_t pid = pidOf(entry->name + kPrefix.size());
        if (pid != 0 && !processName(pid).empty()) {
            pids.insert(pid);
        }
    }
    OsCloseDir(directory);
    return pids;
}

void printSites(const std::vector<TamoHostMemSite> &sites, const MemTotals &totals) {
    Table table({{"FILE", false}, {"LINE", true}, {"BLOCKS", true}, {"BYTES", true}});
    for (const TamoHostMemSite &site : sites) {
        table.add({site.file, std::to_string(site.line), std::to_string(site.blocks),
                   std::to_string(site.bytes)});
    }
    if (onTerminal()) {
        table.add({"total", "", std::to_string(totals.blocks), std::to_string(totals.bytes)});
    }
    table.print();
}

void printSitesAsJson(uint32_t pid, const std::vector<TamoHostMemSite> &sites,
                      const MemTotals &totals) {
    const Json json(cJSON_CreateObject());
    addNumber(json.get(), "pid", pid);
    addText(json.get(), "process", processName(pid));
    addNumber(json.get(), "blocks", totals.blocks);
    addNumber(json.get(), "bytes", totals.bytes);
    cJSON *array = cJSON_AddArrayToObject(json.get(), "sites");
    for (const TamoHostMemSite &site : sites) {
        cJSON *entry = cJSON_CreateObject();
        addText(entry, "file", site.file);
        addNumber(entry, "line", site.line);
        addNumber(entry, "blocks", site.blocks);
        addNumber(entry, "bytes", site.bytes);
        cJSON_AddItemToArray(array, entry);
    }
    printJson(json);
}

int showProcess(const Command &command, uint32_t pid, bool asJson) {
    std::vector<TamoHostMemSite> sites;
    if (!processesWithTable().contains(pid)) {
        fail(command,
             "process %u has no blocks to show below this device root: 'tamoctl mem' lists those "
             "that have",
             pid);
    }
    const uint32_t result = TamoHostMemReport(pid, collectSite, &sites);
    if (result != TAMO_HOST_OK) {
        failHost(command, "cannot read the table of blocks", result);
    }
    MemTotals totals;
    for (const TamoHostMemSite &site : sites) {
        addToTotals(&site, &totals);
    }
    if (asJson) {
        printSitesAsJson(pid, sites, totals);
    } else {
        printSites(sites, totals);
    }
    return kSuccess;
}

void listProcesses(bool asJson) {
    Table table({{"PID", true}, {"PROCESS", false}, {"BLOCKS", true}, {"BYTES", true}});
    const Json json(cJSON_CreateArray());
    for (const uint32_t pid : processesWithTable()) {
        MemTotals totals;
        if (TamoHostMemReport(pid, addToTotals, &totals) != TAMO_HOST_OK) {
            continue;
        }
        table.add({std::to_string(pid), processName(pid), std::to_string(totals.blocks),
                   std::to_string(totals.bytes)});
        cJSON *entry = cJSON_CreateObject();
        addNumber(entry, "pid", pid);
        addText(entry, "process", processName(pid));
        addNumber(entry, "blocks", totals.blocks);
        addNumber(entry, "bytes", totals.bytes);
        cJSON_AddItemToArray(json.get(), entry);
    }
    if (asJson) {
        printJson(json);
    } else {
        table.print();
    }
}

int runMem(const Command &command, int argc, char **argv) {
    CommandLine line(command, argc, argv, "", {kJsonOption});
    const bool asJson = line.readJson();
    if (line.operands().size() > 1) {
        failUsage(command, "one process at a time");
    }
    requireRoot(command);
    rootPath(command, "/run");  // or else there is no root to look into
    if (line.operands().empty()) {
        listProcesses(asJson);
        return kSuccess;
    }
    const uint32_t pid = pidOf(line.operands()[0]);
    if (pid == 0) {
        failUsage(command, "'%s' is no process id", line.operands()[0]);
    }
    return showProcess(command, pid, asJson);
}

/* ---- queues ---- */

uint32_t collectQueue(const TamoHostQueueInfo *queue, void *queues) {
    static_cast<std::vector<TamoHostQueueInfo> *>(queues)->push_back(*queue);
    return 0;
}

void printQueues(const std::vector<TamoHostQueueInfo> &queues) {
    Table table({{"QUEUE", false},
                 {"PID", true},
                 {"PROCESS", false},
                 {"DEPTH", true},
                 {"BYTES", true},
                 {"RECEIVED", true}});
    for (const TamoHostQueueInfo &queue : queues) {
        const bool dead = queue.ownerPid == 0;
        table.add({queue.name, dead ? "-" : std::to_string(queue.ownerPid),
                   dead ? "(dead)" : processName(queue.ownerPid), std::to_string(queue.depth),
                   std::to_string(queue.depthBytes), std::to_string(queue.received)});
    }
    table.print();
}

void printQueuesAsJson(const std::vector<TamoHostQueueInfo> &queues) {
    const Json json(cJSON_CreateArray());
    for (const TamoHostQueueInfo &queue : queues) {
        cJSON *entry = cJSON_CreateObject();
        addText(entry, "name", queue.name);
        cJSON_AddBoolToObject(entry, "alive", queue.ownerPid != 0);
        if (queue.ownerPid != 0) {
            addNumber(entry, "pid", queue.ownerPid);
            addText(entry, "process", processName(queue.ownerPid));
        }
        addNumber(entry, "depth", queue.depth);
        addNumber(entry, "bytes", queue.depthBytes);
        addNumber(entry, "received", queue.received);
        cJSON_AddItemToArray(json.get(), entry);
    }
    printJson(json);
}

int runQueues(const Command &command, int argc, char **argv) {
    CommandLine line(command, argc, argv, "", {kJsonOption});
    const bool asJson = line.readJson();
    if (!line.operands().empty()) {
        failUsage(command, "it takes no arguments");
    }
    requireRoot(command);
    std::vector<TamoHostQueueInfo> queues;
    const uint32_t result = TamoHostMsgQueues(collectQueue, &queues);
    if (result != TAMO_HOST_OK) {
        failHost(command, "cannot read the queues", result);
    }
    if (asJson) {
        printQueuesAsJson(queues);
    } else {
        printQueues(queues);
    }
    return kSuccess;
}

}  // namespace

const Command kMemCommand = {"mem", "[--json] [PID]", "show the memory blocks that processes hold",
                             "Lists the processes that use the platform's memory layer, with what "
                             "they hold; with a process\n"
                             "id, the statements that took its outstanding blocks, largest first.\n"
                             "\n"
                             "Options:\n"
                             "  --json         print JSON\n"
                             "\n"
                             "Examples:\n"
                             "  tamoctl mem\n"
                             "  tamoctl mem 4711\n",
                             runMem};

const Command kQueuesCommand = {
    "queues", "[--json]", "show message queues with owner and depth",
    "Lists the message queues: who serves them, how many messages wait in them and how many were\n"
    "received. A queue whose owner ended is marked (dead); the next process may take it over.\n"
    "\n"
    "Options:\n"
    "  --json         print JSON\n"
    "\n"
    "Examples:\n"
    "  tamoctl queues\n"
    "  tamoctl queues --json | jq '.[] | select(.depth > 0)'\n",
    runQueues};

}  // namespace tamoctl

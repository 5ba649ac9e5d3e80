/* tamoctl doctor: looks the device root over and says what is wrong, and what to do. It reads only.
 *
 * Each examination is a function that reports its findings; runDoctor names them in their order. */
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "command_cert.h"
#include "commands.h"
#include "elf_note.h"
#include "lines.h"
#include "output.h"
#include "tamo_host.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

namespace fs = std::filesystem;

using Report = FindingFunction;

/* ---- files ---- */

/* False when the root cannot be looked into any further. */
bool examineRoot(const std::string &root, const Report &report) {
    struct stat status = {};
    if (stat(root.c_str(), &status) != 0) {
        report("root", root, strerror(errno), "check --root and TAMO_DEVICE_ROOT");
        return false;
    }
    if (status.st_uid != geteuid()) {
        report("root", root, "it belongs to user " + std::to_string(status.st_uid),
               "use a device root of your own, or run as that user");
        return false;
    }
    if ((status.st_mode & 077) != 0) {
        report("root", root, "other users may enter it, so that every program refuses it",
               "chmod 700 " + root);
        return false;
    }
    return true;
}

void examinePermissions(const std::string &root, const Report &report) {
    std::error_code error;
    const uid_t owner = geteuid();
    for (fs::recursive_directory_iterator at(root, error), end; !error && at != end;
         at.increment(error)) {
        struct stat status = {};
        const std::string path = at->path();
        if (lstat(path.c_str(), &status) != 0) {
            continue;
        }
        if (status.st_uid != owner) {
            report("files", path, "it belongs to user " + std::to_string(status.st_uid),
                   "as root: chown -R " + std::to_string(owner) + " " + root);
            at.disable_recursion_pending();
        } else if ((status.st_mode & 0400) == 0 && !S_ISLNK(status.st_mode)) {
            report("files", path, "its owner may not read it", "chmod u+rw " + path);
        } else if (S_ISREG(status.st_mode) && (status.st_mode & 077) != 0 &&
                   path.starts_with(root + "/keys/")) {
            report("files", path, "other users may have read this key", "chmod 600 " + path);
        }
    }
    if (error) {
        report("files", root, "it cannot be read whole: " + error.message(),
               "check the permissions");
    }
}

void examineDisk(const std::string &root, const Report &report) {
    constexpr uint64_t kLeast = uint64_t{64} << 20, kMuch = uint64_t{1} << 30;
    struct statvfs disk = {};
    if (statvfs(root.c_str(), &disk) != 0) {
        return;
    }
    const uint64_t left = uint64_t{disk.f_bavail} * disk.f_frsize;
    const uint64_t all = uint64_t{disk.f_blocks} * disk.f_frsize;
    if (left < kLeast || (left < kMuch && left < all / 20)) {
        report("disk", root, std::to_string(left >> 20) + " MiB are left on its disk",
               "free space: a full disk loses log records and refuses to store values");
    }
    if (disk.f_files != 0 && disk.f_favail < disk.f_files / 100) {
        report("disk", root, "its disk has hardly room for another file", "remove files");
    }
}

/* ---- the configuration store ---- */

void examineStore(const std::string &root, const Report &report) {
    char fault[PATH_MAX + 256];
    if (TamoHostConfigCheck(fault, sizeof(fault)) == TAMO_HOST_REFUSED) {
        report("store", fault, "the configuration store is damaged or is another program's",
               "put a copy back; else the next program that opens it sets it aside and begins an "
               "empty one");
    }
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator(root + "/config", error)) {
        const std::string name = entry.path().filename();
        const bool isLog = name.ends_with("-wal") || name.ends_with("-shm");
        if (name.starts_with("config.db.") && !isLog) {
            report("store", entry.path(), "a damaged store was set aside",
                   "take from it what you need, then remove it");
        }
    }
}

/* ---- processes ---- */

/* The letter of the process's state, such as T for a stopped one; 0 when there is none. */
char stateOf(uint32_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const size_t behindName = text.rfind(") ");
    return behindName == std::string::npos || behindName + 2 >= text.size() ? 0
                                                                            : text[behindName + 2];
}

uint32_t addQueue(const TamoHostQueueInfo *queue, void *queues) {
    (*static_cast<std::map<std::string, TamoHostQueueInfo> *>(queues))[queue->name] = *queue;
    return 0;
}

std::map<std::string, TamoHostQueueInfo> readQueues() {
    std::map<std::string, TamoHostQueueInfo> queues;
    (void)TamoHostMsgQueues(addQueue, &queues);
    return queues;
}

void examineQueues(const std::string &, const Report &report) {
    const auto before = readQueues();
    const bool someWait = std::any_of(before.begin(), before.end(), [](const auto &each) {
        return each.second.depth != 0 && each.second.ownerPid != 0;
    });
    if (someWait) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    for (const auto &[name, queue] : readQueues()) {
        const auto old = before.find(name);
        const std::string owner =
            processName(queue.ownerPid) + "[" + std::to_string(queue.ownerPid) + "]";
        const char state = queue.ownerPid == 0 ? 0 : stateOf(queue.ownerPid);
        if (queue.ownerPid == 0) {
            report("queue", name, "the process that served it is dead",
                   "start the program again: it takes the queue over");
        } else if (state == 'T' || state == 't') {
            report("queue", name, "its owner " + owner + " is stopped",
                   "kill -CONT " + std::to_string(queue.ownerPid) + ", or go on in its debugger");
        } else if (queue.depth != 0 && old != before.end() && old->second.depth != 0 &&
                   old->second.ownerPid == queue.ownerPid &&
                   old->second.received == queue.received) {
            report("queue", name,
                   "its owner " + owner + " has taken no message for a second, and " +
                       std::to_string(queue.depth) + " wait",
                   "look where it hangs: gdb -p " + std::to_string(queue.ownerPid));
        }
    }
}

/* What processes leave in run/ is named after their ids. */
void examineLeftovers(const std::string &root, const Report &report) {
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator(root + "/run", error)) {
        const std::string name = entry.path().filename();
        const uint32_t pid = name.starts_with("mem.")
                                 ? static_cast<uint32_t>(strtoul(name.c_str() + 4, nullptr, 10))
                                 : 0;
        if (pid != 0 && stateOf(pid) == 0) {
            report("leftovers", entry.path(),
                   "process " + std::to_string(pid) + " ended without cleaning up",
                   "look in the log for why, then remove the file");
        }
    }
}

/* The shared libraries of a process: path by file name. */
std::map<std::string, std::string> modulesOf(uint32_t pid) {
    std::map<std::string, std::string> modules;
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    for (std::string line; std::getline(maps, line);) {
        const size_t slash = line.find('/');
        const std::string path = slash == std::string::npos ? "" : line.substr(slash);
        const std::string name = path.substr(path.rfind('/') + 1);
        if (name.find(".so") != std::string::npos) {
            modules[name.substr(0, name.find(' '))] = path;
        }
    }
    return modules;
}

std::string processLabel(uint32_t pid) {
    return processName(pid) + "[" + std::to_string(pid) + "]";
}

void examineModules(const std::string &, const Report &report) {
    constexpr std::string_view kDeleted = " (deleted)";
    std::set<uint32_t> pids;
    for (const uint32_t pid : processesWithTable()) {
        pids.insert(pid);
    }
    for (const auto &[name, queue] : readQueues()) {
        if (queue.ownerPid != 0) {
            pids.insert(queue.ownerPid);
        }
    }
    std::map<std::string, std::map<std::string, std::string>> builds; /* name: build id: process */
    std::map<std::string, std::string> known;                         /* path: build id */
    for (const uint32_t pid : pids) {
        for (const auto &[name, path] : modulesOf(pid)) {
            if (path.ends_with(kDeleted)) {
                report("module", name,
                       processLabel(pid) + " runs a build that was replaced or removed on disk",
                       "start that process again");
                continue;
            }
            if (!known.contains(path)) {
                known[path] = buildIdOf(path);
            }
            if (!known[path].empty()) {
                builds[name].emplace(known[path], processLabel(pid) + " has " + path);
            }
        }
    }
    for (const auto &[name, ids] : builds) {
        if (ids.size() > 1) {
            std::string who;
            for (const auto &[id, process] : ids) {
                who += (who.empty() ? "" : "; ") + process;
            }
            report("module", name, "processes have loaded different builds: " + who,
                   "start them all with one build: handlers of one are refused by the other");
        }
    }
}

}  // namespace

int runDoctor(const Command &command, const Arguments &arguments) {
    const std::string root = rootInUse();
    const bool json = arguments.has("json");
    uint64_t findings = 0;
    beginLines(command, arguments, Lines::finite);
    const Report report = [&](const char *area, const std::string &subject,
                              const std::string &problem, const std::string &advice) {
        findings++;
        if (json) {
            const Json object(cJSON_CreateObject());
            addText(object.get(), "area", area);
            addText(object.get(), "subject", subject);
            addText(object.get(), "problem", problem);
            addText(object.get(), "advice", advice);
            (void)putLine(jsonLine(object));
        } else {
            (void)putLine(std::string(area) + " " + printable(subject) + ": " + printable(problem) +
                          "\n    " + printable(advice));
        }
    };
    if (!fs::exists(root + "/data") && access(root.c_str(), R_OK) == 0) {
        requireRoot(command);
    }
    if (examineRoot(root, report)) {
        requireRoot(command);
        for (const auto examine : {examinePermissions, examineDisk, examineStore, examineQueues,
                                   examineLeftovers, examineModules}) {
            examine(root, report);
        }
        examineCertificates(command, report);
    }
    if (findings == 0 && !json) {
        (void)putLine("nothing is wrong with " + printable(root));
    }
    return findings == 0 ? kSuccess : kFailed;
}

}  // namespace tamoctl

/* Starts, kills and judges the processes of the soak: see soak.h.
 *
 *     soak MINUTES JOURNALS [FILL]
 *
 * TAMO_DEVICE_ROOT names the device root. JOURNALS is a directory elsewhere; FILL a file on the device
 * root's disk, which is filled with it and freed again and again. */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "soak.h"
#include "tamo_host.h"

namespace fs = std::filesystem;
using soak::Note;
using soak::self;

namespace {

struct Process {
    std::string role;
    uint32_t id;
    bool isSteady;
    pid_t pid = -1;
    uint32_t life = 0;
};

/* Receivers and watchers first: they hear of all that the others do. */
std::vector<Process> processes = {{"receiver", soak::kSteady, true},
                                  {"receiver", 1, false},
                                  {"watcher", soak::kSteady, true},
                                  {"watcher", 1, false},
                                  {"timers", 0, true},
                                  {"timers", 1, false},
                                  {"sender", 0, false},
                                  {"sender", 1, false},
                                  {"sender", 2, false},
                                  {"writer", 0, false},
                                  {"writer", 1, false},
                                  {"writer", 2, false},
                                  {"logger", 0, false},
                                  {"logger", 1, false},
                                  {"logger", 2, false},
                                  {"saver", 0, false},
                                  {"saver", 1, false},
                                  {"installer", 0, false},
                                  {"server", 0, false}};

using Of = std::pair<uint32_t, uint32_t>; /* a process's number and life */
using Numbers = std::vector<uint32_t>;

std::map<std::string, uint64_t> counts;

double now() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/* ---- while it runs ---- */

void start(Process *process) {
    const std::string id = std::to_string(process->id);
    const std::string life = std::to_string(process->life);
    const char *words[] = {"soak",       process->role.c_str(), id.c_str(),
                           life.c_str(), self.journals.c_str(), nullptr};
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP); /* killed with what it starts */
    if (posix_spawn(&process->pid, program_invocation_name, nullptr, &attributes,
                    const_cast<char **>(words), environ) != 0) {
        perror("soak: starting a process");
        exit(2);
    }
    posix_spawnattr_destroy(&attributes);
}

void judgeEnd(const Process &process, int status, bool wasKilled) {
    const int expected = wasKilled ? SIGKILL : SIGTERM; /* at the end it may have just begun */
    const bool crashed = WIFSIGNALED(status) && WTERMSIG(status) != expected;
    if (crashed || (process.isSteady && (wasKilled || WEXITSTATUS(status) != 0))) {
        soak::fault("%s %u.%u ended with status %#x", process.role.c_str(), process.id,
                    process.life, status);
    }
}

void killAndReplace(Process *process) {
    int status = 0;
    kill(-process->pid, SIGKILL);
    waitpid(process->pid, &status, 0);
    judgeEnd(*process, status, true);
    counts["killed: " + process->role]++;
    process->life++;
    start(process);
}

/* On a full disk a process may be unable to begin. */
void replaceEnded() {
    for (Process &process : processes) {
        int status = 0;
        if (waitpid(process.pid, &status, WNOHANG) == process.pid) {
            judgeEnd(process, status, false);
            counts["ended early: " + process.role]++;
            process.life++;
            start(&process);
        }
    }
}

/* Leaves no byte on the disk that FILL is on. */
void fillDisk(const char *fill) {
    static const std::string block(1 << 20, 'f');
    const int file = open(fill, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    for (size_t size = block.size(); size > 0; size /= 2) {
        while (write(file, block.data(), size) == static_cast<ssize_t>(size)) {
        }
    }
    close(file);
    counts["the disk was full"]++;
}

void run(double minutes, const char *fill) {
    std::mt19937 random(static_cast<unsigned>(getpid()));
    for (Process &process : processes) {
        start(&process);
        /* From here on every write is seen. */
        const std::string journal = soak::journalOf(process.role, process.id, 0);
        while (process.role == "watcher" && (!fs::exists(journal) || fs::file_size(journal) == 0)) {
            usleep(1000);
        }
    }
    const double end = now() + minutes * 60;
    double fillAt = now() + 5;
    double freeAt = 0;
    while (now() < end) {
        usleep(static_cast<useconds_t>(1000 * (10 + random() % 140)));
        Process *chosen = &processes[random() % processes.size()];
        if (!chosen->isSteady) {
            killAndReplace(chosen);
        }
        replaceEnded();
        if (fill != nullptr && freeAt == 0 && now() > fillAt) {
            fillDisk(fill);
            freeAt = now() + 0.3 + static_cast<double>(random() % 1000) / 1000;
        } else if (freeAt != 0 && now() > freeAt) {
            unlink(fill);
            freeAt = 0;
            fillAt = now() + 3 + static_cast<double>(random() % 5);
        }
    }
    if (fill != nullptr) {
        unlink(fill);
    }
}

void endAll(bool receiving) {
    for (Process &process : processes) {
        if ((process.role == "receiver" || process.role == "watcher") == receiving) {
            kill(process.pid, SIGTERM);
        }
    }
    const double patience = now() + 60;
    for (Process &process : processes) {
        if ((process.role == "receiver" || process.role == "watcher") != receiving) {
            continue;
        }
        int status = 0;
        while (waitpid(process.pid, &status, WNOHANG) == 0) {
            usleep(10000);
            if (now() > patience) {
                soak::fault("%s %u does not end", process.role.c_str(), process.id);
                kill(-process.pid, SIGKILL);
                waitpid(process.pid, &status, 0);
                break;
            }
        }
        judgeEnd(process, status, false);
    }
}

/* ---- the judgement ---- */

std::vector<Note> readJournal(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<Note> notes;
    for (Note note; file.read(reinterpret_cast<char *>(&note), sizeof(note));) {
        notes.push_back(note);
    }
    return notes;
}

/* Calls `take` for each journal of a role. */
template <typename Take>
void forJournals(const std::string &role, Take take) {
    for (const auto &entry : fs::directory_iterator(self.journals)) {
        const std::string name = entry.path().filename();
        Of of;
        if (name.compare(0, role.size() + 1, role + ".") == 0 &&
            sscanf(name.c_str() + role.size(), ".%u.%u", &of.first, &of.second) == 2) {
            take(of, readJournal(entry.path()));
        }
    }
}

/* Every wanted number is among those that came, and those came once and in order. */
void expectAll(const char *what, const Of &of, const Numbers &wanted, const Numbers &came) {
    if (std::adjacent_find(came.begin(), came.end(), std::greater_equal<>()) != came.end()) {
        soak::fault("%s of %u.%u came twice or out of order", what, of.first, of.second);
    }
    const std::set<uint32_t> all(came.begin(), came.end());
    size_t missing = 0;
    for (const uint32_t number : wanted) {
        missing += all.count(number) == 0;
    }
    if (missing != 0) {
        soak::fault("%zu of %zu acknowledged %s of %u.%u are missing", missing, wanted.size(), what,
                    of.first, of.second);
    }
    counts[std::string("acknowledged ") + what] += wanted.size();
}

void judgeMessages() {
    std::map<uint32_t, std::map<Of, Numbers>> came; /* by receiver */
    std::vector<std::pair<uint32_t, std::vector<Note>>> lives;
    forJournals("receiver", [&](const Of &of, const std::vector<Note> &notes) {
        lives.resize(std::max<size_t>(lives.size(), of.second + 1));
        if (of.first == soak::kSteady) {
            for (const Note &note : notes) {
                came[soak::kSteady][{note.who, note.life}].push_back(note.number);
            }
        } else {
            lives[of.second] = {of.first, notes};
        }
    });
    for (const auto &[receiver, notes] : lives) {
        for (const Note &note : notes) {
            came[receiver][{note.who, note.life}].push_back(note.number);
        }
    }
    forJournals("sender", [&](const Of &of, const std::vector<Note> &notes) {
        for (const uint32_t receiver : {0U, 1U}) {
            Numbers wanted;
            for (const Note &note : notes) {
                if (note.who == receiver) {
                    wanted.push_back(note.number);
                }
            }
            expectAll("messages", of, wanted, came[receiver][of]);
        }
    });
}

std::map<std::string, std::string> stored;

void judgeValues() {
    TamoHostConfigList(
        "Soak.w*",
        [](const char *key, const char *value, void *) {
            stored[key] = value;
            return 0U;
        },
        nullptr);
    std::map<Of, Numbers> told;
    bool missed = false;
    forJournals("watcher", [&](const Of &of, const std::vector<Note> &notes) {
        for (const Note &note : notes) {
            if (of.first == soak::kSteady && note.who != UINT32_MAX) {
                missed = missed || note.number == 0;
                told[{note.who, note.life}].push_back(note.number);
            }
            counts["reports"]++;
        }
    });
    forJournals("writer", [&](const Of &of, const std::vector<Note> &notes) {
        const std::string key =
            "Soak.w" + std::to_string(of.first) + "." + std::to_string(of.second) + ".";
        Numbers wanted;
        for (const Note &note : notes) {
            wanted.push_back(note.number);
        }
        const std::string &a = stored[key + "a"];
        if (a != stored[key + "b"] ||
            (!wanted.empty() && strtoul(a.c_str(), nullptr, 10) < wanted.back())) {
            soak::fault("%sa is '%s', b '%s', acknowledged %u", key.c_str(), a.c_str(),
                        stored[key + "b"].c_str(), wanted.empty() ? 0 : wanted.back());
        }
        if (missed) {
            counts["acknowledged values"] += wanted.size();
        } else {
            expectAll("values", of, wanted, told[of]);
        }
    });
}

void judgeRecords(const char *root) {
    std::map<Of, Numbers> came;
    for (int number = 1000; number >= 0; number--) {
        const std::string path =
            std::string(root) + "/log/Soak.log" + (number == 0 ? "" : "." + std::to_string(number));
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
            const size_t at = line.find("INFO   soak[");
            const size_t text = line.find(" soak:1 logger ");
            Of of;
            uint32_t count = 0;
            if (text == std::string::npos || line.back() != '.' ||
                sscanf(line.c_str() + text, " soak:1 logger %u.%u %u.", &of.first, &of.second,
                       &count) != 3) {
                counts["pieces of records"]++; /* of the killed, and of a full disk */
            } else if (at != 27 || line.rfind("INFO   soak[") != 27) {
                soak::fault("a record begins within another line: %s", line.c_str());
            } else {
                came[of].push_back(count);
            }
        }
        counts["log files"] += fs::exists(path);
    }
    forJournals("logger", [&](const Of &of, const std::vector<Note> &notes) {
        Numbers wanted;
        for (const Note &note : notes) {
            wanted.push_back(note.number);
        }
        expectAll("records", of, wanted, came[of]);
    });
}

/* The largest number that any life of a process noted. */
uint32_t mostNoted(const std::string &role, uint32_t id, const char *what) {
    uint32_t most = 0;
    forJournals(role, [&](const Of &of, const std::vector<Note> &notes) {
        for (const Note &note : notes) {
            most = of.first == id ? std::max(most, note.number) : most;
        }
        counts[what] += of.first == id ? notes.size() : 0;
    });
    return most;
}

void judgeFiles() {
    for (const uint32_t saver : {0U, 1U}) {
        const uint32_t saved = mostNoted("saver", saver, "acknowledged saves");
        const int64_t loaded = soak::loadSaved(saver);
        if (loaded < saved) {
            soak::fault("the file of saver %u holds %ld, acknowledged %u", saver,
                        static_cast<long>(loaded), saved);
        }
    }
    const uint32_t installed = mostNoted("installer", 0, "acknowledged installations");
    const long serial = soak::loadServerCertificate();
    if (serial < static_cast<long>(installed)) {
        soak::fault("certificate %ld is loaded, acknowledged %u", serial, installed);
    }
    mostNoted("server", 0, "certificates loaded");
    mostNoted("timers", 0, "expiries");
    mostNoted("timers", 1, "expiries");
}

int report() {
    for (const auto &[what, count] : counts) {
        printf("%-32s %10llu\n", what.c_str(), static_cast<unsigned long long>(count));
    }
    std::ifstream file(self.journals + "/faults");
    uint64_t faults = 0;
    for (std::string line; std::getline(file, line); faults++) {
        if (faults < 50) {
            printf("FAULT %s\n", line.c_str());
        }
    }
    printf("%-32s %10llu\n", "faults", static_cast<unsigned long long>(faults));
    return faults == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc == 5) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        self = {argv[1], static_cast<uint32_t>(atoi(argv[2])), static_cast<uint32_t>(atoi(argv[3])),
                argv[4]};
        return soak::runRole();
    }
    const char *root = getenv("TAMO_DEVICE_ROOT");
    if (argc < 3 || root == nullptr) {
        fputs("usage: scripts/soak [MINUTES]\n", stderr);
        return 2;
    }
    self = {"soak", 0, 0, argv[2]};
    run(atof(argv[1]), argc > 3 ? argv[3] : nullptr);
    endAll(false);
    endAll(true);
    judgeMessages();
    judgeValues();
    judgeRecords(root);
    judgeFiles();
    return report();
}

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
#include <regex>
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

/* Receivers and watchers first: they hear of all that the others do. The number 0 of them is steady. */
const std::pair<const char *, uint32_t> roles[] = {{"receiver", 2},  {"watcher", 2}, {"sender", 3},
                                                   {"writer", 3},    {"logger", 3},  {"saver", 2},
                                                   {"installer", 1}, {"server", 1}};
std::vector<Process> processes;

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
    for (const auto &[role, count] : roles) {
        const bool listens = role == roles[0].first || role == roles[1].first;
        for (uint32_t id = 0; id < count; id++) {
            processes.push_back({role, id, listens && id == soak::kSteady});
        }
    }
    for (Process &process : processes) {
        start(&process);
        /* From here on every write is seen. */
        const std::string journal = soak::journalOf(process.role, process.id);
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
    alarm(120); /* ends this program where one does not end */
    for (const bool waits : {false, true}) {
        for (Process &process : processes) {
            int status = 0;
            if ((process.role == "receiver" || process.role == "watcher") != receiving) {
                continue;
            }
            if (!waits) {
                kill(process.pid, SIGTERM);
            } else if (waitpid(process.pid, &status, 0) == process.pid) {
                judgeEnd(process, status, false);
            }
        }
    }
    alarm(0);
}

/* ---- the judgement ---- */

std::vector<Note> readJournal(const std::string &role, uint32_t id) {
    std::ifstream file(soak::journalOf(role, id), std::ios::binary);
    std::vector<Note> notes;
    for (Note note; file.read(reinterpret_cast<char *>(&note), sizeof(note));) {
        notes.push_back(note);
    }
    return notes;
}

using Of = std::pair<uint32_t, uint32_t>; /* a process's number and life */
using Numbers = std::vector<uint32_t>;

/* By the process that a note is about, and by the life that noted something of `who`. */
std::map<Of, Numbers> notesOfOthers(const std::string &role, uint32_t id) {
    std::map<Of, Numbers> numbers;
    for (const Note &note : readJournal(role, id)) {
        numbers[{note.who, note.whoLife}].push_back(note.number);
    }
    return numbers;
}

std::map<Of, Numbers> notesOfLives(const std::string &role, uint32_t id, uint32_t who = 0) {
    std::map<Of, Numbers> numbers;
    for (const Note &note : readJournal(role, id)) {
        if (note.who == who) {
            numbers[{id, note.life}].push_back(note.number);
        }
    }
    return numbers;
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
    for (const uint32_t receiver : {0U, 1U}) {
        std::map<Of, Numbers> came = notesOfOthers("receiver", receiver);
        for (const uint32_t sender : {0U, 1U, 2U}) {
            for (const auto &[of, wanted] : notesOfLives("sender", sender, receiver)) {
                expectAll("messages", of, wanted, came[of]);
            }
        }
    }
}

/* Both keys of a write are as stored last, and as they were told last. */
void judgeValues() {
    std::map<std::string, std::string> stored;
    TamoHostConfigList(
        "Soak.w*",
        [](const char *key, const char *value, void *context) {
            (*static_cast<std::map<std::string, std::string> *>(context))[key] = value;
            return 0U;
        },
        &stored);
    std::map<Of, Numbers> told = notesOfOthers("watcher", soak::kSteady);
    for (const uint32_t writer : {0U, 1U, 2U}) {
        for (const auto &[of, wanted] : notesOfLives("writer", writer)) {
            const std::string key =
                "Soak.w" + std::to_string(of.first) + "." + std::to_string(of.second) + ".";
            const Numbers &came = told[of];
            const std::string &a = stored[key + "a"];
            const uint32_t last = came.empty() ? 0 : came.back();
            if (a != stored[key + "b"] || a != std::to_string(last) || last < wanted.back()) {
                soak::fault("%sa is '%s', b '%s', told %u, acknowledged %u", key.c_str(), a.c_str(),
                            stored[key + "b"].c_str(), last, wanted.back());
            }
            counts["reports"] += came.size();
            if (std::count(came.begin(), came.end(), 0) ==
                0) { /* else all keys were told at once */
                expectAll("values", of, wanted, came);
            }
        }
    }
}

void judgeRecords(const fs::path &root) {
    const std::regex record(
        "[-0-9]+ [0-9:.]+ INFO   soak[^ ]* soak:1 logger ([0-9]+)[.]([0-9]+) ([0-9]+)[.]");
    std::map<Of, Numbers> came;
    for (int number = 1000; number >= 0; number--) {
        const std::string suffix = number == 0 ? "" : "." + std::to_string(number);
        std::ifstream file(root / ("log/Soak.log" + suffix));
        counts["log files"] += file.is_open();
        std::smatch part;
        for (std::string line; std::getline(file, line);) {
            if (std::regex_match(line, part, record)) {
                const auto at = [&part](int group) {
                    return static_cast<uint32_t>(std::stoul(part[group]));
                };
                came[{at(1), at(2)}].push_back(at(3));
            } else if (line.rfind(" soak:1 logger ") != std::string::npos && line.back() == '.') {
                soak::fault("a record begins within another line: %s", line.c_str());
            } else {
                counts["pieces of records"]++; /* of the killed, and of a full disk */
            }
        }
    }
    for (const uint32_t logger : {0U, 1U, 2U}) {
        for (const auto &[of, wanted] : notesOfLives("logger", logger)) {
            expectAll("records", of, wanted, came[of]);
        }
    }
}

/* The largest number that a process noted. */
uint32_t mostNoted(const std::string &role, uint32_t id, const char *what) {
    uint32_t most = 0;
    for (const Note &note : readJournal(role, id)) {
        most = std::max(most, note.number);
        counts[what]++;
    }
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

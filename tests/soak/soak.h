/* A soak of the whole host: processes of every kind work in one device root while any of them is killed
 * and the disk fills up. Each notes what it was told is done (a journal outside the device root, behind
 * the acknowledgement); at the end every note must be true.
 *
 * soak.cpp starts, kills and judges; roles.cpp is what the processes do. */
#pragma once
#include <stdint.h>

#include <string>

namespace soak {

constexpr uint32_t kSteady = 0; /* the receiver and watchers that nobody kills */

/* One entry of a journal, which all lives of a process share. `who` and `whoLife` name another process,
 * where the note is about one. */
struct Note {
    uint32_t life, who, whoLife, number;
};

/* This process: its role, its number among those of the role, how often it was killed before, and the
 * directory of the journals. */
struct Self {
    std::string role;
    uint32_t id, life;
    std::string journals;
};
extern Self self;

/* The name of a process's journal. */
std::string journalOf(const std::string &role, uint32_t id);

/* Notes that something does not hold. */
__attribute__((format(printf, 1, 2))) void fault(const char *format, ...);

/* Runs the role until it is told to end (SIGTERM). */
int runRole();

/* Puts a savers' file into memory: the number that all its fields have, or -1 when it does not load or
 * is a mixture. */
int64_t loadSaved(uint32_t saver);

/* The serial number of the server certificate that the library loads, -1 when it loads none, or
 * certificate and key do not belong together. */
long loadServerCertificate();

}  // namespace soak

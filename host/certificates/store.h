/* The certificate service's store, for those who change it or look through it. Failures are thrown, and
 * told at the end of an operation.
 *
 * How it works. Writers take turns by a lock file. A replaced version of a server certificate ages from
 * that moment. It is removed, with the engine's key that only it needs, by the writer itself where no
 * process uses the service (each user holds a shared lock), else by the threads that watch the store in
 * the users' processes. */
#pragma once
#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

#include "host/base/descriptor.h"
#include "tamo_host.h"

namespace tamo::certificates {

/* What ends an operation. */
struct Fault {
    uint32_t code;
    std::string text;
};

[[noreturn]] __attribute__((format(printf, 2, 3))) void refuse(uint32_t code, const char *format,
                                                               ...);

/* Refuses with the text of errno. */
[[noreturn]] void failSystem(const char *what, const std::string &name);

/* Tells a fault as a sentence, or records it where `why` is null; its code. */
uint32_t tellFault(const Fault &fault, char *why, uint32_t size);

/* Runs an operation and turns its end into a code and a sentence. */
template <typename Operation>
uint32_t guarded(char *why, uint32_t size, Operation operation) {
    try {
        operation();
    } catch (const Fault &fault) {
        return tellFault(fault, why, size);
    } catch (...) {
        return tellFault({TAMO_HOST_NO_MEMORY, ""}, why, size);
    }
    return tellFault({TAMO_HOST_OK, ""}, why, size);
}

/* ---- directories and files ---- */

std::string nativeOf(const char *devicePath);

Descriptor openDirectory(const char *devicePath);

/* The names in a directory, in order; hidden ones on demand only. */
std::vector<std::string> namesIn(int directory, bool hidden = false);

/* Removes a directory and the files in it. */
void removeTree(int parent, const std::string &name);

/* A hidden name that no other file has. */
std::string freshName(const std::string &prefix);

/* Writes a file of mode 0600 that was not there before. */
void writeNew(int directory, const std::string &name, std::string_view text);

/* ---- writers and users ---- */

/* One writer at a time. What an earlier writer that was killed left is removed. */
class WritersTurn {
  public:
    WritersTurn();

  private:
    const Descriptor file_;
};

/* Makes this process one that may have been told the paths of a version. */
void joinUsers();

/* ---- versions of server certificates ---- */

/* The version that a certificate's entry leads to; empty when it leads to none. */
std::string versionInUse(int server, const std::string &entry);

/* One that is no longer in use. */
struct KeptVersion {
    uint32_t certId;
    std::string name;
    int64_t until;
};

std::vector<KeptVersion> keptVersions(int server);

/* Removes the engine's keys that no version needs. In a writer's turn. */
void removeUnusedKeys(int server);

/* Removes the versions of `certId` that are no longer in use (0: of none), those whose time has come, and
 * all where no process uses the service. In a writer's turn. */
void removeVersions(int server, uint32_t certId);

/* Removes the versions whose time has come. Milliseconds until the next one's; -1 when there is none. */
int removeReplacedVersions();

}  // namespace tamo::certificates

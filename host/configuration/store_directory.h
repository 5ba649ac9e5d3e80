/* The files of the configuration store in the directory config/ of the device root: the order in
 * which openers take turns there, and the renaming of stores as a whole. */
#pragma once
#include <stddef.h>
#include <stdint.h>

namespace tamo {

constexpr const char *kConfigFile = "config.db";
constexpr const char *kFreshConfigFile = "config.db.new";

/* Held by the one process that opens, begins or moves the store. It is a lock of the directory itself,
 * which does not go with the files in it. */
class OpenersTurn {
  public:
    explicit OpenersTurn(int directory);
    ~OpenersTurn();
    OpenersTurn(const OpenersTurn &) = delete;
    OpenersTurn &operator=(const OpenersTurn &) = delete;

    bool taken() const { return isTaken; }

  private:
    const int descriptor;
    bool isTaken = false;
};

/* The log and the shared index beside the store, by their numbers in the file system; 0 is none. */
struct ConfigCompanions {
    uint64_t log = 0;
    uint64_t index = 0;
    bool operator==(const ConfigCompanions &) const = default;
};

ConfigCompanions findConfigCompanions();

/* Records the failure of a system call, told by errno; returns the TAMO_HOST_ code. */
uint32_t configDirectoryFailure(const char *what, int line);

bool configDirectoryHas(int directory, const char *name);

/* Whether the disk has no room to speak of. */
bool configDirectoryIsTight(int directory);

/* Makes an empty shared index where there is none, which takes no room: SQLite reads without one only
 * where it finds one that it cannot use. */
void keepConfigIndex(int directory);

/* Gives a damaged or foreign store a name that nothing has, with its log, and records it. */
uint32_t moveConfigAside(int directory, const char *why);

/* Removes what was left of a beginning that did not come to its end. */
void removeUnfinishedConfig(int directory);

/* Gives a fresh store that is whole its name, for good. */
uint32_t nameFreshConfig(int directory);

}  // namespace tamo

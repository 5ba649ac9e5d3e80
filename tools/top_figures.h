/* What tamoctl top shows: figures of the queues, the processes and the log, taken again and again.
 *
 * A rate is that between the last two looks. Service times are of what was answered during the last
 * kKeptLooks looks, or since the queue was opened when that was nothing. */
#pragma once
#include <chrono>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "log_file.h"
#include "tamo_host.h"
#include "tamoctl.h"

namespace tamoctl {

constexpr size_t kKeptLooks = 10;
constexpr size_t kLevels = 4;
constexpr const char *kLevelNames[kLevels] = {"error", "warning", "info", "debug"};

struct QueueFigures {
    std::string name;
    uint32_t pid; /* 0: nobody serves it */
    uint64_t depth;
    double rate;                         /* messages taken out per second */
    std::optional<uint64_t> median, p99; /* nanoseconds */
};

struct ProcessFigures {
    uint32_t pid;
    std::string name;
    std::optional<uint64_t> blocks, bytes; /* outstanding; none without the memory layer */
    std::optional<uint64_t> descriptors;   /* none when this user may not count them */
};

struct TopFigures {
    std::vector<QueueFigures> queues;      /* in order of name */
    std::vector<ProcessFigures> processes; /* in order of id */
    double records[kLevels];               /* per second */
};

class TopLooks {
  public:
    /* Looks for the first time; rates begin with the second look. */
    explicit TopLooks(const Command &command);

    TopFigures look();

  private:
    using Queues = std::map<std::string, TamoHostQueueInfo>;
    struct Look {
        std::chrono::steady_clock::time_point time;
        Queues queues;
    };

    QueueFigures figuresOf(const TamoHostQueueInfo &queue, double seconds) const;
    void countRecords(bool first, uint64_t (&counts)[kLevels]);

    std::string logDirectory_;
    std::deque<Look> looks_;
    std::map<std::string, LogFile> logs_;
};

}  // namespace tamoctl

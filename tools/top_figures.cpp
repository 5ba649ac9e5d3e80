/* Figures for tamoctl top: see top_figures.h. */
#include "top_figures.h"

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "log_filter.h"

namespace tamoctl {

namespace {

using Histogram = uint64_t[TAMO_HOST_SERVICE_BUCKETS];

uint32_t keep(const TamoHostQueueInfo *queue, void *queues) {
    static_cast<std::map<std::string, TamoHostQueueInfo> *>(queues)->emplace(queue->name, *queue);
    return 0;
}

/* Whether `later` counts on from `earlier`: the queue was not opened anew in between. */
bool isSame(const TamoHostQueueInfo &earlier, const TamoHostQueueInfo &later) {
    if (earlier.ownerPid != later.ownerPid || earlier.received > later.received) {
        return false;
    }
    return std::equal(std::begin(earlier.served), std::end(earlier.served), later.served,
                      [](uint64_t a, uint64_t b) { return a <= b; });
}

/* The time that a part of the messages did not exceed, by what the classes tell: even within one. */
std::optional<uint64_t> quantile(const Histogram &counts, double part) {
    uint64_t all = 0;
    for (const uint64_t count : counts) {
        all += count;
    }
    double wanted = part * static_cast<double>(all);
    for (size_t i = 0; all > 0 && i < std::size(counts); i++) {
        const auto count = static_cast<double>(counts[i]);
        if (counts[i] > 0 && wanted <= count) {
            const double low = i == 0 ? 0 : std::ldexp(1, static_cast<int>(i) - 1);
            return static_cast<uint64_t>(low + low * wanted / count);
        }
        wanted -= count;
    }
    return std::nullopt;
}

uint32_t addSite(const TamoHostMemSite *site, void *process) {
    auto *figures = static_cast<ProcessFigures *>(process);
    *figures->blocks += site->blocks;
    *figures->bytes += site->bytes;
    return 0;
}

std::optional<uint64_t> descriptorsOf(uint32_t pid) {
    std::error_code error;
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(pid) + "/fd",
                                                      error);
    uint64_t count = 0;
    for (auto entry = begin(entries); !error && entry != end(entries); entry.increment(error)) {
        count++;
    }
    return error ? std::nullopt : std::optional(count);
}

ProcessFigures processFigures(uint32_t pid, bool hasTable) {
    ProcessFigures figures = {pid, processName(pid), {}, {}, descriptorsOf(pid)};
    if (hasTable) {
        figures.blocks = figures.bytes = 0;
        if (TamoHostMemReport(pid, addSite, &figures) != TAMO_HOST_OK) {
            figures.blocks.reset();
            figures.bytes.reset();
        }
    }
    return figures;
}

}  // namespace

TopLooks::TopLooks(const Command &command) : logDirectory_(rootPath(command, "/log")) {
    uint64_t counts[kLevels];
    countRecords(true, counts);
    Look look = {std::chrono::steady_clock::now(), {}};
    (void)TamoHostMsgQueues(keep, &look.queues);
    looks_.push_back(std::move(look));
}

QueueFigures TopLooks::figuresOf(const TamoHostQueueInfo &queue, double seconds) const {
    QueueFigures figures = {queue.name, queue.ownerPid, queue.depth, 0, {}, {}};
    const auto last = looks_.back().queues.find(queue.name);
    const bool goesOn = last != looks_.back().queues.end() && isSame(last->second, queue);
    figures.rate =
        static_cast<double>(queue.received - (goesOn ? last->second.received : 0)) / seconds;
    Histogram served;
    std::copy(std::begin(queue.served), std::end(queue.served), served);
    for (const Look &look : looks_) {
        const auto earlier = look.queues.find(queue.name);
        if (earlier == look.queues.end() || !isSame(earlier->second, queue)) {
            continue;
        }
        if (!std::equal(std::begin(served), std::end(served), earlier->second.served)) {
            for (size_t i = 0; i < std::size(served); i++) {
                served[i] -= earlier->second.served[i];
            }
        }
        break;
    }
    figures.median = quantile(served, 0.5);
    figures.p99 = quantile(served, 0.99);
    return figures;
}

/* A log that comes later is read from its beginning. */
void TopLooks::countRecords(bool first, uint64_t (&counts)[kLevels]) {
    std::fill(std::begin(counts), std::end(counts), 0);
    for (const std::string &name : logNames()) {
        const auto [log, isNew] = logs_.try_emplace(name, logDirectory_ + "/" + name);
        if (isNew && first && log->second.open()) {
            (void)log->second.tail(0, [](std::string_view) { return false; });
        }
    }
    for (auto &[name, log] : logs_) {
        log.readOn([&](std::string_view line) {
            const std::optional<LogRecord> record = parseRecord(line);
            if (record.has_value()) {
                counts[record->severity - 1]++;
            }
        });
    }
}

TopFigures TopLooks::look() {
    Look look = {std::chrono::steady_clock::now(), {}};
    const double seconds =
        std::max(std::chrono::duration<double>(look.time - looks_.back().time).count(), 1e-3);
    (void)TamoHostMsgQueues(keep, &look.queues);

    TopFigures figures = {};
    std::map<uint32_t, bool> pids; /* and whether they use the memory layer */
    for (const auto &[name, queue] : look.queues) {
        figures.queues.push_back(figuresOf(queue, seconds));
        if (queue.ownerPid != 0) {
            pids.emplace(queue.ownerPid, false);
        }
    }
    for (const uint32_t pid : processesWithTable()) {
        pids[pid] = true;
    }
    for (const auto &[pid, hasTable] : pids) {
        figures.processes.push_back(processFigures(pid, hasTable));
        if (figures.processes.back().name.empty()) {
            figures.processes.pop_back(); /* it has ended meanwhile */
        }
    }
    uint64_t counts[kLevels];
    countRecords(false, counts);
    for (size_t i = 0; i < kLevels; i++) {
        figures.records[i] = static_cast<double>(counts[i]) / seconds;
    }
    looks_.push_back(std::move(look));
    if (looks_.size() > kKeptLooks) {
        looks_.pop_front();
    }
    return figures;
}

}  // namespace tamoctl

/* Processes that share one log file: every record of every writer is there once, whole and in its
 * order, whatever happens to the files and to other writers meanwhile. */
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/tamo_om_log_client.h"
#include "tests/support/child_process.h"
#include "tests/support/scratch_root.h"

namespace {

namespace fs = std::filesystem;

constexpr char kName[] = "Shared.log";
constexpr uint32_t kFileSize = 20000;
constexpr uint32_t kFileCount = 900; /* none is dropped here */
constexpr int kThreads = 2;
constexpr int kRecords = 4000;

/* Stands before the C library's: after so many writes one is cut short by a kill. */
std::atomic<int> cutAfter = 0;
extern "C" ssize_t cutWrite(int, const void *, size_t) __asm__("write");

ssize_t cutWrite(int file, const void *data, size_t size) {
    const bool cut = file > STDERR_FILENO && cutAfter > 0 && --cutAfter == 0;
    const ssize_t written = syscall(SYS_write, file, data, cut ? size * 2 / 3 : size);
    if (cut) {
        (void)raise(SIGKILL);
    }
    return written;
}

uint16_t create() {
    OmLogCreateParam param = {512, kFileCount, kFileSize, {}};
    strcpy(param.name, kName);
    uint16_t id = 0;
    return TamoOmLogClientInit("C", 1) == 0 && TamoOmLogCreateLog(&param, &id) == 0 ? id : 0;
}

/* Writes "writer number" for number = 0, 1, ...; false when a record failed. */
bool writeRecords(uint16_t id, const std::string &writer, int count) {
    bool written = true;
    for (int i = 0; i < count; ++i) {
        written = TamoOmLogModuleLogRecord(3, id, "unit", 4, 7, "%s %d", writer.c_str(), i) == 0 &&
                  written;
    }
    return written;
}

/* Writes when it is told to. */
const support::ChildRole writer("writer", [](const support::ChildArguments &arguments) {
    const uint16_t id = create();
    support::tellParent(id == 0 ? "failed" : "ready");
    support::hearParent();
    bool other = false;
    std::thread thread([&] { other = writeRecords(id, arguments.at(0) + ".1", kRecords); });
    const bool written = writeRecords(id, arguments.at(0) + ".0", kRecords);
    thread.join();
    return written && other ? 0 : 1;
});

/* Writes until it is killed; with a number, by itself within its record of that number. */
const support::ChildRole victim("victim", [](const support::ChildArguments &arguments) {
    const uint16_t id = create();
    support::tellParent(id == 0 ? "failed" : "ready");
    cutAfter = arguments.size() > 1 ? std::stoi(arguments[1]) : 0;
    writeRecords(id, arguments.at(0), 1000000000);
    return 1;
});

/* Opens the log for each of its records. */
const support::ChildRole opener("opener", [](const support::ChildArguments &arguments) {
    support::tellParent("ready");
    support::hearParent();
    for (int i = 0; i < kRecords; ++i) {
        if (TamoOmLogModuleLogRecord(3, create(), "unit", 4, 7, "%s %d", arguments[0].c_str(), i) !=
            0) {
            return 1;
        }
    }
    return 0;
});

fs::path logFile(uint32_t number) {
    return fs::path(support::scratchRoot()) / "log" /
           (kName + (number == 0 ? "" : "." + std::to_string(number)));
}

class SharedLog : public testing::Test {
  protected:
    SharedLog() {
        fs::remove_all(logFile(0).parent_path());
        for (int i = 0; i < 3; ++i) {
            writers_.push_back(std::make_unique<support::ChildProcess>(
                "writer", support::ChildArguments{"writer" + std::to_string(i)}));
            EXPECT_EQ(writers_.back()->hear(), "ready");
        }
    }

    void expectEveryRecord() {
        for (auto &child : writers_) {
            EXPECT_EQ(child->wait(60), support::exited(0));
        }
        const std::map<std::string, int> found = readRecords();
        for (size_t i = 0; i < writers_.size(); ++i) {
            for (int t = 0; t < kThreads; ++t) {
                const std::string name = "writer" + std::to_string(i) + "." + std::to_string(t);
                EXPECT_EQ(found.count(name) != 0 ? found.at(name) : 0, kRecords) << name;
            }
        }
    }

    /* From the oldest file on: how many records each writer has, in their order. A rotation that was
     * killed leaves a number without a file. */
    static std::map<std::string, int> readRecords() {
        EXPECT_TRUE(fs::exists(logFile(4))) << "the file was rotated";
        std::map<std::string, int> next;
        for (uint32_t number = kFileCount; number-- > 0;) {
            std::ifstream file(logFile(number));
            for (std::string line; std::getline(file, line);) {
                if (!takeLine(line, &next)) {
                    ADD_FAILURE() << "the first line out of order, in file " << number << ": "
                                  << line;
                    return next;
                }
            }
        }
        return next;
    }

    /* False when the line is neither a whole record, of its writer's next number, nor a piece of a
     * killed writer's. */
    static bool takeLine(const std::string &line, std::map<std::string, int> *next) {
        const std::string origin = "INFO   log_process_test[";
        const size_t unit = line.find(" unit:7 ");
        const size_t blank = line.rfind(' ');
        const bool isWhole = unit != std::string::npos && blank > unit + 8;
        if (line.find(origin) != 27 || line.rfind(origin) != 27 || !isWhole) {
            return line.find("writer") == std::string::npos && line.rfind(origin) <= 27;
        }
        int *number = &(*next)[line.substr(unit + 8, blank - unit - 8)];
        return line.substr(blank + 1) == std::to_string((*number)++);
    }

    std::vector<std::unique_ptr<support::ChildProcess>> writers_;
};

TEST_F(SharedLog, WritersThatAreKilledWithinALineHarmNoRecordAndNoLimit) {
    support::ChildProcess again("opener", {"writer.again"});
    ASSERT_EQ(again.hear(), "ready");
    again.tell("go");
    for (auto &child : writers_) {
        child->tell("go");
    }
    for (int i = 0; i < 20; ++i) {
        support::ChildProcess child("victim",
                                    {"victim" + std::to_string(i), std::to_string(1 + i)});
        ASSERT_EQ(child.hear(), "ready");
        EXPECT_EQ(child.wait(), support::killed(SIGKILL));
    }
    EXPECT_EQ(again.wait(60), support::exited(0));
    expectEveryRecord();
    for (uint32_t number = 0; number < kFileCount; ++number) {
        std::error_code missing;
        const auto size = fs::file_size(logFile(number), missing);
        EXPECT_TRUE(missing || size <= kFileSize) << number << " has " << size << " bytes";
    }
}

TEST_F(SharedLog, CountersThatSomebodyDeletesOrCutsCostNoRecord) {
    const fs::path counters =
        fs::path(support::scratchRoot()) / "run" / (std::string("log.") + kName);
    for (auto &child : writers_) {
        child->tell("go");
    }
    for (int i = 0; i < 6; ++i) {
        support::ChildProcess child("victim", {"victim" + std::to_string(i)});
        ASSERT_EQ(child.hear(), "ready");
        if (i % 2 == 0) {
            EXPECT_TRUE(fs::remove(counters));
        } else {
            fs::resize_file(counters, 0);
        }
        child.kill();
    }
    expectEveryRecord();
}

}  // namespace

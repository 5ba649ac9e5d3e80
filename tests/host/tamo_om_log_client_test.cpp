/* The log client of one process: lines, limits, and what happens when a file cannot be had. Several
 * processes at once are in tests/soak. */
#include "platform/tamo_om_log_client.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "include/conf_log_adapter.h"
#include "tests/host/disk_faults.h"
#include "tests/support/allocation_count.h"
#include "tests/support/scratch_root.h"

namespace {

namespace fs = std::filesystem;

constexpr char kName[] = "Test.log";

OmLogCreateParam limits(uint32_t recordSize = 512, uint32_t fileCount = 9,
                        uint32_t fileSize = 10 * 1024 * 1024) {
    OmLogCreateParam param = {recordSize, fileCount, fileSize, {}};
    strcpy(param.name, kName);
    return param;
}

uint16_t create(const OmLogCreateParam &param = limits()) {
    uint16_t id = 0;
    EXPECT_EQ(TamoOmLogCreateLog(&param, &id), 0);
    return id;
}

int32_t record(uint16_t id, const std::string &text, uint8_t level = 3) {
    return TamoOmLogModuleLogRecord(level, id, "unit", 4, 7, "%s", text.c_str());
}

fs::path root() {
    return support::scratchRoot();
}

fs::path logFile(uint32_t number = 0) {
    return root() / "log" / (kName + (number == 0 ? "" : "." + std::to_string(number)));
}

std::vector<std::string> lines(const fs::path &path = logFile()) {
    std::ifstream file(path);
    const std::string all{std::istreambuf_iterator<char>(file), {}};
    std::vector<std::string> found;
    size_t start = 0;
    for (size_t end = 0; (end = all.find('\n', start)) != std::string::npos; start = end + 1) {
        found.push_back(all.substr(start, end - start));
    }
    EXPECT_EQ(start, all.size()) << "the last line has no end";
    return found;
}

/* The texts of the records in a file. */
std::vector<std::string> texts(const fs::path &path = logFile()) {
    std::vector<std::string> found;
    for (const std::string &line : lines(path)) {
        const size_t unit = line.find(" unit:7 ");
        found.push_back(unit == std::string::npos ? "?" + line : line.substr(unit + 8));
    }
    return found;
}

template <typename Call>
std::string standardErrorOf(Call call) {
    testing::internal::CaptureStderr();
    call();
    return testing::internal::GetCapturedStderr();
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

class LogClient : public testing::Test {
  protected:
    void SetUp() override {
        fs::remove_all(root() / "log" / kName);
        ASSERT_EQ(TamoOmLogClientInit("C", 1), 0);
        for (const auto &entry : fs::directory_iterator(root() / "log")) {
            fs::remove_all(entry);
        }
    }
    void TearDown() override {
        support::diskRoom = -1;
        EXPECT_EQ(TamoOmLogClientUnInit(), 0);
    }
};

TEST_F(LogClient, LineHoldsTimeLevelProcessThreadUnitAndText) {
    const uint16_t id = create();
    const char *names[] = {"ERROR  ", "WARNING ", "INFO   ", "DEBUG  "};
    for (uint8_t level = 1; level <= 4; ++level) {
        ASSERT_EQ(
            TamoOmLogModuleLogRecord(level, id, "conf_msg_api", 12, -230, "[%s]%d%%", "Run", 5), 0);
    }
    const std::vector<std::string> found = lines();
    ASSERT_EQ(found.size(), 4u);
    for (size_t i = 0; i < found.size(); ++i) {
        const std::string process = std::to_string(getpid()) + "/" + std::to_string(gettid());
        EXPECT_EQ(found[i].substr(27), std::string(names[i]) + program_invocation_short_name + "[" +
                                           process + "] conf_msg_api:-230 [Run]5%");
        std::string shape = found[i].substr(0, 27);
        std::replace_if(shape.begin(), shape.end(), isDigit, '9');
        EXPECT_EQ(shape, "9999-99-99 99:99:99.999999 ");
    }
    struct stat status = {};
    ASSERT_EQ(stat(logFile().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(LogClient, NoTextLooksLikeAnotherRecord) {
    const uint16_t id = create();
    const std::vector<std::pair<std::string, std::string>> known = {
        {"end\n", "end"},
        {"a\n2026-01-01 ERROR  x[1/1]", "a\\n2026-01-01 ERROR  x[1/1]"},
        {"\r\x1b[2K\t\x7f", "\\x0d\\x1b[2K\\x09\\x7f"},
        {"\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"\xC2\x85\xE2\x80\xA8", "\\xc2\\x85\\xe2\\x80\\xa8"},
        {"\xC0\xAF\xED\xA0\x80\xF4\x90\x80\x80\xE0\x9F\xBF\xF0\x8F\xBF\xBF\xE2\x82",
         "\\xc0\\xaf\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80\\xe0\\x9f\\xbf\\xf0\\x8f\\xbf\\xbf\\xe2\\x8"
         "2"},
        {"", ""},
    };
    for (const auto &[text, line] : known) {
        EXPECT_EQ(record(id, text), 0);
        EXPECT_EQ(texts().back(), line);
    }
    EXPECT_EQ(TamoOmLogModuleLogRecord(3, id, "a\nb", 3, 1, "%s", "x"), 0);
    EXPECT_NE(lines().back().find(" a\\nb:1 x"), std::string::npos);
}

TEST_F(LogClient, LongTextIsCutBetweenCharactersAndMarked) {
    const uint16_t id = create(limits(10));
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"1234567890", "1234567890"},
        {"12345678901", "1234567890[cut]"},
        {"1234567890\n\n", "1234567890[cut]"},
        {"123456789\xC3\xA9", "123456789[cut]"},
        {"1234567\xF0\x9F\x98\x80", "1234567[cut]"},
        {std::string(100000, 'x'), "xxxxxxxxxx[cut]"},
    };
    for (const auto &[text, line] : cases) {
        EXPECT_EQ(record(id, text), 0);
        EXPECT_EQ(texts().back(), line);
        EXPECT_EQ(TamoOmLogModuleLogRecord(3, id, "unit", 4, 7, "%c%s", text[0], text.c_str() + 1),
                  0);
        EXPECT_EQ(texts().back(), line) << "formatted";
    }
}

TEST_F(LogClient, WithoutAFileOnlySevereRecordsAreShown) {
    const uint16_t id = create();
    ASSERT_EQ(TamoOmLogClientUnInit(), 0);
    for (const uint16_t unknown :
         std::initializer_list<uint16_t>{0, static_cast<uint16_t>(id + 1), UINT16_MAX, id}) {
        const std::string shown = standardErrorOf([unknown] {
            for (uint8_t level = 0; level <= 5; ++level) {
                EXPECT_NE(record(unknown, "level " + std::to_string(level), level), 0);
            }
        });
        EXPECT_NE(shown.find("unit:7 level 1\n"), std::string::npos);
        EXPECT_NE(shown.find("unit:7 level 2\n"), std::string::npos);
        EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 2);
    }
    ASSERT_EQ(TamoOmLogClientInit("C", 1), 0);
}

TEST_F(LogClient, RotationKeepsTheNewestFilesWithinTheirSize) {
    for (uint32_t fileCount : {1u, 4u}) {
        SCOPED_TRACE(fileCount);
        for (int i = 0; i < 200; ++i) { /* a restart continues the file */
            const uint16_t id = create(limits(512, fileCount, 1000));
            ASSERT_EQ(record(id, std::to_string(i)), 0);
        }
        EXPECT_FALSE(fs::exists(logFile(fileCount)));
        std::vector<std::string> kept;
        for (uint32_t number = fileCount; number-- > 0;) {
            EXPECT_LE(fs::file_size(logFile(number)), 1000u);
            const auto part = texts(logFile(number));
            EXPECT_TRUE(number == 0 || part.size() > 7) << "full before it was rotated away";
            kept.insert(kept.end(), part.begin(), part.end());
        }
        for (size_t i = 0; i < kept.size(); ++i) {
            EXPECT_EQ(kept[i], std::to_string(200 - kept.size() + i));
        }
    }
}

TEST_F(LogClient, ARotationThatFailsCostsNoRecordAndIsTriedOnceAFile) {
    fs::create_directories(logFile(1) / "in the way");
    const uint16_t id = create(limits(512, 2, 1000));
    const std::string shown = standardErrorOf([id] {
        for (int i = 0; i < 20; ++i) { /* a file and a half */
            EXPECT_EQ(record(id, std::to_string(i)), 0);
        }
    });
    EXPECT_EQ(texts().size(), 20u);
    EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 1) << shown;
}

TEST_F(LogClient, FullDiskFailsRecordsAndTearsNone) {
    const uint16_t id = create(limits(512, 9, 1000));
    ASSERT_EQ(record(id, "before"), 0);
    support::diskRoom = 30; /* less than a record: the first one is written in part */
    const std::string shown = standardErrorOf([id] {
        for (int i = 0; i < 100; ++i) {
            EXPECT_NE(record(id, "lost"), 0);
        }
    });
    EXPECT_NE(shown.find("has room"), std::string::npos);
    support::diskRoom = -1;
    EXPECT_EQ(record(id, "after"), 0);
    EXPECT_EQ(record(id, "later"), 0);
    const std::vector<std::string> found = texts();
    ASSERT_EQ(found.size(), 4u);
    EXPECT_EQ(found[0], "before");
    EXPECT_EQ(found[1].substr(0, 3), "?20") << "the piece of a record stands alone";
    EXPECT_EQ(found[2], "after");
    EXPECT_EQ(found[3], "later");
    EXPECT_FALSE(fs::exists(logFile(1))) << "what was not written fills no file";
}

TEST_F(LogClient, ALineThatAKilledWriterLeftIsNotContinued) {
    std::ofstream(logFile()) << "whole\ncut o";
    const uint16_t id = create();
    EXPECT_EQ(record(id, "after"), 0);
    EXPECT_EQ(record(id, "later"), 0);
    EXPECT_EQ(texts(), (std::vector<std::string>{"?whole", "?cut ", "after", "later"}));
}

TEST_F(LogClient, AllocatesNothing) {
    const uint16_t id = create(limits(512, 3, 2000));
    ASSERT_EQ(ConfLogInit(), 0);
    const auto taken = [id] {
        const support::AllocationCount count;
        for (int i = 0; i < 100; ++i) { /* rotates several times */
            TamoOmLogModuleLogRecord(1, id, "unit", 4, 7, "%s", "text \xC3\xA9\n");
            TamoOmLogModuleLogRecord(1, id, "unit", 4, 7, "%s %d", "text", i);
            ConfLogPrintf(CONF_LOG_ERROR, "Function", "unit", 7, "written %d", i);
            ConfLogPrintf(CONF_LOG_DEBUG, "Function", "unit", 7, "suppressed %d", i);
        }
        return count.taken();
    };
    EXPECT_EQ(taken(), 0u);
    uint64_t inThread = 1;
    std::thread([&] { inThread = taken(); }).join();
    EXPECT_EQ(inThread, 0u);
}

}  // namespace

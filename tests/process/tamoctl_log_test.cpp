/* tamoctl log: the end of a log, its levels, and following it while its writers rotate it. */
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "platform/tamo_om_log_client.h"
#include "tests/process/program.h"
#include "tests/support/scratch_root.h"

namespace {

/* A log of its own with small files. */
class TamoctlLog : public testing::Test {
  protected:
    void SetUp() override {
        OmLogCreateParam param = {200, 50, 2000, {}};
        snprintf(param.name, sizeof(param.name), "%s",
                 testing::UnitTest::GetInstance()->current_test_info()->name());
        name_ = param.name;
        ASSERT_EQ(TamoOmLogClientInit("C", 1), 0);
        ASSERT_EQ(TamoOmLogCreateLog(&param, &id_), 0);
    }
    void TearDown() override { TamoOmLogClientUnInit(); }

    void write(uint8_t level, const char *text) {
        ASSERT_EQ(TamoOmLogModuleLogRecord(level, id_, "unit", 4, 1, "%s", text), 0);
    }
    void writeNumbered(int first, int last) {
        for (int i = first; i <= last; i++) {
            write(3, ("record " + std::to_string(i) + ".").c_str());
        }
    }

    std::string name_;
    uint16_t id_ = 0;
};

TEST_F(TamoctlLog, tailReaches) {
    writeNumbered(1, 100);
    const Outcome outcome = tamoctl({"log", "-n", "60", name_});
    EXPECT_EQ(lineCount(outcome.output), 60U) << "across rotated files";
    EXPECT_NE(outcome.output.find("record 41."), std::string::npos);
    EXPECT_EQ(outcome.output.find("record 40."), std::string::npos);
    EXPECT_LT(outcome.output.find("record 41."), outcome.output.find("record 100."));
    EXPECT_EQ(tamoctl({"log", "no.such.log"}).code, 1);

    const std::filesystem::path file =
        std::filesystem::path(support::scratchRoot()) / "log" / name_;
    for (int number = 9; number >= 2; number--) {
        std::error_code missing;
        std::filesystem::rename(file.string() + "." + std::to_string(number),
                                file.string() + "." + std::to_string(number + 2), missing);
    }
    EXPECT_EQ(tamoctl({"log", "-n", "60", name_}).output, outcome.output)
        << "across the numbers that killed rotations left free";
}

TEST_F(TamoctlLog, levels) {
    write(1, "an error");
    write(2, "a warning");
    write(3, "some information");
    EXPECT_EQ(lineCount(tamoctl({"log", "--level", "warning", name_}).output), 2U);
    EXPECT_NE(tamoctl({"log", "-n", "1", "--level", "error", name_}).output.find("an error"),
              std::string::npos);

    setenv("TERM", "xterm", 1);
    const std::string red = "\x1b[1;31mERROR\x1b[0m";
    EXPECT_EQ(tamoctl({"log", name_}).output.find(red), std::string::npos);
    EXPECT_NE(tamoctl({"log", name_}, true).output.find(red), std::string::npos) << "on a terminal";
    EXPECT_NE(tamoctl({"log", name_, "--color=always"}).output.find(red), std::string::npos);
}

TEST_F(TamoctlLog, filters) {
    ASSERT_EQ(TamoOmLogModuleLogRecord(1, id_, "first_unit", 4, 11, "%s", "Zeit Alpha"), 0);
    ASSERT_EQ(TamoOmLogModuleLogRecord(2, id_, "second", 4, 22, "%s", "time beta"), 0);
    const struct {
        Words options;
        std::string lines; /* of the records that are shown */
    } cases[] = {
        {{"--unit", "first*"}, "11 "},
        {{"--process", "tamoctl_t*"}, "11 22 "},
        {{"--process", std::to_string(getpid())}, "11 22 "},
        {{"--process", "other"}, ""},
        {{"--grep", "alpha|beta"}, "11 22 "},
        {{"--grep", "Time"}, ""},
        {{"--grep", "^t.me", "--level", "warning"}, "22 "},
        {{"--level", "error"}, "11 "},
        {{"--since", "1h"}, "11 22 "},
        {{"--since", "2037-12-31"}, ""},
        {{"--count", "1"}, "11 "},
        {{"-n", "1"}, "22 "},
    };
    for (const auto &[options, lines] : cases) {
        Words words = {"log", "--json", name_};
        words.insert(words.end(), options.begin(), options.end());
        const Outcome outcome = tamoctl(words);
        std::string shown;
        for (size_t at = 0; (at = outcome.output.find("\"line\":", at)) != std::string::npos;
             at++) {
            shown += outcome.output.substr(at + 7, 2) + " ";
        }
        EXPECT_EQ(outcome.code, 0) << outcome.errors;
        EXPECT_EQ(shown, lines) << testing::PrintToString(options) << outcome.output;
    }
    const std::string line = tamoctl({"log", "--json", "-n", "1", name_}).output;
    for (const char *member : {"Z\",", "\"level\":\"WARNING\"",
                               "\"unit\":\"second\",\"line\":22,\"text\":\"time beta\"}"}) {
        EXPECT_NE(line.find(member), std::string::npos) << line;
    }
}

TEST_F(TamoctlLog, followsAcrossRotations) {
    write(3, "begin");
    Program follower({TAMOCTL, "log", "-n", "1", "--follow", name_});
    ASSERT_NE(follower.line().find("begin"), std::string::npos);
    for (int round = 0; round < 3; round++) {
        writeNumbered(round * 100, round * 100 + 99);
        for (int i = round * 100; i < round * 100 + 100; i++) {
            ASSERT_NE(follower.line().find("record " + std::to_string(i) + "."), std::string::npos);
        }
    }
    follower.closeOutput();
    EXPECT_EQ(follower.finish().code, 0) << "it ends with its reader, without another record";
}

}  // namespace

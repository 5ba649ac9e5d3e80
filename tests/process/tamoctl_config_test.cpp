/* tamoctl watch, import and export: changes as other processes make them, and whole stores. */
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tamo_host.h"
#include "tests/host/config_records.h"
#include "tests/process/program.h"
#include "tests/support/child_process.h"
#include "tests/support/scratch_root.h"

namespace {

using support::ChildArguments;
using support::ChildProcess;
using support::get;
using support::set;

std::string exported() {
    const Outcome outcome = tamoctl({"export"});
    EXPECT_EQ(outcome.code, 0) << outcome.errors;
    return outcome.output;
}

class TamoctlStore : public testing::Test {
  protected:
    void SetUp() override { support::clearStore(); }

    /* A file with that text; the next one has another name. */
    std::string file(const std::string &text) {
        const std::string name = directory_.path() + "/" + std::to_string(files_++) + ".json";
        std::ofstream(name, std::ios::binary) << text;
        return name;
    }

    support::ScratchDirectory directory_;
    int files_ = 0;
};

/* ---- watch ---- */

const support::ChildRole writerRole("writer", [](const ChildArguments &) {
    for (std::string key = support::hearParent(); !key.empty(); key = support::hearParent()) {
        support::tellParent(set(key, "of " + key) == 0 ? "stored" : "failed");
    }
    return 0;
});

TEST_F(TamoctlStore, watchShowsThreeWritesOfAnotherProcessWithTimeAndWriter) {
    ASSERT_EQ(set("Watch.same", "of Watch.same"), 0);
    Program watch({TAMOCTL, "watch", "--count", "3", "Watch.*"}, true);
    EXPECT_TRUE(watch.line().starts_with("TIME "));
    ChildProcess writer("writer");
    for (const char *key : {"Watch.a", "Other", "Watch.same", "Watch.b\x1b", "Watch.c"}) {
        writer.tell(key);
        ASSERT_EQ(writer.hear(), "stored");
    }
    for (const char *key : {"Watch.a", "Watch.b\\x1b", "Watch.c"}) {
        std::istringstream line(watch.line());
        std::string date, time, name, pid, shown, value;
        line >> date >> time >> name >> pid >> shown >> std::ws;
        std::getline(line, value);
        EXPECT_TRUE(date.starts_with("20") && date.size() == 10 && time.size() == 15) << line.str();
        EXPECT_EQ(name, "tamoctl_test");
        EXPECT_EQ(pid, std::to_string(writer.pid()));
        EXPECT_EQ(shown, key);
        EXPECT_EQ(value, std::string("of ") + key + "\r");
    }
    EXPECT_EQ(watch.finish().code, 0);
}

TEST_F(TamoctlStore, watchPrintsOneObjectALine) {
    std::atomic<bool> over = false;
    std::thread writer([&] {
        for (int number = 0; !over; number++) {
            EXPECT_EQ(set("Watch.number", std::to_string(number)), 0);
        }
    });
    const Outcome watch = tamoctl({"watch", "--json", "-n", "2", "Watch.number"});
    over = true;
    writer.join();
    EXPECT_EQ(watch.code, 0) << watch.errors;
    EXPECT_EQ(lineCount(watch.output), 2U) << watch.output;
    for (const std::string &member :
         {std::string("\"time\":\"20"), "\"pid\":" + std::to_string(getpid()),
          std::string("\"key\":\"Watch.number\"")}) {
        EXPECT_NE(watch.output.find(member), std::string::npos) << watch.output;
    }
}

TEST_F(TamoctlStore, watchEndsByTimeAndSignalAndTellsWhetherTheCountWasReached) {
    EXPECT_EQ(tamoctl({"watch", "--timeout", "0.01"}).code, 0);
    EXPECT_EQ(tamoctl({"watch", "--timeout", "0.01", "--count", "1"}).code, 3);
    for (const int number : {SIGINT, SIGTERM}) {
        Program endless({TAMOCTL, "watch"}, true);
        Program counting({TAMOCTL, "watch", "-n", "2"}, true);
        EXPECT_NE(endless.line() + counting.line(), "");
        ASSERT_EQ(set("Watch.signal", std::to_string(number)), 0);
        EXPECT_NE(endless.line().find("Watch.signal"), std::string::npos);
        EXPECT_NE(counting.line().find("Watch.signal"), std::string::npos);
        endless.signal(number);
        counting.signal(number);
        EXPECT_EQ(endless.finish().code, 0);
        EXPECT_EQ(counting.finish().code, 3);
    }
}

/* ---- import and export ---- */

TEST_F(TamoctlStore, aThousandKeysMakeTheRoundTrip) {
    std::vector<std::string> keys, values;
    std::vector<TamoHostConfigPair> pairs;
    for (int at = 0; at < 1000; at++) {
        const std::string number = std::to_string(at);
        keys.push_back("Key.\"" + number + "\\\x01\xC3\xBC" + std::string(at == 7 ? 113 : 0, 'k'));
        values.push_back(at == 8   ? std::string(1023, 'v')
                         : at == 9 ? ""
                                   : "\n\t\x7F\xF0\x9F\x98\x80/\\u0000 " + number);
    }
    for (size_t at = 0; at < keys.size(); at++) {
        pairs.push_back({keys[at].c_str(), values[at].c_str()});
    }
    ASSERT_EQ(TamoHostConfigImport(pairs.data(), 1000, 0, nullptr, nullptr), TAMO_HOST_OK);

    const std::string name = file("what stood there before");
    ASSERT_EQ(tamoctl({"export", name}).code, 0);
    struct stat status = {};
    ASSERT_EQ(stat(name.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory_.path()), {}), 1);
    EXPECT_EQ(fileText(name), exported());

    support::clearStore();
    ASSERT_EQ(set("Key.of.old", "1"), 0);
    const Outcome merged = tamoctl({"import", name});
    EXPECT_EQ(merged.code, 0);
    EXPECT_EQ(merged.output + merged.errors, "");
    EXPECT_EQ(get("Key.of.old"), "1");
    EXPECT_EQ(get(keys[7]), values[7]);
    Program replacing({"sh", "-c", "'" TAMOCTL "' import --replace - <'" + name + "' 2>&1"}, true);
    const Outcome replaced = replacing.finish();
    EXPECT_EQ(replaced.code, 0);
    EXPECT_NE(replaced.output.find("100%"), std::string::npos) << replaced.output;
    EXPECT_EQ(exported(), fileText(name));
}

TEST_F(TamoctlStore, anImportIsOneWriteOfWhatItChanges) {
    ASSERT_EQ(set("A", "1") + set("B", "1") + set("C", "1"), 0);
    Program watch({TAMOCTL, "watch", "-n", "3"}, true);
    EXPECT_NE(watch.line(), "");
    ASSERT_EQ(tamoctl({"import", "--replace", file("{\"D\":\"4\",\"B\":\"2\",\"A\":\"1\"}")}).code,
              0);
    const std::string lines[] = {watch.line(), watch.line(), watch.line()};
    const char *const ends[] = {"  2\r", "  4\r", "  \r"};
    const char *const keys[] = {"  B ", "  D ", "  C "};
    for (int at = 0; at < 3; at++) {
        EXPECT_EQ(lines[at].substr(0, 26), lines[0].substr(0, 26)) << "one moment";
        EXPECT_NE(lines[at].find(keys[at]), std::string::npos) << lines[at];
        EXPECT_TRUE(lines[at].ends_with(ends[at])) << lines[at];
    }
    EXPECT_EQ(get("C"), support::kMissing);
}

TEST_F(TamoctlStore, aBadFileChangesNothing) {
    ASSERT_EQ(set("Kept", "as it is"), 0);
    const std::string before = exported();
    const struct {
        std::string text, named;
    } bad[] = {
        {"", "line 1, column 1"},
        {"{\"a\": \"1\"", "line 1, column 10"},
        {"{\"a\": \"1\",\n \"b\": }", "line 2, column 7"},
        {"{\"a\": \"1\"} x", "column 12"},
        {"{\"a\": \"1\"}" + std::string(1, '\0'), "column 11"},
        {"{\"a\": \"\xFF\"}", "UTF-8"},
        {"{\"a\": \"1\n\"}", "column 9"},
        {"{\"a\": \"\\\\\\u0000\"}", "zero"},
        {"[\"a\"]", "not an object"},
        {"{\"a\": \"1\", \"b\": 2}", "entry 2, 'b'"},
        {"{\"a\": \"1\", \"\": \"2\"}", "entry 2, ''"},
        {"{\"a\": \"1\", \"a\": \"1\"}", "entry 2, 'a'"},
        {"{\"a\": \"1\", \"" + std::string(128, 'k') + "\": \"2\"}", "entry 2, 'kkk"},
        {"{\"a\": \"1\", \"b\": \"" + std::string(1024, 'v') + "\"}", "entry 2, 'b'"},
        {std::string(100000, '{'), "line 1"},
    };
    for (const auto &[text, named] : bad) {
        const Outcome outcome = tamoctl({"import", "--replace", file(text)});
        EXPECT_EQ(outcome.code, 1) << text;
        EXPECT_EQ(lineCount(outcome.errors), 1U) << outcome.errors;
        EXPECT_NE(outcome.errors.find(named), std::string::npos) << outcome.errors << named;
    }
    const TamoHostConfigPair pairs[] = {{"a", "1"}, {"", "2"}};
    EXPECT_EQ(TamoHostConfigImport(pairs, 2, 1, nullptr, nullptr), TAMO_HOST_INVALID);
    EXPECT_EQ(exported(), before);
}

TEST_F(TamoctlStore, whatJsonCannotHoldIsLeftOutAndNamed) {
    ASSERT_EQ(set("Bytes\xFF", "1") + set("Plain", "2"), 0);
    const std::string name = file("as it was");
    const Outcome outcome = tamoctl({"export", name});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_NE(outcome.errors.find("'Bytes\\xff'"), std::string::npos) << outcome.errors;
    EXPECT_EQ(fileText(name), "{\n  \"Plain\": \"2\"\n}\n");
    EXPECT_EQ(tamoctl({"export", "/dev/null"}).code, 1);
    EXPECT_EQ(tamoctl({"reset", "Bytes\xFF"}).code, 0);
    EXPECT_EQ(exported(), fileText(name));
}

TEST_F(TamoctlStore, aPrefixChoosesAPart) {
    ASSERT_EQ(set("A.a", "1") + set("A.b", "2") + set("B.a", "3"), 0);
    const std::string name = file("");
    ASSERT_EQ(tamoctl({"export", "--prefix", "a.", name}).code, 0);
    EXPECT_EQ(fileText(name), "{\n  \"A.a\": \"1\",\n  \"A.b\": \"2\"\n}\n");
    support::clearStore();
    EXPECT_EQ(tamoctl({"import", "--prefix", "C.", name}).code, 1);
    ASSERT_EQ(tamoctl({"import", "--prefix", "A.b", name}).code, 0);
    EXPECT_EQ(exported(), "{\n  \"A.b\": \"2\"\n}\n");
    EXPECT_EQ(tamoctl({"export", "--prefix", "C."}).code, 1);
}

}  // namespace

/* The command line tool, run as its users run it: with its output in a pipe, and on a terminal. */
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "include/conf_msg_api.h"
#include "platform/tamo_os_mem.h"
#include "tamo_host.h"
#include "tests/process/program.h"
#include "tests/support/child_process.h"
#include "tests/support/scratch_root.h"

namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

/* Parses JSON output; null when it is none. */
Json parse(const Outcome &outcome) {
    return Json(cJSON_Parse(outcome.output.c_str()), cJSON_Delete);
}

const cJSON *entryWith(const cJSON *array, const char *member, const std::string &text) {
    const cJSON *entry = nullptr;
    cJSON_ArrayForEach(entry, array) {
        const char *value = cJSON_GetStringValue(cJSON_GetObjectItem(entry, member));
        if (value != nullptr && value == text) {
            return entry;
        }
    }
    return nullptr;
}

double numberOf(const cJSON *object, const char *member) {
    return cJSON_GetNumberValue(cJSON_GetObjectItem(object, member));
}

/* ---- get, set, list ---- */

TEST(TamoctlConfig, getPrintsWhatSetStored) {
    EXPECT_EQ(tamoctl({"set", "Ctl.A", "first", "Ctl.B", "-5"}).code, 0);
    const Outcome got = tamoctl({"get", "Ctl.B", "Ctl.A"});
    EXPECT_EQ(got.code, 0);
    EXPECT_EQ(got.output, "-5\nfirst\n");

    const Outcome missing = tamoctl({"get", "Ctl.A", "Ctl.None", "Ctl.*"});
    EXPECT_EQ(missing.code, 1);
    EXPECT_EQ(missing.output, "first\n");
    EXPECT_EQ(lineCount(missing.errors), 1U) << missing.errors;
    EXPECT_NE(missing.errors.find("Ctl.None"), std::string::npos);
}

TEST(TamoctlConfig, listMatchesAPatternAndPrintsAlignedOnATerminalOnly) {
    ASSERT_EQ(
        tamoctl({"set", "Ctl.List.long", "tab\tline\nescape\x1b[2J", "Ctl.List.x", "z\xC3\xBC"})
            .code,
        0);
    EXPECT_EQ(tamoctl({"list", "Ctl.List.*"}).output,
              "Ctl.List.long\ttab\\tline\\nescape\\x1b[2J\nCtl.List.x\tz\xC3\xBC\n");
    EXPECT_EQ(tamoctl({"list", "Ctl.List.*"}, true).output,
              "KEY            VALUE\r\n"
              "Ctl.List.long  tab\\tline\\nescape\\x1b[2J\r\n"
              "Ctl.List.x     z\xC3\xBC\r\n");
    EXPECT_EQ(tamoctl({"get", "Ctl.List.long"}).output, "tab\tline\nescape\x1b[2J\n");
    EXPECT_EQ(tamoctl({"get", "Ctl.List.long"}, true).output, "tab\\tline\\nescape\\x1b[2J\r\n");
    const Outcome none = tamoctl({"list", "Nothing.*"});
    EXPECT_EQ(none.code, 1);
    EXPECT_EQ(lineCount(none.errors), 1U);
}

/* ---- usage ---- */

TEST(TamoctlUsage, wrongUseIsOneLineAndCode2) {
    for (const Words &words : {Words{},
                               Words{"frobnicate"},
                               Words{"--bad", "list"},
                               Words{"get"},
                               Words{"set", "Ctl.A"},
                               Words{"list", "--jsn"},
                               Words{"list", "-x"},
                               Words{"mem", "-7x"},
                               Words{"mem", "12x"},
                               Words{"log", "-n", "many"},
                               Words{"log", "-n"},
                               Words{"log", "--level", "loud"},
                               Words{"log", "--color", "pink"},
                               Words{"log", "../keys/x"},
                               Words{"queues", "x"},
                               Words{"watch", "a", "b"},
                               Words{"watch", "-n", "0"},
                               Words{"watch", "--timeout", "soon"},
                               Words{"import"},
                               Words{"export", "a", "b"}}) {
        const Outcome outcome = tamoctl(words);
        EXPECT_EQ(outcome.code, 2) << testing::PrintToString(words);
        EXPECT_EQ(lineCount(outcome.errors), 1U) << outcome.errors;
        EXPECT_NE(outcome.errors.find("--help"), std::string::npos) << outcome.errors;
        EXPECT_EQ(outcome.output, "");
    }
}

TEST(TamoctlUsage, aRootThatIsOpenToOthersFailsEveryCommand) {
    const std::string root = std::string(getenv("TAMO_DEVICE_ROOT")) + ".open";
    ASSERT_EQ(mkdir(root.c_str(), 0700), 0);
    ASSERT_EQ(mkdir((root + "/data").c_str(), 0700), 0);
    ASSERT_EQ(chmod(root.c_str(), 0755), 0);
    for (const Words &words : {Words{"get", "Ctl.A"}, Words{"set", "Ctl.A", "1"}, Words{"list"},
                               Words{"log"}, Words{"log", "-f"}, Words{"mem"}, Words{"queues"},
                               Words{"watch", "-t", "0"}, Words{"export"}}) {
        Words all = {"--root", root};
        all.insert(all.end(), words.begin(), words.end());
        const Outcome outcome = tamoctl(all);
        EXPECT_EQ(outcome.code, 1) << words[0];
        EXPECT_NE(outcome.errors.find("chmod 700"), std::string::npos) << outcome.errors;
    }
    EXPECT_EQ(rmdir((root + "/data").c_str()) + rmdir(root.c_str()), 0) << "nothing was made in it";
}

TEST(TamoctlUsage, aRootThatIsNotThereIsNeverMadeWhenItWasNamed) {
    const std::string root = std::string(getenv("TAMO_DEVICE_ROOT")) + ".typo";
    const struct {
        Words words;
        int code;
        const char *named;
    } cases[] = {
        {{"list"}, 1, "no device root"},          {{"get", "a"}, 1, "no device root"},
        {{"set", "a", "1"}, 1, "no device root"}, {{"queues"}, 1, "no device root"},
        {{"mem"}, 1, "no device root"},           {{"log"}, 1, "no device root"},
        {{"log", "-f"}, 1, "no device root"},     {{"watch", "-t", "0"}, 1, "no device root"},
        {{"export"}, 1, "no device root"},        {{"cert", "list"}, 1, "no device root"},
    };
    for (const auto &[words, code, named] : cases) {
        Words all = {"--root", root};
        all.insert(all.end(), words.begin(), words.end());
        const Outcome outcome = tamoctl(all);
        EXPECT_EQ(outcome.code, code) << words[0];
        EXPECT_NE(outcome.errors.find(named), std::string::npos) << outcome.errors;
        EXPECT_NE(access(root.c_str(), F_OK), 0) << words[0] << " made it";
    }
    EXPECT_EQ(tamoctl({"--root", "", "list"}).code, 2);
    EXPECT_EQ(tamoctl({"list", "--root="}).code, 2);
}

TEST(TamoctlUsage, lookingAtADamagedStoreLeavesItAsItIs) {
    const support::ScratchDirectory root;
    ASSERT_EQ(tamoctl({"--root", root.path(), "set", "a", "1"}).code, 0);
    const std::string store = root.path() + "/config/config.db";
    ASSERT_EQ(unlink((store + "-wal").c_str()), 0);
    std::ofstream(store) << "not a store";
    for (const Words &words : {Words{"list"}, Words{"get", "a"}, Words{"export"}, Words{"watch"}}) {
        Words all = {"--root", root.path()};
        all.insert(all.end(), words.begin(), words.end());
        const Outcome outcome = tamoctl(all);
        EXPECT_EQ(outcome.code, 1) << words[0];
        EXPECT_NE(outcome.errors.find("config.db"), std::string::npos) << outcome.errors;
        std::string text;
        std::getline(std::ifstream(store), text);
        EXPECT_EQ(text, "not a store") << words[0];
    }
}

TEST(TamoctlUsage, whatUser0MakesIsTheRootOwners) {
    const support::ScratchDirectory root;
    if (geteuid() != 0 || chown(root.path().c_str(), 65534, 65534) != 0) {
        GTEST_SKIP() << "needs user 0";
    }
    ASSERT_EQ(tamoctl({"--root", root.path(), "set", "a", "1"}).code, 0);
    for (const auto &entry : std::filesystem::recursive_directory_iterator(root.path())) {
        struct stat status = {};
        ASSERT_EQ(lstat(entry.path().c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, 65534U) << entry.path();
    }
    EXPECT_EQ(tamoctl({"--root", root.path(), "get", "a"}).output, "1\n");
}

/* ---- mem and queues ---- */

TEST(TamoctlMem, showsWhoHoldsWhat) {
    const std::string pid = std::to_string(getpid());
    void *blocks[] = {OsMemMallocSetCharMon(100, 0, 0, 0, 4711, "mem_probe"),
                      OsMemMallocSetCharMon(200, 0, 0, 0, 4711, "mem_probe")};
    const Outcome outcome = tamoctl({"mem", pid});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_NE(outcome.output.find("mem_probe\t4711\t2\t300\n"), std::string::npos)
        << outcome.output;
    EXPECT_NE(tamoctl({"mem"}).output.find(pid + "\ttamoctl_test"), std::string::npos);

    const Json json = parse(tamoctl({"mem", "--json", pid}));
    EXPECT_EQ(numberOf(json.get(), "pid"), getpid());
    const cJSON *sites = cJSON_GetObjectItem(json.get(), "sites");
    EXPECT_EQ(numberOf(entryWith(sites, "file", "mem_probe"), "bytes"), 300);
    for (void *block : blocks) {
        OSMemTypeFreeMon(block, 0, 0, __LINE__, "test");
    }
    EXPECT_EQ(tamoctl({"mem", pid}).output.find("mem_probe"), std::string::npos);

    const Outcome none = tamoctl({"mem", "1"});
    EXPECT_EQ(none.code, 1);
    EXPECT_EQ(lineCount(none.errors), 1U) << none.errors;
}

uint32_t neverRun(uint32_t, void *, uint32_t) {
    return 0;
}

const support::ChildRole queueOwner("queueOwner", [](const support::ChildArguments &arguments) {
    TamoHostQueue *queue = nullptr;
    support::tellParent(TamoHostMsgOpen(arguments[0].c_str(), &queue) == 0 ? "open" : "failed");
    support::hearParent();
    return 0;
});

TEST(TamoctlQueues, showsDepthAndOwnerAndMarksTheDead) {
    TamoHostQueue *queue = nullptr;
    ASSERT_EQ(TamoHostMsgOpen("ctl.waiting", &queue), TAMO_HOST_OK);
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(ConfCommMsgAsynSend("ctl.waiting", neverRun, 0, "0123456789", 10), 0U);
    }
    support::ChildProcess owner("queueOwner", {"ctl.dead"});
    ASSERT_EQ(owner.hear(), "open");
    owner.kill();

    const Json json = parse(tamoctl({"queues", "--json"}));
    const cJSON *waiting = entryWith(json.get(), "name", "ctl.waiting");
    EXPECT_EQ(numberOf(waiting, "pid"), getpid());
    EXPECT_EQ(numberOf(waiting, "depth"), 3);
    EXPECT_EQ(numberOf(waiting, "bytes"), 3 * (sizeof(void *) == 8 ? 34 : 26));
    EXPECT_TRUE(
        cJSON_IsFalse(cJSON_GetObjectItem(entryWith(json.get(), "name", "ctl.dead"), "alive")));
    const std::string plain = tamoctl({"queues"}).output;
    EXPECT_NE(plain.find("ctl.dead\t-\t(dead)\t"), std::string::npos) << plain;
    EXPECT_NE(plain.find("ctl.waiting\t" + std::to_string(getpid()) + "\ttamoctl_test\t3\t"),
              std::string::npos)
        << plain;
    TamoHostMsgClose(queue);
}

/* ---- completion ---- */

/* What completing the last word offers, one a line. */
std::string completed(const std::string &words) {
    const std::string script =
        "PATH='" TAMOCTL_DIRECTORY "':$PATH; . '" TAMOCTL_COMPLETION "'; COMP_WORDS=(" + words +
        "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _tamoctl; "
        "printf '%s\\n' \"${COMPREPLY[@]}\"";
    return Program({"bash", "-c", script}).finish().output;
}

TEST(TamoctlCompletion, offersCommandsOptionsKeysAndProcesses) {
    ASSERT_EQ(tamoctl({"set", "Complete.a", "1", "Complete.b", "2"}).code, 0);
    EXPECT_EQ(completed("tamoctl l"), "list\nlog\n");
    EXPECT_EQ(completed("tamoctl log --l"), "--lines\n--level\n");
    EXPECT_EQ(completed("tamoctl log --level w"), "warning\n");
    EXPECT_EQ(completed("tamoctl import '" TAMOCTL_COMPLETION "'"), TAMOCTL_COMPLETION "\n");
    EXPECT_EQ(completed("tamoctl watch -t 2 Complete.b"), "Complete.b\n");
    EXPECT_EQ(completed("tamoctl get Complete.a Comp"), "Complete.a\nComplete.b\n");
    EXPECT_EQ(completed("tamoctl set Complete.a ''"), "\n") << "no values";
    EXPECT_EQ(completed("tamoctl cert --json c"), "ca\ncrl\n");
    EXPECT_EQ(completed("tamoctl cert ca r"), "remove\n");
    void *block = OsMemMallocSetCharMon(1, 0, 0, 0, __LINE__, "test");
    EXPECT_NE(completed("tamoctl mem ''").find(std::to_string(getpid()) + "\n"), std::string::npos);
    OSMemTypeFreeMon(block, 0, 0, __LINE__, "test");
}

TEST(TamoctlCompletion, runsNothingThatStandsInAKey) {
    const std::string victim = std::string(getenv("TAMO_DEVICE_ROOT")) + "/completion-ran";
    ASSERT_EQ(tamoctl({"set", "Evil.$(touch " + victim + ")", "1"}).code, 0);
    EXPECT_NE(completed("tamoctl get Evil"), "\n");
    EXPECT_NE(access(victim.c_str(), F_OK), 0);
}

}  // namespace

/* The command line tool, run as its users run it: with its output in a pipe, and on a terminal. */
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "include/conf_msg_api.h"
#include "platform/tamo_os_file.h"
#include "platform/tamo_os_mem.h"
#include "tamo_host.h"
#include "tests/host/config_records.h"
#include "tests/process/program.h"
#include "tests/support/child_process.h"
#include "tests/support/scratch_root.h"

namespace {

/* tamoctl looks only into a directory that a program has worked in. */
class UsedDeviceRoot : public testing::Environment {
  public:
    void SetUp() override {
        char path[PATH_MAX];
        ASSERT_NE(OsFileNativePath("/data", path, sizeof(path)), nullptr);
    }
};
[[maybe_unused]] testing::Environment *const usedDeviceRoot =
    testing::AddGlobalTestEnvironment(new UsedDeviceRoot);

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

std::vector<std::string> linesOf(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/* The object, on a line of its own, whose member is that text; null when there is none. */
Json objectWith(const Outcome &outcome, const char *member, const std::string &text) {
    for (const std::string &line : linesOf(outcome.output)) {
        Json object(cJSON_Parse(line.c_str()), cJSON_Delete);
        const char *value = cJSON_GetStringValue(cJSON_GetObjectItem(object.get(), member));
        if (value != nullptr && value == text) {
            return object;
        }
    }
    ADD_FAILURE() << "no line with " << member << " " << text << ": " << outcome.output;
    return Json(nullptr, cJSON_Delete);
}

double numberOf(const Json &object, const char *member) {
    return cJSON_GetNumberValue(cJSON_GetObjectItem(object.get(), member));
}

/* ---- configuration ---- */

TEST(TamoctlConfig, values) {
    ASSERT_EQ(
        tamoctl({"set", "Ctl.List.long", "tab\tline\nescape\x1b[2J", "Ctl.List.x", "z\xC3\xBC",
                 "Ctl.A", "first", "Ctl.B", "-5", "Ctl.wide", "\xE6\x97\xA5\xE6\x9C\xAC"})
            .code,
        0);
    tryAll({
        {{"get", "Ctl.B", "Ctl.A"}, 0, "-5\nfirst\n"},
        {{"get", "--json", "Ctl.B"}, 0, "{\"key\":\"Ctl.B\",\"value\":\"-5\"}\n"},
        {{"get", "Ctl.A", "Ctl.None", "Ctl.*"}, 1, "'Ctl.None'"},
        {{"get", "Ctl.lisst.x"}, 1, "did you mean 'Ctl.List.x'?"},
        {{"list", "Ctl.List.*"},
         0,
         "Ctl.List.long\ttab\\tline\\nescape\\x1b[2J\nCtl.List.x\tz\xC3\xBC\n"},
        {{"list", "--json", "-n", "1", "Ctl.List.*"}, 0, "\\u001b[2J\"}\n"},
        {{"list", "--header", "Ctl.w?de"}, 0, "KEY\tVALUE\nCtl.wide\t"},
        {{"list", "--timeout", "60", "Ctl.A"}, 0, "Ctl.A\tfirst\n"},
        {{"list", "Nothing.*"}, 1, "'Nothing.*'"},
        {{"reset", "Ctl.A", "Ctl.lacks"}, 1, "'Ctl.lacks'"},
        {{"reset", "No."}, 1, "'No.'"},
        {{"get", "Ctl.A"}, 0, "first\n"},
        {{"reset", "ctl.a", "Ctl.List."}, 0, ""},
        {{"get", "Ctl.A"}, 1, "'Ctl.A'"},
        {{"list", "Ctl.*"}, 0, "Ctl.B\t-5\nCtl.wide\t"},
    });
}

TEST(TamoctlConfig, aTerminalGetsATableThatFits) {
    ASSERT_EQ(
        tamoctl({"set", "T.a", std::string(100, 'x'), "T.bytes", "\xE6\x97\xA5\xE6\x9C\xAC\x1b[2J"})
            .code,
        0);
    ASSERT_EQ(support::set("Raw", "a\xFF\xC3"), 0);
    setenv("COLUMNS", "24", 1);
    const struct {
        Words words;
        bool onTerminal;
        std::string output;
    } cases[] = {
        {{"list", "T.*"},
         true,
         "KEY      VALUE\r\n"
         "T.a      xxxxxxxxxxxxxx\xE2\x80\xA6\r\n"
         "T.bytes  \xE6\x97\xA5\xE6\x9C\xAC\\x1b[2J\r\n"},
        {{"list", "--full", "T.a"}, true, "KEY  VALUE\r\nT.a  " + std::string(100, 'x') + "\r\n"},
        {{"list", "Raw"}, true, "KEY  VALUE\r\nRaw  a\\xff\\xc3\r\n"},
        {{"get", "Raw"}, true, "a\\xff\\xc3\r\n"},
        {{"list", "--json", "Raw"},
         false,
         "{\"key\":\"Raw\",\"value\":\"a\xEF\xBF\xBD\xEF\xBF\xBD\"}\n"},
        {{"get", "T.bytes"}, false, "\xE6\x97\xA5\xE6\x9C\xAC\x1b[2J\n"},
        {{"get", "T.bytes"}, true, "\xE6\x97\xA5\xE6\x9C\xAC\\x1b[2J\r\n"},
    };
    for (const auto &[words, onTerminal, output] : cases) {
        EXPECT_EQ(tamoctl(words, onTerminal).output, output);
    }
    unsetenv("COLUMNS");
}

TEST(TamoctlConfig, aPasswordComesFromStandardInputAndIsStoredEncrypted) {
    const std::string tool = "'" TAMOCTL "' ";
    for (const std::string key : {"Conf.SIPCallParam.sipPwd", "conf.h323callparam.gkpwd"}) {
        EXPECT_EQ(tamoctl({"set", key, "secret"}).code, 2);
        ASSERT_EQ(shell("printf 'geheim\\nmore' | " + tool + "set --secret " + key).code, 0);
        std::string stored = tamoctl({"get", key}).output;
        stored.pop_back();
        char plain[1024];
        uint32_t length = sizeof(plain);
        ASSERT_EQ(TamoHostKeymDecrypt("TamoUIConf", stored.c_str(), plain, &length), TAMO_HOST_OK);
        EXPECT_STREQ(plain, "geheim");
        EXPECT_EQ(shell("printf '{\"" + key + "\": \"open\"}' | " + tool + "import -").code, 1);
        EXPECT_EQ(tamoctl({"set", key, stored}).code, 0) << "what is encrypted may be set";
    }
    EXPECT_EQ(tamoctl({"set", "Conf.ServerParam.pwd", "secret"}).code, 2);
    EXPECT_EQ(shell("echo open | " + tool + "set --secret Conf.ServerParam.pwd").code, 0);
    EXPECT_EQ(tamoctl({"get", "Conf.ServerParam.pwd"}).output, "open\n");
    EXPECT_EQ(shell(tool + "set --secret Conf.SIPCallParam.sipPwd </dev/null").code, 1);
}

/* ---- usage ---- */

TEST(TamoctlUsage, wrongUseIsOneLineAndCode2) {
    tryAll({
        {{}, 2, "a command is missing"},
        {{"lst"}, 2, "did you mean 'list'?"},
        {{"--bad", "list"}, 2, "'--bad'"},
        {{"--root", "", "list"}, 2, "--root is empty"},
        {{"list", "--root="}, 2, "--root is empty"},
        {{"get"}, 2, "a key is missing"},
        {{"set", "Ctl.A"}, 2, "pairs"},
        {{"set", "bad\xff", "1"}, 2, "bad\\xff"},
        {{"set", "--secret", "a", "b"}, 2, "one key"},
        {{"list", "--jsn"}, 2, "did you mean '--json'?"},
        {{"list", "-x"}, 2, "'-x'"},
        {{"list", "--json=yes"}, 2, "takes no value"},
        {{"list", "a", "b"}, 2, "'b'"},
        {{"mem", "12x"}, 2, "invalid process id '12x'"},
        {{"log", "-n", "many"}, 2, "invalid lines 'many': must be 0 or more"},
        {{"log", "-n"}, 2, "needs a value"},
        {{"log", "--level", "loud"}, 2, "error, warning, info, debug"},
        {{"log", "--grep", "("}, 2, "invalid pattern '('"},
        {{"log", "--since", "soon"}, 2, "invalid time 'soon'"},
        {{"log", "../keys/x"}, 2, "../keys/x"},
        {{"queues", "--count", "0"}, 2, "invalid count '0': must be 1 or more"},
        {{"watch", "--timeout", "soon"}, 2, "invalid timeout 'soon'"},
        {{"import"}, 2, "file"},
        {{"import", "--replace", "--prefix", "a", "f"}, 2, "--replace"},
        {{"call", "Queue"}, 2, "MODULE:FUNCTION"},
        {{"call", "Queue", "lib.so", "1"}, 2, "'lib.so'"},
        {{"call", "Queue", "lib.so:f", "x"}, 2, "'x'"},
        {{"cert"}, 2, "'cert install'"},
        {{"cert", "install", "999", "a", "b"}, 2, "'999'"},
        {{"help", "cert", "instal"}, 2, "did you mean 'cert install'?"},
    });
}

TEST(TamoctlUsage, aRootOfOthersOrOneThatIsNotThereStaysAsItIs) {
    const support::ScratchDirectory open, foreign;
    ASSERT_EQ(mkdir((open.path() + "/data").c_str(), 0700), 0);
    ASSERT_EQ(chmod(open.path().c_str(), 0755), 0);
    std::vector<Case> missing;
    for (const Words &words : {Words{"get", "a"},
                               {"list"},
                               {"queues"},
                               {"mem"},
                               {"log"},
                               {"log", "-f"},
                               {"watch", "-t", "0"},
                               {"export"},
                               {"cert", "list"},
                               {"set", "a", "1"}}) {
        missing.push_back({words, 1, "no device root"});
        Words refused = {"--root", open.path()};
        refused.insert(refused.end(), words.begin(), words.end());
        const Outcome outcome = tamoctl(refused);
        EXPECT_EQ(outcome.code, 1) << outcome.output;
        EXPECT_NE(outcome.errors.find("chmod 700"), std::string::npos) << outcome.errors;
    }
    tryAll(missing, {"--root", open.path() + "/typo"});
    missing.pop_back();
    tryAll(missing, {"--root", foreign.path()});
    EXPECT_TRUE(std::filesystem::is_empty(foreign.path())) << "looking made something";
    EXPECT_EQ(std::distance(std::filesystem::recursive_directory_iterator(open.path()), {}), 1);
}

TEST(TamoctlUsage, lookingAtADamagedStoreLeavesItAsItIs) {
    const support::ScratchDirectory root;
    ASSERT_EQ(tamoctl({"--root", root.path(), "set", "a", "1"}).code, 0);
    tryAll({{{"doctor"}, 0, "nothing is wrong"}}, {"--root", root.path()});
    EXPECT_EQ(tamoctl({"--root", root.path(), "doctor", "--json"}).output, "");
    const std::string store = root.path() + "/config/config.db";
    std::ofstream(store) << "not a store";
    tryAll({{{"list"}, 1, "config.db"},
            {{"get", "a"}, 1, "config.db"},
            {{"export"}, 1, "config.db"},
            {{"watch"}, 1, "config.db"}},
           {"--root", root.path()});
    EXPECT_NE(tamoctl({"--root", root.path(), "doctor"}).output.find("damaged"), std::string::npos);
    EXPECT_EQ(fileText(store), "not a store");
}

TEST(TamoctlUsage, whatUser0MakesIsTheRootOwners) {
#ifdef CONF_SANITIZED
    GTEST_SKIP() << "the leak check does not work in a process that has changed its user";
#endif
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

/* ---- mem, queues, call, doctor ---- */

TEST(TamoctlMem, showsWhoHoldsWhat) {
    const std::string pid = std::to_string(getpid());
    void *blocks[] = {OsMemMallocSetCharMon(100, 0, 0, 0, 4711, "mem_probe"),
                      OsMemMallocSetCharMon(200, 0, 0, 0, 4711, "mem_probe")};
    tryAll({{{"mem", pid}, 0, "mem_probe\t4711\t2\t300\n"},
            {{"mem"}, 0, pid + "\ttamoctl_test"},
            {{"mem", "1"}, 1, "process 1"}});
    EXPECT_NE(tamoctl({"mem", pid}, true).output.find("  4711       2    300\r"), std::string::npos)
        << tamoctl({"mem", pid}, true).output;
    const Json site = objectWith(tamoctl({"mem", "--json", pid}), "file", "mem_probe");
    EXPECT_EQ(numberOf(site, "pid"), getpid());
    EXPECT_EQ(numberOf(site, "line"), 4711);
    EXPECT_EQ(numberOf(site, "blocks"), 2);
    EXPECT_EQ(numberOf(site, "bytes"), 300);
    EXPECT_EQ(numberOf(objectWith(tamoctl({"mem", "--json"}), "process", "tamoctl_test"), "pid"),
              getpid());
    for (void *block : blocks) {
        OSMemTypeFreeMon(block, 0, 0, __LINE__, "test");
    }
    EXPECT_EQ(tamoctl({"mem", pid}).output.find("mem_probe"), std::string::npos);
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

    const Outcome outcome = tamoctl({"queues", "--json"});
    const Json waiting = objectWith(outcome, "name", "ctl.waiting");
    EXPECT_EQ(numberOf(waiting, "pid"), getpid());
    EXPECT_EQ(numberOf(waiting, "depth"), 3);
    EXPECT_EQ(numberOf(waiting, "bytes"), 3 * (sizeof(void *) == 8 ? 34 : 26));
    const Json dead = objectWith(outcome, "name", "ctl.dead");
    EXPECT_TRUE(cJSON_IsFalse(cJSON_GetObjectItem(dead.get(), "alive")));
    const std::string pid = std::to_string(getpid());
    tryAll({{{"queues"}, 0, "ctl.dead\t-\t(dead)\t"},
            {{"queues", "ctl.w*"}, 0, "ctl.waiting\t" + pid + "\ttamoctl_test\t3\t"},
            {{"queues", "ctl.wating"}, 1, "did you mean 'ctl.waiting'?"},
            {{"call", "ctl.wating", "libconference_common.so.1:ConfConfigGetConfConfig"},
             1,
             "did you mean 'ctl.waiting'?"},
            {{"call", "ctl.waiting", "libconference_common.so.1:nothing"}, 1, "'nothing'"}});
    const Outcome found = tamoctl({"doctor", "--json"});
    EXPECT_EQ(found.code, 1);
    EXPECT_NE(objectWith(found, "subject", "ctl.dead"), nullptr);
    EXPECT_NE(objectWith(found, "subject", "ctl.waiting"), nullptr) << "it takes no message";
    TamoHostMsgClose(queue);
}

const support::ChildRole server("server", [](const support::ChildArguments &) {
    TamoHostQueue *queue = nullptr;
    support::tellParent(TamoHostMsgOpen("ctl.server", &queue) == 0 ? "open" : "failed");
    OsMsgHeader *message = nullptr;
    while (TamoHostMsgReceive(queue, &message, -1) == TAMO_HOST_OK) {
        ConfCommMsgProcess(message);
        TamoHostMsgFree(message);
    }
    return 0;
});

TEST(TamoctlCall, runsAHandlerOfTheLibraryInItsProcess) {
    ASSERT_EQ(tamoctl({"set", "Call.key", "of Call.key"}).code, 0);
    support::ChildProcess child("server");
    ASSERT_EQ(child.hear(), "open");
    const std::string handler = "libconference_common.so.1:ConfConfigGetConfConfig";
    tryAll({{{"call", "ctl.server", handler, "--block", "Call.key"},
             0,
             "result 0\nCall.key\tof Call.key\n"},
            {{"call", "ctl.server", handler, "0x1", "--json", "--block", "Call.key"},
             0,
             "{\"result\":0,\"values\":{\"Call.key\":\"of Call.key\"}}\n"}});
    child.kill();
}

/* ---- help, manual page, completion ---- */

std::set<std::string> longOptions(const std::string &text) {
    std::set<std::string> found;
    const std::regex option("--[a-z]+");
    for (std::sregex_iterator at(text.begin(), text.end(), option), end; at != end; ++at) {
        found.insert(at->str());
    }
    return found;
}

TEST(TamoctlHelp, theManualPageAndTheCompletionSayWhatTheHelpSays) {
    const std::string page = tamoctl({"help", "--man"}).output;
    const std::string help = tamoctl({"--help"}).output;
    EXPECT_EQ(help, tamoctl({"help"}).output);
    const std::regex command("\n  ([a-z]+( [a-z]+)*)  ");
    int count = 0;
    for (std::sregex_iterator at(help.begin(), help.end(), command), end; at != end; ++at) {
        const std::string name = at->str(1);
        EXPECT_NE(page.find(".SS \"tamoctl " + name), std::string::npos) << name;
        const std::string own = shell("'" TAMOCTL "' help " + name).output;
        EXPECT_EQ(own.find_first_of("\x01\t\x1b"), std::string::npos) << own;
        const std::string options = own.substr(own.find("\nOptions:"));
        const std::string offers =
            shell("'" TAMOCTL "' complete tamoctl " + name + " -- | cut -f1").output;
        EXPECT_TRUE(name == "complete" ||
                    longOptions(offers) ==
                        longOptions(options.substr(0, options.find("\nExamples:"))))
            << name << offers << options;
        count++;
    }
    EXPECT_GE(count, 20);
}

/* What bash offers for the last word, one a line. The words are as bash splits them. */
std::string completed(const std::string &line, const std::string &words) {
    const std::string script =
        "PATH='" TAMOCTL_DIRECTORY "':$PATH; . '" TAMOCTL_COMPLETION "'; COMP_LINE=" + line +
        "; COMP_POINT=${#COMP_LINE}; COMP_WORDS=(" + words +
        "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _tamoctl; "
        "printf '%s\\n' \"${COMPREPLY[@]}\"";
    return Program({"bash", "-c", script}).finish().output;
}

TEST(TamoctlCompletion, offersCommandsOptionsKeysAndProcesses) {
    ASSERT_EQ(tamoctl({"set", "Complete.a", "1", "Complete.b", "2"}).code, 0);
    const struct {
        const char *line, *words; /* null: as the line */
        std::string offers;
    } cases[] = {
        {"tamoctl l", nullptr, "list\nlog\n"},
        {"tamoctl log --l", nullptr, "--lines\n--level\n"},
        {"tamoctl log --level w", nullptr, "warning\n"},
        {"tamoctl log --level=w", "tamoctl log --level = w", "warning\n"},
        {"tamoctl import /etc/os-rel", nullptr, "/etc/os-release\n"},
        {"tamoctl watch -t 2 Complete.b", nullptr, "Complete.b\n"},
        {"tamoctl get Complete.a Comp", nullptr, "Complete.a\nComplete.b\n"},
        {"tamoctl get 'Comp", "tamoctl get \\'Comp", "Complete.a\nComplete.b\n"},
        {"tamoctl set Complete.a ", "tamoctl set Complete.a ''", "\n"},
        {"tamoctl cert c", nullptr, "ca\ncrl\n"},
        {"tamoctl cert ca r", nullptr, "remove\n"},
        {"tamoctl --root=/nowhere get Comp", "tamoctl --root = /nowhere get Comp", "\n"},
    };
    for (const auto &[line, words, offers] : cases) {
        EXPECT_EQ(completed('"' + std::string(line) + '"', words == nullptr ? line : words), offers)
            << line;
    }
    void *block = OsMemMallocSetCharMon(1, 0, 0, 0, __LINE__, "test");
    EXPECT_NE(completed("'tamoctl mem '", "tamoctl mem ''").find(std::to_string(getpid()) + "\n"),
              std::string::npos);
    OSMemTypeFreeMon(block, 0, 0, __LINE__, "test");
}

TEST(TamoctlCompletion, runsNothingThatStandsInAKey) {
    const std::string victim = std::string(getenv("TAMO_DEVICE_ROOT")) + "/completion-ran";
    ASSERT_EQ(tamoctl({"set", "Evil.$(touch " + victim + ")", "1"}).code, 0);
    EXPECT_NE(completed("'tamoctl get Evil'", "tamoctl get Evil"), "\n");
    EXPECT_NE(access(victim.c_str(), F_OK), 0);
}

}  // namespace

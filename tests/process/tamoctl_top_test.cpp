/* tamoctl top, in a terminal of tmux's. */
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "include/conf_msg_api.h"
#include "platform/tamo_os_mem.h"
#include "tamo_host.h"
#include "tests/process/program.h"
#include "tests/support/deadline.h"
#include "tests/support/scratch_root.h"

namespace {

uint32_t takesFiveMs(uint32_t, void *, uint32_t) {
    const timespec five = {0, 5000000};
    nanosleep(&five, nullptr);
    return 0;
}

/* Serves a queue, under a name that would recolour a terminal. */
const support::ChildRole server("topServer", [](const support::ChildArguments &arguments) {
    constexpr char kHostile[] = "/\x1b[31mEVIL";
    char *end = program_invocation_name + strlen(program_invocation_name);
    memcpy(end - strlen(kHostile), kHostile, strlen(kHostile));
    void *block = OsMemMallocSetCharMon(100, 0, 0, 0, __LINE__, "top");
    TamoHostQueue *queue = nullptr;
    support::tellParent(TamoHostMsgOpen(arguments[0].c_str(), &queue) == 0 ? "open" : "failed");
    OsMsgHeader *message = nullptr;
    while (TamoHostMsgReceive(queue, &message, -1) == TAMO_HOST_OK) {
        ConfCommMsgProcess(message);
        TamoHostMsgFree(message);
        support::tellParent("handled");
    }
    OSMemTypeFreeMon(block, 0, 0, __LINE__, "top");
    return 0;
});

TEST(TamoctlTop, printsOnceWhatQueuesAndProcessesDo) {
    support::ChildProcess child("topServer", {"top.once"});
    ASSERT_EQ(child.hear(), "open");
    ASSERT_EQ(ConfCommMsgAsynSend("top.once", takesFiveMs, 0, "x", 1), 0U);
    ASSERT_EQ(child.hear(), "handled");
    const std::string pid = std::to_string(child.pid());
    const std::string queue = "{\"kind\":\"queue\",\"name\":\"top.once\",\"pid\":" + pid;
    const Words once = {"top", "--once", "--interval", "0.1"};
    const std::string lines = shell("'" TAMOCTL "' top --once --json --interval 0.1").output;
    const size_t at = lines.find(queue), median = lines.find("\"medianNs\":", at);
    ASSERT_NE(at, std::string::npos) << lines;
    ASSERT_NE(median, std::string::npos) << "a message that is freed was served: " << lines;
    EXPECT_GE(std::stod(lines.substr(median + 11)), 4e6) << lines;
    EXPECT_NE(lines.find("EVIL\",\"pid\":" + pid + ",\"blocks\":1,\"bytes\":100,\"descriptors\":"),
              std::string::npos)
        << lines;
    EXPECT_EQ(lines.find('\x1b'), std::string::npos);
    EXPECT_EQ(lineCount(tamoctl({"top", "--once", "-i", "0.1", "--json", "-n", "1"}).output), 1U);
    tryAll({{once, 0, "\nlog\terror\t"},
            {{"top"}, 1, "use --once"},
            {{"top", "--json"}, 2, "--once"}});
}

/* A session of tmux that runs one command line. */
class Terminal {
  public:
    explicit Terminal(const std::string &line) {
        tmux("-f /dev/null new-session -d -x 90 -y 24 '" + line + "'");
    }
    ~Terminal() { tmux("kill-server"); }

    std::string tmux(const std::string &words) {
        return shell("PATH='" TAMOCTL_DIRECTORY "':$PATH TERM=screen LC_ALL=C.UTF-8 tmux -u -S '" +
                     directory_.path() + "/s' " + words)
            .output;
    }

    /* Whether the screen comes to show the text, or comes to do so no more. */
    bool shows(const std::string &text, bool wanted = true) {
        const auto end = std::chrono::steady_clock::now() + support::patience(20);
        do {
            screen = tmux("capture-pane -p");
            if ((screen.find(text) != std::string::npos) == wanted) {
                return true;
            }
            usleep(20000);
        } while (std::chrono::steady_clock::now() < end);
        return false;
    }

    std::string screen;

  private:
    support::ScratchDirectory directory_;
};

TEST(TamoctlTop, isLiveOnATerminal) {
    if (shell("command -v tmux").code != 0) {
        GTEST_SKIP() << "tmux is not installed, so there is no terminal to look at";
    }
    support::ChildProcess child("topServer", {"top.live"});
    ASSERT_EQ(child.hear(), "open");
    Terminal terminal("tamoctl top -i 0.2; echo ended with $?; cat");
    EXPECT_TRUE(terminal.shows("sorted by rate")) << terminal.screen;
    EXPECT_TRUE(terminal.shows("top.live")) << terminal.screen;
    EXPECT_TRUE(terminal.shows("\\x1b[31mEVIL")) << terminal.screen;
    terminal.tmux("send-keys d");
    EXPECT_TRUE(terminal.shows("sorted by depth")) << terminal.screen;
    terminal.tmux("resize-window -x 40 -y 12");
    EXPECT_TRUE(terminal.shows("q quit", false)) << terminal.screen;
    EXPECT_TRUE(terminal.shows("top.live")) << terminal.screen;
    child.kill();
    EXPECT_TRUE(terminal.shows("(dead)")) << terminal.screen;
    support::ChildProcess later("topServer", {"top.later"});
    EXPECT_TRUE(terminal.shows("top.later")) << terminal.screen;
    terminal.tmux("send-keys q");
    EXPECT_TRUE(terminal.shows("ended with 0")) << terminal.screen;
}

}  // namespace

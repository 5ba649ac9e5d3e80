/* The test kit without a test framework: asserts, and faults that end the program. */
#undef NDEBUG
#include <conf_log_adapter.h>
#include <conf_msg_api.h>
#include <conference_testkit.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cassert>
#include <csignal>
#include <cstdio>

namespace {

const testkit::ScratchRoot root;

uint32_t setVolume(uint32_t, void *, uint32_t) {
    return 0;
}

void leavePeerWaiting() {
    testkit::Peer("Audio").expect(setVolume);
}

}  // namespace

int main() {
    root.write("/data/level.xml", "<level/>");
    assert(root.read("/data/level.xml") == "<level/>" && root.read("/data/none").empty());
    assert(ConfLogInit() == 0);

    testkit::reset();
    testkit::failCall(OsMemMallocSetCharMon, 1);
    assert(ConfCommMsgSynSend("Audio", setVolume, 80, nullptr, 0) == CONF_COMM_ERR_FAILED);
    assert(testkit::hasRecord(CONF_LOG_ERROR, "conf_msg_api", "Null ptr."));
    {
        testkit::Peer audio("Audio");
        audio.expect(setVolume, 80).answer(1);
        assert(ConfCommMsgSynSend("Audio", setVolume, 80, nullptr, 0) == 1);
    }
    assert(testkit::outstanding() == 0);

    testkit::release();
    ConfLogPrintf(CONF_LOG_ERROR, __func__, "plain", __LINE__, "into the file");
    assert(root.read("/log/Conference.log").find("into the file") != std::string::npos);

    const pid_t child = fork();
    if (child == 0) {
        (void)!freopen("/dev/null", "w", stderr);
        leavePeerWaiting();
        _exit(0);
    }
    int status = 0;
    assert(waitpid(child, &status, 0) == child && WIFSIGNALED(status) &&
           WTERMSIG(status) == SIGABRT);
    std::puts("ok");
    return 0;
}

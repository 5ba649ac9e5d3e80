/* Messages between real processes that differ: in where their modules lie, in which modules they have,
 * in whose they are, in what they have left; and that end at the wrong moment. */
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "include/conf_msg_api.h"
#include "platform/tamo_os_mem.h"
#include "tests/host/message_parties.h"
#include "tests/support/child_process.h"
#include "tests/support/scratch_root.h"

using namespace parties;
using support::ChildArguments;
using support::ChildProcess;
using support::ChildRole;

/* When a sender is killed: with its hello, the first packet that carries a descriptor. */
static bool diesWithItsHello;
extern "C" ssize_t sendmsg(int socket, const msghdr *message, int flags) {
    if (diesWithItsHello && message->msg_controllen != 0) {
        raise(SIGKILL);
    }
    return syscall(SYS_sendmsg, socket, message, flags);
}

namespace {

constexpr const char *kQueue = "modules";
constexpr uint32_t kTimeoutMs = 20000;

uint32_t answerWithList(uint32_t param, void *data, uint32_t) {
    void *list = OsMemMallocSetCharMon(param, 0, 0, 0, __LINE__, "test");
    std::memset(list, 'L', param);
    hangList(data, list, param);
    return 0;
}

uint32_t addOne(uint32_t param, void *, uint32_t) {
    return param + 1;
}

uint32_t hang(uint32_t, void *, uint32_t) {
    support::hearParent();
    return 0;
}

uint32_t countBlocks(uint32_t, void *, uint32_t) {
    return static_cast<uint32_t>(outstandingBlocks());
}

const ChildRole server("server", [](const ChildArguments &) {
    TamoHostQueue *queue = nullptr;
    const uint32_t opened = TamoHostMsgOpen(kQueue, &queue);
    if (opened != TAMO_HOST_OK) {
        support::tellParent("refused " + std::to_string(opened));
        return 1;
    }
    support::tellParent("ready");
    OsMsgHeader *message = nullptr;
    while (TamoHostMsgReceive(queue, &message, -1) == TAMO_HOST_OK) {
        ConfCommMsgProcess(message);
        TamoHostMsgFree(message);
    }
    return 2;
});

class MessageProcesses : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(server_.hear(), "ready"); }
    ChildProcess server_{"server"};
};

uint32_t blocksOfServer() {
    const Exchange exchange(kQueue, bodyOf(countBlocks, 0, {}));
    return exchange.result == TAMO_HOST_OK ? headOf(exchange.response).result : ~0U;
}

TEST_F(MessageProcesses, AHandlerThatTheReceiverCannotRunFailsAtOnce) {
    for (const char *path : {MODULE_OF_ONE_SIDE, MODULE_WITHOUT_ID}) {
        void *module = dlopen(path, RTLD_NOW);
        ASSERT_NE(module, nullptr) << dlerror();
        auto handler = reinterpret_cast<Handler>(dlsym(module, "moduleHandler"));
        EXPECT_EQ(Exchange(kQueue, bodyOf(handler, 0, {})).result, TAMO_HOST_REFUSED) << path;
        dlclose(module);
        EXPECT_EQ(Exchange(kQueue, bodyOf(handler, 0, {})).result, TAMO_HOST_REFUSED)
            << "what was unloaded is no code any more";
    }
    EXPECT_EQ(Exchange(kQueue, bodyOf(doNothing, 0, {})).result, TAMO_HOST_OK);
}

TEST_F(MessageProcesses, AListWhoseRequesterDiedOrGaveUpIsReleased) {
    server_.signal(SIGSTOP);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Exchange(kQueue, bodyOf(answerWithList, 100000, Bytes(kBlock)), 2, 5).result,
                  TAMO_HOST_TIMEOUT);
    }
    const pid_t dying = fork();
    if (dying == 0) {
        const Exchange never(kQueue, bodyOf(answerWithList, 100, Bytes(kBlock)), 2, 5000);
        _exit(never.result == TAMO_HOST_OK ? 0 : 1);
    }
    while (queueInfo(kQueue).depth < 4) {
        sched_yield();
    }
    kill(dying, SIGKILL);
    waitpid(dying, nullptr, 0);
    server_.signal(SIGCONT);
    EXPECT_EQ(blocksOfServer(), 0U);
}

TEST_F(MessageProcesses, KilledReceiverFailsItsWaitingSenderAtOnceAndIsReplaced) {
    EXPECT_EQ(ConfCommMsgSynSendImpl(kQueue, addOne, 1, nullptr, 0, kTimeoutMs), 2u);
    ChildProcess second("server");
    EXPECT_EQ(second.hear(), "refused 3") << "the name has a live owner";

    std::thread killer([this] {
        while (queueInfo(kQueue).received < 2) { /* until the handler runs that hangs */
            sched_yield();
        }
        server_.signal(SIGKILL);
    });
    char data[4] = {'k', 'e', 'e', 'p'};
    EXPECT_EQ(ConfCommMsgSynSendImpl(kQueue, hang, 0, data, 4, UINT32_MAX), CONF_COMM_ERR_FAILED)
        << "it would wait for ever";
    killer.join();
    EXPECT_EQ(memcmp(data, "keep", 4), 0);
    EXPECT_EQ(server_.wait(), support::killed(SIGKILL));
    EXPECT_EQ(ConfCommMsgAsynSend(kQueue, addOne, 1, nullptr, 0), CONF_COMM_ERR_FAILED);

    ChildProcess third("server");
    EXPECT_EQ(ConfCommMsgSynSendImpl(kQueue, addOne, 5, nullptr, 0, kTimeoutMs), 6u)
        << "a receiver may start after its sender, and takes over what a dead one left";
}

/* A receiver that is not there yet is waited for; for ever, too. */
TEST(AbsentReceiver, IsWaitedFor) {
    for (const uint32_t timeoutMs : {kTimeoutMs, UINT32_MAX}) {
        std::thread sender([timeoutMs] {
            EXPECT_EQ(ConfCommMsgSynSendImpl(kQueue, addOne, 1, nullptr, 0, timeoutMs), 2u);
        });
        ChildProcess receiver("server");
        sender.join();
    }
}

/* The status of a queue, as the number in its file tells it. */
const uint8_t *statusOf(const std::string &path) {
    int32_t content[2] = {};
    std::ifstream(path).read(reinterpret_cast<char *>(content), sizeof(content));
    return static_cast<const uint8_t *>(shmat(content[1], nullptr, SHM_RDONLY));
}

/* Nobody can take its counts away from a queue in use, and killed senders do not use them up. */
TEST(QueueStatus, OutlivesItsFileAndSendersThatAreKilledBeforeTheirHello) {
    Queue queue("status");
    const std::string path = support::scratchRoot() + "/run/status.queue";
    const auto *slotsUsed = reinterpret_cast<const uint32_t *>(statusOf(path) + 12);
    const auto crosses = [&] {
        EXPECT_EQ(sendAsync("status", bodyOf(doNothing, 0, {})), TAMO_HOST_OK);
        TamoHostMsgFree(queue.next());
        EXPECT_TRUE(queue.isEmpty());
    };
    crosses();
    for (int killed = 0; killed < 8; ++killed) {
        const pid_t sender = fork();
        if (sender == 0) {
            diesWithItsHello = true;
            (void)sendAsync("status", bodyOf(doNothing, 0, {}));
            _exit(0);
        }
        int status = 0;
        waitpid(sender, &status, 0);
        EXPECT_EQ(status, SIGKILL);
        crosses();
    }
    EXPECT_LE(*slotsUsed, 3U);
    EXPECT_EQ(truncate(path.c_str(), 0), 0);
    crosses();
    EXPECT_EQ(unlink(path.c_str()), 0);
    crosses();
    EXPECT_EQ(shmdt(slotsUsed - 3), 0);
}

TEST_F(MessageProcesses, AProcessOfAnotherUserIsTurnedAway) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    EXPECT_EQ(queueInfo(kQueue).received, 0U); /* the root is found private before it is opened */
    /* Only a root that somebody opened wide lets another user come as far as the socket. */
    const std::string run = support::scratchRoot() + "/run";
    for (const std::string &path : {support::scratchRoot(), run}) {
        ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    }
    const std::string socketPath = run + "/" + kQueue + ".sock";
    ASSERT_EQ(chmod(socketPath.c_str(), 0666), 0);
    const pid_t stranger = fork();
    if (stranger == 0) {
        const bool changed = setgid(65534) == 0 && setuid(65534) == 0;
        const int line = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
        char byte;
        const bool connected =
            connect(line, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
        _exit(changed && connected && recv(line, &byte, 1, 0) == 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(stranger, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(queueInfo(kQueue).received, 0U);
    for (const std::string &path : {support::scratchRoot(), run}) {
        chmod(path.c_str(), 0700);
    }
}

}  // namespace

/* Messages between processes that differ: in where their modules lie, in which modules they have, in
 * whose they are, and in what they have left. */
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/tamo_os_mem.h"
#include "tests/host/message_parties.h"
#include "tests/support/child_process.h"
#include "tests/support/scratch_root.h"

using namespace parties;
using support::ChildArguments;
using support::ChildProcess;
using support::ChildRole;

namespace {

constexpr const char *kQueue = "modules";
constexpr uint32_t kLargestList = 33554432;

uint32_t reverse(uint32_t param, void *data, uint32_t dataLength) {
    auto *bytes = static_cast<uint8_t *>(data);
    std::reverse(bytes, bytes + dataLength);
    return param + 1;
}

uint32_t answerWithList(uint32_t param, void *data, uint32_t) {
    void *list = OsMemMallocSetCharMon(param, 0, 0, 0, __LINE__, "test");
    std::memset(list, 'L', param);
    hangList(data, list, param);
    return 0;
}

uint32_t whereItIs(uint32_t, void *data, uint32_t) {
    const auto address = reinterpret_cast<uintptr_t>(whereItIs);
    std::memcpy(data, &address, sizeof(address));
    return 0;
}

uint32_t countBlocks(uint32_t, void *, uint32_t) {
    return static_cast<uint32_t>(outstandingBlocks());
}

const ChildRole server("server", [](const ChildArguments &) {
    TamoHostQueue *queue = nullptr;
    if (TamoHostMsgOpen(kQueue, &queue) != TAMO_HOST_OK) {
        return 1;
    }
    support::tellParent("ready");
    OsMsgHeader *message = nullptr;
    while (TamoHostMsgReceive(queue, &message, -1) == TAMO_HOST_OK) {
        serve(message);
    }
    return 2;
});

double processorSeconds() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/* Its table of descriptors is full while a sender connects. The exit code names the failure. */
const ChildRole crowded("crowded", [](const ChildArguments &) {
    Queue queue("crowded");
    const rlimit few = {64, 64};
    setrlimit(RLIMIT_NOFILE, &few);
    std::vector<int> taken;
    for (int copy = dup(0); copy >= 0; copy = dup(0)) {
        taken.push_back(copy);
    }
    support::tellParent("full");
    support::hearParent(); /* a sender waits */
    const double before = processorSeconds();
    OsMsgHeader *message = nullptr;
    const bool came = TamoHostMsgReceive(queue.get(), &message, 500) != TAMO_HOST_TIMEOUT;
    if (came || processorSeconds() - before > 0.2) {
        return came ? 1 : 2;
    }
    for (const int each : taken) {
        close(each);
    }
    serve(queue.next());
    return 0;
});

TEST(CrowdedReceiver, TakesItsSendersWhenItHasDescriptorsAgain) {
    ChildProcess receiver("crowded");
    ASSERT_EQ(receiver.hear(), "full");
    std::thread sender(
        [] { EXPECT_EQ(Exchange("crowded", bodyOf(doNothing, 0, {})).result, TAMO_HOST_OK); });
    while (queueInfo("crowded").depth == 0) {
        sched_yield();
    }
    receiver.tell("go");
    sender.join();
    EXPECT_EQ(receiver.wait(), support::exited(0));
}

class MessageModules : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(server_.hear(), "ready"); }
    ChildProcess server_{"server"};
};

uint32_t blocksOfServer() {
    const Exchange exchange(kQueue, bodyOf(countBlocks, 0, {}));
    return exchange.result == TAMO_HOST_OK ? headOf(exchange.response).result : ~0U;
}

TEST_F(MessageModules, AHandlerIsFoundWhereverItsModuleLies) {
    const Exchange exchange(kQueue, bodyOf(whereItIs, 0, Bytes(sizeof(uintptr_t))));
    ASSERT_EQ(exchange.result, TAMO_HOST_OK);
    uintptr_t address = 0;
    std::memcpy(&address, dataOf(exchange.response), sizeof(address));
    const auto own = reinterpret_cast<uintptr_t>(whereItIs);
    EXPECT_EQ(address % 4096, own % 4096);
    if (address == own) {
        GTEST_SKIP() << "this system loads every program at one address";
    }
    EXPECT_EQ(headOf(exchange.response).handler, whereItIs);
}

TEST_F(MessageModules, AHandlerThatTheReceiverCannotRunFailsAtOnce) {
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

TEST_F(MessageModules, AListWhoseRequesterDiedOrGaveUpIsReleased) {
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

TEST_F(MessageModules, AReceiverKilledWithTheRequestUnreadFailsItAtOnce) {
    server_.signal(SIGSTOP);
    std::thread killer([this] {
        while (queueInfo(kQueue).depth == 0) {
            sched_yield();
        }
        server_.signal(SIGKILL);
    });
    EXPECT_EQ(Exchange(kQueue, bodyOf(doNothing, 0, {}), 1, UINT32_MAX).result, TAMO_HOST_GONE);
    killer.join();
    server_.kill(); /* until it is gone altogether */
    const TamoHostQueueInfo info = queueInfo(kQueue);
    EXPECT_STREQ(info.name, kQueue) << "what a killed owner left is still listed";
    EXPECT_EQ(info.ownerPid, 0U);
}

TEST_F(MessageModules, AForkedChildHasConnectionsOfItsOwn) {
    EXPECT_EQ(Exchange(kQueue, bodyOf(doNothing, 0, {})).result, TAMO_HOST_OK);
    const auto sendMany = [] {
        bool good = true;
        for (uint32_t i = 0; i < 500; ++i) {
            const Exchange exchange(kQueue, bodyOf(reverse, i, {1, 2}));
            good = good && exchange.result == TAMO_HOST_OK &&
                   headOf(exchange.response).result == i + 1;
        }
        return good;
    };
    const pid_t child = fork();
    if (child == 0) {
        _exit(sendMany() ? 0 : 1);
    }
    EXPECT_TRUE(sendMany());
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(MessageModules, AForkedChildDoesNotKeepItsParentsQueueAlive) {
    auto queue = std::make_unique<Queue>("forked");
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const pid_t living = fork();
    if (living == 0) {
        close(ready[1]); /* tells the parent that what fork does is done */
        pause();
        _exit(0);
    }
    close(ready[1]);
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 0) << "the child has begun";
    close(ready[0]);
    queue->close();
    EXPECT_EQ(sendAsync("forked", bodyOf(doNothing, 0, {})), TAMO_HOST_NO_RECEIVER);
    const Queue again("forked");
    kill(living, SIGKILL);
    waitpid(living, nullptr, 0);
}

TEST_F(MessageModules, AProcessOfAnotherUserIsTurnedAway) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    EXPECT_EQ(queueInfo(kQueue).received, 0U); /* the root is found private before it is opened */
    /* Only a root that somebody opened wide lets another user come as far as the socket. */
    const std::string run = support::scratchRoot() + "/run";
    for (const std::string &path : {support::scratchRoot(), run}) {
        ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    }
    for (const char *suffix : {".sock", ".queue"}) {
        ASSERT_EQ(chmod((run + "/" + kQueue + suffix).c_str(), 0666), 0);
    }
    const pid_t stranger = fork();
    if (stranger == 0) {
        const bool changed = setgid(65534) == 0 && setuid(65534) == 0;
        const uint32_t result = Exchange(kQueue, bodyOf(doNothing, 0, {}), 1, 5000).result;
        _exit(changed && result == TAMO_HOST_GONE ? 0 : 1);
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

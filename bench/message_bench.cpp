/* What a message costs, beside what the bare socket costs, in one run.
 *
 * Each row is a pair of processes. "One core" holds both processes on the same core: its ratios are of
 * work, not of waking a sleeping core. */
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/message_rivals.h"
#include "bench/take_turns.h"
#include "include/conf_msg_api.h"
#include "platform/tamo_os_mem.h"
#include "tamo_host.h"

namespace {

constexpr uint32_t kTimeoutMs = 10000;
constexpr uint32_t kBlockBytes = 576000;
constexpr size_t kChunk = 96000; /* the fastest of those that a stock kernel's buffers take */
constexpr uint32_t kWindow = 200;
constexpr size_t kOneWayBytes = 64;

using rivals::check;

/* ---- the bare socket ---- */

struct BarePair {
    BarePair() { check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "pair"); }
    int ends[2];
};

void receiveAll(int socket, char *buffer, size_t size) {
    for (size_t at = 0; at < size;) {
        const ssize_t n = recv(socket, buffer + at, size - at, 0);
        if (n <= 0) {
            _exit(0);
        }
        at += static_cast<size_t>(n);
    }
}

void sendAll(int socket, const char *buffer, size_t size) {
    for (size_t at = 0; at < size;) {
        const size_t n = std::min(kChunk, size - at);
        check(send(socket, buffer + at, n, MSG_NOSIGNAL) == static_cast<ssize_t>(n), "send");
        at += n;
    }
}

rivals::Row bareRow(const char *name, size_t size, bool polls) {
    auto pair = std::make_shared<BarePair>();
    auto buffer = std::make_shared<std::vector<char>>(size);
    rivals::Row row;
    row.name = name;
    row.serve = [=] {
        close(pair->ends[0]);
        for (;;) {
            if (polls) {
                pollfd entry = {pair->ends[1], POLLIN, 0};
                poll(&entry, 1, -1);
            }
            receiveAll(pair->ends[1], buffer->data(), size);
            sendAll(pair->ends[1], buffer->data(), size);
        }
    };
    row.operation = [=] {
        sendAll(pair->ends[0], buffer->data(), size);
        receiveAll(pair->ends[0], buffer->data(), size);
    };
    return row;
}

/* What a one-way row's two processes have beside their messages: the sender says when a window is
 * sent, the receiver when it has it. When the receiver is `held` it begins with a window only then,
 * so that what is measured is sending and receiving, and not when the scheduler changes between the
 * two. */
struct Window {
    BarePair line;
    bool held;
};

void receiveWindow(const Window &window, const std::function<void()> &receiveOne) {
    char byte;
    if (window.held) {
        receiveAll(window.line.ends[1], &byte, 1);
    }
    for (uint32_t i = 0; i < kWindow; ++i) {
        receiveOne();
    }
    check(send(window.line.ends[1], "a", 1, MSG_NOSIGNAL) == 1, "send");
}

void sendWindow(const Window &window, const std::function<void()> &sendOne) {
    for (uint32_t i = 0; i < kWindow; ++i) {
        sendOne();
    }
    char byte;
    if (window.held) {
        check(send(window.line.ends[0], "g", 1, MSG_NOSIGNAL) == 1, "send");
    }
    receiveAll(window.line.ends[0], &byte, 1);
}

rivals::Row bareOneWayRow(bool held) {
    auto pair = std::make_shared<BarePair>();
    auto window = std::make_shared<Window>();
    window->held = held;
    rivals::Row row;
    row.name = "bare send and receive";
    row.serve = [=] {
        char buffer[kOneWayBytes];
        for (;;) {
            receiveWindow(*window, [&] { receiveAll(pair->ends[1], buffer, sizeof(buffer)); });
        }
    };
    row.operationsInOne = kWindow;
    row.operation = [=] {
        const char buffer[kOneWayBytes] = {};
        sendWindow(*window, [&] { sendAll(pair->ends[0], buffer, sizeof(buffer)); });
    };
    return row;
}

/* A sealed memory file each way, with a packet that carries it. */
rivals::Row memoryFileRow(size_t size) {
    auto pair = std::make_shared<BarePair>();
    rivals::Row row;
    row.name = "bare memory file each way";
    row.serve = [=] {
        std::vector<char> buffer(size);
        for (;;) {
            rivals::receiveFile(pair->ends[1], buffer.data(), size);
            rivals::sendFile(pair->ends[1], buffer.data(), size);
        }
    };
    auto buffer = std::make_shared<std::vector<char>>(size);
    row.operation = [=] {
        rivals::sendFile(pair->ends[0], buffer->data(), size);
        rivals::receiveFile(pair->ends[0], buffer->data(), size);
    };
    return row;
}

/* ---- the library ---- */

uint32_t answer(uint32_t param, void *, uint32_t) {
    return param + 1;
}

uint32_t doNothing(uint32_t, void *, uint32_t) {
    return 0;
}

void serveOne(TamoHostQueue *queue) {
    OsMsgHeader *message = nullptr;
    check(TamoHostMsgReceive(queue, &message, -1) == TAMO_HOST_OK, "TamoHostMsgReceive");
    ConfCommMsgProcess(message);
    TamoHostMsgFree(message);
}

TamoHostQueue *openQueue(const char *name, int ready) {
    TamoHostQueue *queue = nullptr;
    check(TamoHostMsgOpen(name, &queue) == TAMO_HOST_OK, "TamoHostMsgOpen");
    check(write(ready, "r", 1) == 1, "write");
    return queue;
}

rivals::Row libraryRow(const char *name, const char *queue,
                       std::function<void(TamoHostQueue *)> serveWith = serveOne) {
    auto ready = std::make_shared<BarePair>();
    rivals::Row row;
    row.name = name;
    row.serve = [=] {
        TamoHostQueue *opened = openQueue(queue, ready->ends[1]);
        for (;;) {
            serveWith(opened);
        }
    };
    row.connect = [=] {
        char byte;
        receiveAll(ready->ends[0], &byte, 1);
    };
    return row;
}

rivals::Row libraryRoundTripRow() {
    rivals::Row row = libraryRow("ConfCommMsgSynSendImpl", "bench-small");
    row.operation = [] {
        uint32_t data = 0;
        check(
            ConfCommMsgSynSendImpl("bench-small", answer, 1, &data, sizeof(data), kTimeoutMs) == 2,
            "ConfCommMsgSynSendImpl");
    };
    return row;
}

rivals::Row libraryBlockRow() {
    rivals::Row row = libraryRow("ConfCommMsgSynSendImplHaveResp", "bench-block");
    const std::vector<char> items(kBlockBytes);
    MeetingServerMsgBlock *block = GenerateMeetingServerMsgBlock(items.data(), kBlockBytes);
    row.operation = [block] {
        check(ConfCommMsgSynSendImplHaveResp("bench-block", answer, 1, block,
                                             GetMeetingServerMsgBlockSize(block), kTimeoutMs) == 2,
              "ConfCommMsgSynSendImplHaveResp");
    };
    return row;
}

rivals::Row libraryOneWayRow(const char *queue, bool held) {
    auto window = std::make_shared<Window>();
    window->held = held;
    rivals::Row row = libraryRow("ConfCommMsgAsynSend", queue, [=](TamoHostQueue *opened) {
        receiveWindow(*window, [&] { serveOne(opened); });
    });
    row.operationsInOne = kWindow;
    row.operation = [=] {
        const char data[kOneWayBytes] = {};
        sendWindow(*window, [&] {
            check(ConfCommMsgAsynSend(queue, doNothing, 0, data, sizeof(data)) == 0,
                  "ConfCommMsgAsynSend");
        });
    };
    return row;
}

/* ---- tables ---- */

struct Table {
    const char *title;
    uint32_t operationsInTurn;
    double limit;     /* of the library's median to the first row's */
    double tailLimit; /* of their 99th percentiles; 0: none */
    bool oneCore;     /* whether the limits are those of one core, or of two */
    std::vector<rivals::Row> rows;
};

std::vector<Table> makeTables() {
    std::vector<Table> tables(4);
    tables[0] = {"4 bytes there and back", 2000, 1.2, 1.5, true, {}};
    tables[0].rows.push_back(bareRow("bare socket pair", 4, false));
    tables[0].rows.push_back(libraryRoundTripRow());
    tables[0].rows.push_back(bareRow("bare socket pair, polled", 4, true));
    rivals::addRivals(&tables[0].rows);
    tables[1] = {"576,000 bytes there and back", 40, 1.0, 0, false, {}};
    tables[1].rows.push_back(bareRow("bare socket pair, chunks", kBlockBytes, false));
    tables[1].rows.push_back(libraryBlockRow());
    tables[1].rows.push_back(memoryFileRow(kBlockBytes));
    tables[2] = {"64 bytes one way, 200 sent and then received", 20, 0.8, 0, true, {}};
    tables[2].rows.push_back(bareOneWayRow(true));
    tables[2].rows.push_back(libraryOneWayRow("bench-held", true));
    tables[3] = {"64 bytes one way, received as they come", 20, 0.8, 0, true, {}};
    tables[3].rows.push_back(bareOneWayRow(false));
    tables[3].rows.push_back(libraryOneWayRow("bench-free", false));
    return tables;
}

/* Measures one table on one core, where a ratio is one of work, or on two. */
void compare(Table &table, bool oneCore, size_t rounds) {
    std::vector<bench::Row> rows;
    for (rivals::Row &row : table.rows) {
        const bool bounded = oneCore == table.oneCore && rows.size() == 1;
        rows.push_back({.name = row.name.c_str(),
                        .limit = bounded ? table.limit : 0,
                        .run = row.operation,
                        .calls = row.operationsInOne,
                        .tailLimit = bounded ? table.tailLimit : 0});
    }
    const std::string title = std::string(table.title) + (oneCore ? ", one core" : ", two cores");
    bench::compare({.title = title.c_str(), .samples = table.operationsInTurn, .rounds = rounds},
                   rows);
}

/* One set of processes on the given cores. */
void measure(int senderCore, int receiverCore, size_t rounds) {
    std::vector<Table> tables = makeTables();
    std::vector<pid_t> children;
    for (Table &table : tables) {
        for (rivals::Row &row : table.rows) {
            const pid_t child = fork();
            check(child >= 0, "fork");
            if (child == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                rivals::pin(receiverCore);
                row.serve();
                _exit(0);
            }
            children.push_back(child);
        }
    }
    rivals::pin(senderCore);
    for (Table &table : tables) {
        for (rivals::Row &row : table.rows) {
            if (row.connect) {
                row.connect();
            }
        }
    }
    for (Table &table : tables) {
        compare(table, senderCore == receiverCore, rounds);
    }
    for (const pid_t child : children) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
}

}  // namespace

int main() {
    constexpr size_t kRounds = 20;
    const bench::DeviceRoot root;
    measure(0, 0, kRounds);
    if (sysconf(_SC_NPROCESSORS_ONLN) > 1) {
        measure(0, 1, kRounds);
    }
    return bench::finish();
}

/* The two sides of a message, for tests of the message layer. */
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/tamo_os_msg.h"
#include "tamo_host.h"

namespace parties {

using Bytes = std::vector<uint8_t>;
using Handler = uint32_t (*)(uint32_t param, void *data, uint32_t dataLength);

/* How long a test waits for what must come. */
uint32_t patienceMs();

/* The head of a body, as it lies in memory. */
struct BodyHead {
    Handler handler;
    uint32_t result, param, dataLength;
};
constexpr uint32_t kHead = sizeof(BodyHead);
constexpr uint32_t kMaxData = 33554432 + 83;

/* Where a message block has its result list, counted from the block's begin. */
constexpr uint32_t kListOffset = sizeof(void *) == 8 ? 64 : 68;
constexpr uint32_t kListSizeOffset = 72;
constexpr uint32_t kBlock = 84;

Bytes bodyOf(Handler handler, uint32_t param, const Bytes &data);
Bytes pattern(size_t size, uint8_t seed = 1);

OsMsgHeader headerOf(const std::string &receiver, Bytes &body, uint32_t msgId = 1);

BodyHead headOf(const OsMsgHeader *message);
uint8_t *dataOf(const OsMsgHeader *message);
void *listOf(const OsMsgHeader *message);
uint32_t listSizeOf(const OsMsgHeader *message);
void hangList(void *block, void *list, uint32_t size);

/* Sends and waits; the response is released with the object. */
class Exchange {
  public:
    Exchange(const std::string &receiver, Bytes body, uint32_t msgId = 1,
             uint32_t timeoutMs = patienceMs());
    ~Exchange() { OsMsgSynRespFree(response); }
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;

    uint32_t result;
    OsMsgHeader *response = nullptr;
};

uint32_t sendAsync(const std::string &receiver, Bytes body, uint32_t msgId = 1);

/* An open queue. */
class Queue {
  public:
    explicit Queue(const std::string &name);
    ~Queue() { close(); }
    Queue(const Queue &) = delete;
    Queue &operator=(const Queue &) = delete;

    /* The next message; null with a failed test when none comes. */
    OsMsgHeader *next();
    bool isEmpty();
    void close();
    TamoHostQueue *get() { return queue_; }

  private:
    TamoHostQueue *queue_ = nullptr;
};

/* Runs a message's handler and answers a waiting sender, as the library does; then frees it. */
void serve(OsMsgHeader *message);

/* A thread that serves a queue until the object ends. */
class Server {
  public:
    explicit Server(const std::string &name, std::function<void(OsMsgHeader *)> each = serve);
    ~Server();

  private:
    std::string name_;
    std::thread thread_;
};

/* What is known of a queue; an empty name when nothing is. */
TamoHostQueueInfo queueInfo(const std::string &name);

/* The outstanding blocks of a process (0: this one); one that never took a block has none. */
uint64_t outstandingBlocks(uint32_t pid = 0);

/* A handler that does nothing. */
uint32_t doNothing(uint32_t param, void *data, uint32_t dataLength);

}  // namespace parties

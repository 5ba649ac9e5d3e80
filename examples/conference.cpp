/* The conference process: it serves the queue "Conference" until it is asked to end (SIGTERM, Ctrl-C).
 *
 * Read this file from top to bottom; user_interface.cpp is the other side. It shows
 *
 *     - what a hosting process opens at its start, and closes at its end, in which order,
 *     - how values come into the configuration store,
 *     - a message loop: one poll for messages and for signals.
 *
 * All but the message loop is the library's (include/). The loop's few operations are the workstation
 * host's (tamo_host.h); on a terminal, the platform's own message loop takes their place.
 */
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "conf_config.h"
#include "conf_log_adapter.h"
#include "conf_msg_api.h"
#include "tamo_host.h"
#include "tamo_os_mem.h"

namespace {

/* Each log record names the source unit that wrote it. */
constexpr const char *kUnit = "conference";

/* ---- bound variables ---- */

char serverAddress[256];

/* ConfConfigInit runs this once: here a process binds its variables to their keys. Each could have a
 * callback that is told of changes; this one has none. */
void bindItems() {
    ConfConfigBind("Conf.SIPCallParam.sipServerAddr", CONF_VALUE_STR, serverAddress,
                   sizeof(serverAddress), nullptr);
}

/* ---- first values ---- */

/* Stores the first values. Lists of values travel in message blocks; ConfConfigSetConfConfig takes such
 * a block, and does not mind whether it came in a message or, as here, from the process itself. */
bool storeFirstValues() {
    const ConfConfigListItem items[] = {
        {"Conf.SIPCallParam.sipServerAddr", "sip.example.com"},
        {"Conf.SIPCallParam.sipUserName", "meeting-room-4"},
        {"Conf.Display.brightness", "80"},
    };
    MeetingServerMsgBlock *block = GenerateMeetingServerMsgBlock(items, sizeof(items));
    if (block == nullptr) {
        return false;
    }
    block->itemCount = sizeof(items) / sizeof(items[0]);
    const uint32_t result = ConfConfigSetConfConfig(0, block, GetMeetingServerMsgBlockSize(block));
    // Blocks come from the platform's memory layer and go back there, with the releasing statement.
    OSMemTypeFreeMon(block, 0, 0, __LINE__, kUnit);

    // A single number needs no list.
    return result == 0 && ConfConfigSetUint64Value("Conf.Display.timeoutMs", 30000) == 0;
}

/* ---- the message loop ---- */

/* SIGTERM and Ctrl-C become readable on a descriptor, so that the loop ends between two messages. */
int openSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    // Blocked before any thread exists: the others inherit it.
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

/* Takes the messages that wait, one by one, and has the library run their handlers. */
void serveMessages(TamoHostQueue *queue) {
    OsMsgHeader *message = nullptr;
    while (TamoHostMsgReceive(queue, &message, 0) == TAMO_HOST_OK) {
        printf(
            "[conference]  3. a message with id %u from %s, %u bytes: ConfCommMsgProcess runs its\n"
            "[conference]     handler (4) and sends the result back (5)\n",
            message->msgId, message->sender, message->bodyLength);
        ConfCommMsgProcess(message);
        TamoHostMsgFree(message);
    }
}

int serve(int signals) {
    TamoHostQueue *queue = nullptr;
    if (TamoHostMsgOpen("Conference", &queue) != TAMO_HOST_OK) {
        fprintf(stderr, "the queue \"Conference\" cannot be served: tamoctl log tells why\n");
        return 1;
    }
    printf("[conference]     serves the queue \"Conference\"\n");

    pollfd polled[] = {{TamoHostMsgDescriptor(queue), POLLIN, 0}, {signals, POLLIN, 0}};
    while (poll(polled, 2, -1) > 0 && polled[1].revents == 0) {
        serveMessages(queue);
    }

    TamoHostMsgClose(queue);
    return 0;
}

}  // namespace

int main() {
    // Lines appear as they are printed, also when they go to a file together with another process's.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const int signals = openSignals();

    // The log first: everything that follows reports to it.
    if (ConfLogInit() != 0) {
        fprintf(stderr, "the log cannot be opened: look at TAMO_DEVICE_ROOT\n");
        return 1;
    }
    ConfLogPrintf(CONF_LOG_INFO, __func__, kUnit, __LINE__, "the conference process starts");

    // Then the configuration: the owner is the process, "Conf" its module.
    int result = 1;
    if (ConfConfigInit(bindItems, "TamoUIConf", "Conf") == 0 && storeFirstValues()) {
        result = serve(signals);
    } else {
        fprintf(stderr, "the configuration cannot be stored: tamoctl log tells why\n");
    }

    // The end runs backwards. Nothing of the configuration is lost: the service keeps it.
    ConfConfigUnInit();
    ConfConfigDeInit();
    ConfLogPrintf(CONF_LOG_INFO, __func__, kUnit, __LINE__, "the conference process ends");
    ConfLogUnInit();
    printf("[conference]     ended\n");
    return result;
}

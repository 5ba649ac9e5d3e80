/* See trace.h. */
#include "host/messages/trace.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "host/base/clock.h"
#include "host/base/descriptor.h"
#include "host/base/device_root.h"
#include "host/base/log.h"
#include "host/base/shared_page.h"
#include "host/messages/block.h"

namespace tamo::messages {

constinit std::atomic<TracePage *> tracePage{nullptr};

namespace {

constexpr const char *kUnit = "tamo_os_msg";
constexpr uint32_t kMagic = 0x54524331; /* "TRC1": also the version of the layout */
constexpr uint64_t kLookMs = 10000;     /* a reader that was not heard of for longer is forgotten */
constexpr uint32_t kPauseMs = 10;

/* What run/trace holds. */
struct TraceFile {
    uint32_t magic;
    int32_t number;
};

/* Where no page can be shared: nobody ever looks. */
constinit TracePage noPage = {};

bool isOf(const TracePage &page, const struct stat &directory) {
    return page.magic.load(std::memory_order_acquire) == kMagic &&
           page.device == directory.st_dev && page.directory == directory.st_ino;
}

/* With the file locked: the page that it tells, or a new one that it tells from now on. */
TracePage *pageOfFile(int file, const struct stat &directory) {
    TraceFile content = {};
    if (pread(file, &content, sizeof(content), 0) == ssize_t{sizeof(content)} &&
        content.magic == kMagic && content.number >= 0) {
        void *memory = joinSharedPage(content.number, sizeof(TracePage), false);
        auto *page = static_cast<TracePage *>(memory);
        if (page != nullptr && isOf(*page, directory)) {
            return page;
        }
        if (page != nullptr) {
            leaveSharedPage(page);
        }
    }
    content.magic = kMagic;
    auto *page = static_cast<TracePage *>(makeSharedPage(sizeof(TracePage), &content.number));
    if (page == nullptr) {
        return nullptr;
    }
    page->device = directory.st_dev;
    page->directory = directory.st_ino;
    page->magic.store(kMagic, std::memory_order_release);
    if (pwrite(file, &content, sizeof(content), 0) != ssize_t{sizeof(content)}) {
        leaveSharedPage(page);
        return nullptr;
    }
    return page;
}

TracePage *findPage() {
    const int run = rootDirectory("run");
    struct stat directory = {};
    if (run < 0 || fstat(run, &directory) != 0) {
        return nullptr;
    }
    const Descriptor file(openat(run, "trace", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file.isOpen()) {
        return nullptr;
    }
    int locked = 0;
    do {
        locked = flock(file.get(), LOCK_EX); /* ends with the descriptor */
    } while (locked != 0 && errno == EINTR);
    return locked == 0 ? pageOfFile(file.get(), directory) : nullptr;
}

void copyText(char *to, size_t size, const char *from) {
    const size_t length = std::min(strlen(from), size - 1);
    memcpy(to, from, length);
    to[length] = '\0';
}

/* The module's name without its directory. */
void nameModule(const void *address, TamoHostTraceEvent *event) {
    const char *name = moduleNameOf(address);
    const char *slash = strrchr(name, '/');
    copyText(event->module, sizeof(event->module), slash != nullptr ? slash + 1 : name);
}

void store(TracePage *page, const TamoHostTraceEvent &event) {
    const uint64_t number = page->next.fetch_add(1, std::memory_order_relaxed);
    TraceSlot &slot = page->slots[number % kTraceSlots];
    uint64_t before = slot.sequence.load(std::memory_order_relaxed);
    if (before > number || !slot.sequence.compare_exchange_strong(before, kTraceBusy | (number + 1),
                                                                  std::memory_order_acq_rel)) {
        return; /* another thread writes there: kTraceBusy makes it the greater number */
    }
    uint64_t words[kTraceWords];
    memcpy(words, &event, sizeof(words));
    for (unsigned i = 0; i < kTraceWords; ++i) {
        /* A reader that sees one of these words sees the busy sign at its second look. */
        slot.words[i].store(words[i], std::memory_order_release);
    }
    slot.sequence.store(number + 1, std::memory_order_release);
}

}  // namespace

TracePage *joinTrace() {
    TracePage *found = findPage();
    TracePage *page = found != nullptr ? found : &noPage;
    TracePage *before = nullptr;
    if (tracePage.compare_exchange_strong(before, page, std::memory_order_acq_rel)) {
        return page;
    }
    if (found != nullptr) {
        leaveSharedPage(found); /* another thread was faster */
    }
    return before;
}

uint64_t beginOfTrace() {
    return isTraced() ? monotonicNs() : 0;
}

void trace(TamoHostTraceKind kind, const TraceSubject &subject, uint32_t result, uint64_t beganNs) {
    if (!isTraced()) {
        return;
    }
    TracePage *page = tracePage.load(std::memory_order_acquire);
    const uint64_t now = monotonicNs();
    uint64_t until = page->watchedUntilMs.load(std::memory_order_relaxed);
    if (until < now / kNsPerMs) {
        (void)page->watchedUntilMs.compare_exchange_strong(until, 0, std::memory_order_relaxed);
        return;
    }
    const int error = errno;
    const RecordHead &head = *subject.head;
    TamoHostTraceEvent event = {};
    event.timeUs = static_cast<int64_t>(wallClockNs() / 1000);
    event.durationNs = beganNs != 0 ? now - beganNs : 0;
    event.kind = kind;
    event.pid = static_cast<uint32_t>(getpid());
    event.tid = static_cast<uint32_t>(gettid());
    event.peerPid = subject.peerPid;
    event.serial = head.serial;
    event.bodyLength = head.bodyLength;
    event.listLength = head.listLength;
    event.result = result;
    copyText(event.queue, sizeof(event.queue), subject.queue);
    copyText(event.process, sizeof(event.process), program_invocation_short_name);
    if (hasHandler(head.msgId) && subject.body != nullptr && head.bodyLength >= sizeof(BodyHead)) {
        const BodyHead body = readBodyHead(subject.body);
        event.param = body.param;
        if (head.prefix.buildIdLength > 0) {
            event.handlerOffset = head.handlerOffset;
            nameModule(body.handler, &event);
        }
    }
    store(page, event);
    errno = error;
}

}  // namespace tamo::messages

using namespace tamo::messages;

struct TamoHostTrace {
    TracePage *page;
    uint64_t next;
};

namespace {

void keepLooking(TracePage *page) {
    const uint64_t until = tamo::monotonicMs() + kLookMs;
    uint64_t before = page->watchedUntilMs.load(std::memory_order_relaxed);
    while (before < until &&
           !page->watchedUntilMs.compare_exchange_weak(before, until, std::memory_order_relaxed)) {
    }
}

/* Copies the event `trace->next`; false while it is not there whole. */
bool readEvent(const TamoHostTrace &trace, TamoHostTraceEvent *event) {
    const TraceSlot &slot = trace.page->slots[trace.next % kTraceSlots];
    if (slot.sequence.load(std::memory_order_acquire) != trace.next + 1) {
        return false;
    }
    uint64_t words[kTraceWords];
    for (unsigned i = 0; i < kTraceWords; ++i) {
        words[i] = slot.words[i].load(std::memory_order_acquire);
    }
    memcpy(event, words, sizeof(words));
    event->queue[sizeof(event->queue) - 1] = '\0';
    event->process[sizeof(event->process) - 1] = '\0';
    event->module[sizeof(event->module) - 1] = '\0';
    return slot.sequence.load(std::memory_order_relaxed) == trace.next + 1;
}

}  // namespace

uint32_t TamoHostTraceOpen(TamoHostTrace **trace) {
    if (trace == nullptr) {
        tamo::hostRecord(tamo::kWarning, kUnit, __LINE__, "there is no place for a trace");
        return TAMO_HOST_INVALID;
    }
    (void)isTraced();
    TracePage *page = tracePage.load(std::memory_order_acquire);
    if (page == &noPage) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "messages cannot be watched: no memory could be shared, see ipcs -lm and "
                         "the permissions of run/trace below the device root");
        return TAMO_HOST_SYSTEM;
    }
    auto *opened = new (std::nothrow) TamoHostTrace{page, 0};
    if (opened == nullptr) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__, "no memory for a trace");
        return TAMO_HOST_NO_MEMORY;
    }
    opened->next = page->next.load(std::memory_order_acquire);
    keepLooking(page);
    *trace = opened;
    return TAMO_HOST_OK;
}

uint32_t TamoHostTraceNext(TamoHostTrace *trace, int32_t timeoutMs, TamoHostTraceEvent *event,
                           uint64_t *missed) {
    if (trace == nullptr || event == nullptr || missed == nullptr) {
        tamo::hostRecord(tamo::kWarning, kUnit, __LINE__, "there is no trace, or no place");
        return TAMO_HOST_INVALID;
    }
    const uint64_t begin = tamo::monotonicMs();
    *missed = 0;
    for (bool waited = false;;) {
        keepLooking(trace->page);
        const uint64_t next = trace->page->next.load(std::memory_order_acquire);
        if (next - trace->next > kTraceSlots) {
            *missed += next - trace->next - kTraceSlots;
            trace->next = next - kTraceSlots;
        }
        while (trace->next < next) {
            if (readEvent(*trace, event)) {
                ++trace->next;
                return TAMO_HOST_OK;
            }
            if (!waited) {
                break;
            }
            ++trace->next; /* it was overtaken, or its writer ended half-way */
            ++*missed;
        }
        if (timeoutMs >= 0 && tamo::monotonicMs() - begin >= static_cast<uint64_t>(timeoutMs)) {
            return TAMO_HOST_TIMEOUT;
        }
        /* Writers wake nobody up, which would cost them a system call. */
        waited = trace->next < next;
        const timespec pause = {0, kPauseMs * 1000000L};
        (void)nanosleep(&pause, nullptr);
    }
}

void TamoHostTraceClose(TamoHostTrace *trace) {
    delete trace;
}

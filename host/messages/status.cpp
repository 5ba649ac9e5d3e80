/* Queue names, the status of queues, and the list of all queues. */
#include "host/messages/status.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>

#include "host/base/clock.h"
#include "host/base/descriptor.h"
#include "host/base/device_root.h"
#include "host/base/log.h"
#include "host/base/shared_page.h"
#include "host/messages/record.h"
#include "tamo_host.h"

namespace tamo::messages {

namespace {

constexpr uint32_t kStatusMagic = 0x51534D54; /* "TMSQ" */
constexpr char kStatusSuffix[] = ".queue";

/* Which characters a queue's name may have; looked up for every message. */
struct NameCharacters {
    bool allowed[256] = {};
    constexpr NameCharacters() {
        for (const char c : {'.', '_', '-'}) {
            allowed[static_cast<uint8_t>(c)] = true;
        }
        for (unsigned c = 0; c < 26; ++c) {
            allowed['a' + c] = allowed['A' + c] = true;
        }
        for (unsigned c = 0; c < 10; ++c) {
            allowed['0' + c] = true;
        }
    }
};
constexpr NameCharacters kNameCharacters;

bool isNameCharacter(char c) {
    return kNameCharacters.allowed[static_cast<uint8_t>(c)];
}

/* 0 when the counts make no sense. */
uint64_t difference(const std::atomic<uint64_t> &sent, const std::atomic<uint64_t> &taken) {
    const uint64_t waiting =
        sent.load(std::memory_order_relaxed) - taken.load(std::memory_order_relaxed);
    return waiting <= INT64_MAX ? waiting : 0;
}

/* What run/NAME.queue holds. */
struct StatusFile {
    uint32_t magic;
    int32_t number;
};
static_assert(sizeof(StatusFile) == 8);

void nameStatus(QueueStatus *status, int directory, const char *queue) {
    struct stat place = {};
    (void)fstat(directory, &place);
    status->device = place.st_dev;
    status->directory = place.st_ino;
    (void)snprintf(status->name, sizeof(status->name), "%s", queue);
}

/* A number may be another's by now. */
bool isStatusOf(const QueueStatus &status, int directory, const char *queue) {
    struct stat place = {};
    return status.magic == kStatusMagic && fstat(directory, &place) == 0 &&
           status.device == place.st_dev && status.directory == place.st_ino &&
           strncmp(status.name, queue, sizeof(status.name)) == 0;
}

/* The number that the queue's file tells. 0, or an error number; EINVAL when it tells none. */
int readNumber(int directory, const char *queue, int *number) {
    const Descriptor file(openat(directory, queueFileName(queue, kStatusSuffix).text,
                                 O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    StatusFile content = {};
    if (!file.isOpen()) {
        return errno;
    }
    if (pread(file.get(), &content, sizeof(content), 0) != ssize_t{sizeof(content)} ||
        content.magic != kStatusMagic) {
        return EINVAL;
    }
    *number = content.number;
    return 0;
}

/* Joins the status with a number; null when it is no more, or another's. */
QueueStatus *joinStatus(int number, int directory, const char *queue, bool readOnly) {
    auto *status =
        static_cast<QueueStatus *>(joinSharedPage(number, sizeof(QueueStatus), readOnly));
    if (status != nullptr && !isStatusOf(*status, directory, queue)) {
        leaveSharedPage(status);
        return nullptr;
    }
    return status;
}

/* Is the queue's lock held? Asking takes no lock, so it is in nobody's way. */
bool hasOwner(int directory, const char *queue) {
    const Descriptor file(openat(directory, queueFileName(queue, ".lock").text,
                                 O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct flock question = {};
    question.l_type = F_WRLCK;
    return file.isOpen() && fcntl(file.get(), F_OFD_GETLK, &question) == 0 &&
           question.l_type != F_UNLCK;
}

/* A killed owner's queue has no status any more once its senders have left it, too. */
bool describeQueue(int directory, const char *queue, TamoHostQueueInfo *info) {
    int number = -1;
    *info = {};
    if (readNumber(directory, queue, &number) != 0 || !copyQueueName(queue, info->name)) {
        return false;
    }
    const QueueStatus *status = joinStatus(number, directory, queue, true);
    if (status != nullptr) {
        const QueueDepth depth = depthOf(*status);
        info->ownerPid = hasOwner(directory, queue) ? status->ownerPid : 0;
        info->received = status->received.load(std::memory_order_relaxed);
        info->depth = depth.messages;
        info->depthBytes = depth.bytes;
        for (unsigned i = 0; i < kServiceBuckets; ++i) {
            info->served[i] = status->served[i].load(std::memory_order_relaxed);
        }
        leaveSharedPage(status);
    }
    return true;
}

/* The length of the queue's name in the name of its status file; 0 when it is none. */
size_t queueNameLength(const char *fileName) {
    const size_t length = strlen(fileName);
    const size_t suffix = sizeof(kStatusSuffix) - 1;
    const bool isStatusFile = length > suffix && length - suffix < kQueueNameSize &&
                              strcmp(fileName + length - suffix, kStatusSuffix) == 0;
    return isStatusFile ? length - suffix : 0;
}

int selectStatusFiles(const dirent *entry) {
    return queueNameLength(entry->d_name) > 0 ? 1 : 0;
}

/* By the queues' names: the suffix would sort "a" behind "a-b". */
int orderByQueueName(const dirent **a, const dirent **b) {
    const size_t lengthOfA = queueNameLength((*a)->d_name);
    const size_t lengthOfB = queueNameLength((*b)->d_name);
    const int order = memcmp((*a)->d_name, (*b)->d_name, std::min(lengthOfA, lengthOfB));
    return order != 0 ? order : static_cast<int>(lengthOfA) - static_cast<int>(lengthOfB);
}

}  // namespace

QueueFileName queueFileName(const char *queue, const char *suffix) {
    QueueFileName name;
    (void)snprintf(name.text, sizeof(name.text), "%.15s%s", queue, suffix);
    return name;
}

bool copyQueueName(const char *name, char (&copy)[kQueueNameSize]) {
    size_t length = 0;
    while (length < kQueueNameSize && isNameCharacter(name[length])) {
        ++length;
    }
    if (length == 0 || length == kQueueNameSize || name[length] != '\0') {
        return false;
    }
    for (size_t i = 0; i < kQueueNameSize; ++i) {
        copy[i] = i < length ? name[i] : '\0';
    }
    return true;
}

StatusMapping::~StatusMapping() {
    if (status_ != nullptr) {
        leaveSharedPage(status_);
    }
}

int StatusMapping::create(int directory, const char *queue) {
    const QueueFileName name = queueFileName(queue, kStatusSuffix);
    const QueueFileName fresh = queueFileName(queue, ".queue~");
    Descriptor file(
        openat(directory, fresh.text, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file.isOpen()) {
        return errno;
    }
    StatusFile content = {kStatusMagic, -1};
    status_ = static_cast<QueueStatus *>(makeSharedPage(sizeof(QueueStatus), &content.number));
    if (status_ == nullptr) {
        return ENOMEM; /* the kernel's own number for too many segments speaks of a disk */
    }
    status_->magic = kStatusMagic;
    status_->version = kWireVersion;
    status_->pointerWidth = kPointerWidth;
    status_->ownerPid = static_cast<uint32_t>(getpid());
    nameStatus(status_, directory, queue);
    if (write(file.get(), &content, sizeof(content)) != ssize_t{sizeof(content)}) {
        return ENOSPC;
    }
    return renameat(directory, fresh.text, directory, name.text) == 0 ? 0 : errno;
}

int StatusMapping::open(int directory, const char *queue) {
    int number = -1;
    const int error = readNumber(directory, queue, &number);
    status_ = error == 0 ? joinStatus(number, directory, queue, false) : nullptr;
    return error == 0 && status_ == nullptr ? EINVAL : error;
}

QueueDepth depthOf(const QueueStatus &status) {
    QueueDepth depth = {0, 0};
    const uint32_t used = std::min(status.slotsUsed.load(std::memory_order_relaxed), kSlots);
    for (uint32_t i = 0; i < used; ++i) {
        depth.messages += difference(status.slots[i].sent, status.slots[i].taken);
        depth.bytes += difference(status.slots[i].sentBytes, status.slots[i].takenBytes);
    }
    return depth;
}

void countService(QueueStatus *status, uint64_t takenNs) {
    const auto bits = static_cast<unsigned>(std::bit_width(monotonicNs() - takenNs));
    status->served[std::min(bits, kServiceBuckets - 1)].fetch_add(1, std::memory_order_relaxed);
}

uint32_t claimSlot(QueueStatus *status) {
    const auto process = static_cast<uint32_t>(getpid());
    for (uint32_t i = 0; i < kSlots; ++i) {
        uint32_t owner = 0;
        if (status->slots[i].owner.load(std::memory_order_relaxed) != 0 ||
            !status->slots[i].owner.compare_exchange_strong(owner, process)) {
            continue;
        }
        uint32_t used = status->slotsUsed.load();
        while (used <= i && !status->slotsUsed.compare_exchange_weak(used, i + 1)) {
        }
        return i;
    }
    return kSlots;
}

void freeSlot(QueueStatus *status, uint32_t slot) {
    if (slot >= kSlots) {
        return;
    }
    SenderSlot &freed = status->slots[slot];
    for (std::atomic<uint64_t> *count :
         {&freed.sent, &freed.sentBytes, &freed.taken, &freed.takenBytes}) {
        count->store(0, std::memory_order_relaxed);
    }
    freed.owner.store(0, std::memory_order_release);
}

}  // namespace tamo::messages

using namespace tamo::messages;

uint32_t TamoHostMsgQueues(uint32_t (*visit)(const TamoHostQueueInfo *queue, void *context),
                           void *context) {
    constexpr const char *kUnit = "tamo_os_msg";
    if (visit == nullptr) {
        tamo::hostRecord(tamo::kWarning, kUnit, __LINE__, "there is no function to list queues to");
        return TAMO_HOST_INVALID;
    }
    const int directory = tamo::rootDirectory("run");
    if (directory < 0) {
        return TAMO_HOST_NO_ROOT;
    }
    dirent **entries = nullptr;
    const int count = scandirat(directory, ".", &entries, selectStatusFiles, orderByQueueName);
    if (count < 0) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__, "the queues cannot be listed: %s%s",
                         strerror(errno), tamo::adviceOn(errno));
        return TAMO_HOST_SYSTEM;
    }
    uint32_t result = TAMO_HOST_OK;
    for (int i = 0; i < count; ++i) {
        char *name = entries[i]->d_name;
        name[queueNameLength(name)] = '\0';
        TamoHostQueueInfo info;
        if (result == TAMO_HOST_OK && describeQueue(directory, name, &info)) {
            result = visit(&info, context);
        }
        free(entries[i]);
    }
    free(entries);
    return result;
}

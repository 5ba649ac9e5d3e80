/* Queue names, the status files of queues, and the list of all queues. */
#include "host/messages/status.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "host/base/device_root.h"
#include "host/base/log.h"
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

bool isStatus(const QueueStatus &status) {
    return status.magic == kStatusMagic;
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

/* Reads a status file as it is; null when it is none. To be released with free. */
QueueStatus *readStatus(int directory, const char *queue) {
    const Descriptor file(openat(directory, queueFileName(queue, kStatusSuffix).text,
                                 O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    auto *status =
        static_cast<QueueStatus *>(aligned_alloc(alignof(QueueStatus), sizeof(QueueStatus)));
    if (status == nullptr || !file.isOpen() ||
        pread(file.get(), status, sizeof(*status), 0) != sizeof(*status) || !isStatus(*status)) {
        free(status);
        return nullptr;
    }
    return status;
}

bool describeQueue(int directory, const char *queue, TamoHostQueueInfo *info) {
    *info = {};
    QueueStatus *status = readStatus(directory, queue);
    const bool found = status != nullptr && copyQueueName(queue, info->name);
    if (found) {
        const QueueDepth depth = depthOf(*status);
        info->ownerPid = hasOwner(directory, queue) ? status->ownerPid : 0;
        info->received = status->received.load(std::memory_order_relaxed);
        info->depth = depth.messages;
        info->depthBytes = depth.bytes;
    }
    free(status);
    return found;
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
        (void)munmap(status_, sizeof(QueueStatus));
    }
}

int StatusMapping::map(const Descriptor &file) {
    void *mapped =
        mmap(nullptr, sizeof(QueueStatus), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (mapped == MAP_FAILED) {
        return errno;
    }
    status_ = static_cast<QueueStatus *>(mapped);
    return 0;
}

int StatusMapping::create(int directory, const char *queue) {
    const QueueFileName name = queueFileName(queue, kStatusSuffix);
    const QueueFileName fresh = queueFileName(queue, ".queue~");
    Descriptor file(
        openat(directory, fresh.text, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file.isOpen()) {
        return errno;
    }
    /* Set aside, not only made long: on a full disk a mapping of a hole would end the process. */
    int error = posix_fallocate(file.get(), 0, sizeof(QueueStatus));
    if (error == 0) {
        error = map(file);
    }
    if (error != 0) {
        return error;
    }
    status_->magic = kStatusMagic;
    status_->version = kWireVersion;
    status_->pointerWidth = kPointerWidth;
    status_->ownerPid = static_cast<uint32_t>(getpid());
    if (renameat(directory, fresh.text, directory, name.text) != 0) {
        return errno;
    }
    return 0;
}

int StatusMapping::open(int directory, const char *queue) {
    const Descriptor file(openat(directory, queueFileName(queue, kStatusSuffix).text,
                                 O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat state;
    if (!file.isOpen() || fstat(file.get(), &state) != 0) {
        return errno;
    }
    if (!S_ISREG(state.st_mode) || state.st_size < static_cast<off_t>(sizeof(QueueStatus))) {
        return EINVAL;
    }
    const int error = map(file);
    return error == 0 && !isStatus(*status_) ? EINVAL : error;
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

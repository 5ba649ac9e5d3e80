/* Notifications to the hosting application, and the message block. */
#include <atomic>

#include "common/log.h"
#include "common/platform_block.h"
#include "include/conf_msg_api.h"
#include "msg/message_format.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_os_lock.h"

namespace {

constexpr char kUnit[] = "conf_msg_api";

/* A block always has room for four body bytes, and a body has three spare ones behind it. */
constexpr uint32_t kEmptyBlockSize = kBlockHead + 4;
constexpr uint32_t kSpareBytes = 3;

std::atomic<ConfNotifyFunc> notifyCallback{nullptr};
OsMutex notifyMutex = {}; /* held for a whole multi-packet notification, so that no two mix */

/* Reads the callback anew for every packet: a registration takes effect at the next one. */
void notify(uint32_t notifyId, const void *data, uint32_t dataLength) {
    const ConfNotifyFunc callback = notifyCallback.load(std::memory_order_acquire);
    if (callback != nullptr) {
        callback(notifyId, data, dataLength, 0);
    }
}

void notifyPackets(uint32_t notifyId, const MultiPackHeader &header, const char *data) {
    notify(notifyId, &header, sizeof(header));
    uint32_t offset = 0;
    for (; header.totalLength - offset >= kMultiPackPacket; offset += kMultiPackPacket) {
        notify(notifyId, data + offset, kMultiPackPacket);
    }
    if (offset < header.totalLength) {
        notify(notifyId, data + offset, header.totalLength - offset);
    }
}

uint64_t blockSize(uint32_t bodyLength) {
    return bodyLength == 0 ? kEmptyBlockSize : uint64_t{bodyLength} + kBlockHead + kSpareBytes;
}

}  // namespace

void ConfRegisterNotifyFunc(ConfNotifyFunc callback) {
    if (callback != nullptr) {
        notifyCallback.store(callback, std::memory_order_release);
    }
}

uint32_t ConfCommSendNotifyToApp(uint32_t notifyId, const void *data, uint32_t dataLength) {
    return ConfCommSendNotifyAndResultToApp(notifyId, data, dataLength, 0);
}

uint32_t ConfCommSendNotifyAndResultToApp(uint32_t notifyId, const void *data, uint32_t dataLength,
                                          uint32_t result) {
    const ConfNotifyFunc callback = notifyCallback.load(std::memory_order_acquire);
    return callback == nullptr ? 1 : callback(notifyId, data, dataLength, result);
}

uint32_t ConfCommSendMultiPackNotifyToApp(uint32_t notifyId, const void *data,
                                          uint32_t dataLength) {
    if (data == nullptr) {
        notify(notifyId, nullptr, dataLength);
    }
    if (dataLength == 0 || dataLength > kMultiPackLimit) {
        CONF_LOG(CONF_LOG_ERROR, "dataLen error .%u", dataLength);
        return 1;
    }
    if (data == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return 1;
    }
    const uint32_t packetCount = (dataLength + kMultiPackPacket - 1) / kMultiPackPacket;
    const MultiPackHeader header = {kMultiPackMagic, packetCount, dataLength};
    CONF_LOG(CONF_LOG_INFO, "MultiPackNotify,pktnum:%u, len:%u", packetCount, dataLength);
    OsMutexLock(&notifyMutex);
    notifyPackets(notifyId, header, static_cast<const char *>(data));
    OsMutexUnLock(&notifyMutex);
    CONF_LOG(CONF_LOG_INFO, "MultiPackNotify Over");
    return 0;
}

MeetingServerMsgBlock *GenerateMeetingServerMsgBlock(const void *body, uint32_t bodyLength) {
    const uint64_t size = blockSize(bodyLength);
    PlatformBlock<MeetingServerMsgBlock> block;
    if (size <= UINT32_MAX) {
        block = takeBlock<MeetingServerMsgBlock>(static_cast<size_t>(size), kUnit);
    }
    if (block == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return nullptr;
    }
    if (body != nullptr && bodyLength != 0) {
        const int error =
            memcpy_s(block->body, static_cast<size_t>(size) - kBlockHead, body, bodyLength);
        if (error != 0) {
            CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
            return nullptr;
        }
    }
    block->bodyLength = bodyLength;
    return block.release();
}

uint32_t GetMeetingServerMsgBlockSize(const MeetingServerMsgBlock *block) {
    if (block == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "msg is nullptr!");
        return 0;
    }
    const uint64_t size = blockSize(block->bodyLength);
    return size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size);
}

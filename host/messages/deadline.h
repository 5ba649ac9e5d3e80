/* The end of a wait. */
#pragma once
#include <stdint.h>
#include <time.h>

namespace tamo::messages {

constexpr uint32_t kForEver = UINT32_MAX;

class Deadline {
  public:
    explicit Deadline(uint32_t timeoutMs) : timeout_(timeoutMs) {
        /* One more, since the clock's fraction is cut off: a wait may be long, but not too short. */
        end_ = timeoutMs > 0 ? nowMs() + timeoutMs + 1 : 0;
    }

    /* Milliseconds that are left; kForEver stays so. */
    uint32_t remaining() const {
        if (fresh_ || timeout_ == kForEver) {
            return timeout_;
        }
        const uint64_t now = nowMs();
        return now < end_ ? static_cast<uint32_t>(end_ - now) : 0;
    }

    /* What is left, as poll and epoll_wait want it. */
    int forPoll() const {
        const uint32_t left = remaining();
        return left == kForEver ? -1 : static_cast<int>(left < INT32_MAX ? left : INT32_MAX);
    }

    /* To be called after whatever may have taken time: until then the clock need not be looked at.
     */
    void waited() { fresh_ = false; }

  private:
    static uint64_t nowMs() {
        timespec now = {};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<uint64_t>(now.tv_sec) * 1000 +
               static_cast<uint64_t>(now.tv_nsec) / 1000000;
    }

    uint64_t end_;
    uint32_t timeout_;
    bool fresh_ = true;
};

}  // namespace tamo::messages

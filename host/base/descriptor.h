/* Owners of descriptors. */
#pragma once
#include <mutex>

#include "common/descriptor.h"

namespace tamo {

/* Held across fork, so that a child finds whole what it guards: the list of the process descriptors
 * below, and whatever else the message layer keeps for the process. Never held while waiting. */
extern std::mutex forkMutex;

/* Whether `file` still has this name: neither moved nor removed nor replaced. */
bool hasName(int file, int directory, const char *name);

/* Owns a descriptor that must not live on in a forked child: there it is closed and no longer open.
 * A child that kept a receiver's sockets would leave its senders waiting when the receiver is
 * killed, and one that wrote to its parent's connections would mix up their messages. */
class ProcessDescriptor {
  public:
    ProcessDescriptor() = default;
    ~ProcessDescriptor() { shut(); }
    ProcessDescriptor(const ProcessDescriptor &) = delete;
    ProcessDescriptor &operator=(const ProcessDescriptor &) = delete;

    /* Takes `opened` over in place of what it had. */
    void adopt(Descriptor opened);
    void shut();

    int get() const { return value_; }
    bool isOpen() const { return value_ >= 0; }

  private:
    friend struct DescriptorList;
    int value_ = -1;
    ProcessDescriptor *next_ = nullptr;
    ProcessDescriptor *previous_ = nullptr;
};

}  // namespace tamo

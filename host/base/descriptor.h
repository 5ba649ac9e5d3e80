/* Owners of descriptors. */
#pragma once
#include <unistd.h>

#include <mutex>
#include <utility>

namespace tamo {

/* Held across fork, so that a child finds whole what it guards: the list of the process descriptors
 * below, and whatever else the message layer keeps for the process. Never held while waiting. */
extern std::mutex forkMutex;

/* Whether `file` still has this name: neither moved nor removed nor replaced. */
bool hasName(int file, int directory, const char *name);

/* Owns a descriptor for the length of a scope. */
class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int opened) : value_(opened) {}
    Descriptor(Descriptor &&other) noexcept : value_(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        std::swap(value_, other.value_);
        return *this;
    }
    ~Descriptor() {
        if (value_ >= 0) {
            close(value_);
        }
    }

    int get() const { return value_; }
    bool isOpen() const { return value_ >= 0; }
    int release() { return std::exchange(value_, -1); }

  private:
    int value_ = -1;
};

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

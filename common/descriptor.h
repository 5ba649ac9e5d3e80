/* The owner of a descriptor, for the host platform and its tools. */
#pragma once
#include <unistd.h>

#include <utility>

namespace tamo {

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

}  // namespace tamo

/* The list of descriptors that end with this process's own life, and what fork does to them. */
#include "host/base/descriptor.h"

#include <pthread.h>

namespace tamo {

constinit std::mutex forkMutex;

namespace {

constinit ProcessDescriptor *listHead = nullptr;
constinit pthread_once_t guardInstalled = PTHREAD_ONCE_INIT;

}  // namespace

/* The child of a program with threads may do nothing here that allocates. */
struct ForkGuard {
    static void beforeFork() { forkMutex.lock(); }

    static void inParent() { forkMutex.unlock(); }

    static void inChild() {
        while (listHead != nullptr) {
            ProcessDescriptor *entry = listHead;
            unlink(*entry);
            close(entry->value_);
            entry->value_ = -1;
        }
        forkMutex.unlock();
    }

    static void link(ProcessDescriptor &entry) {
        entry.previous_ = nullptr;
        entry.next_ = listHead;
        if (listHead != nullptr) {
            listHead->previous_ = &entry;
        }
        listHead = &entry;
    }

    static void unlink(ProcessDescriptor &entry) {
        (entry.previous_ != nullptr ? entry.previous_->next_ : listHead) = entry.next_;
        if (entry.next_ != nullptr) {
            entry.next_->previous_ = entry.previous_;
        }
    }
};

void ProcessDescriptor::adopt(Descriptor opened) {
    pthread_once(&guardInstalled, [] {
        (void)pthread_atfork(ForkGuard::beforeFork, ForkGuard::inParent, ForkGuard::inChild);
    });
    shut();
    if (!opened.isOpen()) {
        return;
    }
    const std::lock_guard<std::mutex> lock(forkMutex);
    value_ = opened.release();
    ForkGuard::link(*this);
}

void ProcessDescriptor::shut() {
    if (value_ < 0) {
        return;
    }
    const std::lock_guard<std::mutex> lock(forkMutex);
    ForkGuard::unlink(*this);
    close(std::exchange(value_, -1));
}

}  // namespace tamo

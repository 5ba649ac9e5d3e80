/* The list of descriptors that end with this process's own life, and what fork does to them. */
#include "host/base/descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "host/base/fork.h"

namespace tamo {

constinit std::mutex forkMutex;

namespace {

constinit ProcessDescriptor *listHead = nullptr;

}  // namespace

/* The child of a program with threads may do nothing here that allocates. */
struct DescriptorList {
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

namespace {

__attribute__((constructor)) void watchForks() {
    guardForks(ForkStage::kDescriptors,
               {DescriptorList::beforeFork, DescriptorList::inParent, DescriptorList::inChild});
}

}  // namespace

bool hasName(int file, int directory, const char *name) {
    struct stat own = {};
    struct stat named = {};
    return fstat(file, &own) == 0 && fstatat(directory, name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           own.st_dev == named.st_dev && own.st_ino == named.st_ino;
}

void ProcessDescriptor::adopt(Descriptor opened) {
    shut();
    if (!opened.isOpen()) {
        return;
    }
    const std::lock_guard<std::mutex> lock(forkMutex);
    value_ = opened.release();
    DescriptorList::link(*this);
}

void ProcessDescriptor::shut() {
    if (value_ < 0) {
        return;
    }
    const std::lock_guard<std::mutex> lock(forkMutex);
    DescriptorList::unlink(*this);
    close(std::exchange(value_, -1));
}

}  // namespace tamo

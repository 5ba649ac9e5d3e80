/* Making and mapping windows. */
#include "host/messages/window.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

namespace tamo {

namespace {

/* Its length is final: a mapped page that is cut off would end the process that touches it. */
constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

}  // namespace

int Window::create(Descriptor *file) {
    Descriptor made(memfd_create("tamo-window", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    /* All pages now: one that is missing later, for want of memory, would end the process too. */
    if (!made.isOpen() || fallocate(made.get(), 0, 0, kWindowSize) != 0 ||
        fcntl(made.get(), F_ADD_SEALS, kSeals) != 0 || !map(made)) {
        return errno;
    }
    *file = std::move(made);
    return 0;
}

bool Window::adopt(const Descriptor &file) {
    struct stat state;
    const int seals = fcntl(file.get(), F_GET_SEALS);
    return !isOpen() && seals >= 0 && (seals & kSeals) == kSeals &&
           fstat(file.get(), &state) == 0 && state.st_size == static_cast<off_t>(kWindowSize) &&
           map(file);
}

bool Window::map(const Descriptor &file) {
    void *mapped = mmap(nullptr, kWindowSize, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (mapped == MAP_FAILED) {
        return false;
    }
    bytes_ = static_cast<uint8_t *>(mapped);
    return true;
}

void Window::unmap() {
    if (isOpen()) {
        (void)munmap(bytes_, kWindowSize);
        bytes_ = nullptr;
    }
}

}  // namespace tamo

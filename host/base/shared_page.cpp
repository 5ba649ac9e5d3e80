/* See shared_page.h. */
#include "host/base/shared_page.h"

#include <errno.h>
#include <sys/shm.h>
#include <unistd.h>

namespace tamo {
namespace {

void *attach(int number, int flags) {
    void *memory = shmat(number, nullptr, flags);
    /* The failure is the largest address, in either pointer width. */
    return memory == reinterpret_cast<void *>(-1) ? nullptr : memory;
}

}  // namespace

void *makeSharedPage(size_t size, int *number) {
    *number = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
    if (*number < 0) {
        return nullptr;
    }
    void *memory = attach(*number, 0);
    const int error = errno;
    (void)shmctl(*number, IPC_RMID, nullptr);
    errno = error;
    return memory;
}

void *joinSharedPage(int number, size_t size, bool readOnly) {
    struct shmid_ds status = {};
    if (shmctl(number, IPC_STAT, &status) != 0 || status.shm_segsz < size ||
        (status.shm_perm.uid != geteuid() && geteuid() != 0)) {
        return nullptr;
    }
    return attach(number, readOnly ? SHM_RDONLY : 0);
}

void leaveSharedPage(const void *memory) {
    (void)shmdt(memory);
}

}  // namespace tamo

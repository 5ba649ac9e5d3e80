/* The table: made at a process's first block, gone at its end, read by others. It lies in a shared
 * page, whose number the table's file tells.
 *
 * A child of fork gets a table of its own, a copy, since it also got the blocks. The copy becomes a
 * file when the child first takes or releases a block, so that a child that only calls exec leaves
 * nothing behind. What a killed process left is removed by the next one that makes a table. */
#include "host/memory/mem_table.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "host/base/descriptor.h"
#include "host/base/device_root.h"
#include "host/base/fork.h"
#include "host/base/log.h"
#include "host/base/shared_page.h"

namespace tamo::memory {

std::atomic<MemTable *> mappedMemTable;

namespace {

constexpr char kUnit[] = "tamo_os_mem";
constexpr char kPrefix[] = "mem.";
constexpr size_t kPrefixLength = sizeof(kPrefix) - 1;

struct FileName {
    char text[24];
};

/* Everything below is changed with the lock held. */
pthread_mutex_t tableLock = PTHREAD_MUTEX_INITIALIZER;
MemTable *inherited; /* a fork's copy that has no file yet */
int tableFile = -1;  /* open for its lock; without it the table is private memory */
int tableDirectory = -1;

/* What the file holds. */
struct TableFile {
    uint32_t magic;
    int32_t number;
};

static_assert(sizeof(TableFile) == 8);

FileName fileName(uint32_t pid) {
    FileName name;
    (void)snprintf(name.text, sizeof(name.text), "%s%u", kPrefix, pid);
    return name;
}

MemTable *mapPrivate() {
    void *memory =
        mmap(nullptr, sizeof(MemTable), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<MemTable *>(memory);
}

/* Keeps the file locked: other processes take an unlocked one for a leftover. */
bool lockFile(int file) {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(file, F_SETLK, &lock) == 0;
}

bool isLocked(int file) {
    struct flock lock = {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(file, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

/* Null, with errno set, when there is no memory or no room on the disk. */
MemTable *fillFile(int file) {
    TableFile content = {kMemTableMagic, -1};
    void *page = makeSharedPage(sizeof(MemTable), &content.number);
    if (page == nullptr) {
        return nullptr;
    }
    errno = ENOSPC;
    if (write(file, &content, sizeof(content)) != ssize_t{sizeof(content)}) {
        leaveSharedPage(page);
        return nullptr;
    }
    return static_cast<MemTable *>(page);
}

MemTable *makeSharedTable(int directory, int *file) {
    const FileName name = fileName(static_cast<uint32_t>(getpid()));
    (void)unlinkat(directory, name.text, 0); /* of an earlier process with this id */
    Descriptor opened(
        openat(directory, name.text, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!opened.isOpen()) {
        return nullptr;
    }
    MemTable *table = lockFile(opened.get()) ? fillFile(opened.get()) : nullptr;
    if (table == nullptr) {
        const int error = errno;
        (void)unlinkat(directory, name.text, 0);
        errno = error;
        return nullptr;
    }
    *file = opened.release();
    return table;
}

/* A claimed site stays unfinished in a child: its thread exists only in the parent. */
void copySites(const MemTable *from, MemTable *to) {
    for (uint32_t i = 0; i < kMemSites; i++) {
        const MemSite &source = from->sites[i];
        if (source.state.load(std::memory_order_acquire) != kMemSiteReady) {
            continue;
        }
        MemSite *copy = &to->sites[i];
        memcpy(copy->file, source.file, sizeof(copy->file));
        copy->line = source.line;
        copy->blocks.value = source.blocks.value.load(std::memory_order_relaxed);
        copy->bytes.value = source.bytes.value.load(std::memory_order_relaxed);
        copy->state = kMemSiteReady;
    }
}

void prepareTable(MemTable *table) {
    MemSite *other = &table->sites[kMemOtherSite];
    memcpy(other->file, "(other)", sizeof("(other)"));
    other->state = kMemSiteReady;
    if (inherited != nullptr) {
        copySites(inherited, table);
        munmap(inherited, sizeof(MemTable));
        inherited = nullptr;
    }
    table->pid = static_cast<uint32_t>(getpid());
    table->magic.store(kMemTableMagic, std::memory_order_release);
}

/* The id of the process that an entry of run/ would be of; 0 when it is no table. */
uint32_t pidOfEntry(const char *name) {
    if (strncmp(name, kPrefix, kPrefixLength) != 0) {
        return 0;
    }
    char *end = nullptr;
    const unsigned long pid = strtoul(name + kPrefixLength, &end, 10);
    return *end == '\0' && pid <= INT32_MAX ? static_cast<uint32_t>(pid) : 0;
}

/* A process that has made its file but not locked it yet is alive; one of another process
 * namespace, which seems dead from here, has its lock. */
bool isLeftover(int directory, const char *name) {
    const uint32_t pid = pidOfEntry(name);
    if (pid == 0 || kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) {
        return false;
    }
    const int file = openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) {
        return false;
    }
    const bool locked = isLocked(file);
    close(file);
    return !locked;
}

void removeLeftovers(int directory) {
    const int opened = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *entries = opened < 0 ? nullptr : fdopendir(opened);
    if (entries == nullptr) {
        return;
    }
    while (const dirent *entry = readdir(entries)) {
        if (isLeftover(directory, entry->d_name)) {
            (void)unlinkat(directory, entry->d_name, 0);
        }
    }
    closedir(entries);
}

void beforeFork() {
    pthread_mutex_lock(&tableLock);
}

void afterForkInParent() {
    pthread_mutex_unlock(&tableLock);
}

void afterForkInChild() {
    MemTable *parents = mappedMemTable.exchange(nullptr);
    if (parents != nullptr) {
        inherited = mapPrivate();
        if (inherited != nullptr) {
            copySites(parents, inherited);
        }
        if (tableFile >= 0) {
            leaveSharedPage(parents);
        } else {
            munmap(parents, sizeof(MemTable));
        }
    }
    if (tableFile >= 0) {
        close(tableFile);
        tableFile = -1;
    }
    pthread_mutex_unlock(&tableLock);
}

__attribute__((constructor)) void watchForks() {
    guardForks(ForkStage::kMemory, {beforeFork, afterForkInParent, afterForkInChild});
}

/* Runs last: the report at the end may still make a table. */
__attribute__((destructor(101))) void removeTable() {
    if (tableFile >= 0) {
        (void)unlinkat(tableDirectory, fileName(static_cast<uint32_t>(getpid())).text, 0);
    }
}

}  // namespace

MemTable *openMemTable() {
    const int directory = rootDirectory("run"); /* records: not with the lock held */
    int error = 0;
    pthread_mutex_lock(&tableLock);
    MemTable *table = mappedMemTable.load(std::memory_order_relaxed);
    if (table == nullptr) {
        tableDirectory = directory;
        if (directory >= 0) {
            removeLeftovers(directory);
            table = makeSharedTable(directory, &tableFile);
            error = table == nullptr ? errno : 0;
        }
        table = table != nullptr ? table : mapPrivate();
        if (table != nullptr) {
            prepareTable(table);
            mappedMemTable.store(table, std::memory_order_release);
        }
    }
    pthread_mutex_unlock(&tableLock);
    if (error != 0) {
        hostRecord(kWarning, kUnit, __LINE__,
                   "run/mem.%u below the device root cannot be made (%s): other processes see "
                   "nothing of this one's memory blocks",
                   static_cast<uint32_t>(getpid()), strerror(error));
    }
    return table;
}

const MemTable *memTable() {
    return ownMemTable();
}

bool readMemTable(uint32_t pid, MemTable *copy) {
    const int directory = rootDirectory("run");
    const Descriptor file(directory < 0 ? -1
                                        : openat(directory, fileName(pid).text,
                                                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    TableFile content = {};
    if (!file.isOpen() || !isLocked(file.get()) ||
        pread(file.get(), &content, sizeof(content), 0) != ssize_t{sizeof(content)} ||
        content.magic != kMemTableMagic) {
        return false;
    }
    const void *page = joinSharedPage(content.number, sizeof(*copy), true);
    if (page == nullptr) {
        return false;
    }
    memcpy(static_cast<void *>(copy), page, sizeof(*copy));
    leaveSharedPage(page);
    return copy->magic == kMemTableMagic && copy->pid == pid;
}

}  // namespace tamo::memory

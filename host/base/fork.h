/* What the host does when its process forks: each subsystem's handlers, in one order.
 *
 * Before a fork every subsystem brings what it shares between threads into a state that a copy can
 * begin with, usually by taking its lock. Only the forking thread goes on in the child, which must
 * not allocate or wait there: it drops what belongs to the parent (threads, connections, subscriptions) and
 * releases the locks.
 *
 * `before` handlers run in the order of the list below, the others in the opposite one. A subsystem
 * stands before all those that it calls with its lock held, so that a fork takes locks in the same
 * order as everybody else. */
#pragma once

namespace tamo {

enum class ForkStage {
    kCertificateWatch, /* starts its thread, and records, under its lock */
    kConfigReports,    /* asks the store under its lock */
    kConfigStore,
    kTimers,      /* their manager records under no lock, but an expiry may start and stop timers */
    kDescriptors, /* the list of descriptors that a child does not keep */
    kLogFile,     /* every other one records */
    kLogLine,
    kMemory, /* everybody takes blocks */
    kDeviceRoot,
    kCount
};

/* Null handlers do nothing. */
struct ForkGuard {
    void (*before)();
    void (*inParent)();
    void (*inChild)();
};

/* Installs the handlers of a stage; once is enough, again changes nothing. */
void guardForks(ForkStage stage, ForkGuard guard);

}  // namespace tamo

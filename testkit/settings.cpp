/* What the test asks of the platform's operations, and what is kept of their calls: failures,
 * replacements, counts and records. */
#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <ostream>

#include "testkit/dispatch.h"

namespace testkit {

using detail::Slot;

namespace {

/* Whatever a test uses of the kit, the table of operations comes out of the archive with it, also where
 * the link line names the host first. */
[[maybe_unused]] const bool *const volatile needsTable = &detail::isTableLinked;

constinit Slot *firstSlot = nullptr;
thread_local constinit int platformDepth = 0;

[[noreturn]] void giveUp(const char *what, const char *name) {
    std::fprintf(stderr, "test kit: %s: %s\n", what, name);
    std::abort();
}

Slot &slotFor(const Operation &operation) {
    const std::string &name = operation.givenName();
    for (Slot *slot = firstSlot; slot != nullptr; slot = slot->following) {
        if (name.empty() ? slot->address == operation.address() : slot->name == name) {
            return *slot;
        }
    }
    giveUp("there is no such platform operation",
           name.empty() ? "a function given by address" : name.c_str());
}

/* Whether the call comes from the module that holds the real platform. */
bool comesFromPlatform(const void *caller) {
    static const dl_find_object module = [] {
        dl_find_object found = {};
        _dl_find_object(dlsym(RTLD_NEXT, "OsMemMallocSetCharMon"), &found);
        return found;
    }();
    return caller >= module.dlfo_map_start && caller < module.dlfo_map_end;
}

void forget(Slot *slot) {
    slot->calls = 0;
    slot->failAt = detail::kNever;
    slot->failed = false;
    void *old = slot->replacement.exchange(nullptr);
    if (old != nullptr) {
        slot->releaseReplacement(old);
    }
}

void setFailure(Slot *slot, uint64_t at) {
    slot->failed = slot->failed && at == detail::kNever;
    slot->failAt = at;
}

struct Capture {
    std::mutex mutex;
    std::vector<Record> records;
    std::atomic<bool> on{false};
};

Capture &capture() {
    static Capture *instance = new Capture; /* records may be written after the end of main */
    return *instance;
}

/* Splits "[function]text" as the library writes it. */
void splitText(const char *text, Record *record) {
    const char *end = text[0] == '[' ? std::strchr(text, ']') : nullptr;
    const auto isOfName = [](char c) {
        return std::strchr("_:~<>()", c) != nullptr || (c >= 'a' && c <= 'z') ||
               (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    };
    if (end != nullptr && end > text + 1 && std::all_of(text + 1, end, isOfName)) {
        record->function.assign(text + 1, end);
        text = end + 1;
    }
    record->text = text;
}

Reporter &reporter() {
    static Reporter *instance = new Reporter;
    return *instance;
}

void clearAll() {
    for (Slot *slot = firstSlot; slot != nullptr; slot = slot->following) {
        forget(slot);
    }
    clearRecords();
    detail::forgetBlocks();
}

}  // namespace

namespace detail {

Entry::Entry(Slot *slot, const char *name, const void *address) {
    slot->name = name;
    slot->address = address;
    slot->following = firstSlot;
    firstSlot = slot;
}

PlatformDepth::PlatformDepth(bool inside) : before_(platformDepth) {
    platformDepth = inside ? before_ + 1 : 0;
}

PlatformDepth::~PlatformDepth() {
    platformDepth = before_;
}

Verdict judge(Slot *slot, const void *caller) {
    if (platformDepth > 0 || comesFromPlatform(caller)) {
        return Verdict::kPlatformsOwn;
    }
    const uint64_t number = slot->calls.fetch_add(1, std::memory_order_relaxed) + 1;
    const uint64_t failAt = slot->failAt.load(std::memory_order_relaxed);
    if (failAt == kAlways || failAt == number) {
        slot->failed.store(true, std::memory_order_relaxed);
        return Verdict::kFail;
    }
    const bool replaced = slot->replacement.load(std::memory_order_relaxed) != nullptr;
    return replaced ? Verdict::kReplace : Verdict::kForward;
}

void *resolve(Slot *slot, const char *name) {
    void *next = slot->next.load(std::memory_order_relaxed);
    if (next == nullptr) {
        next = dlsym(RTLD_NEXT, name);
        if (next == nullptr) {
            giveUp("no platform library of this program has this operation", name);
        }
        slot->next.store(next, std::memory_order_relaxed);
    }
    return next;
}

bool captureRecord(uint8_t level, uint16_t logFileId, const char *unit, int32_t line,
                   const char *text) {
    Capture &state = capture();
    if (!state.on.load(std::memory_order_relaxed)) {
        return true;
    }
    Record record = {level, logFileId, {}, unit != nullptr ? unit : "", line, {}};
    splitText(text, &record);
    const std::lock_guard lock(state.mutex);
    state.records.push_back(std::move(record));
    return false;
}

void setReplacement(const Operation &operation, void *function, void (*releaseIt)(void *)) {
    Slot &slot = slotFor(operation);
    void *old = slot.replacement.exchange(function);
    if (old != nullptr) {
        slot.releaseReplacement(old);
    }
    slot.releaseReplacement = releaseIt;
}

void *realDefinition(const Operation &operation) {
    Slot &slot = slotFor(operation);
    return resolve(&slot, slot.name);
}

void reportFault(const std::string &fault) {
    if (!reporter().fault) {
        giveUp("the test fails", fault.c_str());
    }
    reporter().fault(fault);
}

std::shared_ptr<void> beginStep(const std::string &text) {
    return reporter().step ? reporter().step(text) : nullptr;
}

}  // namespace detail

const char *Operation::name() const {
    return slotFor(*this).name;
}

void failCall(const Operation &operation, uint64_t n) {
    Slot &slot = slotFor(operation);
    setFailure(&slot, n == 0 ? detail::kNever : slot.calls + n);
}

void failEveryCall(const Operation &operation) {
    setFailure(&slotFor(operation), detail::kAlways);
}

bool failureReached(const Operation &operation) {
    return slotFor(operation).failed;
}

uint64_t callCount(const Operation &operation) {
    return slotFor(operation).calls;
}

std::string Record::whole() const {
    return function.empty() ? text : '[' + function + ']' + text;
}

std::ostream &operator<<(std::ostream &out, const Record &record) {
    return out << "level " << int{record.level} << ' ' << record.unit << ':' << record.line << ' '
               << record.whole();
}

std::vector<Record> records() {
    const std::lock_guard lock(capture().mutex);
    return capture().records;
}

void clearRecords() {
    const std::lock_guard lock(capture().mutex);
    capture().records.clear();
}

bool hasRecord(uint8_t level, std::string_view unit, std::string_view part) {
    const auto all = records();
    return std::any_of(all.begin(), all.end(), [&](const Record &each) {
        return each.level == level && each.unit == unit &&
               each.whole().find(part) != std::string::npos;
    });
}

void reset() {
    clearAll();
    capture().on = true;
}

void release() {
    clearAll();
    capture().on = false;
}

void setReporter(Reporter newReporter) {
    reporter() = std::move(newReporter);
}

}  // namespace testkit

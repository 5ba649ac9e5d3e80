/* Inside the forwarding platform: the state of one operation and the decision on one call. */
#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <utility>

namespace platform::detail {

/* Plain atomics, relaxed: a lock here would order the library's threads and so hide their races
 * from the thread sanitizer. */
struct Slot {
    std::atomic<uint64_t> calls{0};
    std::atomic<uint64_t> failAt{0}; /* the number of the call that fails; kNever, kAlways */
    std::atomic<bool> failed{false};
    std::atomic<void *> replacement{nullptr};
    std::atomic<void *> next{nullptr};
    void (*releaseReplacement)(void *) = nullptr;
};

constexpr uint64_t kNever = 0;
constexpr uint64_t kAlways = UINT64_MAX;

/* One per operation, without a constructor to run: the platform may be called before any. */
template <auto Operation>
inline constinit Slot slotOf{};

enum class Verdict { kForward, kFail, kReplace, kPlatformsOwn };

/* Counts a call and says what becomes of it. `caller` is the address it returns to. */
Verdict judge(Slot &slot, const void *caller);

/* The next definition of the operation that lies at `operation` in this program. */
void *resolve(Slot &slot, const void *operation);

/* Calls that the real platform makes within this scope are its own. */
class InsidePlatform {
  public:
    InsidePlatform() { ++depth; }
    ~InsidePlatform() { --depth; }
    InsidePlatform(const InsidePlatform &) = delete;
    InsidePlatform &operator=(const InsidePlatform &) = delete;
    static thread_local int depth;
};

template <auto Operation>
auto realOperation() {
    void *next = resolve(slotOf<Operation>, reinterpret_cast<const void *>(Operation));
    return reinterpret_cast<decltype(Operation)>(next);
}

/* What a definition in this program does: `fail` gives the contract's failure, `real` calls the
 * real platform; a replacement gets `arguments`. */
template <auto Operation, typename Fail, typename Real, typename... Arguments>
auto dispatch(const void *caller, Fail fail, Real real, Arguments... arguments) {
    using Result = decltype(real(Verdict::kForward));
    Slot &slot = slotOf<Operation>;
    const Verdict verdict = judge(slot, caller);
    if (verdict == Verdict::kFail) {
        return static_cast<Result>(fail());
    }
    if (verdict == Verdict::kReplace) {
        const auto *function =
            static_cast<const std::function<Result(Arguments...)> *>(slot.replacement.load());
        return (*function)(arguments...);
    }
    const InsidePlatform inside;
    return real(verdict);
}

/* The same for the operations that have no variable arguments. */
template <auto Operation, typename Fail, typename... Arguments>
auto forward(const void *caller, Fail fail, Arguments... arguments) {
    return dispatch<Operation>(
        caller, fail, [&](Verdict) { return realOperation<Operation>()(arguments...); },
        arguments...);
}

/* The failures of most operations. */
constexpr auto kNull = [] { return nullptr; };
constexpr auto kOne = [] { return 1; };
constexpr auto kCannotFail = [] { return 0; };

/* The caller of a definition. */
#define CALLER __builtin_extract_return_addr(__builtin_return_address(0))

/* Keeps one record; true when it goes to the real log too. */
bool captureRecord(uint8_t level, uint16_t logFileId, const char *unit, int32_t line,
                   const char *text);

void blockTaken();
void blockReleased();

}  // namespace platform::detail

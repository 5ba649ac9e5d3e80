/* The test kit: a platform that a test can replace, call by call, for whoever tests a module of the
 * conference library.
 *
 * 1. A program that links conference_common::testkit defines every platform operation itself. Each call
 *    goes on to the workstation host, unless the test makes it fail, replaces it, or moves the clock or
 *    plays the peer that it is about. The library and the module cannot tell the difference.
 * 2. Calls of the library, the module and the test count. What the host calls for itself does not
 *    count, does not fail and is not replaced. Memory is accounted for all of them.
 * 3. Any thread may make calls. The test changes settings while no other thread is in the library.
 * 4. A fault, such as a message that a peer did not expect, is reported: to GoogleTest where
 *    conference_testkit_gtest.h is included, else to standard error, and the program ends.
 * 5. Programs are C++17 or later. The kit is for tests: nothing of it exists on a terminal.
 *
 *     testkit::reset();
 *     testkit::failCall(OsMemMallocSetCharMon, 1);
 *     assert(ConfCommMsgSynSend("Audio", setVolume, 80, nullptr, 0) == CONF_COMM_ERR_FAILED);
 *     assert(testkit::hasRecord(CONF_LOG_ERROR, "conf_msg_api", "Null ptr."));
 *     assert(testkit::outstanding() == 0);
 */
#pragma once
#include <bounds_checked.h>
#include <conf_msg_api.h>
#include <ip_helper.h>
#include <tamo_common.h>
#include <tamo_conference_sslex.h>
#include <tamo_om_cert_client.h>
#include <tamo_om_config_client.h>
#include <tamo_om_cust_util.h>
#include <tamo_om_devm_client.h>
#include <tamo_om_keym_client.h>
#include <tamo_om_log_client.h>
#include <tamo_os_file.h>
#include <tamo_os_lock.h>
#include <tamo_os_mem.h>
#include <tamo_os_msg.h>
#include <tamo_os_signal.h>
#include <tamo_os_time.h>
#include <tamo_os_timer.h>
#include <tamo_socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace testkit {

/* ---- failing and counting calls ---- */

/* A platform operation: the function itself, or its name. Converted to from both. */
class Operation {
  public:
    /* The name is checked when the operation is used. */
    Operation(const char *name) : name_(name) {}
    Operation(std::string name) : name_(std::move(name)) {}

    template <typename Result, typename... Arguments>
    Operation(Result (*function)(Arguments...))
        : address_(reinterpret_cast<const void *>(function)) {}

    template <typename Result, typename... Arguments>
    Operation(Result (*function)(Arguments..., ...))
        : address_(reinterpret_cast<const void *>(function)) {}

    /* The operation's name. A fault when no such operation exists. */
    const char *name() const;

    const std::string &givenName() const { return name_; } /* or empty */
    const void *address() const { return address_; }

  private:
    std::string name_;
    const void *address_ = nullptr;
};

/* Makes the n-th call from now fail (1: the next), once, the way the operation's contract says; it
 * does not reach the host. 0: none. Replaces an earlier setting for the operation. */
void failCall(const Operation &operation, uint64_t n);

/* Makes every call from now fail. */
void failEveryCall(const Operation &operation);

/* Whether a call has failed by one of these settings since the last reset. */
bool failureReached(const Operation &operation);

/* Calls since the last reset, failed and replaced ones included. */
uint64_t callCount(const Operation &operation);

/* ---- replacing operations ---- */

namespace detail {

template <typename Type>
struct Identity {
    using type = Type;
};

void setReplacement(const Operation &operation, void *function, void (*release)(void *));
void *realDefinition(const Operation &operation);

template <typename Function>
void setTyped(const Operation &operation, Function function) {
    setReplacement(operation, new Function(std::move(function)),
                   [](void *held) { delete static_cast<Function *>(held); });
}

}  // namespace detail

/* Calls `replacement` in place of an operation from now to the next reset:
 * testkit::replace(OsMutexLock, [](OsMutex *) { return 1u; }). */
template <typename Result, typename... Arguments>
void replace(Result (*operation)(Arguments...),
             typename detail::Identity<std::function<Result(Arguments...)>>::type replacement) {
    detail::setTyped(operation, std::move(replacement));
}

/* The same for operations that print: the replacement gets the finished text in place of the
 * format. */
template <typename Result, typename... Arguments>
void replace(Result (*operation)(Arguments..., ...),
             typename detail::Identity<std::function<Result(Arguments...)>>::type replacement) {
    detail::setTyped(operation, std::move(replacement));
}

/* The host's definition, for a replacement that wants to call it. */
template <typename Function>
Function *real(Function *operation) {
    return reinterpret_cast<Function *>(detail::realDefinition(operation));
}

/* ---- log records ---- */

/* One record that the library, the module or the test wrote. */
struct Record {
    uint8_t level; /* CONF_LOG_ERROR and so on */
    uint16_t logFileId;
    std::string function; /* empty for a record that names none */
    std::string unit;
    int32_t line;
    std::string text; /* without the function's name */

    /* "[function]text", as it stands in a log file. */
    std::string whole() const;
};
std::ostream &operator<<(std::ostream &out, const Record &record);

/* The records since the last reset or clearRecords, oldest first. They are kept from the first reset
 * on, and do not go to the log file meanwhile. */
std::vector<Record> records();
void clearRecords();

/* Whether a record of `unit` at `level` contains `part` in "[function]text". */
bool hasRecord(uint8_t level, std::string_view unit, std::string_view part);

/* ---- memory ---- */

/* Blocks taken and not released since the last reset; negative when more were released. */
int64_t outstanding();

/* A block of monitored memory that has not been released, and the statement that took it. */
struct Block {
    const void *address;
    size_t size;
    std::string unit; /* its first 47 characters */
    uint32_t line;
};
std::ostream &operator<<(std::ostream &out, const Block &block);

/* The blocks taken since the last reset and not released, in the order of their addresses. Of more
 * than about 60,000 at a time some are counted only. */
std::vector<Block> outstandingBlocks();

/* ---- a clean start ---- */

/* Forgets failures, replacements, counts, records and blocks, and keeps records from now on. Clocks
 * and peers stay. */
void reset();

/* The same, and records go to the log file again. */
void release();

/* ---- faults ---- */

/* Where the kit reports what makes a test fail. */
struct Reporter {
    /* Called with each fault. */
    std::function<void(const std::string &fault)> fault;
    /* What it returns lives as long as the step that `text` describes. May be empty. */
    std::function<std::shared_ptr<void>(const std::string &text)> step;
};
void setReporter(Reporter reporter);

namespace detail {
void reportFault(const std::string &fault);
std::shared_ptr<void> beginStep(const std::string &text);
}  // namespace detail

/* Runs `setup`, makes the n-th call of an operation fail, and runs `call`, for n = 1, 2, ... until
 * `call` ends without having reached the failure. After each failure `check(n, result)` judges the
 * result; then nothing that `call` and `check` took may be outstanding. What `call` returns when
 * all went well is given to `succeeded`, to judge and to release it. It is a fault when the operation
 * was never called. Returns the number of failures. */
template <typename Setup, typename Call, typename Check, typename Succeeded>
uint64_t forEachFailure(const Operation &operation, Setup setup, Call call, Check check,
                        Succeeded succeeded) {
    constexpr uint64_t kLimit = 10000;
    for (uint64_t n = 1; n <= kLimit; ++n) {
        const auto step = detail::beginStep(std::string("call ") + std::to_string(n) + " of " +
                                            operation.name() + " fails");
        reset();
        setup();
        clearRecords();
        const int64_t before = outstanding();
        failCall(operation, n);
        auto result = call();
        const bool failed = failureReached(operation);
        failCall(operation, 0);
        if (failed) {
            check(n, result);
        } else {
            succeeded(result);
        }
        if (outstanding() != before) {
            detail::reportFault("blocks were left, or released twice: " +
                                std::to_string(outstanding() - before));
        }
        if (!failed) {
            if (n == 1) {
                detail::reportFault(std::string(operation.name()) +
                                    ": the operation was never called");
            }
            return n - 1;
        }
    }
    detail::reportFault(std::string(operation.name()) + " is called without end");
    return kLimit;
}

template <typename Setup, typename Call, typename Check>
uint64_t forEachFailure(const Operation &operation, Setup setup, Call call, Check check) {
    return forEachFailure(operation, setup, call, check, [](const auto &) {});
}

/* ---- a clock that the test moves ---- */

/* While it lives, the platform's time stands still and no timer expires, until the test moves the
 * clock. One at a time; stop what timers it started before it goes.
 *
 *     testkit::ManualClock clock;
 *     ConfTimerStart(&reminder, 60000, 0, nullptr, 0);
 *     clock.advance(std::chrono::minutes(1));  // the reminder has been sent when this returns
 */
class ManualClock {
  public:
    /* Begins at a time in seconds since 1970; the default is noon of the 1st of January 2026, UTC. */
    explicit ManualClock(int64_t start = 1767268800);
    ~ManualClock();
    ManualClock(const ManualClock &) = delete;
    ManualClock &operator=(const ManualClock &) = delete;

    /* Lets time pass. Timers that are due meanwhile expire one after the other, on this thread, in
     * the order of their due times and of their creation, each at its own time; so do those that an
     * expiry starts. Returns the number of expiries. */
    uint64_t advance(std::chrono::milliseconds span);

    /* Lets time pass until the next timer has expired; false when there is none. */
    bool advanceToNextExpiry();

    /* Time that has passed since the clock was made. */
    std::chrono::milliseconds elapsed() const;

    /* Timers that will expire. */
    size_t timers() const;
};

/* ---- a peer that follows a script ---- */

/* A message that a peer was sent. */
struct Message {
    ConfMsgHandler handler;
    uint32_t param;
    std::string data;
    bool waits; /* the sender waits for the answer */
};
std::ostream &operator<<(std::ostream &out, const Message &message);

/* The bytes of a plain record, as message data. */
template <typename Plain>
std::string bytesOf(const Plain &record) {
    return std::string(reinterpret_cast<const char *>(&record), sizeof(record));
}

/* One message that a peer expects and what it does when it comes. Says of itself nothing but: any
 * parameter and data, once, answered with the result 0 and the data that came. */
class Expectation {
  public:
    /* Answers with a result, and with other data than came. */
    Expectation &answer(uint32_t result);
    Expectation &answer(uint32_t result, std::string data);

    /* Answers a message block (ConfCommMsgSynSendImplHaveResp) with a result and a result list of
     * these bytes, which becomes the sender's. */
    Expectation &answerList(uint32_t result, std::string list);

    /* Runs the message's own handler, or `function` in its place, on the data that came, as a real
     * receiver does, and answers with the result and the changed data. On the sender's thread. */
    Expectation &run();
    Expectation &run(
        std::function<uint32_t(uint32_t param, void *data, uint32_t dataLength)> function);

    /* Never answers. A sender that waits is told at once that its time has run out. */
    Expectation &staySilent();

    /* Dies while it has the message: a waiting sender is told so, and from then on nobody serves the
     * name, until Peer::revive. */
    Expectation &die();

    /* Comes `count` times in a row. */
    Expectation &times(unsigned count);

  private:
    friend class Peer;
    enum class Act { kAnswer, kRun, kStaySilent, kDie };
    ConfMsgHandler handler_ = nullptr;
    bool anyParam_ = true, anyData_ = true;
    uint32_t param_ = 0;
    std::string data_;
    unsigned left_ = 1;
    Act act_ = Act::kAnswer;
    uint32_t result_ = 0;
    bool hasAnswerData_ = false, hasList_ = false;
    std::string answerData_, list_;
    std::function<uint32_t(uint32_t, void *, uint32_t)> function_;
};

/* The other side of the module's messages: while it lives, what is sent to its name comes here instead
 * of to a process, on the sender's own thread, and is compared with the script. Messages come in the
 * script's order; one that the script does not expect is a fault and is refused, and so is a script of
 * which something is left when the peer goes.
 *
 *     testkit::Peer audio("Audio");
 *     audio.expect(setVolume, 80).answer(1);
 *     assert(ConfCommMsgSynSend("Audio", setVolume, 80, nullptr, 0) == 1);
 */
class Peer {
  public:
    /* A name of 1 to 15 characters that no other peer has. */
    explicit Peer(const char *name);
    ~Peer();
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    /* Adds a message to the script: with this handler (null: any), and with this parameter and these
     * bytes where they are given. The result is valid until the peer goes. */
    Expectation &expect(ConfMsgHandler handler);
    Expectation &expect(ConfMsgHandler handler, uint32_t param);
    Expectation &expect(ConfMsgHandler handler, uint32_t param, std::string data);

    /* Stops serving the name: every sender is told that nobody serves it. */
    void die();
    void revive();

    /* What came so far, unexpected messages included. */
    std::vector<Message> received() const;

    /* Whether everything that the script expects has come. */
    bool done() const;

    /* Waits until it has, for messages that other threads send; false when it has not in time. */
    bool waitUntilDone(std::chrono::milliseconds limit) const;

    /* For the kit's platform operations: takes a message, and hands out the answer when the sender
     * waits for one. The result is that of the operation. */
    uint32_t take(const OsMsgHeader &header, OsMsgHeader **answer);

  private:
    struct State;
    std::unique_ptr<State> state_;
};

/* ---- a scratch device root ---- */

/* A fresh directory of mode 0700 below $TMPDIR or /tmp, removed with its contents by the
 * destructor. */
class ScratchDirectory {
  public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory &) = delete;
    ScratchDirectory &operator=(const ScratchDirectory &) = delete;

    const std::string &path() const { return path_; }

  private:
    std::string path_;
    int owner_; /* the process that removes it */
};

/* A device root of the program's own: TAMO_DEVICE_ROOT names it from now on, also for child processes.
 * Made before the first call of the library, for instance as a constant of the file or by main; a
 * process keeps the root that it used first. A process that is killed leaves its root behind. */
class ScratchRoot {
  public:
    ScratchRoot();
    ~ScratchRoot();

    /* The host's path of a device path such as "/data/level.xml"; without one, the root itself. */
    std::string path(std::string_view devicePath = "") const;

    /* Writes a file of the device, and the folders above it, and reads one; a missing one is empty. */
    void write(std::string_view devicePath, std::string_view contents) const;
    std::string read(std::string_view devicePath) const;

  private:
    ScratchDirectory directory_;
};

}  // namespace testkit

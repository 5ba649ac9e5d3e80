/* The platform as a test wants it. The test program defines every platform operation; each forwards
 * to the next definition, the real platform's, unless the test replaces it or makes its n-th call
 * fail the way the operation's contract says. The library cannot tell the difference.
 *
 * 1. Calls by the library and by the test count; what the real platform calls for itself does not,
 *    and always reaches the real platform. Memory is accounted for both.
 * 2. A failed operation does not reach the real platform.
 * 3. Calls may come from any thread; settings are changed while no thread is in the library. */
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/bounds_checked.h"
#include "platform/ip_helper.h"
#include "platform/tamo_common.h"
#include "platform/tamo_conference_sslex.h"
#include "platform/tamo_om_cert_client.h"
#include "platform/tamo_om_config_client.h"
#include "platform/tamo_om_cust_util.h"
#include "platform/tamo_om_devm_client.h"
#include "platform/tamo_om_keym_client.h"
#include "platform/tamo_om_log_client.h"
#include "platform/tamo_os_file.h"
#include "platform/tamo_os_lock.h"
#include "platform/tamo_os_mem.h"
#include "platform/tamo_os_msg.h"
#include "platform/tamo_os_signal.h"
#include "platform/tamo_os_time.h"
#include "platform/tamo_os_timer.h"
#include "platform/tamo_socket.h"

namespace platform {

/* ---- failing calls, by the operation's name ---- */

/* The n-th call from now fails (1: the next), once; 0: none. Replaces an earlier setting for the
 * operation. */
void failCall(std::string_view operation, uint64_t n);

/* Every call from now fails. */
void failEveryCall(std::string_view operation);

/* Did a call fail by one of these settings? */
bool failureReached(std::string_view operation);

/* Calls since the last reset, failed and replaced ones included. */
uint64_t callCount(std::string_view operation);

/* ---- replacing operations ---- */

namespace detail {
void setReplacement(const void *operation, void *function, void (*release)(void *));
void *nextDefinition(const void *operation);

template <typename Function>
void setTyped(const void *operation, Function function) {
    setReplacement(operation, new Function(std::move(function)),
                   [](void *held) { delete static_cast<Function *>(held); });
}
}  // namespace detail

/* Calls `replacement` in place of an operation: platform::override(OsMutexLock, [](OsMutex *) ...).
 */
template <typename Result, typename... Arguments>
void override(Result (*operation)(Arguments...),
              std::type_identity_t<std::function<Result(Arguments...)>> replacement) {
    detail::setTyped(reinterpret_cast<const void *>(operation), std::move(replacement));
}

/* The same for operations that print: the replacement gets the finished text in place of the
 * format. */
template <typename Result, typename... Arguments>
void override(Result (*operation)(Arguments..., ...),
              std::type_identity_t<std::function<Result(Arguments...)>> replacement) {
    detail::setTyped(reinterpret_cast<const void *>(operation), std::move(replacement));
}

/* The real platform's definition, for a replacement that wants it. */
template <typename Function>
Function *next(Function *operation) {
    return reinterpret_cast<Function *>(
        detail::nextDefinition(reinterpret_cast<const void *>(operation)));
}

/* ---- log records ---- */

/* One record that the library or the test wrote. */
struct Record {
    uint8_t level;
    uint16_t logFileId;
    std::string unit;
    int32_t line;
    std::string text;
};
std::ostream &operator<<(std::ostream &out, const Record &record);

/* The records since the last reset or clearRecords. Kept only in a PlatformTest. */
std::vector<Record> records();
void clearRecords();

/* Is there a record of `unit` at `level` whose text contains `part`? */
bool hasRecord(uint8_t level, std::string_view unit, std::string_view part);

/* ---- memory ---- */

/* Blocks taken and not released since the last reset, negative when more were released. */
int64_t outstanding();

/* ---- a clean start ---- */

/* Forgets settings, counts, records and blocks; captures records from now on. */
void reset();

/* Undoes everything: the program sees the real platform. */
void release();

/* Runs `setup`, makes the n-th call of an operation fail, and runs `call`, for n = 1, 2, ... until
 * `call` ends without having reached the failure. After each failure `check(n, result)` judges the
 * result; then nothing that `call` and `check` took may be outstanding. What `call` returns when
 * all went well is given to `succeeded`, to judge and to release it. The test fails when the
 * operation was never called. Returns the number of failures. */
template <typename Setup, typename Call, typename Check, typename Succeeded>
uint64_t forEachFailure(std::string_view operation, Setup setup, Call call, Check check,
                        Succeeded succeeded) {
    constexpr uint64_t kLimit = 10000;
    for (uint64_t n = 1; n <= kLimit; ++n) {
        const testing::ScopedTrace trace(__FILE__, __LINE__,
                                         std::string(operation) + ", call " + std::to_string(n));
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
        EXPECT_EQ(outstanding(), before) << "blocks were left, or released twice";
        if (!failed) {
            EXPECT_GT(n, 1u) << "the operation was never called";
            return n - 1;
        }
    }
    ADD_FAILURE() << operation << " is called without end";
    return kLimit;
}

template <typename Setup, typename Call, typename Check>
uint64_t forEachFailure(std::string_view operation, Setup setup, Call call, Check check) {
    return forEachFailure(operation, setup, call, check, [](const auto &) {});
}

/* Base of fixtures: each test begins with a reset platform, and fails when it leaves blocks. */
class PlatformTest : public testing::Test {
  protected:
    void SetUp() override { reset(); }
    void TearDown() override;

    /* For a test that knows why blocks stay. */
    void allowOutstandingBlocks() { blocksMayStay_ = true; }

  private:
    bool blocksMayStay_ = false;
};

}  // namespace platform

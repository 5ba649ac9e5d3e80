/* See example_module.h. */
#include "example_module.h"

#include <conf_log_adapter.h>
#include <conf_msg_api.h>
#include <conf_timer.h>

namespace {

constexpr uint32_t kAttempts = 3, kPauseMs = 5000, kMinuteMs = 60000, kTimerId = 1;

ConfTimer timer;

bool startTimer(uint32_t durationMs, uint32_t attempt, const void *title, uint32_t length) {
    return ConfTimerStart(&timer, durationMs, attempt, title, length) == 0;
}

/* The handler that the module's own message loop runs when the time has come. */
uint32_t remind(uint32_t attempt, void *title, uint32_t length) {
    ConfTimerStop(&timer);
    if (ConfCommMsgSynSend("Display", showTitle, attempt, title, length) == 0) {
        return 0;
    }
    if (attempt == kAttempts || !startTimer(kPauseMs, attempt + 1, title, length)) {
        ConfLogPrintf(CONF_LOG_ERROR, __func__, "reminder", __LINE__,
                      "nobody was reminded, attempt %u was the last", attempt);
        return 1;
    }
    return 0;
}

}  // namespace

uint32_t showTitle(uint32_t, void *, uint32_t) {
    return 0; /* a display would draw it */
}

bool scheduleReminder(const std::string &title, uint32_t minutes) {
    cancelReminder();
    if (ConfTimerInit(&timer, kTimerId, CONF_TIMER_ONE_SHOT, kReminderQueue, remind) != 0 ||
        !startTimer(minutes * kMinuteMs, 1, title.data(), static_cast<uint32_t>(title.size()))) {
        cancelReminder();
        ConfLogPrintf(CONF_LOG_ERROR, __func__, "reminder", __LINE__, "there will be no reminder");
        return false;
    }
    return true;
}

void cancelReminder() {
    if (ConfTimerIsVaild(&timer)) {
        ConfTimerStop(&timer);
    }
}

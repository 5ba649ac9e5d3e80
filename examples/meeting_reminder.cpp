/* Meeting reminders: timers of one process that speak up in another.
 *
 *     example_meeting_reminder
 *
 * plays a morning in two seconds (a minute takes 20 ms). The program starts itself once more, as the
 * display, and is the reminder process itself:
 *
 *     reminder process                         display process
 *     timers: a clock, two meetings  --->      a message loop: ConfCommMsgProcess runs
 *     an expiry is a message                   the expiry's handler there, which prints
 *
 * It shows table timers and timer objects, one-shot and periodic; new data for a running timer; a timer
 * that starts again after it has fired; and one that is stopped in time. At the end it asks the display
 * what arrived; the exit code is 1 when that is not as it should be.
 */
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "conf_log_adapter.h"
#include "conf_msg_api.h"
#include "conf_timer.h"
#include "tamo_host.h"

namespace {

constexpr const char *kDisplay = "Display"; /* the queue that the display process serves */
constexpr uint32_t kMinute = 20;            /* milliseconds */

/* What travels with a reminder: a plain record, copied when the timer starts. */
struct Meeting {
    char title[32];
    char room[16];
};

/* What the display has seen; it travels back in the answer to askDisplay. */
struct Seen {
    uint32_t clock, first, again, begins, cancelled;
    char room[16]; /* of the meeting that began */
};

/* ---- handlers: they run in the display process ----
 *
 * Each gets the parameter and the data that its timer was started with. Both processes run this
 * program, so that both know these functions. */

Seen seen = {};
bool serving = true;

uint32_t showClock(uint32_t everyMinutes, void *, uint32_t) {
    seen.clock++;
    printf("[display]   %2u minutes\n", seen.clock * everyMinutes);
    return 0;
}

uint32_t showReminder(uint32_t minutes, void *data, uint32_t dataLength) {
    Meeting meeting = {};
    if (dataLength != sizeof(meeting)) {
        return 1;
    }
    memcpy(&meeting, data, sizeof(meeting));
    if (strcmp(meeting.title, "budget") == 0) {
        seen.cancelled++;
    } else if (minutes == 0) {
        seen.begins++;
        memcpy(seen.room, meeting.room, sizeof(seen.room));
    } else {
        (minutes == 10 ? seen.first : seen.again)++;
    }
    printf("[display]      \"%s\" in %u minutes, room %s\n", meeting.title, minutes, meeting.room);
    return 0;
}

/* The result of a handler goes back to a sender that waits. */
uint32_t hasBegun(uint32_t, void *, uint32_t) {
    return seen.begins > 0 ? 1 : 0;
}

uint32_t tellSeen(uint32_t, void *data, uint32_t dataLength) {
    if (dataLength == sizeof(seen)) {
        memcpy(data, &seen, sizeof(seen));
    }
    serving = false;
    return 0;
}

/* ---- the display process ---- */

int display() {
    TamoHostQueue *queue = nullptr;
    if (TamoHostMsgOpen(kDisplay, &queue) != TAMO_HOST_OK) {
        fprintf(stderr, "the queue \"%s\" cannot be served: tamoctl log tells why\n", kDisplay);
        return 1;
    }
    OsMsgHeader *message = nullptr;
    while (serving && TamoHostMsgReceive(queue, &message, -1) == TAMO_HOST_OK) {
        ConfCommMsgProcess(message);
        TamoHostMsgFree(message);
    }
    TamoHostMsgClose(queue);
    return 0;
}

/* This program once more, with an argument that makes it the display. */
pid_t startDisplay(char *program) {
    char role[] = "display";
    char *arguments[] = {program, role, nullptr};
    pid_t pid = 0;
    return posix_spawnp(&pid, program, nullptr, nullptr, arguments, environ) == 0 ? pid : 0;
}

/* ---- the reminder process ---- */

/* Table timers: what a program always has. Each line says which number starts it, how often it expires,
 * after which time when the start names none, and who then runs what. */
enum : uint32_t { kClock = 1, kMeetingBegins };

ConfCommTimerEntry timers[] = {
    {kClock, 0, 15 * kMinute, kDisplay, showClock, 0, 0, nullptr, 0},
    {kMeetingBegins, CONF_TIMER_ONE_SHOT, 0, kDisplay, showReminder, 0, 0, nullptr, 0},
};

void runMorning() {
    Meeting review = {"design review", "4.12"};
    Meeting budget = {"budget", "2.01"};

    printf("[reminder] the clock is a periodic table timer: it tells every 15 minutes\n");
    ConfCommTimerStart(kClock, 15, nullptr, 0);

    printf("[reminder] the review begins in 60 minutes: a one-shot table timer\n");
    ConfCommTimerStartEx(kMeetingBegins, 60 * kMinute, 0, &review, sizeof(review));

    // Timer objects: for what comes and goes. They begin as zero.
    ConfTimer reminder = {};
    ConfTimer other = {};
    ConfTimerInit(&reminder, 1, CONF_TIMER_ONE_SHOT, kDisplay, showReminder);
    ConfTimerInit(&other, 2, CONF_TIMER_ONE_SHOT, kDisplay, showReminder);
    printf(
        "[reminder] reminders 10 minutes before it and before the budget meeting: two objects\n");
    ConfTimerStart(&reminder, 50 * kMinute, 10, &review, sizeof(review));
    ConfTimerStart(&other, 70 * kMinute, 10, &budget, sizeof(budget));

    usleep(20 * kMinute * 1000);
    printf("[reminder] the review moves to another room: new data for timers that run on\n");
    strcpy(review.room, "1.07");
    ConfTimerStart(&reminder, 0, 10, &review, sizeof(review));
    ConfCommTimerStart(kMeetingBegins, 0, &review, sizeof(review));

    printf("[reminder] the budget meeting is cancelled: its reminder stops\n");
    ConfTimerStop(&other);

    const auto awaitReminder = [&reminder] {
        while (ConfTimerIsVaild(&reminder)) {
            usleep(kMinute * 1000);
        }
    };
    awaitReminder();
    printf("[reminder] it has fired, and starts again: once more in 5 minutes\n");
    ConfTimerStart(&reminder, 5 * kMinute, 5, &review, sizeof(review));
    awaitReminder();

    while (ConfCommMsgSynSend(kDisplay, hasBegun, 0, nullptr, 0) == 0) {
        usleep(kMinute * 1000);
    }
    // Whoever starts a timer stops it: that releases its data too.
    ConfTimerStop(&reminder);
}

/* Asks the display, whose answer comes after all that was sent before. */
bool isAsExpected() {
    Seen answer = {};
    if (ConfCommMsgSynSend(kDisplay, tellSeen, 0, &answer, sizeof(answer)) != 0) {
        printf("[reminder] the display does not answer (tamoctl log may tell why)\n");
        return false;
    }
    printf(
        "[reminder] the display saw the clock %u times, reminders %u + %u, beginnings %u in %s, "
        "and %u of the cancelled meeting\n",
        answer.clock, answer.first, answer.again, answer.begins, answer.room, answer.cancelled);
    return answer.clock >= 3 && answer.first == 1 && answer.again == 1 && answer.begins == 1 &&
           answer.cancelled == 0 && strcmp(answer.room, "1.07") == 0;
}

int remind(char *program) {
    const pid_t child = startDisplay(program);
    if (child == 0) {
        fprintf(stderr, "the display process does not start\n");
        return 1;
    }
    // An expiry is sent without waiting, so that its receiver has to be there. A synchronous message
    // waits for it.
    ConfCommMsgSynSend(
        kDisplay, [](uint32_t, void *, uint32_t) { return 0U; }, 0, nullptr, 0);

    // Once, at start-up: the timer service gets the table, which stays the program's.
    bool good = ConfCommTimerInit(timers, sizeof(timers) / sizeof(timers[0])) == 0;
    if (good) {
        runMorning();
        // Stops every table timer.
        ConfCommTimerDeInit();
    }
    good = isAsExpected() && good;
    if (!good) {
        kill(child, SIGTERM);
    }
    waitpid(child, nullptr, 0);
    printf("[reminder] %s\n", good ? "all as expected" : "something is NOT as expected");
    return good ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (ConfLogInit() != 0) {
        fprintf(stderr, "the log cannot be opened: look at TAMO_DEVICE_ROOT\n");
        return 1;
    }
    const int result = argc > 1 ? display() : remind(argv[0]);
    ConfLogUnInit();
    return result;
}

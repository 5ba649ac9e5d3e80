/* A module as one writes it on the library: the reminder of the next meeting. When the time has come, the
 * process "Display" is asked to show the title; where it cannot, it is asked again every five seconds,
 * three times at most. example_module_test.cpp tests it with the test kit. */
#pragma once
#include <cstdint>
#include <string>

/* The queue that the module's own process serves: what expires arrives there. */
inline constexpr char kReminderQueue[] = "Reminder";

/* The handler that the display's process runs; `title` has `length` characters. */
uint32_t showTitle(uint32_t attempt, void *title, uint32_t length);

/* Schedules the reminder, in place of an earlier one. False, with a record, when it cannot be. */
bool scheduleReminder(const std::string &title, uint32_t minutes);

/* Forgets the reminder. */
void cancelReminder();

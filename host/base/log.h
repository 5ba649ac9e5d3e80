/* The host platform's own records: into the process's log file where one is open, else to standard
 * error. */
#pragma once
#include <stdint.h>

namespace tamo {

enum RecordLevel : uint8_t { kError = 1, kWarning = 2, kInfo = 3, kDebug = 4 };

/* Writes one record of `unit`; keeps errno. Errors and warnings only go to standard error where no
 * log file is open. */
__attribute__((format(printf, 4, 5))) void hostRecord(RecordLevel level, const char *unit, int line,
                                                      const char *format, ...);

/* What to do about an error of the system, to stand behind its text in a record; "" where the text
 * must do. */
const char *adviceOn(int error);

}  // namespace tamo

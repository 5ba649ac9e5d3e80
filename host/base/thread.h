/* The host's own threads. */
#pragma once

namespace tamo {

/* Starts a detached thread that bears `name` (at most 15 characters) and takes no signals: they are
 * for the program's own threads. 0, or the system's error. */
int startThread(const char *name, void *(*run)(void *), void *argument);

}  // namespace tamo

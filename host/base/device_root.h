/* The device root: the one directory below which all of the host platform's files and sockets lie.
 *
 *     data/ system/lib64/   what device paths name
 *     config/ keys/ log/    the stores of the services
 *     run/                  sockets, locks and shared counters of live processes */
#pragma once
#include <stddef.h>
#include <stdint.h>

namespace tamo {

/* The native path of the device root, without a trailing separator. Found, checked and created by
 * the first call in a process; null when it cannot be used, which is recorded once. */
const char *deviceRoot();

/* A descriptor of a directory directly below the root ("run", "log", ...), created private when it
 * is missing; -1 with a record when that fails. It is opened once per name and stays open. */
int rootDirectory(const char *name);

/* Turns a device path (absolute, either separator) into a native path below the root; false when it
 * would leave the root or does not fit. */
bool nativePath(const char *devicePath, char *buffer, size_t size);

}  // namespace tamo

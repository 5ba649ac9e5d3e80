/* A network of a process's own: no packet of it leaves the machine, and none comes in. */
#pragma once
#include <string>

namespace support {

/* Moves the process into an empty network with one address, 127.0.0.1. Called before the process has a
 * second thread or asked for a route. False, with the reason, where the system does not allow it. */
bool enterNetworkNamespace(std::string *reason);

/* Runs lines of the command `ip`; what it complains of goes to standard error. False when a line
 * failed. */
bool configureNetwork(const std::string &lines);

}  // namespace support

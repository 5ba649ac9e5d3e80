/* Who is at the other end of a connection. */
#pragma once
#include <sys/types.h>

namespace tamo {

struct PeerIdentity {
    pid_t pid;
    uid_t uid;
};

/* Finds out; true when that process may exchange messages with this one: the same user's, or
 * root's. */
bool identifyPeer(int socket, PeerIdentity *peer);

}  // namespace tamo

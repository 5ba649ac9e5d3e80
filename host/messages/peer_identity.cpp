/* The identity of the process at the other end. */
#include "host/messages/peer_identity.h"

#include <sys/socket.h>
#include <unistd.h>

namespace tamo {

bool identifyPeer(int socket, PeerIdentity *peer) {
    ucred credentials = {};
    socklen_t size = sizeof(credentials);
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        *peer = {-1, static_cast<uid_t>(-1)};
        return false;
    }
    *peer = {credentials.pid, credentials.uid};
    return peer->pid >= 0 && (peer->uid == geteuid() || peer->uid == 0);
}

}  // namespace tamo

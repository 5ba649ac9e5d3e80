/* How bodies and result lists cross: inline, through the connection's window, or in a file. */
#pragma once
#include <stdint.h>

#include "host/base/descriptor.h"
#include "host/messages/window.h"
#include "host/messages/wire.h"

namespace tamo {

/* Chooses the way for a packet's body and list and puts them there. `window` is null for a packet
 * that nobody answers: another may follow before this one is read. A window that is not open yet is
 * made, its file left in `windowFile`, which goes with the packet. May be called again for another
 * connection. 0, or an error number. */
int packBody(Packet *packet, Window *window, Descriptor *windowFile);

/* Puts body and list in a file, once. 0, or an error number. */
int packFile(Packet *packet);

/* Finds the body of a checked packet, by copying or mapping it where it is not inline, and
 * completes the message's header. Null, or what is wrong. */
const char *takeBody(Message *message, const Window &window, const Descriptor &file);

/* Copies the list of a checked response to `list`. */
bool takeList(const Message &message, const Window &window, const Descriptor &file, void *list);

}  // namespace tamo

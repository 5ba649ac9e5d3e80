/* What commands that show messages share: events in words, and which of them are wanted. */
#pragma once
#include <cstdint>
#include <string>

#include "tamo_host.h"
#include "tamoctl.h"

namespace tamoctl {

/* "sent", "received" and so on. */
const char *nameOfEvent(uint32_t kind);

/* Why a message was refused or failed, of its TAMO_HOST_ code. */
std::string reasonText(uint32_t code);

/* Module and offset; empty when there is no handler. The text is as the event has it: print it with
 * printable(). */
std::string handlerText(const TamoHostTraceEvent &event);

/* Whether --queue, --process and --handler let an event through. */
bool isWanted(const Arguments &arguments, const TamoHostTraceEvent &event);

}  // namespace tamoctl

/* Thread-local variables on the path of every message: found without a call. They are few and small,
 * so that the room that the loader keeps for a library loaded late suffices. */
#pragma once

#define TAMO_FAST_TLS __attribute__((tls_model("initial-exec")))

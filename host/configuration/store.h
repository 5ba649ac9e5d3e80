/* The configuration store of the device: one text per key, for all processes. Results are TAMO_HOST_
 * codes, failures but a missing key are recorded. Any thread may call. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "tamo_om_config_client.h"

namespace tamo {

/* Makes sure that the store can be opened. */
uint32_t configStoreOpen();

/* Fills the value parts as of one moment. TAMO_HOST_NOT_FOUND or TAMO_HOST_INVALID when a key has no
 * value or is none; its value part is cleared, the others are filled. */
uint32_t configStoreRead(ConfConfigOmRecord *records, size_t count);

/* Stores all values under their keys, or none; both must be terminated texts. */
uint32_t configStoreWrite(const ConfConfigOmRecord *records, size_t count);

}  // namespace tamo

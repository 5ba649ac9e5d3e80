/* The engine's shared object in the device root. */
#pragma once
#include <stdint.h>

namespace tamo::certificates {

/* Copies the engine to the place that its device path names. TAMO_HOST_ codes; failures are recorded. */
uint32_t placeEngine();

}  // namespace tamo::certificates

/* The switch that other units of the library ask for. */
#pragma once
#include <cstdint>

/* Nonzero when the device forbids the kit capability; 0, with a record, when its switch file does
 * not say. */
uint8_t CallServiceIsForbiddenKitCap();

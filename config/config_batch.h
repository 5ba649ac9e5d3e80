/* Batches of configuration records, as the other files of the unit fill them. */
#pragma once

#include <cstdint>

#include "include/conf_config.h"
#include "include/conf_config_value.h"

/* The most records that are written to the service in one operation. */
constexpr int32_t kBatchCapacity = 50;

/* Adds a value under a key to a batch; one that is full is written to the service first. 0, or -1
 * when an argument is missing or the value has no text of at most 1023 characters. */
int32_t ConfConfigAddOmCfg(const char *key, const ConfConfigValue *value, ConfConfigOmBatch *batch);

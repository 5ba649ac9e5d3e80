/* The log call as the library's own files make it. Each file names its unit once, as `kUnit`. */
#pragma once

#include "include/conf_log_adapter.h"

/* A macro because only a macro sees the name of the calling function and the line of the call. */
#define CONF_LOG(level, ...) ConfLogPrintf(level, __func__, kUnit, __LINE__, __VA_ARGS__)

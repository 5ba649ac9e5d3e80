/* libtamo_om_cust_util: paths that a device's maker may customise.
 *
 * 1. The results are device paths without a separator at their end. They are the layer's and stay
 *    the same for the life of the process; null or empty where the device has no such directory.
 * 2. Any thread may call. */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The directory of the device's configuration files. */
const char *TamoOmCustUtilGetCfgPath(uint32_t zero);

/* The directory, which exists, for files that a process keeps. */
const char *TamoOmCustUtilGetStoragePath(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

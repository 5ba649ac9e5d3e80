/* libtamo_om_cust_util: the directories of customised files, below the device root. */
#include "tamo_om_cust_util.h"

#include <limits.h>
#include <string.h>
#include <sys/stat.h>

#include "host/base/device_root.h"
#include "host/base/log.h"

namespace {

constexpr const char *kUnit = "tamo_om_cust_util";

/* The device path of a directory, which is made where it is missing; null with a record when it
 * cannot be. */
const char *directory(const char *devicePath) {
    char native[PATH_MAX];
    const char *root = tamo::deviceRoot();
    if (root == nullptr || !tamo::nativePath(devicePath, native, sizeof(native))) {
        return nullptr;
    }
    for (char *end = native + strlen(root) + 1; end != nullptr;) {
        end = strchr(end, '/');
        if (end != nullptr) {
            *end = '\0';
        }
        (void)mkdir(native, 0700);
        if (end != nullptr) {
            *end++ = '/';
        }
    }
    struct stat status;
    if (stat(native, &status) != 0 || !S_ISDIR(status.st_mode)) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "the directory %s cannot be made: move aside what is in its way, or give "
                         "this user the right to write there",
                         native);
        return nullptr;
    }
    return devicePath;
}

}  // namespace

const char *TamoOmCustUtilGetCfgPath(uint32_t) {
    return directory("/data/cust/config");
}

const char *TamoOmCustUtilGetStoragePath(void) {
    return directory("/data/cust/storage");
}

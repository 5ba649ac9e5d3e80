/* The device's switch file: loaded once into a table of names and values, and asked for features. */
#include <cstddef>

#include "common/log.h"
#include "common/platform_block.h"
#include "config/config_switches.h"
#include "include/conf_config.h"
#include "include/param_check.h"
#include "include/xmlAdapter.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_common.h"
#include "platform/tamo_om_cust_util.h"
#include "platform/tamo_os_lock.h"
#include "xml/xmlAdapter_owned.h"

namespace {

constexpr char kUnit[] = "conf_config";
constexpr char kFile[] = "\\conference\\conf_config.xml";
constexpr size_t kPathSize = 256;
constexpr size_t kTextSize = 128;

struct ConfConfigNameEntry {
    char value[kTextSize];
    char name[kTextSize];
};

/* The mutex guards the rest. The table lives until the process ends. */
OsMutex tableMutex;
ConfConfigNameEntry *entries;
uint32_t entryCount;
bool loadTried;

class TableLock {
  public:
    TableLock() { OsMutexLock(&tableMutex); }
    ~TableLock() { OsMutexUnLock(&tableMutex); }
    TableLock(const TableLock &) = delete;
    TableLock &operator=(const TableLock &) = delete;
};

bool fillEntry(ConfConfigNameEntry *entry, ConfXmlNode *node) {
    return strcpy_s(entry->name, kTextSize, ConfXmlGetNodeStrAttr(node, "name")) == 0 &&
           strcpy_s(entry->value, kTextSize, ConfXmlGetNodeText(node)) == 0;
}

/* All of the file's entries, or none. */
int32_t loadTable(const char *path) {
    const OwnedDocument root(ConfXmlParseFileGetRoot(path));
    const uint32_t count = root == nullptr ? 0 : ConfXmlGetNodeChildNum(root.get());
    ConfXmlNode *node = count == 0 ? nullptr : ConfXmlGetNodeFirstChild(root.get());
    size_t size = 0;
    if (node == nullptr || __builtin_mul_overflow(count, sizeof(ConfConfigNameEntry), &size)) {
        return 1;
    }
    auto table = takeBlock<ConfConfigNameEntry>(size, kUnit);
    if (table == nullptr) {
        return 1;
    }
    for (uint32_t i = 0; i < count && node != nullptr; i++) {
        if (!fillEntry(table.get() + i, node)) {
            return 1;
        }
        node = ConfXmlGetNodeNextSibling(node);
    }
    entries = table.release();
    entryCount = count;
    return 0;
}

/* False when the switch's value cannot be read, which leaves `value` alone. */
bool readSwitch(const char *name, int32_t *value) {
    char text[kTextSize] = {};
    if (ConfConfigGetValueByName(name, text, sizeof(text)) != 0) {
        return false;
    }
    *value = ConfGetAtoi(text, 0);
    return true;
}

int32_t switchValue(const char *name) {
    int32_t value = 0;
    (void)readSwitch(name, &value);
    return value;
}

}  // namespace

int32_t ConfConfigXmlInit(void) {
    const TableLock lock;
    if (loadTried) {
        return 0;
    }
    loadTried = true;
    char path[kPathSize] = {};
    const char *directory = TamoOmCustUtilGetCfgPath(0);
    const int length =
        directory == nullptr ? -1 : sprintf_s(path, sizeof(path), "%s%s", directory, kFile);
    if (length < 0) {
        CONF_LOG(CONF_LOG_ERROR, "sprintf_s fail, ret:%d", length);
    }
    return loadTable(path);
}

int32_t ConfConfigGetValueByName(const char *name, char *buffer, uint32_t size) {
    if (name == nullptr || buffer == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "name is null");
        return 1;
    }
    const TableLock lock;
    for (uint32_t i = 0; i < entryCount; i++) {
        if (KIRU_StriCmp(name, entries[i].name) != 0) {
            continue;
        }
        if (strcpy_s(buffer, size, entries[i].value) != 0) {
            CONF_LOG(CONF_LOG_ERROR, "strcpy_s fail");
            return 1;
        }
        return 0;
    }
    return 1;
}

int32_t IsCloseWirelessCast(void) {
    return switchValue("isCloseWirelessCastWhenStopShare");
}

int32_t IsStopCastWhenConfEnd(void) {
    return switchValue("isStopCastWhenConfEnd");
}

int32_t IsForbiddenSdkStopWirelessCast(void) {
    return switchValue("forbiddenSdkStopWirelessCast");
}

int32_t OnlyReportPresentationDevicePlug(void) {
    return switchValue("onlyReportPresentationDevicePlug");
}

int32_t IgnoreLayoutStrategy(void) {
    return switchValue("ignoreLayoutStrategy");
}

uint8_t CallServiceIsForbiddenKitCap() {
    int32_t value = 0;
    if (!readSwitch("isForbiddenKitCapbility", &value)) {
        CONF_LOG(CONF_LOG_ERROR, "forbiddenKitCap ConfConfigGetValueByName error, iRes:%u", 1U);
    }
    return static_cast<uint8_t>(value);
}

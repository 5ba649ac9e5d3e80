/* Attacks ConfConfigXmlInit and ConfConfigGetValueByName: the input is the switch file. The file under
 * attack is compiled in here, because only from inside can its table, loaded once in a process, be
 * forgotten. */
#include <string>
#include <utility>

#include "config/conf_config_switches.cpp"
#include "fuzz/scratch.h"
#include "platform/tamo_os_file.h"

namespace {

using fuzz::require;

void forgetTable() {
    OSMemTypeFreeMon(std::exchange(entries, nullptr), 0, 0, __LINE__, "fuzz");
    entryCount = 0;
    loadTried = false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string file =
        fuzz::scratchRoot() + TamoOmCustUtilGetCfgPath(0) + "/conference/conf_config.xml";
    SetLogLevel(0);
    fuzz::writeFile(file, data, size);
    forgetTable();
    require((ConfConfigXmlInit() == 0) == (entryCount > 0));
    for (uint32_t i = 0; i < entryCount; i++) {
        char value[kTextSize];
        require(ConfConfigGetValueByName(entries[i].name, value, sizeof(value)) == 0);
        (void)ConfConfigGetValueByName(entries[i].name, value, 1);
    }
    (void)IsStopCastWhenConfEnd();
    (void)CallServiceIsForbiddenKitCap();
    return 0;
}

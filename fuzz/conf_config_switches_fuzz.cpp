/* Attacks ConfConfigXmlInit and ConfConfigGetValueByName: the input is the switch file. The file under
 * attack is compiled in here, because only from inside can its table, loaded once in a process, be
 * forgotten. */
#include <cstdlib>
#include <fstream>
#include <string>

#include "config/conf_config_switches.cpp"
#include "fuzz/scratch.h"
#include "platform/tamo_os_file.h"

namespace {

void forgetTable() {
    if (entries != nullptr) {
        OSMemTypeFreeMon(entries, 0, 0, __LINE__, "fuzz");
    }
    entries = nullptr;
    entryCount = 0;
    loadTried = false;
}

void require(bool good) {
    if (!good) {
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string file =
        fuzz::scratchRoot() + TamoOmCustUtilGetCfgPath(0) + "/conference/conf_config.xml";
    static const bool made =
        std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    require(made);
    SetLogLevel(0);
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char *>(data), static_cast<std::streamsize>(size));
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

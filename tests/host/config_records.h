/* Configuration records as texts, and the files of the store, for tests. */
#pragma once
#include <gtest/gtest.h>
#include <string.h>

#include <filesystem>
#include <string>

#include "tamo_om_config_client.h"
#include "tests/support/scratch_root.h"

namespace support {

/* Begins as garbage: what an operation leaves alone shows. */
inline ConfConfigOmRecord record(const std::string &key, const std::string &value = "") {
    ConfConfigOmRecord made;
    memset(&made, 0xA5, sizeof(made));
    EXPECT_EQ(0, TamoOmConfigcopyStr2Key(&made, key.c_str()));
    EXPECT_EQ(0, TamoOmConfigcopyStr2Val(&made.value, value.c_str()));
    return made;
}

inline int32_t set(const std::string &key, const std::string &value) {
    return TamoOmConfigStringSet(record(key, value));
}

/* The stored value, or the failure's code as a text. */
inline std::string get(const std::string &key) {
    ConfConfigOmRecord asked = record(key, "left from before");
    int32_t code = TamoOmConfigStringGet(&asked);
    if (code != 0) {
        EXPECT_EQ(0U, asked.value.length + static_cast<unsigned char>(asked.value.text[0]));
        return "failed: " + std::to_string(code);
    }
    EXPECT_EQ(strlen(asked.value.text), asked.value.length);
    return asked.value.text;
}

inline const std::string kMissing = "failed: 12";

inline std::filesystem::path configFile(const std::string &name = "config.db") {
    return std::filesystem::path(scratchRoot()) / "config" / name;
}

/* Leaves no file behind; a connection of this process finds that out. */
inline void clearStore() {
    std::filesystem::create_directories(configFile().parent_path());
    for (const auto &entry : std::filesystem::directory_iterator(configFile().parent_path())) {
        std::filesystem::remove_all(entry.path());
    }
}

}  // namespace support

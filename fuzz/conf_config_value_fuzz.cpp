/* Attacks the typed values: the readers, ConfConfigV2Str, ConfConfigD2VByType and
 * ConfConfigV2DByType, with storage of any alignment and size.
 *
 * An input is four bytes (the value's type, the variable's type, its size and its place), the
 * variable's first content of up to 64 bytes, and the value. */
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/scratch.h"
#include "include/conf_config_value.h"
#include "include/conf_log_adapter.h"

namespace {

using fuzz::require;

constexpr size_t kMostStorage = 64;

/* A value made of raw bytes, which are of a size of their own for the sanitizer. */
ConfConfigValue makeValue(int32_t type, const std::vector<uint8_t> &bytes) {
    ConfConfigValue value = {};
    if (type == CONF_VALUE_STR) {
        ConfConfigStr2V(&value, reinterpret_cast<const char *>(bytes.data()));
    } else if (type == CONF_VALUE_DATA) {
        ConfConfigData2V(&value, bytes.data(), static_cast<uint32_t>(bytes.size()));
    } else {
        memcpy(&value.payload, bytes.data(), std::min<size_t>(bytes.size(), 8));
        value.type = type;
    }
    return value;
}

void read(const ConfConfigValue &value) {
    char text[320] = {};
    char small[5] = {};
    ConfConfigV2Int(&value);
    ConfConfigV2UInt(&value);
    ConfConfigV2Float(&value);
    require(ConfConfigV2Bool(&value) <= 1);
    require(ConfConfigV2Str(&value, text, sizeof(text)) != 0 || strnlen(text, 320) < 320);
    require(ConfConfigV2Str(&value, small, sizeof(small)) != 0 || strnlen(small, 5) < 5);
    ConfConfigV2Data(&value, small, sizeof(small));
}

/* What is stored reads back, and storing that again changes nothing. */
void storeAgain(void *storage, uint32_t size, int32_t type) {
    ConfConfigValue value;
    require(ConfConfigD2VByType(&value, storage, size, type) == 0 && value.type == type);
    if (type == CONF_VALUE_INT || type == CONF_VALUE_UINT || type == CONF_VALUE_BOOL) {
        require(ConfConfigV2DByType(&value, storage, size, type) == 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4) {
        return 0;
    }
    SetLogLevel(0);
    const int32_t valueType = data[0] % 8;
    const int32_t type = data[1] % 8;
    const uint32_t storageSize = data[2] % kMostStorage;
    const size_t place = data[3] % 8;
    const size_t content = std::min(size - 4, kMostStorage);
    /* A text of size 0 tells no bound and is read to its end: then there is one. */
    const size_t end = storageSize == 0 && type == CONF_VALUE_STR ? 1 : 0;
    std::vector<uint8_t> storage(place + storageSize + end);
    std::copy_n(data + 4, std::min<size_t>(content, storageSize),
                storage.begin() + static_cast<std::ptrdiff_t>(place));
    std::vector<uint8_t> bytes(data + 4 + content, data + size);
    bytes.push_back(0);

    const ConfConfigValue value = makeValue(valueType, bytes);
    read(value);
    uint8_t *at = storage.data() + place;
    const int32_t result = ConfConfigV2DByType(&value, at, storageSize, type);
    require(result >= -1 && result <= 1);
    if (result >= 0) {
        storeAgain(at, storageSize, type);
    }
    return 0;
}

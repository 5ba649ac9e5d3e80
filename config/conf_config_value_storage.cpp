/* Typed values and the storage of bound variables, of any width and alignment. */
#include <algorithm>
#include <cstddef>
#include <cstring>

#include "include/conf_config_value.h"
#include "platform/tamo_common.h"

namespace {

constexpr int32_t kFailed = -1;
constexpr int32_t kChanged = 0;
constexpr int32_t kUnchanged = 1;

constexpr size_t kLongestCompared = 1024; /* with the terminator */

/* Byte by byte: the storage may lie anywhere. */
template <typename Number>
Number readNumber(const void *data) {
    Number number;
    std::copy_n(static_cast<const unsigned char *>(data), sizeof(number),
                reinterpret_cast<unsigned char *>(&number));
    return number;
}

template <typename Number>
void writeNumber(void *data, Number number) {
    std::copy_n(reinterpret_cast<const unsigned char *>(&number), sizeof(number),
                static_cast<unsigned char *>(data));
}

bool isIntegerSize(uint32_t size) {
    return size == 1 || size == 2 || size == 4 || size == 8;
}

bool isFloatSize(uint32_t size) {
    return size == sizeof(float) || size == sizeof(double);
}

bool isSize(uint32_t size, int32_t type) {
    switch (type) {
        case CONF_VALUE_INT:
        case CONF_VALUE_UINT:
        case CONF_VALUE_BOOL:
            return isIntegerSize(size);
        case CONF_VALUE_FLOAT:
            return isFloatSize(size);
        default:
            return true;
    }
}

uint64_t readUnsigned(const void *data, uint32_t size) {
    switch (size) {
        case 1:
            return readNumber<uint8_t>(data);
        case 2:
            return readNumber<uint16_t>(data);
        case 4:
            return readNumber<uint32_t>(data);
        default:
            return readNumber<uint64_t>(data);
    }
}

int64_t readSigned(const void *data, uint32_t size) {
    switch (size) {
        case 1:
            return readNumber<int8_t>(data);
        case 2:
            return readNumber<int16_t>(data);
        case 4:
            return readNumber<int32_t>(data);
        default:
            return readNumber<int64_t>(data);
    }
}

double readFloat(const void *data, uint32_t size) {
    return size == sizeof(float) ? static_cast<double>(readNumber<float>(data))
                                 : readNumber<double>(data);
}

void writeInteger(void *data, uint32_t size, uint64_t bits) {
    switch (size) {
        case 1:
            return writeNumber(data, static_cast<uint8_t>(bits));
        case 2:
            return writeNumber(data, static_cast<uint16_t>(bits));
        case 4:
            return writeNumber(data, static_cast<uint32_t>(bits));
        default:
            return writeNumber(data, bits);
    }
}

int32_t storeSigned(int64_t number, void *data, uint32_t size) {
    if (!isIntegerSize(size)) {
        return kFailed;
    }
    if (readSigned(data, size) == number) {
        return kUnchanged;
    }
    writeInteger(data, size, static_cast<uint64_t>(number));
    return kChanged;
}

int32_t storeUnsigned(uint64_t number, void *data, uint32_t size) {
    if (!isIntegerSize(size)) {
        return kFailed;
    }
    if (readUnsigned(data, size) == number) {
        return kUnchanged;
    }
    writeInteger(data, size, number);
    return kChanged;
}

int32_t storeFloat(double number, void *data, uint32_t size) {
    if (!isFloatSize(size)) {
        return kFailed;
    }
    if (readFloat(data, size) == number) {
        return kUnchanged;
    }
    if (size == sizeof(float)) {
        writeNumber(data, static_cast<float>(number));
    } else {
        writeNumber(data, number);
    }
    return kChanged;
}

/* Does a text buffer hold a text? One without a terminator holds none; one of size 0 tells no bound. */
bool holdsText(const char *buffer, uint32_t size, const char *text) {
    return (size == 0 || strnlen(buffer, size) < size) && ConfConfigStrEqual(buffer, text);
}

int32_t storeText(const ConfConfigValue *value, char *data, uint32_t size) {
    char rendering[kLongestCompared] = {};
    if (ConfConfigV2Str(value, rendering, sizeof(rendering)) == 0 &&
        holdsText(data, size, rendering)) {
        return kUnchanged;
    }
    return ConfConfigV2Str(value, data, size) == 0 ? kChanged : kFailed;
}

}  // namespace

int32_t ConfConfigD2VByType(ConfConfigValue *value, const void *data, uint32_t size, int32_t type) {
    if (value == nullptr || data == nullptr || !isSize(size, type)) {
        return kFailed;
    }
    switch (type) {
        case CONF_VALUE_INT:
            return ConfConfigInt2V(value, readSigned(data, size));
        case CONF_VALUE_UINT:
            return ConfConfigUInt2V(value, readUnsigned(data, size));
        case CONF_VALUE_FLOAT:
            return ConfConfigFloat2V(value, readFloat(data, size));
        case CONF_VALUE_BOOL:
            return ConfConfigBool2V(value, readUnsigned(data, size) != 0);
        case CONF_VALUE_STR:
            return ConfConfigStr2V(value, static_cast<const char *>(data));
        case CONF_VALUE_DATA:
            return ConfConfigData2V(value, data, size);
        default:
            return kFailed;
    }
}

int32_t ConfConfigV2DByType(const ConfConfigValue *value, void *data, uint32_t size, int32_t type) {
    if (value == nullptr || data == nullptr) {
        return kFailed;
    }
    switch (type) {
        case CONF_VALUE_INT:
            return storeSigned(ConfConfigV2Int(value), data, size);
        case CONF_VALUE_UINT:
            return storeUnsigned(ConfConfigV2UInt(value), data, size);
        case CONF_VALUE_FLOAT:
            return storeFloat(ConfConfigV2Float(value), data, size);
        case CONF_VALUE_BOOL:
            return storeUnsigned(ConfConfigV2Bool(value), data, size);
        case CONF_VALUE_STR:
            return storeText(value, static_cast<char *>(data), size);
        case CONF_VALUE_DATA:
            return ConfConfigV2Data(value, data, size) == 0 ? kChanged : kFailed;
        default:
            return kFailed;
    }
}

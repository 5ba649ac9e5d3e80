/* Typed values: building them, and reading them as numbers, truth values, text and bytes. */
#include "include/conf_config_value.h"

#include "common/classic_locale.h"
#include "common/log.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_common.h"

namespace {

constexpr char kUnit[] = "conf_config_value";

constexpr int kEndOfText = -1; /* the scanner's result when there is nothing but white space */

constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 2 * kTwoTo63;

/* A plain conversion of a number that the integer cannot hold would be undefined. */
int64_t toSigned(double number) {
    if (number >= kTwoTo63) {
        return INT64_MAX;
    }
    if (number >= -kTwoTo63) {
        return static_cast<int64_t>(number);
    }
    return number < 0 ? INT64_MIN : 0;
}

uint64_t toUnsigned(double number) {
    if (number >= kTwoTo64) {
        return UINT64_MAX;
    }
    return number > 0 ? static_cast<uint64_t>(number) : 0;
}

const char *textOf(const ConfConfigValue &value) {
    const char *text = value.payload.str.text;
    return text == nullptr ? "" : text;
}

/* As the records tell it. */
int lengthOf(const ConfConfigValue &value) {
    return static_cast<int>(value.payload.str.length);
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

int32_t ConfConfigInt2V(ConfConfigValue *value, int64_t i) {
    if (value == nullptr) {
        return -1;
    }
    value->type = CONF_VALUE_INT;
    value->payload.i = i;
    return 0;
}

int32_t ConfConfigUInt2V(ConfConfigValue *value, uint64_t u) {
    if (value == nullptr) {
        return -1;
    }
    value->type = CONF_VALUE_UINT;
    value->payload.u = u;
    return 0;
}

int32_t ConfConfigFloat2V(ConfConfigValue *value, double f) {
    if (value == nullptr) {
        return -1;
    }
    value->type = CONF_VALUE_FLOAT;
    value->payload.f = f;
    return 0;
}

int32_t ConfConfigBool2V(ConfConfigValue *value, uint8_t b) {
    if (value == nullptr) {
        return -1;
    }
    value->type = CONF_VALUE_BOOL;
    value->payload.b = b;
    return 0;
}

int32_t ConfConfigStr2V(ConfConfigValue *value, const char *text) {
    if (value == nullptr || text == nullptr) {
        return -1;
    }
    value->type = CONF_VALUE_STR;
    value->payload.str = {text, KIRU_StrLen(text) + 1};
    return 0;
}

int32_t ConfConfigData2V(ConfConfigValue *value, const void *data, uint32_t length) {
    if (value == nullptr || data == nullptr) {
        return -1;
    }
    value->type = CONF_VALUE_DATA;
    value->payload.data = {data, length};
    return 0;
}

int64_t ConfConfigV2Int(const ConfConfigValue *value) {
    if (value == nullptr) {
        return -1;
    }
    switch (value->type) {
        case CONF_VALUE_INT:
        case CONF_VALUE_UINT:
            return value->payload.i;
        case CONF_VALUE_FLOAT:
            return toSigned(value->payload.f);
        case CONF_VALUE_BOOL:
            return value->payload.b != 0;
        case CONF_VALUE_STR:
            break;
        default:
            return 0;
    }
    long long number = 0;
    if (sscanf_s(textOf(*value), "%lld", &number) == kEndOfText) {
        CONF_LOG(CONF_LOG_ERROR, "sscanf_s fail %d", lengthOf(*value));
        return 0;
    }
    return number;
}

uint64_t ConfConfigV2UInt(const ConfConfigValue *value) {
    if (value == nullptr) {
        return UINT64_MAX;
    }
    switch (value->type) {
        case CONF_VALUE_INT:
        case CONF_VALUE_UINT:
            return value->payload.u;
        case CONF_VALUE_FLOAT:
            return toUnsigned(value->payload.f);
        case CONF_VALUE_BOOL:
            return value->payload.b != 0;
        case CONF_VALUE_STR:
            break;
        default:
            return 0;
    }
    unsigned long long number = 0;
    if (sscanf_s(textOf(*value), "%llu", &number) == kEndOfText) {
        CONF_LOG(CONF_LOG_ERROR, "sscanf_s fail %d", lengthOf(*value));
        return 0;
    }
    return number;
}

double ConfConfigV2Float(const ConfConfigValue *value) {
    if (value == nullptr) {
        return 0;
    }
    switch (value->type) {
        case CONF_VALUE_INT:
            return static_cast<double>(value->payload.i);
        case CONF_VALUE_UINT:
            return static_cast<double>(value->payload.u);
        case CONF_VALUE_FLOAT:
            return value->payload.f;
        case CONF_VALUE_BOOL:
            return value->payload.b != 0;
        case CONF_VALUE_STR:
            break;
        default:
            return 0;
    }
    double number = 0;
    const ClassicLocale locale;
    if (sscanf_s(textOf(*value), "%lf", &number) == kEndOfText) {
        CONF_LOG(CONF_LOG_ERROR, "sscanf_s fail %d", lengthOf(*value));
        return 0;
    }
    return number;
}

uint8_t ConfConfigV2Bool(const ConfConfigValue *value) {
    if (value == nullptr) {
        return 0;
    }
    switch (value->type) {
        case CONF_VALUE_INT:
        case CONF_VALUE_UINT:
            return value->payload.u != 0;
        case CONF_VALUE_FLOAT:
            return value->payload.f != 0;
        case CONF_VALUE_BOOL:
            return value->payload.b != 0;
        case CONF_VALUE_STR:
            break;
        default:
            return 0;
    }
    const char *text = textOf(*value);
    if (!isDigit(*text)) {
        return *text == 'T' || *text == 't';
    }
    unsigned char number = 0;
    if (sscanf_s(text, "%hhu", &number) == kEndOfText) {
        CONF_LOG(CONF_LOG_ERROR, "sscanf_s fail %d", lengthOf(*value));
    }
    return number != 0;
}

int32_t ConfConfigV2Str(const ConfConfigValue *value, char *dst, uint32_t dstSize) {
    if (value == nullptr || dst == nullptr) {
        return -1;
    }
    int printed = -1;
    switch (value->type) {
        case CONF_VALUE_INT:
            printed = sprintf_s(dst, dstSize, "%lld", static_cast<long long>(value->payload.i));
            break;
        case CONF_VALUE_UINT:
            printed =
                sprintf_s(dst, dstSize, "%llu", static_cast<unsigned long long>(value->payload.u));
            break;
        case CONF_VALUE_FLOAT: {
            const ClassicLocale locale;
            printed = sprintf_s(dst, dstSize, "%lf", value->payload.f);
            break;
        }
        case CONF_VALUE_BOOL:
            return strcpy_s(dst, dstSize, value->payload.b != 0 ? "TRUE" : "FALSE");
        case CONF_VALUE_STR:
            return strcpy_s(dst, dstSize, value->payload.str.text);
        default:
            break;
    }
    return printed == -1 ? -1 : 0;
}

int32_t ConfConfigV2Data(const ConfConfigValue *value, void *dst, uint32_t dstSize) {
    if (value == nullptr || dst == nullptr || value->type != CONF_VALUE_DATA ||
        value->payload.data.bytes == nullptr) {
        return -1;
    }
    return memcpy_s(dst, dstSize, value->payload.data.bytes, value->payload.data.length);
}

bool ConfConfigStrEqual(const char *a, const char *b) {
    return a == b || KIRU_StriCmp(a == nullptr ? "" : a, b == nullptr ? "" : b) == 0;
}

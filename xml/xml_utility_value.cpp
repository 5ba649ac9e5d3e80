/* Typed values between texts, records and memory. */
#include "common/log.h"
#include "include/xml_utility.h"
#include "platform/bounds_checked.h"
#include "xml/xml_document.h"

namespace {

constexpr char kUnit[] = "xml_utility";

constexpr int32_t kDataTypes[] = {CONF_XML_UINT8,  CONF_XML_INT8,  CONF_XML_UINT16, CONF_XML_INT16,
                                  CONF_XML_UINT32, CONF_XML_INT32, CONF_XML_TEXT};

/* Bytes of a numeric field. */
constexpr size_t kWidths[] = {1, 1, 2, 2, 4, 4};

/* The 32 bits of an element's number. Unsigned ones are read as such: those above the signed range
 * come back as they were saved, also where long has 32 bits. */
uint32_t numberIn(ConfXmlNode *node, uint8_t type) {
    if (type == CONF_XML_ATTR_UINT32 && node != nullptr) {
        return elementOf(node)->UnsignedText(0);
    }
    return static_cast<uint32_t>(ConfXmlGetNodeIntText(node));
}

/* A value's number, with its sign: files may name a narrower type than the field has. */
uint32_t widened(const ConfXmlValue &value) {
    switch (value.type) {
        case CONF_XML_ATTR_UINT8:
            return value.value.u8;
        case CONF_XML_ATTR_INT8:
            return static_cast<uint32_t>(value.value.i8);
        case CONF_XML_ATTR_UINT16:
            return value.value.u16;
        case CONF_XML_ATTR_INT16:
            return static_cast<uint32_t>(value.value.i16);
        default:
            return value.value.u32;
    }
}

uint32_t storeNumber(const ConfXmlValue &value, uint8_t type, void *address) {
    const uint32_t number = widened(value);
    const auto byte = static_cast<uint8_t>(number);
    const auto half = static_cast<uint16_t>(number);
    const void *sources[] = {&byte, &half, &number};
    const size_t width = kWidths[type];
    return memcpy_s(address, width, sources[width / 2], width) == 0 ? 0 : 1;
}

}  // namespace

uint32_t ConfXmlGetValue(ConfXmlNode *node, uint8_t type, ConfXmlValue *value) {
    if (value == nullptr) {
        return 1;
    }
    value->type = type;
    switch (type) {
        case CONF_XML_ATTR_UINT8:
        case CONF_XML_ATTR_INT8:
            value->value.u8 = static_cast<uint8_t>(numberIn(node, type));
            return 0;
        case CONF_XML_ATTR_UINT16:
        case CONF_XML_ATTR_INT16:
            value->value.u16 = static_cast<uint16_t>(numberIn(node, type));
            return 0;
        case CONF_XML_ATTR_UINT32:
        case CONF_XML_ATTR_INT32:
            value->value.u32 = numberIn(node, type);
            return 0;
        case CONF_XML_ATTR_CHAR:
            value->value.text = ConfXmlGetNodeText(node);
            return 0;
        default:
            return 1;
    }
}

uint32_t ConfXmlSetXmlNodeValue(ConfXmlNode *node, const ConfXmlValue *value) {
    if (value == nullptr) {
        return 1;
    }
    uint32_t result = CONF_XML_NOT_HANDLED;
    if (value->type == CONF_XML_ATTR_CHAR) {
        result = ConfXmlSetNodeText(node, CONF_XML_TEXT, value->value.text);
    } else if (value->type < CONF_XML_ATTR_CHAR) {
        result = ConfXmlSetNodeText(node, kDataTypes[value->type], &value->value);
    }
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlSetNodeText fail, ret = %d!", result);
    }
    return result;
}

uint32_t ConfXmlCopyIndexValueToXmlNode(const ConfXmlNodeInfo *info, const void *address,
                                        ConfXmlValue *value) {
    if (info == nullptr || address == nullptr || value == nullptr) {
        return 1;
    }
    value->type = info->type;
    if (info->type > CONF_XML_ATTR_CHAR) {
        return 1;
    }
    if (info->type == CONF_XML_ATTR_CHAR) {
        value->value.text = static_cast<const char *>(address);
        return 0;
    }
    const size_t width = kWidths[info->type];
    return memcpy_s(&value->value, sizeof(value->value), address, width) == 0 ? 0 : 1;
}

uint32_t ConfXmlCopyXmlNodeValueToIndex(const ConfXmlValue *value, const ConfXmlNodeInfo *indexInfo,
                                        void *address) {
    if (value == nullptr || indexInfo == nullptr || address == nullptr ||
        value->type > CONF_XML_ATTR_CHAR || indexInfo->type > CONF_XML_ATTR_CHAR) {
        return 1;
    }
    /* A file may call a number what is a text here: its digits would be taken for a pointer. */
    const bool isText = indexInfo->type == CONF_XML_ATTR_CHAR;
    if (isText != (value->type == CONF_XML_ATTR_CHAR)) {
        return 1;
    }
    if (!isText) {
        return storeNumber(*value, indexInfo->type, address);
    }
    const char *text = value->value.text == nullptr ? "" : value->value.text;
    return strcpy_s(static_cast<char *>(address), indexInfo->charLen, text) == 0 ? 0 : 1;
}

/* Typed values between texts, records and memory. */
#include "common/log.h"
#include "include/xml_utility.h"
#include "platform/bounds_checked.h"
#include "xml/xmlAdapter_document.h"

namespace {

constexpr char kUnit[] = "xml_utility";

constexpr int32_t kDataTypes[] = {CONF_XML_UINT8,  CONF_XML_INT8,  CONF_XML_UINT16, CONF_XML_INT16,
                                  CONF_XML_UINT32, CONF_XML_INT32, CONF_XML_TEXT};

/* Bytes of a numeric field. */
constexpr size_t kWidths[] = {1, 1, 2, 2, 4, 4};

/* The 32 bits of an element's number. Unsigned ones are read as such, so that those above the signed
 * range come back as they were saved. */
uint32_t numberIn(ConfXmlNode *node, uint8_t type) {
    if (type == CONF_XML_ATTR_UINT32 && node != nullptr) {
        return unsignedIn(textOf(elementOf(node)));
    }
    return static_cast<uint32_t>(ConfXmlGetNodeIntText(node));
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
        indexInfo->type > CONF_XML_ATTR_CHAR) {
        return 1;
    }
    if (indexInfo->type != CONF_XML_ATTR_CHAR) {
        const size_t width = kWidths[indexInfo->type];
        return memcpy_s(address, width, &value->value, width) == 0 ? 0 : 1;
    }
    const char *text = value->value.text == nullptr ? "" : value->value.text;
    return strcpy_s(static_cast<char *>(address), indexInfo->charLen, text) == 0 ? 0 : 1;
}

/* Index tables built, what their elements say, and which elements match. */
#include <cstring>

#include "common/log.h"
#include "include/xml_utility.h"
#include "platform/bounds_checked.h"
#include "xml/xmlAdapter_owned.h"

namespace {

constexpr char kUnit[] = "xml_utility";

constexpr char kConfig[] = "cfg";
constexpr char kValue[] = "val";

constexpr const char *kTypeNames[] = {"UINT8",  "INT8",  "UINT16", "INT16",
                                      "UINT32", "INT32", "CHAR"};

uint32_t addNameAndNumber(ConfXmlNode *node, const char *name, const char *key, uint16_t number) {
    const uint32_t result = ConfXmlAddAttr(node, "name", CONF_XML_TEXT, name);
    return result != 0 ? result : ConfXmlAddAttr(node, key, CONF_XML_UINT16, &number);
}

/* All attributes of a field. */
uint32_t describeField(ConfXmlNode *node, const ConfXmlValueNodeDesc &desc, uint16_t charLen) {
    uint32_t result = ConfXmlAddAttr(node, "name", CONF_XML_TEXT, desc.name);
    if (result == 0) {
        result = ConfXmlAddAttr(node, "type", CONF_XML_TEXT, desc.type);
    }
    if (result == 0 && strcmp(desc.type, kTypeNames[CONF_XML_ATTR_CHAR]) == 0) {
        result = ConfXmlAddAttr(node, "CharLen", CONF_XML_UINT16, &charLen);
    }
    return result;
}

}  // namespace

ConfXmlNode *ConfXmlAddSingleStructNode(ConfXmlNode *parent, const char *name) {
    ConfXmlNode *node = parent == nullptr ? ConfXmlCreateRootNode(kConfig)
                                          : ConfXmlCreateLastChildNode(parent, kConfig);
    if (node == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Create child node fail");
        return nullptr;
    }
    OwnedDocument made(parent == nullptr ? node : nullptr);
    const uint32_t result = ConfXmlAddAttr(node, "name", CONF_XML_TEXT, name);
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlAddAttr fail, ret = %d!", result);
        return nullptr;
    }
    (void)made.release();
    return node;
}

ConfXmlNode *ConfXmlAddMultiInstanceNode(ConfXmlNode *parent, const char *name, uint16_t count) {
    if (parent == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "pParentNode is nullptr!");
        return nullptr;
    }
    ConfXmlNode *node = ConfXmlCreateLastChildNode(parent, kConfig);
    if (node == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlCreateLastChildNode fail");
        return nullptr;
    }
    const uint32_t result = addNameAndNumber(node, name, "NumOfInst", count);
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlAddAttr fail, ret = %d!", result);
        return nullptr;
    }
    return node;
}

ConfXmlNode *ConfXmlAddMultiStructNode(ConfXmlNode *parent, const char *name, uint16_t instId) {
    if (parent == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "pParentNode is nullptr!");
        return nullptr;
    }
    ConfXmlNode *node = ConfXmlCreateLastChildNode(parent, kConfig);
    if (node == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlCreateLastChildNode is nullptr!");
        return nullptr;
    }
    const uint32_t result = addNameAndNumber(node, name, "InstID", instId);
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlAddAttr, ret = %d!", result);
        return nullptr;
    }
    return node;
}

ConfXmlNode *ConfXmlAddSingleValueNode(ConfXmlNode *parent, const ConfXmlValueNodeDesc *desc,
                                       const ConfXmlValue *value) {
    if (parent == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "pParentNode is nullptr!");
        return nullptr;
    }
    ConfXmlNode *node = ConfXmlCreateLastChildNode(parent, kValue);
    if (node == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlCreateLastChildNode fail");
        return nullptr;
    }
    uint32_t result = CONF_XML_INVALID;
    if (value != nullptr && value->type <= CONF_XML_ATTR_CHAR) {
        result = ConfXmlSetNodeText(node, CONF_XML_TEXT, value->value.text);
    }
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlSetNodeText fail, ret = %d!", result);
        return nullptr;
    }
    result =
        desc == nullptr ? uint32_t{CONF_XML_INVALID} : describeField(node, *desc, value->charLen);
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlAddAttr fail, ret = %d!", result);
        return nullptr;
    }
    return node;
}

uint32_t ConfXmlGetXmlNodeAttrAndValue(ConfXmlNode *node, ConfXmlNodeInfo *info) {
    if (info == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "pNodeInfo is null");
        return 1;
    }
    info->node = node;
    const char *name = ConfXmlGetNodeName(node);
    if (name == nullptr) {
        return 1;
    }
    if (strcpy_s(info->nodeName, sizeof(info->nodeName), name) != 0) {
        CONF_LOG(CONF_LOG_ERROR, "strcpy_s fail!");
        return 1;
    }
    if (ConfXmlGetXmlNodeAttr(node, info) != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlGetXmlNodeAttr fail!");
        return 1;
    }
    info->numOfInst = static_cast<uint16_t>(ConfXmlGetNodeUintAttr(node, "NumOfInst"));
    info->instId = static_cast<uint16_t>(ConfXmlGetNodeUintAttr(node, "InstID"));
    return 0;
}

uint32_t ConfXmlGetXmlNodeAttr(ConfXmlNode *node, ConfXmlNodeInfo *info) {
    if (info == nullptr) {
        return 1;
    }
    info->node = node;
    const char *name = ConfXmlGetNodeStrAttr(node, "name");
    if (name != nullptr && strcpy_s(info->name, sizeof(info->name), name) != 0) {
        return 1;
    }
    if (ConfXmlAttrTypeStrToEnum(ConfXmlGetNodeStrAttr(node, "type"), &info->type) != 0) {
        info->type = CONF_XML_ATTR_NONE;
    } else if (info->type == CONF_XML_ATTR_CHAR) {
        info->charLen = static_cast<uint16_t>(ConfXmlGetNodeUintAttr(node, "CharLen"));
    }
    return 0;
}

uint32_t ConfXmlIsValueNode(const ConfXmlNodeInfo *info) {
    return info != nullptr && strncmp(info->nodeName, kValue, sizeof(kValue)) == 0 ? 1 : 0;
}

uint32_t ConfXmlAttrTypeStrToEnum(const char *typeName, uint8_t *code) {
    if (typeName == nullptr || code == nullptr) {
        return 1;
    }
    for (uint8_t type = CONF_XML_ATTR_UINT8; type <= CONF_XML_ATTR_CHAR; type++) {
        if (strcmp(typeName, kTypeNames[type]) == 0) {
            *code = type;
            return 0;
        }
    }
    return 1;
}

int32_t ConfXmlCompareNode(const ConfXmlNodeInfo *a, const ConfXmlNodeInfo *b, uint32_t) {
    if (a == nullptr || b == nullptr) {
        return 1;
    }
    const int names = strncmp(a->name, b->name, sizeof(a->name));
    if (names != 0) {
        return names;
    }
    return a->instId == b->instId ? 0 : 1;
}

int32_t ConfXmlMatchNode(ConfXmlNode *a, ConfXmlNode *b, ConfXmlCompareFn compare) {
    ConfXmlNodeInfo infoA = {};
    ConfXmlNodeInfo infoB = {};
    if (compare == nullptr || ConfXmlGetXmlNodeAttrAndValue(a, &infoA) != 0 ||
        ConfXmlGetXmlNodeAttrAndValue(b, &infoB) != 0) {
        return 1;
    }
    return compare(&infoA, &infoB, 0);
}

uint32_t ConfXmlFindMatchNode(ConfXmlNode *indexElement, ConfXmlNode *fileParent,
                              ConfXmlCompareFn compare, ConfXmlNode **found) {
    ConfXmlNodeInfo wanted = {};
    if (compare == nullptr || found == nullptr ||
        ConfXmlGetXmlNodeAttrAndValue(indexElement, &wanted) != 0) {
        return 1;
    }
    for (ConfXmlNode *child = ConfXmlGetNodeFirstChild(fileParent); child != nullptr;
         child = ConfXmlGetNodeNextSibling(child)) {
        ConfXmlNodeInfo info = {};
        if (ConfXmlGetXmlNodeAttrAndValue(child, &info) != 0) {
            return 1;
        }
        if (compare(&wanted, &info, 0) == 0) {
            *found = child;
            return 0;
        }
    }
    return 1;
}

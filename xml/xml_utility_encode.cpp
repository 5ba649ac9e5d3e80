/* Documents from descriptors, and their texts. */
#include <cstring>
#include <memory>

#include "common/log.h"
#include "common/platform_block.h"
#include "include/xml_utility.h"
#include "platform/bounds_checked.h"
#include "xml/xmlAdapter_document.h"
#include "xml/xmlAdapter_edit.h"
#include "xml/xmlAdapter_memory.h"
#include "xml/xmlAdapter_owned.h"

namespace {

constexpr char kUnit[] = "xml_utility";

constexpr char kDeclaration[] = "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n";
constexpr uint32_t kPrintFailed = 16;

/* The last steps of both encoders, under the name of the one that `function` is. */
char *encodeWithChildren(const char *function, OwnedDocument root, const ConfXmlNodeDesc *children,
                         uint32_t count) {
    const auto fail = [function](int line, const char *format, uint32_t result = 0) -> char * {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, line, format, result);
        return nullptr;
    };
    uint32_t result = ConfXmlAdptAddChildNodes(root.get(), children, count);
    if (result != 0) {
        return fail(__LINE__, "ConfXmlAdptAddChildNodes fail, ret = %d!", result);
    }
    /* As ConfXmlTransformStr prints, without the copy that a document keeps. */
    const auto print = [&](tinyxml2::XMLPrinter *printer) {
        return elementOf(root.get())->GetDocument()->Accept(printer);
    };
    return unlessNoMemory<char *>(nullptr, [&]() -> char * {
        tinyxml2::XMLPrinter printer(nullptr, true, 0);
        if (!unlessNoMemory(false, [&] { return print(&printer); })) {
            return fail(__LINE__, "tempXmlBuf is nullptr!");
        }
        const auto size = static_cast<size_t>(printer.CStrSize());
        PlatformBlock<char> copy = takeBlock<char>(size, kUnit);
        if (copy == nullptr) {
            return fail(__LINE__, "xmlBuf is nullptr!");
        }
        const int error = memcpy_s(copy.get(), size, printer.CStr(), size);
        if (error != 0) {
            return fail(__LINE__, "memcpy_s fail, ret:%d", static_cast<uint32_t>(error));
        }
        return copy.release();
    });
}

void ConfXmlSetAttrByNodeSet(ConfXmlNode *element, const ConfXmlNodeDesc *desc) {
    if (desc->attrs == nullptr && desc->attrCount != 0) {
        CONF_LOG(CONF_LOG_ERROR, "add attr failed!");
        return;
    }
    for (uint32_t at = 0; at < desc->attrCount; at++) {
        const ConfXmlAttrDesc &attr = desc->attrs[at];
        if (ConfXmlAddAttr(element, attr.name, CONF_XML_TEXT, attr.value) != 0) {
            CONF_LOG(CONF_LOG_ERROR, "add attr failed!");
        }
    }
}

void fillByNodeSet(ConfXmlNode *element, const ConfXmlNodeDesc *desc,
                   const ConfXmlNodeDesc *children, uint32_t childCount) {
    (void)ConfXmlSetNodeText(element, CONF_XML_TEXT, desc->text);
    ConfXmlSetAttrByNodeSet(element, desc);
    (void)ConfXmlAdptAddChildNodes(element, children, childCount);
}

}  // namespace

uint32_t ConfXmlAdptAddNodeAttrs(ConfXmlNode *node, const ConfXmlAttrDesc *attrs, uint32_t count) {
    if (node == nullptr || attrs == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "node or attrs is nullptr!");
        return CONF_XML_INVALID;
    }
    for (uint32_t at = 0; at < count; at++) {
        const uint32_t result = addTextAttribute(node, attrs[at].name, attrs[at].value);
        if (result != 0) {
            CONF_LOG(CONF_LOG_ERROR, "ConfXmlAddAttr fail, ret = %d!", result);
            return result;
        }
    }
    return CONF_XML_OK;
}

uint32_t ConfXmlAdptAddChildNodes(ConfXmlNode *parent, const ConfXmlNodeDesc *nodes,
                                  uint32_t count) {
    if (parent == nullptr || nodes == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "rootNode or nodes is nullptr!");
        return CONF_XML_INVALID;
    }
    for (uint32_t at = 0; at < count; at++) {
        const ConfXmlNodeDesc &desc = nodes[at];
        ConfXmlNode *node = at == 0 ? ConfXmlCreateFirstChildNode(parent, desc.name)
                                    : createChild("ConfXmlCreateLastChildNode", parent, desc.name,
                                                  &tinyxml2::XMLNode::InsertEndChild);
        if (node == nullptr) {
            CONF_LOG(CONF_LOG_ERROR, "tempNode is nullptr!");
            return CONF_XML_INVALID;
        }
        uint32_t result = desc.text == nullptr ? 0 : setText(node, desc.text);
        if (result != 0) {
            CONF_LOG(CONF_LOG_ERROR, "ConfXmlSetNodeText fail, ret = %d!", result);
            return result;
        }
        result =
            desc.attrCount == 0 ? 0 : ConfXmlAdptAddNodeAttrs(node, desc.attrs, desc.attrCount);
        if (result != 0) {
            CONF_LOG(CONF_LOG_ERROR, "ConfXmlAdptAddNodeAttrs fail, ret = %d!", result);
            return result;
        }
    }
    return CONF_XML_OK;
}

char *ConfXmlAdptEncode(const ConfXmlEncodeDesc *desc) {
    OwnedDocument root(desc == nullptr ? nullptr : ConfXmlCreateRootNode(desc->rootName));
    if (root == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return nullptr;
    }
    return encodeWithChildren(__func__, std::move(root), desc->nodes, desc->nodeCount);
}

char *ConfXmlAdptEncodeWithRootAttr(const ConfXmlEncodeRootDesc *desc) {
    const ConfXmlNodeDesc *rootDesc = desc == nullptr ? nullptr : desc->root;
    OwnedDocument root(rootDesc == nullptr ? nullptr : ConfXmlCreateRootNode(rootDesc->name));
    if (root == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return nullptr;
    }
    uint32_t result = rootDesc->text == nullptr
                          ? 0
                          : ConfXmlSetNodeText(root.get(), CONF_XML_TEXT, rootDesc->text);
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlSetNodeText fail, ret = %d!", result);
        return nullptr;
    }
    result = rootDesc->attrCount == 0
                 ? 0
                 : ConfXmlAdptAddNodeAttrs(root.get(), rootDesc->attrs, rootDesc->attrCount);
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlAdptAddNodeAttrs fail, ret = %d!", result);
        return nullptr;
    }
    return encodeWithChildren(__func__, std::move(root), desc->children, desc->childCount);
}

uint32_t ConfXmlDumpWithHeader(const char *body, char **result) {
    if (body == nullptr || result == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "xmlBody or xmlBodyWithHeader is nullptr!");
        return CONF_XML_INVALID;
    }
    const size_t size = strlen(body) + sizeof(kDeclaration);
    PlatformBlock<char> text = takeBlock<char>(size, kUnit);
    if (text == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "tempBody is nullptr!");
        return CONF_XML_INVALID;
    }
    const int printed = sprintf_s(text.get(), size, "%s%s", kDeclaration, body);
    if (printed < 0) {
        CONF_LOG(CONF_LOG_ERROR, "sprintf_s fail, err = %d!", printed);
        return kPrintFailed;
    }
    *result = text.release();
    return CONF_XML_OK;
}

ConfXmlNode *ConfXmlCreateRootNodeByNodeSet(const ConfXmlNodeDesc *root,
                                            const ConfXmlNodeDesc *children, uint32_t childCount) {
    if (root == nullptr) {
        return nullptr;
    }
    ConfXmlNode *element = ConfXmlCreateRootNode(root->name);
    if (element == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlCreateRootNode failed!");
        return nullptr;
    }
    fillByNodeSet(element, root, children, childCount);
    return element;
}

ConfXmlNode *ConfXmlCreateChildNodeByNodeSet(ConfXmlNode *parent, const ConfXmlNodeDesc *node,
                                             const ConfXmlNodeDesc *children, uint32_t childCount) {
    if (parent == nullptr || node == nullptr) {
        return nullptr;
    }
    ConfXmlNode *element = ConfXmlCreateLastChildNode(parent, node->name);
    if (element == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlCreateRootNode failed!");
        return nullptr;
    }
    fillByNodeSet(element, node, children, childCount);
    return element;
}

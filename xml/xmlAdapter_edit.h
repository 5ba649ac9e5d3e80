/* What encoders do for each of their elements, inlined. For files that are compiled with
 * exceptions. */
#pragma once
#include <tinyxml2.h>

#include "common/log.h"
#include "xml/xmlAdapter_document.h"
#include "xml/xmlAdapter_memory.h"

void dropAttribute(tinyxml2::XMLElement *element, const char *name);
void emptyText(tinyxml2::XMLElement *element);

using Insert = tinyxml2::XMLNode *(tinyxml2::XMLNode::*)(tinyxml2::XMLNode *);

/* Null, with a log record of `function`, without a parent or a name. */
inline ConfXmlNode *createChild(const char *function, ConfXmlNode *parent, const char *name,
                                Insert insert) {
    if (parent == nullptr || name == nullptr) {
        ConfLogPrintf(CONF_LOG_ERROR, function, "xmlAdapter", __LINE__,
                      parent == nullptr ? "parentNode is nullptr!" : "name is nullptr!");
        return nullptr;
    }
    return unlessNoMemory<ConfXmlNode *>(nullptr, [&] {
        tinyxml2::XMLElement *child = elementOf(parent)->GetDocument()->NewElement(name);
        (elementOf(parent)->*insert)(child);
        return handleOf(child);
    });
}

/* What ConfXmlSetNodeText answers for a text. */
inline uint32_t setText(ConfXmlNode *node, const char *text) {
    const auto result = unlessNoMemory<uint32_t>(CONF_XML_NO_MEMORY, [&] {
        elementOf(node)->SetText(text);
        return CONF_XML_OK;
    });
    if (result != CONF_XML_OK) {
        emptyText(elementOf(node));
    }
    return result;
}

/* What ConfXmlAddAttr answers for a text. */
inline uint32_t addTextAttribute(ConfXmlNode *node, const char *name, const char *text) {
    if (name == nullptr || text == nullptr) {
        return CONF_XML_INVALID;
    }
    const auto result = unlessNoMemory<uint32_t>(CONF_XML_NO_MEMORY, [&] {
        elementOf(node)->SetAttribute(name, text);
        return CONF_XML_OK;
    });
    if (result != CONF_XML_OK) {
        dropAttribute(elementOf(node), name);
    }
    return result;
}

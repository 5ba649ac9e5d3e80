/* Steps from element to element, and what an element says. */
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "xml/xmlAdapter_document.h"

using tinyxml2::XMLElement;

namespace {

constexpr char kUnit[] = "xmlAdapter";

/* A part of a path. */
struct Name {
    const char *text;
    size_t length;

    bool isNameOf(const XMLElement *element) const {
        const char *name = element->Name();
        return strncmp(name, text, length) == 0 && name[length] == '\0';
    }
};

XMLElement *firstChildNamed(XMLElement *parent, const Name &name) {
    XMLElement *child = parent->FirstChildElement();
    while (child != nullptr && !name.isNameOf(child)) {
        child = child->NextSiblingElement();
    }
    return child;
}

XMLElement *parentElement(XMLElement *element) {
    tinyxml2::XMLNode *parent = element->Parent();
    return parent == nullptr ? nullptr : parent->ToElement();
}

/* The document's first element, said without a walk where the element is not at the top. */
bool isRoot(const XMLElement *element) {
    const tinyxml2::XMLNode *parent = element->Parent();
    return parent != nullptr && parent->ToDocument() != nullptr &&
           parent->FirstChildElement() == element;
}

int baseOf(const char *text) {
    const char *begin = text + strspn(text, " \t\n\v\f\r");
    return begin[0] == '0' && (begin[1] == 'x' || begin[1] == 'X') ? 16 : 10;
}

}  // namespace

int32_t signedIn(const char *text) {
    if (text == nullptr) {
        return 0;
    }
    const int base = baseOf(text);
    return static_cast<int32_t>(base == 16 ? static_cast<long long>(strtoull(text, nullptr, base))
                                           : strtoll(text, nullptr, base));
}

uint32_t unsignedIn(const char *text) {
    return text == nullptr ? 0 : static_cast<uint32_t>(strtoull(text, nullptr, baseOf(text)));
}

ConfXmlNode *ConfXmlGetRootNode(ConfXmlNode *node) {
    if (node == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "node is nullptr!");
        return nullptr;
    }
    return handleOf(elementOf(node)->GetDocument()->FirstChildElement());
}

bool ConfXmlIsRootNode(ConfXmlNode *node) {
    return node != nullptr && isRoot(elementOf(node));
}

ConfXmlNode *ConfXmlGetNodeParenet(ConfXmlNode *node) {
    if (node == nullptr) {
        return nullptr;
    }
    if (isRoot(elementOf(node))) {
        CONF_LOG(CONF_LOG_ERROR, "node is root!");
        return nullptr;
    }
    return handleOf(parentElement(elementOf(node)));
}

uint32_t ConfXmlGetNodeChildNum(ConfXmlNode *parent) {
    if (parent == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "parentNode is nullptr");
        return 0;
    }
    uint32_t count = 0;
    for (const XMLElement *child = elementOf(parent)->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        count++;
    }
    return count;
}

ConfXmlNode *ConfXmlGetNodeFirstChild(ConfXmlNode *parent) {
    if (parent == nullptr) {
        CONF_LOG(CONF_LOG_DEBUG, "parentNode is nullptr");
        return nullptr;
    }
    XMLElement *child = elementOf(parent)->FirstChildElement();
    if (child == nullptr) {
        CONF_LOG(CONF_LOG_DEBUG, "this parentNode has no child!");
    }
    return handleOf(child);
}

ConfXmlNode *ConfXmlGetNodeNextSibling(ConfXmlNode *node) {
    if (node == nullptr) {
        CONF_LOG(CONF_LOG_DEBUG, "node is nullptr!");
        return nullptr;
    }
    return handleOf(elementOf(node)->NextSiblingElement());
}

ConfXmlNode *ConfXmlGetNodeIterator(ConfXmlNode *node) {
    if (node == nullptr) {
        CONF_LOG(CONF_LOG_DEBUG, "pstNode is nullptr!");
        return nullptr;
    }
    ConfXmlNode *next = ConfXmlGetNodeFirstChild(node);
    /* One step up at a time, and only where nothing follows: the step from the root is recorded. */
    for (ConfXmlNode *at = node; next == nullptr && at != nullptr;) {
        next = handleOf(elementOf(at)->NextSiblingElement());
        at = next == nullptr ? ConfXmlGetNodeParenet(at) : nullptr;
    }
    return next;
}

ConfXmlNode *ConfXmlGetNodeByPath(ConfXmlNode *node, const char *path) {
    if (node == nullptr || path == nullptr || path[0] == '\0') {
        CONF_LOG(CONF_LOG_ERROR, "invalid param!");
        return nullptr;
    }
    XMLElement *current = elementOf(node);
    const char *begin = path;
    for (const char *space = strchr(begin, ' '); space != nullptr; space = strchr(begin, ' ')) {
        const Name name = {begin, static_cast<size_t>(space - begin)};
        if (!name.isNameOf(current)) {
            current = firstChildNamed(current, name);
            if (current == nullptr) {
                return nullptr;
            }
        }
        begin = space + 1;
    }
    return handleOf(begin[0] == '\0' ? current : firstChildNamed(current, {begin, strlen(begin)}));
}

const char *ConfXmlGetNodeName(ConfXmlNode *node) {
    if (node == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "node is nullptr!");
        return nullptr;
    }
    return elementOf(node)->Name();
}

const char *ConfXmlGetNodeText(ConfXmlNode *node) {
    if (node == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "node is nullptr!");
        return nullptr;
    }
    return textOf(elementOf(node)); /* some releases of the XML library step over a comment */
}

int32_t ConfXmlGetNodeIntText(ConfXmlNode *node) {
    if (node == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "node is nullptr!");
        return 0;
    }
    return signedIn(textOf(elementOf(node)));
}

const char *ConfXmlGetNodeStrAttr(ConfXmlNode *node, const char *name) {
    if (node == nullptr || name == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "invalid param!");
        return nullptr;
    }
    return elementOf(node)->Attribute(name);
}

int32_t ConfXmlGetNodeIntAttr(ConfXmlNode *node, const char *name) {
    if (node == nullptr || name == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "invalid param!");
        return 0;
    }
    return signedIn(elementOf(node)->Attribute(name));
}

uint32_t ConfXmlGetNodeUintAttr(ConfXmlNode *node, const char *name) {
    if (node == nullptr || name == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "invalid param!");
        return 0;
    }
    return unsignedIn(elementOf(node)->Attribute(name));
}

/* New elements, and attributes and texts of typed values. */
#include <charconv>

#include "common/classic_locale.h"
#include "platform/bounds_checked.h"
#include "xml/xmlAdapter_document.h"
#include "xml/xmlAdapter_edit.h"
#include "xml/xmlAdapter_memory.h"

using tinyxml2::XMLElement;

namespace {

template <typename Number>
Number numberAt(const void *place) {
    Number number = {};
    (void)memcpy_s(&number, sizeof(number), place, sizeof(number));
    return number;
}

/* An integer as the XML library would print it, without the cost of its format. */
struct Decimal {
    template <typename Integer>
    explicit Decimal(Integer number) {
        *std::to_chars(text, text + sizeof(text) - 1, number).ptr = '\0';
    }
    char text[24];
};

template <typename Integer>
Decimal decimalAt(const void *place) {
    return Decimal(numberAt<Integer>(place));
}

/* Hands the value of a type to `put`, in the type that the XML library writes. */
template <typename Put>
uint32_t putValue(int32_t type, const void *value, Put put) {
    switch (type) {
        case CONF_XML_TEXT:
            put(static_cast<const char *>(value));
            break;
        case CONF_XML_INT:
        case CONF_XML_INT32:
            put(decimalAt<int32_t>(value).text);
            break;
        case CONF_XML_UINT:
        case CONF_XML_UINT32:
            put(decimalAt<uint32_t>(value).text);
            break;
        case CONF_XML_INT8:
            put(Decimal(int{numberAt<int8_t>(value)}).text);
            break;
        case CONF_XML_UINT8:
            put(Decimal(int{numberAt<uint8_t>(value)}).text);
            break;
        case CONF_XML_INT16:
            put(Decimal(int{numberAt<int16_t>(value)}).text);
            break;
        case CONF_XML_UINT16:
            put(Decimal(int{numberAt<uint16_t>(value)}).text);
            break;
        case CONF_XML_INT64:
            put(decimalAt<int64_t>(value).text);
            break;
        case CONF_XML_UINT64:
            put(decimalAt<uint64_t>(value).text);
            break;
        case CONF_XML_BOOL:
            put(numberAt<uint8_t>(value) != 0);
            break;
        case CONF_XML_DOUBLE: {
            const ClassicLocale locale;
            put(numberAt<double>(value));
            break;
        }
        case CONF_XML_FLOAT: {
            const ClassicLocale locale;
            put(numberAt<float>(value));
            break;
        }
        default:
            return CONF_XML_NOT_HANDLED;
    }
    return CONF_XML_OK;
}

bool isForAttributes(int32_t type) {
    return type != CONF_XML_INT8 && type != CONF_XML_UINT8 && type != CONF_XML_INT32 &&
           type != CONF_XML_UINT32;
}

}  // namespace

/* Memory ran out while an attribute was set. The XML library would follow a null name or value, so
 * the attribute goes; one without a name can only be reached when it is the first. */
void dropAttribute(XMLElement *element, const char *name) {
    const tinyxml2::XMLAttribute *last = element->FirstAttribute();
    while (last != nullptr && last->Next() != nullptr) {
        last = last->Next();
    }
    if (last != nullptr && last->Name() == nullptr) {
        name = nullptr;
        while (element->FirstAttribute() != last) {
            element->DeleteAttribute(element->FirstAttribute()->Name());
        }
    }
    element->DeleteAttribute(name);
}

/* The same for a text: it becomes empty. */
void emptyText(XMLElement *element) {
    tinyxml2::XMLNode *first = element->FirstChild();
    if (first != nullptr && first->ToText() != nullptr && first->Value() == nullptr) {
        first->SetValue("", true);
    }
}

ConfXmlNode *ConfXmlCreateFirstChildNode(ConfXmlNode *parent, const char *name) {
    return createChild(__func__, parent, name, &tinyxml2::XMLNode::InsertFirstChild);
}

ConfXmlNode *ConfXmlCreateLastChildNode(ConfXmlNode *parent, const char *name) {
    return createChild(__func__, parent, name, &tinyxml2::XMLNode::InsertEndChild);
}

uint32_t ConfXmlAddAttr(ConfXmlNode *node, const char *name, int32_t type, const void *value) {
    if (value == nullptr || name == nullptr || node == nullptr || type > CONF_XML_FLOAT ||
        type < 0) {
        return CONF_XML_INVALID;
    }
    if (!isForAttributes(type)) {
        return CONF_XML_NOT_HANDLED;
    }
    const auto result = unlessNoMemory<uint32_t>(CONF_XML_NO_MEMORY, [&] {
        return putValue(type, value,
                        [&](auto typed) { elementOf(node)->SetAttribute(name, typed); });
    });
    if (result == CONF_XML_NO_MEMORY) {
        dropAttribute(elementOf(node), name);
    }
    return result;
}

uint32_t ConfXmlDeleteAttr(ConfXmlNode *node, const char *name) {
    if (node == nullptr || name == nullptr) {
        return CONF_XML_NOT_HANDLED;
    }
    elementOf(node)->DeleteAttribute(name);
    return CONF_XML_OK;
}

uint32_t ConfXmlSetNodeText(ConfXmlNode *node, int32_t type, const void *value) {
    if (node == nullptr || type > CONF_XML_FLOAT || value == nullptr) {
        return CONF_XML_INVALID;
    }
    const auto result = unlessNoMemory<uint32_t>(CONF_XML_NO_MEMORY, [&] {
        return putValue(type, value, [&](auto typed) { elementOf(node)->SetText(typed); });
    });
    if (result == CONF_XML_NO_MEMORY) {
        emptyText(elementOf(node));
    }
    return result;
}

/* Documents of the XML library, and the handles of their elements. */
#pragma once
#include <tinyxml2.h>

#include <cstddef>
#include <new>

#include "common/platform_block.h"
#include "include/xmlAdapter.h"

/* Every document behind a handle. It is a block of the platform's memory, where one that was never
 * released shows. */
class ConfXMLDocument final : public tinyxml2::XMLDocument {
  public:
    ConfXMLDocument() = default;
    ~ConfXMLDocument() override = default;

    static void *operator new(size_t size) noexcept;
    static void operator delete(void *document) noexcept;

    /* The document on one line, valid until the next call; null without memory. */
    const char *PrintToString();

  private:
    PlatformBlock<char> printed_;
};

inline tinyxml2::XMLElement *elementOf(ConfXmlNode *node) {
    return reinterpret_cast<tinyxml2::XMLElement *>(node);
}

inline ConfXmlNode *handleOf(tinyxml2::XMLElement *element) {
    return reinterpret_cast<ConfXmlNode *>(element);
}

/* An element's first child where that is a text, else null. */
inline const char *textOf(const tinyxml2::XMLElement *element) {
    const tinyxml2::XMLNode *child = element->FirstChild();
    return child == nullptr || child->ToText() == nullptr ? nullptr : child->Value();
}

/* The low 32 bits of a number of up to 64, decimal or with 0x hexadecimal, that a text begins with;
 * 0 when it begins with none. The XML library's own reading depends on the width of long. */
int32_t signedIn(const char *text);
uint32_t unsignedIn(const char *text);

/* Whole documents: read, made, printed, saved and released. */
#include <cstdio>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "common/native_path.h"
#include "platform/bounds_checked.h"
#include "xml/xmlAdapter_document.h"
#include "xml/xmlAdapter_memory.h"

namespace {

constexpr char kUnit[] = "xmlAdapter";

/* What the parser skips in front of a document, whatever the locale. */
constexpr char kBlanks[] = " \t\n\v\f\r";

using Document = std::unique_ptr<ConfXMLDocument>;

struct StreamClose {
    void operator()(FILE *stream) const { (void)fclose(stream); }
};

/* The document goes on living behind its root; one without an element ends here. */
ConfXmlNode *rootOf(Document document) {
    tinyxml2::XMLElement *root = document->FirstChildElement();
    if (root != nullptr) {
        (void)document.release();
    }
    return handleOf(root);
}

/* Is there anything but blanks? The library loads a file whole before it finds out. */
bool holdsContent(FILE *stream) {
    char chunk[4096];
    for (;;) {
        const size_t length = fread(chunk, 1, sizeof(chunk) - 1, stream);
        chunk[length] = '\0';
        const size_t blanks = strspn(chunk, kBlanks);
        if (blanks < length || length == 0) {
            return chunk[blanks] != '\0';
        }
    }
}

}  // namespace

void *ConfXMLDocument::operator new(size_t size) noexcept {
    return OsMemMallocSetCharMon(size, 0, 0, 0, __LINE__, kUnit);
}

void ConfXMLDocument::operator delete(void *document) noexcept {
    OSMemTypeFreeMon(document, 0, 0, __LINE__, kUnit);
}

const char *ConfXMLDocument::PrintToString() {
    return unlessNoMemory<const char *>(nullptr, [this]() -> const char * {
        tinyxml2::XMLPrinter printer(nullptr, true, 0);
        Print(&printer);
        const auto size = static_cast<size_t>(printer.CStrSize());
        printed_ = takeBlock<char>(size, kUnit);
        if (printed_ == nullptr || memcpy_s(printed_.get(), size, printer.CStr(), size) != 0) {
            return nullptr;
        }
        return printed_.get();
    });
}

ConfXmlNode *ConfXmlParseFileGetRoot(const char *path) {
    if (path == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "pszXmlFile is nullptr");
        return nullptr;
    }
    Document document(new ConfXMLDocument);
    if (document == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return nullptr;
    }
    const std::unique_ptr<FILE, StreamClose> stream(OsFopen(path, "rb"));
    if (stream == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "fp is null");
        return nullptr;
    }
    const bool loaded = holdsContent(stream.get()) && unlessNoMemory(false, [&] {
                            return document->LoadFile(stream.get()) == tinyxml2::XML_SUCCESS;
                        });
    if (!loaded) {
        CONF_LOG(CONF_LOG_ERROR, "LoadFile failed");
        return nullptr;
    }
    return rootOf(std::move(document));
}

ConfXmlNode *ConfXmlParseBodyGetRoot(const char *text) {
    Document document(new ConfXMLDocument);
    if (document == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return nullptr;
    }
    /* The library copies the text before it looks at it. */
    const char *content = text == nullptr ? nullptr : text + strspn(text, kBlanks);
    const bool parsed = unlessNoMemory(
        false, [&] { return document->Parse(content, SIZE_MAX) == tinyxml2::XML_SUCCESS; });
    if (!parsed) {
        CONF_LOG(CONF_LOG_ERROR, "Parse doc failed");
        return nullptr;
    }
    if (document->Error()) {
        CONF_LOG(CONF_LOG_ERROR, "Error parsing XML: %s", document->ErrorStr());
        return nullptr;
    }
    return rootOf(std::move(document));
}

ConfXmlNode *ConfXmlCreateRootNode(const char *name) {
    Document document(name == nullptr ? nullptr : new ConfXMLDocument);
    if (document == nullptr) {
        return nullptr;
    }
    const bool made = unlessNoMemory(
        false, [&] { return document->InsertFirstChild(document->NewElement(name)) != nullptr; });
    return made ? rootOf(std::move(document)) : nullptr;
}

void ConfXmlFreeRootNode(ConfXmlNode *node) {
    if (node == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "parentNode is nullptr!");
        return;
    }
    delete elementOf(node)->GetDocument();
}

const char *ConfXmlTransformStr(ConfXmlNode *root) {
    if (root == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "rootNode is nullptr!");
        return nullptr;
    }
    if (!ConfXmlIsRootNode(root)) {
        CONF_LOG(CONF_LOG_ERROR, "input node is not root!");
        return nullptr;
    }
    auto *document = static_cast<ConfXMLDocument *>(elementOf(root)->GetDocument());
    const char *text = document->PrintToString();
    if (text == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
    }
    return text;
}

uint32_t ConfXmlTransformFile(ConfXmlNode *node, const char *path) {
    if (node == nullptr || path == nullptr) {
        return CONF_XML_INVALID;
    }
    const NativePath native(path);
    if (native.get() == nullptr) {
        return tinyxml2::XML_ERROR_FILE_COULD_NOT_BE_OPENED;
    }
    return unlessNoMemory<uint32_t>(CONF_XML_NO_MEMORY, [&]() -> uint32_t {
        return elementOf(node)->GetDocument()->SaveFile(native.get(), false);
    });
}

/* Attacks ConfXmlParseBodyGetRoot, ConfXmlGetNodeByPath, ConfXmlGetNodeIterator and the readers,
 * setters and printers on what they accepted. An input is a path, a NUL and a document. */
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/scratch.h"
#include "include/conf_log_adapter.h"
#include "include/xmlAdapter.h"

namespace {

using fuzz::require;

/* Each element once, and every handle leads back to the root. */
void walk(ConfXmlNode *root, const std::string &path) {
    for (ConfXmlNode *at = root; at != nullptr; at = ConfXmlGetNodeIterator(at)) {
        require(ConfXmlGetNodeName(at) != nullptr && ConfXmlGetRootNode(at) == root);
        (void)ConfXmlGetNodeText(at);
        (void)ConfXmlGetNodeIntText(at);
        (void)ConfXmlGetNodeIntAttr(at, "a");
        ConfXmlNode *found = path.empty() ? nullptr : ConfXmlGetNodeByPath(at, path.c_str());
        require(found == nullptr || ConfXmlGetRootNode(found) == root);
        uint32_t children = 0;
        for (ConfXmlNode *child = ConfXmlGetNodeFirstChild(at); child != nullptr;
             child = ConfXmlGetNodeNextSibling(child)) {
            require(ConfXmlGetNodeParenet(child) == at);
            children++;
        }
        require(children == ConfXmlGetNodeChildNum(at));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string root = fuzz::scratchRoot();
    SetLogLevel(0);
    const std::string input(reinterpret_cast<const char *>(data), size);
    const size_t end = input.find('\0');
    const std::string path = input.substr(0, end);
    const std::string text = end == std::string::npos ? "" : input.substr(end + 1);
    ConfXmlNode *document = ConfXmlParseBodyGetRoot(text.c_str());
    if (document == nullptr) {
        return 0;
    }
    walk(document, path);
    require(ConfXmlAddAttr(document, "a", CONF_XML_TEXT, path.c_str()) == CONF_XML_OK);
    require(path == ConfXmlGetNodeStrAttr(document, "a"));
    require(ConfXmlSetNodeText(document, CONF_XML_TEXT, path.c_str()) == CONF_XML_OK);
    require(ConfXmlCreateLastChildNode(document, "last") != nullptr);
    require(ConfXmlTransformStr(document) != nullptr);
    ConfXmlFreeRootNode(document);
    return 0;
}

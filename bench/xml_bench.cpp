/* A document of 1 MiB parsed, walked and printed by node handle, beside the XML library's own calls. */
#include <tinyxml2.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "bench/take_turns.h"
#include "include/conf_log_adapter.h"
#include "include/xmlAdapter.h"

namespace {

void check(bool good) {
    bench::require(good, "doing the same as the XML library");
}

std::string makeDocument() {
    std::string text = "<sites>";
    for (int i = 0; text.size() < (1U << 20); i++) {
        const std::string number = std::to_string(i);
        text += "<site id=\"" + number + "\" kind=\"room\"><name>Meeting room " + number +
                " &amp; lobby</name><address port=\"5061\">sip:room" + number +
                "@example.com</address></site>";
    }
    return text + "</sites>";
}

/* What a walk has seen. */
struct Sum {
    size_t names = 0, texts = 0, numbers = 0;
    bool operator==(const Sum &) const = default;
};

void add(Sum *sum, const char *name, const char *text, int number) {
    sum->names += static_cast<unsigned char>(name[0]);
    sum->texts += text == nullptr ? 0 : static_cast<unsigned char>(text[0]);
    sum->numbers += static_cast<size_t>(number);
}

const tinyxml2::XMLElement *nextElement(const tinyxml2::XMLElement *at) {
    if (const auto *child = at->FirstChildElement()) {
        return child;
    }
    while (at != nullptr) {
        if (const auto *sibling = at->NextSiblingElement()) {
            return sibling;
        }
        at = at->Parent()->ToElement();
    }
    return nullptr;
}

Sum bareRun(const std::string &text, size_t *printed) {
    tinyxml2::XMLDocument document;
    check(document.Parse(text.c_str()) == tinyxml2::XML_SUCCESS);
    Sum sum;
    for (const auto *at = document.RootElement(); at != nullptr; at = nextElement(at)) {
        add(&sum, at->Name(), at->GetText(), at->IntAttribute("id"));
    }
    tinyxml2::XMLPrinter printer(nullptr, true);
    document.Print(&printer);
    *printed = std::string_view(printer.CStr()).size();
    return sum;
}

Sum adapterRun(const std::string &text, size_t *printed) {
    ConfXmlNode *root = ConfXmlParseBodyGetRoot(text.c_str());
    check(root != nullptr);
    Sum sum;
    for (ConfXmlNode *at = root; at != nullptr; at = ConfXmlGetNodeIterator(at)) {
        add(&sum, ConfXmlGetNodeName(at), ConfXmlGetNodeText(at), ConfXmlGetNodeIntAttr(at, "id"));
    }
    *printed = std::string_view(ConfXmlTransformStr(root)).size();
    ConfXmlFreeRootNode(root);
    return sum;
}

}  // namespace

int main() {
    SetLogLevel(0); /* the end of each walk is a record */
    const std::string text = makeDocument();
    size_t bareSize = 0;
    size_t adapterSize = 0;
    check(bareRun(text, &bareSize) == adapterRun(text, &adapterSize) && bareSize == adapterSize);
    bench::compare(
        {.title = "1 MiB of XML parsed, walked, printed and released", .rounds = 60, .seconds = 10},
        {{"TinyXML-2", 0, [&] { bareRun(text, &bareSize); }},
         {"ConfXml...", 1.05, [&] { adapterRun(text, &adapterSize); }}});
    return bench::finish();
}

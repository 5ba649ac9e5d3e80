/* XML documents by node handle, values by path, and the device's switch file:
 *
 *     example_xml_documents
 */
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "conf_config.h"
#include "tamo_om_cust_util.h"
#include "tamo_os_file.h"
#include "tamo_os_mem.h"
#include "xml_utility.h"

namespace {

/* A document is read, changed, and printed again. */
bool changeDocument() {
    ConfXmlNode *root = ConfXmlParseBodyGetRoot(
        "<conf><sites><site id='1'>Berlin</site><site id='2'>Oslo</site></sites></conf>");
    ConfXmlNode *sites = ConfXmlGetNodeByPath(root, "sites");
    for (ConfXmlNode *site = ConfXmlGetNodeFirstChild(sites); site != nullptr;
         site = ConfXmlGetNodeNextSibling(site)) {
        printf("site %d is %s\n", ConfXmlGetNodeIntAttr(site, "id"), ConfXmlGetNodeText(site));
    }
    char first[16] = "";
    ConfXmlParaseStringParams("sites site", root, first, sizeof(first), 0);

    const uint32_t id = 3;
    ConfXmlNode *added = ConfXmlCreateLastChildNode(sites, "site");
    ConfXmlAddAttr(added, "id", CONF_XML_UINT, &id);
    ConfXmlSetNodeText(added, CONF_XML_TEXT, "Lima");
    const std::string text = ConfXmlTransformStr(root);
    printf("%s\n", text.c_str());
    ConfXmlFreeRootNode(root);
    return strcmp(first, "Berlin") == 0 &&
           text.find("<site id=\"3\">Lima</site>") != std::string::npos;
}

/* A body out of descriptors, as requests to a server carry it. */
bool encodeBody() {
    const ConfXmlAttrDesc attributes[] = {{"unit", "ms"}};
    const ConfXmlNodeDesc nodes[] = {{"name", "meeting-room-4", 0, nullptr},
                                     {"timeout", "3000", 1, attributes}};
    const ConfXmlEncodeDesc request = {"register", nodes, 2};
    char *body = ConfXmlAdptEncode(&request);
    char *document = nullptr;
    const bool good = body != nullptr && ConfXmlDumpWithHeader(body, &document) == 0;
    if (good) {
        printf("%s\n", document);
    }
    for (char *block : {body, document}) {
        if (block != nullptr) {
            OSMemTypeFreeMon(block, 0, 0, __LINE__, "xml_documents");
        }
    }
    return good;
}

/* The device's maker switches features in a file, which is loaded once. */
bool readSwitches() {
    const std::string folder = std::string(TamoOmCustUtilGetCfgPath(0)) + "/conference";
    char buffer[512];
    const char *path = OsFileNativePath(folder.c_str(), buffer, sizeof(buffer));
    if (path == nullptr) {
        return false;
    }
    mkdir(path, 0700);
    std::ofstream(std::string(path) + "/conf_config.xml")
        << "<switches><switch name=\"ignoreLayoutStrategy\">1</switch></switches>";
    const int32_t result = ConfConfigXmlInit();
    printf("loaded: %d; ignoreLayoutStrategy is %d, isStopCastWhenConfEnd is %d\n", result,
           IgnoreLayoutStrategy(), IsStopCastWhenConfEnd());
    return result == 0 && IgnoreLayoutStrategy() == 1 && IsStopCastWhenConfEnd() == 0;
}

}  // namespace

int main() {
    bool good = changeDocument();
    good = encodeBody() && good;
    good = readSwitches() && good;
    return good ? 0 : 1;
}

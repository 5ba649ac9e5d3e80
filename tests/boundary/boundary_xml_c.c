/* Structures in XML files, values by path and documents from descriptors, as a plain C program uses
 * them. */
#include <inttypes.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>
#include <tamo_os_mem.h>
#include <xml_utility.h>

/* The line of the first check that failed; 0 as long as none has. */
static int failedLine;

static void check(bool passed, int line) {
    if (!passed && failedLine == 0) {
        failedLine = line;
    }
}

#define CHECK(condition) check(condition, __LINE__)

static uint16_t storedLevel = 9;

static ConfXmlNode *describeLevel(int32_t saving) {
    (void)saving;
    char address[24];
    snprintf(address, sizeof(address), "%" PRIuPTR, (uintptr_t)&storedLevel);
    const ConfXmlValueNodeDesc desc = {"level", "UINT16"};
    const ConfXmlValue value = {CONF_XML_ATTR_UINT16, {.text = address}, 0};
    ConfXmlNode *root = ConfXmlAddSingleStructNode(NULL, "Root");
    ConfXmlNode *array = ConfXmlAddMultiInstanceNode(root, "Speakers", 1);
    ConfXmlNode *speaker = ConfXmlAddMultiStructNode(array, "Speaker", 0);
    CHECK(ConfXmlAddSingleValueNode(speaker, &desc, &value) != NULL);
    return root;
}

static void checkXmlStore(void) {
    const char *path = "/data/level.xml";
    CHECK(ConfXmlSave(describeLevel, path, "/data/level.bak") == 0);
    ConfXmlBakFile(path, "/data/level2.bak");
    storedLevel = 0;
    CHECK(ConfXmlLoad(describeLevel, "/data/level2.bak", path) == 0 && storedLevel == 9);

    ConfXmlNode *table = describeLevel(1);
    ConfXmlNode *speaker = ConfXmlGetNodeFirstChild(ConfXmlGetNodeFirstChild(table));
    ConfXmlNode *field = ConfXmlGetNodeFirstChild(speaker);
    TransXMLContext context = {table, 0, {0, 0}};
    ConfXmlNodeInfo info = {0};
    ConfXmlNode *found;
    ConfXmlValue value = {0};
    uint8_t code = 0;
    CHECK(ConfXmlTraverseXmlTree(table, &context, ConfXmlLoadCallBack) == 0);
    CHECK(ConfXmlGetXmlNodeAttr(field, &info) == 0 && info.type == CONF_XML_ATTR_UINT16);
    CHECK(ConfXmlGetXmlNodeAttrAndValue(field, &info) == 0 && ConfXmlIsValueNode(&info) == 1);
    CHECK(ConfXmlAttrTypeStrToEnum("INT8", &code) == 0 && code == CONF_XML_ATTR_INT8);
    CHECK(ConfXmlMatchNode(field, field, ConfXmlCompareNode) == 0);
    CHECK(ConfXmlFindMatchNode(field, speaker, ConfXmlCompareNode, &found) == 0);
    CHECK(ConfXmlCopyIndexValueToXmlNode(&info, &storedLevel, &value) == 0);
    CHECK(ConfXmlSetXmlNodeValue(field, &value) == 0);
    CHECK(ConfXmlGetValue(field, info.type, &value) == 0 && value.value.u16 == storedLevel);
    CHECK(ConfXmlCopyXmlNodeValueToIndex(&value, &info, &storedLevel) == 0);
    CHECK(ConfXmlWriteCallBack(NULL, &context) == 1);
    ConfXmlFreeRootNode(table);
}

static void checkXmlDescriptors(void) {
    const ConfXmlAttrDesc attr = {"k", "v"};
    const ConfXmlNodeDesc child = {"n", "7", 1, &attr};
    const ConfXmlEncodeDesc desc = {"r", &child, 1};
    const ConfXmlEncodeRootDesc rootDesc = {&child, &child, 0};
    char *texts[] = {ConfXmlAdptEncode(&desc), ConfXmlAdptEncodeWithRootAttr(&rootDesc), NULL};
    CHECK(ConfXmlDumpWithHeader("", &texts[2]) == CONF_XML_OK);
    CHECK(texts[0] != NULL && strcmp(texts[0], "<r><n k=\"v\">7</n></r>") == 0);
    CHECK(texts[1] != NULL && strcmp(texts[1], "<n k=\"v\">7</n>") == 0);
    for (int i = 0; i < 3; i++) {
        OSMemTypeFreeMon(texts[i], 0, 0, __LINE__, "boundary");
    }

    ConfXmlNode *root = ConfXmlCreateRootNodeByNodeSet(&child, &child, 1);
    int32_t number = 0;
    char text[4] = "";
    ConfXmlNoteParam note = {"n", 1, text, sizeof(text), 0, 0};
    uint32_t pos = 0, value = 0;
    CHECK(ConfXmlCreateChildNodeByNodeSet(root, &child, &child, 1) != NULL);
    CHECK(ConfXmlAdptAddChildNodes(root, &child, 1) == CONF_XML_OK);
    CHECK(ConfXmlAdptAddNodeAttrs(root, &attr, 1) == CONF_XML_OK);
    CHECK(strcmp(ConfXmlAdptGetNodeValueByUrl(root, "n n"), "7") == 0);
    CHECK(strcmp(ConfXmlAdptGetNodeAttrByUrl(root, "n", "k"), "v") == 0);
    CHECK(ConfXmlParaseStringParams("n", root, text, sizeof(text), 0) == 0);
    CHECK(ConfXmlParaseIntParams("n", root, &number, 0) == 0 && number == 7);
    CHECK(ConfXmlParseSingleNote(root, &note) == 0 && strcmp(text, "7") == 0);
    CHECK(ConfXmlGetStringFromAscii("72,105", text, 2) == 0 && strcmp(text, "Hi") == 0);
    CHECK(ConfXmlStrGetNextASCII("7", 1, &pos, &value) == 0 && pos == 1 && value == 7);
    CHECK(ConfXmlIsNumericStr("7") == 1);
    ConfXmlFreeRootNode(root);
}

/* 0, or the line of the first check that failed. */
int boundaryXmlFromC(void) {
    checkXmlStore();
    checkXmlDescriptors();
    return failedLine;
}

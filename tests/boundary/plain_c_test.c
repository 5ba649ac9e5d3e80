/* A plain C program: the exported functions that no other test calls by themselves. */
#include <conf_config_value.h>
#include <conf_digest.h>
#include <conf_mask_keyword.h>
#include <conf_msg_api.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <xml_utility.h>

#define CHECK(condition)                                       \
    do {                                                       \
        if (!(condition)) {                                    \
            fprintf(stderr, "%d: %s\n", __LINE__, #condition); \
            exit(1);                                           \
        }                                                      \
    } while (0)

static uintptr_t add(uintptr_t a, uintptr_t b, uintptr_t c) {
    return a + b + c;
}

static void checkFixedAnswers(void) {
    char line[] = "tel:5550123>";
    CHECK(GetOmsConfType() == 0);
    SetOmsConfType(3);
    CHECK(GetOmsConfType() == 3);
    CHECK(ConfReportToTellum() == 0 && ConfReportAddrBookToTellum() == 0);
    CHECK(ConfReportRegisterToTellum() == 0 && ConfReportCallErrToTellum() == 0);
    CHECK(ConfCommMsgCheckPermission());
    CHECK(ConfFilterCallFilterFn(add, 1, 2, 3) == 6);
    ConfFilterNonSecurityWordExImpl(line, line + 4);
    CHECK(strcmp(line, "te*:5550123>") == 0);
}

static void checkValues(void) {
    ConfConfigValue value;
    char text[16];
    CHECK(ConfConfigInt2V(&value, -1) == 0 && ConfConfigV2Int(&value) == -1);
    CHECK(ConfConfigUInt2V(&value, 7) == 0 && ConfConfigV2UInt(&value) == 7);
    CHECK(ConfConfigFloat2V(&value, 1.5) == 0 && ConfConfigV2Float(&value) == 1.5);
    CHECK(ConfConfigBool2V(&value, 9) == 0 && ConfConfigV2Bool(&value) == 1);
    CHECK(ConfConfigData2V(&value, "ab", 3) == 0);
    CHECK(ConfConfigV2Data(&value, text, sizeof(text)) == 0 && strcmp(text, "ab") == 0);
}

static uint16_t storedLevel = 9;

static ConfXmlNode *describeLevel(void) {
    char address[24];
    snprintf(address, sizeof(address), "%" PRIuPTR, (uintptr_t)&storedLevel);
    const ConfXmlValueNodeDesc desc = {"level", "UINT16"};
    const ConfXmlValue value = {CONF_XML_ATTR_UINT16, {.text = address}, 0};
    ConfXmlNode *root = ConfXmlAddSingleStructNode(NULL, "Root");
    ConfXmlNode *array = ConfXmlAddMultiInstanceNode(root, "Speakers", 1);
    CHECK(ConfXmlAddSingleValueNode(ConfXmlAddMultiStructNode(array, "Speaker", 0), &desc,
                                    &value) != NULL);
    return root;
}

static void checkXmlTables(void) {
    ConfXmlNode *table = describeLevel();
    ConfXmlNode *speaker = ConfXmlGetNodeFirstChild(ConfXmlGetNodeFirstChild(table));
    ConfXmlNode *field = ConfXmlGetNodeFirstChild(speaker);
    TransXMLContext context = {table, 0, {0, 0}};
    ConfXmlNodeInfo info = {0};
    ConfXmlNode *found = NULL;
    ConfXmlValue value = {0};
    uint8_t code = 0;
    CHECK(ConfXmlTraverseXmlTree(table, &context, ConfXmlLoadCallBack) == 0);
    CHECK(ConfXmlGetXmlNodeAttr(field, &info) == 0 && info.type == CONF_XML_ATTR_UINT16);
    CHECK(ConfXmlGetXmlNodeAttrAndValue(field, &info) == 0 && ConfXmlIsValueNode(&info) == 1);
    CHECK(ConfXmlAttrTypeStrToEnum("INT8", &code) == 0 && code == CONF_XML_ATTR_INT8);
    CHECK(ConfXmlMatchNode(field, field, ConfXmlCompareNode) == 0);
    CHECK(ConfXmlMatchNode(field, speaker, ConfXmlCompareNode) != 0);
    CHECK(ConfXmlFindMatchNode(field, speaker, ConfXmlCompareNode, &found) == 0 && found == field);
    CHECK(ConfXmlCopyIndexValueToXmlNode(&info, &storedLevel, &value) == 0);
    CHECK(ConfXmlSetXmlNodeValue(field, &value) == 0);
    const uint16_t level = storedLevel;
    storedLevel = 0;
    CHECK(ConfXmlGetValue(field, info.type, &value) == 0 && value.value.u16 == level);
    CHECK(ConfXmlCopyXmlNodeValueToIndex(&value, &info, &storedLevel) == 0 && storedLevel == level);
    CHECK(ConfXmlWriteCallBack(NULL, &context) == 1);
    ConfXmlFreeRootNode(table);
}

int main(void) {
    checkFixedAnswers();
    checkValues();
    checkXmlTables();
    return 0;
}

/* Values read by path, lists of character codes, and documents from descriptors. */
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <conference_testkit_gtest.h>
#include "include/conf_log_adapter.h"
#include "include/xml_utility.h"

namespace {

using std::string;
using testkit::hasRecord;

/* A record at the error level that a function of the family left. */
bool hasError(const char *text) {
    return hasRecord(1, "xml_utility", text);
}

string take(char *text) {
    const string taken = text == nullptr ? "(null)" : text;
    OSMemTypeFreeMon(text, 0, 0, __LINE__, "test");
    return taken;
}

class XmlUrl : public testkit::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        SetLogLevel(4);
        root_ = ConfXmlParseBodyGetRoot(
            "<r><s a='v'>four</s><n>-12</n><x>12x</x><e/><c>72,233</c><b>72,105,x,9</b></r>");
    }
    void TearDown() override {
        ConfXmlFreeRootNode(root_);
        SetLogLevel(3);
        PlatformTest::TearDown();
    }

    ConfXmlNode *root_ = nullptr;
};

TEST_F(XmlUrl, TextsAndAttributesAreFoundOrTheirAbsenceIsRecorded) {
    EXPECT_STREQ(ConfXmlAdptGetNodeValueByUrl(root_, "r s"), "four");
    EXPECT_STREQ(ConfXmlAdptGetNodeAttrByUrl(root_, "s", "a"), "v");
    EXPECT_EQ(ConfXmlAdptGetNodeValueByUrl(root_, "no"), nullptr);
    EXPECT_EQ(ConfXmlAdptGetNodeValueByUrl(root_, "e"), nullptr);
    EXPECT_EQ(ConfXmlAdptGetNodeValueByUrl(nullptr, "s"), nullptr);
    EXPECT_EQ(ConfXmlAdptGetNodeAttrByUrl(root_, "no", "a"), nullptr);
    EXPECT_EQ(ConfXmlAdptGetNodeAttrByUrl(root_, "s", "b"), nullptr);
    EXPECT_EQ(ConfXmlAdptGetNodeAttrByUrl(root_, "s", nullptr), nullptr);
    EXPECT_TRUE(hasRecord(4, "xml_utility", "ByUrl]ConfXmlGetNodeByPath fail! no"));
    EXPECT_TRUE(hasRecord(4, "xml_utility", "ByUrl]ConfXmlGetNodeText fail!"));
    EXPECT_TRUE(hasError("[ConfXmlAdptGetNodeAttrByUrl]ConfXmlGetNodeByPath fail!"));
    EXPECT_TRUE(hasError("[ConfXmlAdptGetNodeAttrByUrl]ConfXmlGetNodeStrAttr fail!"));
}

TEST_F(XmlUrl, NotesAreStoredAsTheirRecordSays) {
    const struct {
        const char *path;
        uint8_t isString, asciiCodes;
        uint32_t size;
        uint32_t result;
        string stored; /* of four bytes "\1\1\1\1" and a fifth that is never written */
    } cases[] = {{"s", 1, 0, 5, 0, "four"},
                 {"s", 1, 0, 4, 1, "\1\1\1\1\1"},
                 {"s", 1, 0, 0, 1, "\1\1\1\1\1"},
                 {"s", 1, 0, UINT32_MAX, 0, "four"},
                 {"no", 1, 0, 5, 1, "\1\1\1\1\1"},
                 {"no", 0, 0, 0, 1, "\1\1\1\1\1"},
                 {"n", 0, 0, 0, 0, "\xF4\xFF\xFF\xFF\1"},
                 {"x", 0, 0, 0, 0, "\1\1\1\1\1"},
                 {"c", 1, 1, 5, 0, "H\xC3\xA9\1\1"},
                 {"c", 1, 1, 4, 0, "H\xC3\xA9\1\1"},
                 {"c", 1, 1, 3, 0, "H\1\1\1\1"},
                 {"c", 1, 1, 1, 0, "\1\1\1\1\1"},
                 {"c", 1, 1, 0, 0, "\1\1\1\1\1"},
                 {"b", 1, 1, 5, 0, "Hi\1\1\1"},
                 {"e", 1, 1, 5, 1, "\1\1\1\1\1"}};
    for (const auto &c : cases) {
        alignas(int32_t) char storage[6] = "\1\1\1\1\1";
        ConfXmlNoteParam param = {"", c.isString, storage, c.size, 1, c.asciiCodes};
        strncpy(param.path, c.path, sizeof(param.path) - 1);
        EXPECT_EQ(ConfXmlParseSingleNote(root_, &param), c.result) << c.path << c.size;
        EXPECT_EQ(string(storage), c.stored) << c.path << c.size;
    }
    EXPECT_TRUE(hasRecord(4, "xml_utility", "[ConfXmlParaseStringParams]s:four"));
    EXPECT_TRUE(hasRecord(4, "xml_utility", "[ConfXmlParaseStringParams]Xml Parase no fail"));
    EXPECT_TRUE(hasRecord(4, "xml_utility", "[ConfXmlParaseIntParams]n:4294967284"));
    EXPECT_TRUE(hasError("strcpy_s failed!  strSize 4 valueSize 4 url s"));
    EXPECT_TRUE(hasError("[ConfXmlGetStringFromAscii]ConfXmlStrGetNextASCII failed!"));
    ConfXmlNoteParam endless = {"", 1, root_, 1, 0, 0};
    memset(endless.path, 's', sizeof(endless.path));
    EXPECT_EQ(ConfXmlParseSingleNote(root_, &endless), 1u);
    EXPECT_EQ(ConfXmlParseSingleNote(root_, nullptr), 1u);
    EXPECT_EQ(ConfXmlParaseIntParams("n", root_, nullptr, 0), 1u);
    EXPECT_EQ(ConfXmlParaseStringParams("s", root_, nullptr, 5, 0), 1u);
}

TEST_F(XmlUrl, CodeListsAreReadToTheirEnd) {
    const struct {
        const char *list;
        uint32_t result;
        string decoded;
    } cases[] = {{"", 0, ""},
                 {"72,", 0, "H"},
                 {"72,,105", 0, string("H\0i", 3)},
                 {"20013", 0, "\xE4\xB8\xAD"},
                 {"65608", 0, "H"}, /* its low 16 bits */
                 {"65536,72", 0, "H"},
                 {"4294967368", 0, "H"}, /* its low 32 bits */
                 {"72 ,105", 1, ""},
                 {"-72", 1, ""}};
    for (const auto &c : cases) {
        char decoded[9] = {};
        EXPECT_EQ(ConfXmlGetStringFromAscii(c.list, decoded, 8), c.result) << c.list;
        EXPECT_EQ(string(decoded, c.decoded.size()), c.decoded) << c.list;
        EXPECT_EQ(decoded[c.decoded.size()], '\0') << c.list;
    }
    char decoded[9] = {};
    testkit::failCall(MOX_UnicodeToUtf8, 1);
    EXPECT_EQ(ConfXmlGetStringFromAscii("72,233", decoded, 8), 1u);
    EXPECT_STREQ(decoded, "H");
    EXPECT_TRUE(hasError("pcUTF8Temp is null!"));
    uint32_t pos = 0;
    uint32_t value = 9;
    EXPECT_EQ(ConfXmlStrGetNextASCII("12,3", 4, &pos, &value) + pos * 10 + value, 42u);
    EXPECT_EQ(ConfXmlStrGetNextASCII("12,3", 4, &pos, &value) + pos * 10 + value, 43u);
    pos = 1; /* a length within the number ends it */
    EXPECT_EQ(ConfXmlStrGetNextASCII("123", 2, &pos, &value) + pos * 10 + value, 22u);
    EXPECT_EQ(ConfXmlStrGetNextASCII("123", 2, &pos, nullptr) +
                  ConfXmlStrGetNextASCII(nullptr, 2, &pos, &value) +
                  ConfXmlStrGetNextASCII("123", 2, nullptr, &value),
              3u);
    const char *const others[] = {nullptr, "", "-1", "1a", " 1"};
    for (const char *text : others) {
        EXPECT_EQ(ConfXmlIsNumericStr(text), 0u);
    }
    EXPECT_EQ(ConfXmlIsNumericStr("007"), 1u);
}

const ConfXmlAttrDesc kGood[] = {{"k", "<1>"}, {"l", "2"}};
const ConfXmlAttrDesc kBad[] = {{"k", nullptr}, {"l", "2"}};

TEST_F(XmlUrl, DescriptorsBecomeTextOrFailWhole) {
    const ConfXmlNodeDesc full[] = {{"a", "t", 2, kGood}, {"b", nullptr, 0, nullptr}};
    const ConfXmlNodeDesc faulty[] = {
        {"a", nullptr, 2, nullptr}, {"a", nullptr, 2, kBad}, {nullptr, nullptr, 0, nullptr}};
    const char *body = "<a k=\"&lt;1&gt;\" l=\"2\">t</a><b/></r>";
    const ConfXmlEncodeDesc plain = {"r", full, 2};
    const ConfXmlNodeDesc root = {"r", "u", 2, kGood};
    const ConfXmlEncodeRootDesc described = {&root, full, 2};
    EXPECT_EQ(take(ConfXmlAdptEncode(&plain)), string("<r>") + body);
    EXPECT_EQ(take(ConfXmlAdptEncodeWithRootAttr(&described)),
              string("<r k=\"&lt;1&gt;\" l=\"2\">") + "<a k=\"&lt;1&gt;\" l=\"2\">t</a>u<b/></r>");
    const ConfXmlEncodeDesc empty = {"r", full, 0};
    EXPECT_EQ(take(ConfXmlAdptEncode(&empty)), "<r/>");
    for (const ConfXmlNodeDesc &fault : faulty) {
        const ConfXmlEncodeDesc child = {"r", &fault, 1};
        const ConfXmlEncodeRootDesc asRoot = {&fault, full, 2};
        EXPECT_EQ(ConfXmlAdptEncode(&child), nullptr);
        EXPECT_EQ(ConfXmlAdptEncodeWithRootAttr(&asRoot), nullptr);
    }
    const ConfXmlEncodeDesc none = {"r", nullptr, 0};
    EXPECT_EQ(ConfXmlAdptEncode(&none), nullptr);
    EXPECT_TRUE(hasError("[ConfXmlAdptAddChildNodes]rootNode or nodes is nullptr!"));
    EXPECT_TRUE(hasError("[ConfXmlAdptEncode]ConfXmlAdptAddChildNodes fail, ret = 15!"));
    EXPECT_TRUE(hasError("[ConfXmlAdptAddNodeAttrs]ConfXmlAddAttr fail, ret = 15!"));
    EXPECT_TRUE(hasError("[ConfXmlAdptEncodeWithRootAttr]ConfXmlAdptAddNodeAttrs fail, ret = 15!"));
    const char *const outOfMemory[] = {"Null ptr.", "xmlBuf is nullptr!"};
    for (uint64_t call = 0; call < 2; call++) {
        testkit::failCall(OsMemMallocSetCharMon, call + 1);
        EXPECT_EQ(ConfXmlAdptEncode(&plain), nullptr);
        EXPECT_TRUE(hasError(outOfMemory[call]));
    }
    char *whole = nullptr;
    EXPECT_EQ(ConfXmlDumpWithHeader("", &whole), 0u);
    EXPECT_EQ(take(whole), "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n");
    EXPECT_EQ(ConfXmlDumpWithHeader("<r/>", nullptr), 15u);
    testkit::failCall(sprintf_s, 1);
    EXPECT_EQ(ConfXmlDumpWithHeader("<r/>", &whole), 16u);
}

TEST_F(XmlUrl, BuildersLeaveOutWhatFails) {
    const ConfXmlNodeDesc root = {"r", nullptr, 2, kBad};
    const ConfXmlNodeDesc children[] = {{"1", nullptr, 0, nullptr}, {"2", nullptr, 0, nullptr}};
    ConfXmlNode *made = ConfXmlCreateRootNodeByNodeSet(&root, children, 2);
    ASSERT_NE(made, nullptr);
    const ConfXmlNodeDesc child = {"c", "t", 1, nullptr};
    ConfXmlNode *last = ConfXmlCreateChildNodeByNodeSet(made, &child, nullptr, 0);
    EXPECT_EQ(ConfXmlAdptAddChildNodes(made, children, 2), 0u) << "the first goes to the front";
    EXPECT_STREQ(ConfXmlTransformStr(made), "<r l=\"2\"><1/><1/><2/><c>t</c><2/></r>");
    EXPECT_NE(last, nullptr);
    EXPECT_TRUE(hasError("[ConfXmlSetAttrByNodeSet]add attr failed!"));
    const ConfXmlNodeDesc nameless = {nullptr, nullptr, 0, nullptr};
    EXPECT_EQ(ConfXmlCreateChildNodeByNodeSet(made, &nameless, nullptr, 0), nullptr);
    EXPECT_TRUE(hasError("[ConfXmlCreateChildNodeByNodeSet]ConfXmlCreateRootNode failed!"));
    EXPECT_EQ(ConfXmlCreateRootNodeByNodeSet(nullptr, nullptr, 0), nullptr);
    ConfXmlFreeRootNode(made);
}

}  // namespace

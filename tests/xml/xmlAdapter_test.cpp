/* Documents walked, searched, changed, printed and saved. */
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <tuple>

#include <conference_testkit_gtest.h>
#include "include/conf_log_adapter.h"
#include "include/xmlAdapter.h"
#include "tests/support/scratch_root.h"

namespace {

using std::string;
using testkit::hasRecord;

class XmlAdapter : public testkit::PlatformTest {
  protected:
    ConfXmlNode *parse(const char *text) { return root_ = ConfXmlParseBodyGetRoot(text); }
    string print() { return ConfXmlTransformStr(root_); }
    void TearDown() override {
        if (root_ != nullptr) {
            ConfXmlFreeRootNode(root_);
        }
        PlatformTest::TearDown();
    }

    ConfXmlNode *root_ = nullptr;
};

TEST_F(XmlAdapter, StepsMeetElementsOnlyAndInDocumentOrder) {
    parse("<r>text<!-- c --><a><b/><c><!-- c -->1</c></a><d>t<!-- c --></d></r>");
    string met;
    for (ConfXmlNode *at = root_; at != nullptr; at = ConfXmlGetNodeIterator(at)) {
        met += ConfXmlGetNodeName(at);
        EXPECT_EQ(ConfXmlGetRootNode(at), root_);
        EXPECT_EQ(ConfXmlIsRootNode(at), at == root_);
    }
    EXPECT_EQ(met, "rabcd");
    EXPECT_TRUE(hasRecord(1, "xmlAdapter", "[ConfXmlGetNodeParenet]node is root!"));
    ConfXmlNode *a = ConfXmlGetNodeFirstChild(root_);
    EXPECT_EQ(ConfXmlGetNodeParenet(a), root_);
    EXPECT_EQ(ConfXmlGetNodeText(ConfXmlGetNodeByPath(a, "c")), nullptr) << "no text begins it";
    EXPECT_EQ(ConfXmlGetNodeChildNum(root_), 2u);
    EXPECT_EQ(ConfXmlGetNodeChildNum(ConfXmlGetNodeNextSibling(a)), 0u);
    EXPECT_EQ(ConfXmlGetNodeNextSibling(ConfXmlGetNodeNextSibling(a)), nullptr);
}

TEST_F(XmlAdapter, StepsGoOnBehindTheRootWhereAnElementFollows) {
    ConfXmlNode *second = ConfXmlGetNodeIterator(parse("<r/><s/>"));
    EXPECT_STREQ(ConfXmlGetNodeName(second), "s");
    EXPECT_EQ(ConfXmlGetNodeIterator(second), nullptr);
    EXPECT_TRUE(testkit::records().empty()) << "no step was one up from the root";
}

TEST_F(XmlAdapter, PathsLeadWhereTheirNamesSay) {
    parse("<A><B n='1'><A n='2'/></B><B n='3'/><a/b n='4'/></A>");
    EXPECT_EQ(root_, nullptr) << "a slash is no part of a name in a text";
    parse("<A n='0'><B n='1'><C n='2'/></B><B n='3'><D n='4'/></B></A>");
    const struct {
        const char *path;
        int32_t found; /* -1: none */
    } cases[] = {{"A B", 1},  {"B", 1},      {"A", -1},   {"A B ", 1}, {"A  B", -1}, {" ", -1},
                 {"A ", 0},   {"A A A ", 0}, {"b", -1},   {"B C", 2},  {"B D", -1},  {"A B B C", 2},
                 {"B C ", 2}, {"B C C", -1}, {"A/B", -1}, {"Bx", -1},  {"A B\t", -1}};
    for (const auto &c : cases) {
        ConfXmlNode *found = ConfXmlGetNodeByPath(root_, c.path);
        EXPECT_EQ(found == nullptr ? -1 : ConfXmlGetNodeIntAttr(found, "n"), c.found) << c.path;
    }
    EXPECT_EQ(testkit::records().size(), 1u) << "a miss leaves no record";
}

TEST_F(XmlAdapter, ValuesAreReadWithTheWidthAndTheSignOfTheirType) {
    const uint64_t ones = UINT64_MAX;
    const double half = 0.5;
    const float quarter = 0.25F;
    const void *const values[] = {&ones, "<&>", &half, &quarter};
    const string texts[] = {
        "&lt;&amp;&gt;", "-1", "4294967295",           "-1",   "255", "-1",  "65535", "-1",
        "4294967295",    "-1", "18446744073709551615", "true", "0.5", "0.25"};
    for (int32_t type = 0; type < 14; type++) {
        const void *value = values[type == 0 ? 1 : type > 11 ? type - 10 : 0];
        const bool forAttributes = type != 3 && type != 4 && type != 7 && type != 8;
        const string &text = texts[type];
        root_ = ConfXmlCreateRootNode("r");
        EXPECT_EQ(ConfXmlSetNodeText(root_, type, value), 0u) << type;
        EXPECT_EQ(ConfXmlAddAttr(root_, "a", type, value), forAttributes ? 0u : 2u) << type;
        EXPECT_EQ(print(), (forAttributes ? "<r a=\"" + text + "\">" : "<r>") + text + "</r>");
        ConfXmlFreeRootNode(root_);
    }
    root_ = ConfXmlCreateRootNode("r");
    for (const auto &[type, value, result] :
         {std::tuple(14, values[0], 15u), {-1, values[0], 2u}, {0, nullptr, 15u}}) {
        EXPECT_EQ(ConfXmlSetNodeText(root_, type, value), result);
        EXPECT_EQ(ConfXmlAddAttr(root_, "a", type, value), 15u);
    }
    EXPECT_EQ(print(), "<r/>");
    EXPECT_TRUE(testkit::records().empty());
}

TEST_F(XmlAdapter, ChangesShowInThePrintAndInTheFile) {
    parse("<?xml version=\"1.0\"?><r a='1' b='2'><m>7</m></r>");
    EXPECT_EQ(ConfXmlAddAttr(root_, "a", CONF_XML_TEXT, "x"), 0u);
    EXPECT_EQ(ConfXmlDeleteAttr(root_, "b"), 0u);
    EXPECT_EQ(ConfXmlDeleteAttr(root_, "b"), 0u);
    ConfXmlNode *begin = ConfXmlCreateFirstChildNode(root_, "f");
    EXPECT_EQ(ConfXmlGetNodeParenet(ConfXmlCreateLastChildNode(root_, "l")), root_);
    EXPECT_EQ(print(), "<?xml version=\"1.0\"?><r a=\"x\"><f/><m>7</m><l/></r>");
    EXPECT_EQ(ConfXmlGetNodeIntText(ConfXmlGetNodeByPath(root_, "m")), 7);
    EXPECT_EQ(ConfXmlGetNodeText(begin), nullptr);
    EXPECT_EQ(ConfXmlGetNodeIntAttr(root_, "a"), 0);
    EXPECT_STREQ(ConfXmlGetNodeStrAttr(root_, "a"), "x");

    EXPECT_EQ(ConfXmlTransformStr(begin), nullptr);
    EXPECT_TRUE(hasRecord(1, "xmlAdapter", "[ConfXmlTransformStr]input node is not root!"));
    EXPECT_EQ(ConfXmlTransformFile(begin, "/data\\saved.xml"), 0u);
    std::ifstream file(support::scratchRoot() + "/data/saved.xml");
    EXPECT_EQ(string(std::istreambuf_iterator<char>(file), {}),
              "<?xml version=\"1.0\"?>\n<r a=\"x\">\n    <f/>\n    <m>7</m>\n    <l/>\n</r>\n");
    EXPECT_EQ(ConfXmlTransformFile(begin, "/no/such/saved.xml"), 4u);
    EXPECT_EQ(ConfXmlTransformFile(begin, "/data/../../saved.xml"), 4u);
    ConfXmlNode *again = ConfXmlParseFileGetRoot("\\data/saved.xml");
    EXPECT_EQ(ConfXmlGetNodeChildNum(again), 3u);
    ConfXmlFreeRootNode(ConfXmlGetNodeFirstChild(again));
}

TEST_F(XmlAdapter, MissingArgumentsAreRefusedWithTheRecordOfTheirFunction) {
    SetLogLevel(CONF_LOG_DEBUG);
    parse("<r/>");
    const struct {
        uint8_t level;
        const char *record;
        bool refused;
    } cases[] = {
        {1, "ParseFileGetRoot]pszXmlFile is nullptr", !ConfXmlParseFileGetRoot(nullptr)},
        {1, "ParseFileGetRoot]fp is null", !ConfXmlParseFileGetRoot("/data/none.xml")},
        {1, "ParseBodyGetRoot]Parse doc failed", !ConfXmlParseBodyGetRoot(nullptr)},
        {1, "GetNodeChildNum]parentNode is nullptr", !ConfXmlGetNodeChildNum(nullptr)},
        {4, "GetNodeFirstChild]parentNode is nullptr", !ConfXmlGetNodeFirstChild(nullptr)},
        {4, "GetNodeFirstChild]this parentNode has no child!", !ConfXmlGetNodeFirstChild(root_)},
        {1, "GetNodeStrAttr]invalid param!", !ConfXmlGetNodeStrAttr(root_, nullptr)},
        {1, "GetNodeIntAttr]invalid param!", !ConfXmlGetNodeIntAttr(nullptr, "a")},
        {1, "GetNodeUintAttr]invalid param!", !ConfXmlGetNodeUintAttr(root_, nullptr)},
        {1, "GetNodeName]node is nullptr!", !ConfXmlGetNodeName(nullptr)},
        {1, "GetNodeText]node is nullptr!", !ConfXmlGetNodeText(nullptr)},
        {1, "GetNodeIntText]node is nullptr!", !ConfXmlGetNodeIntText(nullptr)},
        {1, "GetRootNode]node is nullptr!", !ConfXmlGetRootNode(nullptr)},
        {4, "GetNodeNextSibling]node is nullptr!", !ConfXmlGetNodeNextSibling(nullptr)},
        {1, "CreateFirstChildNode]parentNode is nullptr!",
         !ConfXmlCreateFirstChildNode(nullptr, "n")},
        {1, "CreateLastChildNode]parentNode is nullptr!",
         !ConfXmlCreateLastChildNode(nullptr, "n")},
        {1, "CreateLastChildNode]name is nullptr!", !ConfXmlCreateLastChildNode(root_, nullptr)},
        {1, "FreeRootNode]parentNode is nullptr!", (ConfXmlFreeRootNode(nullptr), true)},
        {1, "GetNodeByPath]invalid param!", !ConfXmlGetNodeByPath(root_, "")},
        {4, "GetNodeIterator]pstNode is nullptr!", !ConfXmlGetNodeIterator(nullptr)},
        {1, "TransformStr]rootNode is nullptr!", !ConfXmlTransformStr(nullptr)}};
    const auto records = testkit::records();
    ASSERT_EQ(records.size(), std::size(cases));
    for (size_t at = 0; at < records.size(); at++) {
        EXPECT_TRUE(cases[at].refused) << cases[at].record;
        EXPECT_EQ(records[at].whole(), string("[ConfXml") + cases[at].record);
        EXPECT_EQ(records[at].level, cases[at].level) << cases[at].record;
    }
    testkit::clearRecords();
    EXPECT_EQ(ConfXmlCreateRootNode(nullptr), nullptr);
    EXPECT_EQ(ConfXmlGetNodeParenet(nullptr), nullptr);
    EXPECT_FALSE(ConfXmlIsRootNode(nullptr));
    EXPECT_EQ(ConfXmlDeleteAttr(root_, nullptr), 2u);
    EXPECT_EQ(ConfXmlTransformFile(root_, nullptr), 15u);
    EXPECT_TRUE(testkit::records().empty());
    SetLogLevel(CONF_LOG_INFO);
}

}  // namespace

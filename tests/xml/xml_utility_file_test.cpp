/* Structures through index tables into files and back. */
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <conference_testkit_gtest.h>
#include "include/conf_log_adapter.h"
#include "include/xml_utility.h"
#include "tests/support/open_descriptors.h"

namespace {

using std::string;
using testkit::hasRecord;

constexpr char kFile[] = "/data/settings.xml";
constexpr char kBackup[] = "/data/settings.bak";

/* One field of each type; the sizes of the gaps tell a write that is too wide. */
struct Fields {
    uint8_t u8;
    int8_t i8;
    uint16_t u16;
    int16_t i16;
    uint32_t u32;
    int32_t i32;
    char text[8];
    bool operator==(const Fields &other) const { return memcmp(this, &other, sizeof(*this)) == 0; }
};

const Fields kExtreme = {255, -128, 65535, -32768, 4294967295U, INT32_MIN, "<seven>"};

Fields fields;
uint16_t levels[3];

ConfXmlNode *addField(ConfXmlNode *parent, const char *name, const char *type,
                      const string &address, uint16_t charLen = 0) {
    const ConfXmlValueNodeDesc desc = {name, type};
    ConfXmlValue value = {CONF_XML_ATTR_CHAR, {}, charLen};
    value.value.text = address.c_str();
    return ConfXmlAddSingleValueNode(parent, &desc, &value);
}

string addressOf(const void *place) {
    return std::to_string(reinterpret_cast<uintptr_t>(place));
}

ConfXmlNode *describe(int32_t) {
    ConfXmlNode *root = ConfXmlAddSingleStructNode(nullptr, "Root");
    if (root == nullptr) {
        return nullptr;
    }
    ConfXmlNode *all = ConfXmlAddSingleStructNode(root, "Fields");
    addField(all, "u8", "UINT8", addressOf(&fields.u8));
    addField(all, "i8", "INT8", addressOf(&fields.i8));
    addField(all, "u16", "UINT16", addressOf(&fields.u16));
    addField(all, "i16", "INT16", addressOf(&fields.i16));
    addField(all, "u32", "UINT32", addressOf(&fields.u32));
    addField(all, "i32", "INT32", addressOf(&fields.i32));
    addField(all, "text", "CHAR", addressOf(fields.text), sizeof(fields.text));
    ConfXmlNode *array = ConfXmlAddMultiInstanceNode(root, "Speakers", 3);
    for (uint16_t at = 0; at < 3; at++) {
        ConfXmlNode *speaker = ConfXmlAddMultiStructNode(array, "Speaker", at);
        addField(speaker, "level", "UINT16", addressOf(&levels[at]));
    }
    return root;
}

string nativePath(const char *path) {
    char native[PATH_MAX];
    return OsFileNativePath(path, native, sizeof(native));
}

string contentOf(const char *path) {
    std::ifstream file(nativePath(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void put(const char *path, const string &content) {
    std::ofstream(nativePath(path), std::ios::binary) << content;
}

size_t countErrors(const char *text) {
    const auto records = testkit::records();
    return static_cast<size_t>(std::count_if(records.begin(), records.end(), [&](const auto &one) {
        return one.level == 1 && one.unit == "xml_utility" &&
               one.whole().find(text) != string::npos;
    }));
}

/* No file grows beyond `size` bytes in its scope. */
struct DiskThatFills {
    explicit DiskThatFills(size_t size) : handler(signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &before);
        const rlimit full = {size, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &full);
    }
    ~DiskThatFills() {
        setrlimit(RLIMIT_FSIZE, &before);
        signal(SIGXFSZ, handler);
    }
    DiskThatFills(const DiskThatFills &) = delete;
    DiskThatFills &operator=(const DiskThatFills &) = delete;

    sighandler_t handler;
    rlimit before = {};
};

class XmlFile : public testkit::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        OsRemove(kFile);
        OsRemove(kBackup);
        fields = kExtreme;
        for (uint16_t at = 0; at < 3; at++) {
            levels[at] = static_cast<uint16_t>(7 + at);
        }
    }
};

TEST_F(XmlFile, EveryTypeComesBackExactlyAndTheBackupIsTheSame) {
    ASSERT_EQ(ConfXmlSave(describe, kFile, kBackup), 0u);
    const string saved = contentOf(kFile);
    EXPECT_EQ(contentOf(kBackup), saved);
    EXPECT_EQ(saved.find("<cfg name=\"Root\">\n    <cfg name=\"Fields\">\n"
                         "        <val name=\"u8\" type=\"UINT8\">255</val>\n"),
              0u);
    EXPECT_NE(saved.find("<val name=\"text\" type=\"CHAR\" CharLen=\"8\">&lt;seven&gt;</val>"),
              string::npos);
    EXPECT_NE(saved.find("<cfg name=\"Speakers\" NumOfInst=\"3\">"), string::npos);
    for (const char *path : {kFile, kBackup}) {
        fields = {};
        std::fill_n(levels, 3, uint16_t{0});
        EXPECT_EQ(ConfXmlLoad(describe, path, "/data/none.xml"), 0u);
        EXPECT_TRUE(fields == kExtreme);
        EXPECT_EQ(levels[0] * 100 + levels[1] * 10 + levels[2], 789);
    }
    EXPECT_TRUE(testkit::records().empty());
}

/* A file with one line below "Fields", and what it leaves in fields that were zero. */
TEST_F(XmlFile, ForeignValuesFillWithTheirNumberOrLeaveTheField) {
    Fields expected = {};
    const auto with = [&](auto member, auto value) {
        Fields other = {};
        other.*member = static_cast<std::remove_reference_t<decltype(other.*member)>>(value);
        return other;
    };
    Fields text = {};
    strcpy(text.text, "1234567");
    const struct {
        const char *line;
        Fields left;
        const char *error; /* null: none */
    } cases[] = {
        {"<val name='i32' type='INT8'>-5</val>", with(&Fields::i32, 251), nullptr},
        {"<val name='i32' type='INT16'>-500</val>", with(&Fields::i32, 65036), nullptr},
        {"<val name='i32' type='UINT8'>251</val>", with(&Fields::i32, 251), nullptr},
        {"<val name='u32' type='INT8'>-1</val>", with(&Fields::u32, 255), nullptr},
        {"<val name='u32' type='UINT16'>65535</val>", with(&Fields::u32, 65535), nullptr},
        {"<val name='u32' type='UINT32'>4294967295</val>", with(&Fields::u32, UINT32_MAX), nullptr},
        {"<val name='i16' type='UINT32'>131070</val>", with(&Fields::i16, -2), nullptr},
        {"<val name='u8' type='UINT8'>300</val>", with(&Fields::u8, 44), nullptr},
        {"<val name='i32' type='INT32'>4294967301</val>", with(&Fields::i32, 5), nullptr},
        {"<val name='u32' type='UINT32'>-4294967291</val>", with(&Fields::u32, 5), nullptr},
        {"<val name='i32' type='INT32'> 0x10</val>", with(&Fields::i32, 16), nullptr},
        {"<val name='u8' type='UINT8'>x</val>", expected, nullptr},
        {"<val name='u8' type='UINT8'/>", expected, nullptr},
        {"<val name='u8' type='CHAR' CharLen='9'>7</val>", expected, "NodeValueToIndex fail"},
        {"<val name='text' type='UINT32'>4096</val>", expected, "NodeValueToIndex fail"},
        {"<val name='u8' type='uint8'>7</val>", expected, "ConfXmlGetValue fail"},
        {"<val name='u8'>7</val>", expected, "ConfXmlGetValue fail"},
        {"<val name='text' type='CHAR' CharLen='1'>1234567</val>", text, nullptr},
        {"<val name='text' type='CHAR'>12345678</val>", expected, "NodeValueToIndex fail"},
        {"<val name='text' type='CHAR'/>", expected, nullptr},
        {"<other name='u8' type='UINT8'>7</other>", with(&Fields::u8, 7), nullptr},
        {"<val name='u8' InstID='65536' type='UINT8'>7</val>", with(&Fields::u8, 7), nullptr},
        {"<val name='u8' InstID='1' type='UINT8'>7</val>", expected, nullptr}};
    for (const auto &c : cases) {
        put(kFile, string("<cfg name='Root'><cfg name='Fields'>") + c.line + "</cfg></cfg>");
        testkit::clearRecords();
        fields = {};
        EXPECT_EQ(ConfXmlLoad(describe, kFile, kBackup), 0u) << c.line;
        EXPECT_TRUE(fields == c.left) << c.line;
        EXPECT_EQ(countErrors(c.error == nullptr ? "fail" : c.error),
                  c.error == nullptr ? countErrors("pCallback fail") : 1u)
            << c.line;
    }
}

TEST_F(XmlFile, ElementsFindTheFirstOfTheirNameAndInstanceInAnyOrder) {
    put(kFile,
        "<cfg name='Root'><cfg name='Speakers'>"
        "<cfg name='Speaker' InstID='2'><val name='level' type='UINT16'>30</val></cfg>"
        "<x><y/></x>"
        "<cfg name='Speaker'><val name='level' type='UINT16'>10</val></cfg>"
        "<cfg name='Speaker' InstID='0'><val name='level' type='UINT16'>11</val></cfg>"
        "</cfg></cfg>");
    EXPECT_EQ(ConfXmlLoad(describe, kFile, kBackup), 0u);
    EXPECT_EQ(levels[0] * 10000 + levels[1] * 100 + levels[2], 100830);
    /* Index elements with one name and number load from one file element. */
    const auto twice = [](int32_t) {
        ConfXmlNode *root = ConfXmlAddSingleStructNode(nullptr, "Root");
        ConfXmlNode *array = ConfXmlAddSingleStructNode(root, "Speakers");
        for (uint16_t &level : levels) {
            addField(ConfXmlAddMultiStructNode(array, "Speaker", 2), "level", "UINT16",
                     addressOf(&level));
        }
        return root;
    };
    EXPECT_EQ(ConfXmlLoad(twice, kFile, kBackup), 0u);
    EXPECT_EQ(levels[0] + levels[1] + levels[2], 90);
}

/* The search ends at the element that cannot be read, and each search says so. */
TEST_F(XmlFile, WhatStandsBehindAnUnreadableSiblingIsHidden) {
    const struct {
        string element;
        const char *record;
        size_t count;
    } cases[] = {{"<" + string(33, 'e') + "/>", "[ConfXmlGetXmlNodeAttrAndValue]strcpy_s fail!", 6},
                 {"<cfg name='" + string(33, 'n') + "'/>", "ConfXmlGetXmlNodeAttr fail!", 6},
                 {"<cfg name='" + string(32, 'n') + "'/>", "ConfXmlGetXmlNodeAttr fail!", 0}};
    for (const auto &c : cases) {
        put(kFile, "<cfg name='Root'><cfg name='Fields'><val name='i8' type='INT8'>1</val>" +
                       c.element + "<val name='u8' type='UINT8'>2</val></cfg></cfg>");
        for (const bool withMemory : {true, false}) {
            fields = {};
            testkit::clearRecords();
            testkit::failCall(OsMemMallocSetCharMon, withMemory ? 0 : 3);
            EXPECT_EQ(ConfXmlLoad(describe, kFile, kBackup), 0u);
            EXPECT_EQ(countErrors(c.record), c.count) << c.element << withMemory;
            EXPECT_EQ(fields.i8 * 10 + fields.u8, c.count == 0 ? 12 : 10) << c.element;
        }
    }
}

TEST_F(XmlFile, ALoadFailsOnlyWithoutAFileATableOrItsRoot) {
    const auto none = [](int32_t) -> ConfXmlNode * { return nullptr; };
    EXPECT_EQ(ConfXmlLoad(describe, kFile, nullptr), 1u);
    EXPECT_EQ(countErrors("[ConfXmlLoad]ConfXmlParseFileGetRoot fail"), 1u);
    put(kBackup,
        "<cfg name='Root'><cfg name='Fields'><val name='u8' type='UINT8'>5</val></cfg>"
        "</cfg>");
    for (const char *main : {"", "<!-- no element -->", "<cfg name='Root'>", "\xFF\xFE<"}) {
        put(kFile, main);
        fields.u8 = 0;
        EXPECT_EQ(ConfXmlLoad(describe, kFile, kBackup), 0u) << main;
        EXPECT_EQ(fields.u8, 5) << main;
    }
    EXPECT_EQ(ConfXmlLoad(none, kFile, kBackup) + ConfXmlLoad(nullptr, kFile, kBackup), 2u);
    EXPECT_EQ(ConfXmlSave(none, kFile, kBackup) + ConfXmlSave(nullptr, kFile, kBackup), 2u);
    EXPECT_EQ(countErrors("Create call index table fail"), 4u);
    for (const char *root : {"<cfg name='Other'/>", "<cfg name='Root' InstID='1'/>", "<cfg/>"}) {
        put(kFile, root);
        EXPECT_EQ(ConfXmlLoad(describe, kFile, kBackup), 1u);
    }
    EXPECT_EQ(countErrors("[ConfXmlLoad]Traverse XML tree fail"), 3u);
}

TEST_F(XmlFile, FieldsThatCannotBeReadAreSavedWithoutAValue) {
    static const char endless[4] = {'a', 'b', 'c', 'd'};
    const auto table = [](int32_t) {
        ConfXmlNode *root = ConfXmlAddSingleStructNode(nullptr, "Other");
        for (const char *address : {"0", " -1", "99999999999999999999", "", "x"}) {
            addField(root, "a", "UINT8", address);
        }
        addField(root, "b", "UINT64", addressOf(&fields.u8));
        addField(root, "c", "CHAR", addressOf(endless), sizeof(endless));
        ConfXmlAddSingleStructNode(ConfXmlCreateLastChildNode(root, string(33, 'e').c_str()), "z");
        char hex[32];
        snprintf(hex, sizeof(hex), "%p", static_cast<void *>(&fields.u8));
        addField(root, "d", "UINT8", string(hex) + "-");
        return root;
    };
    EXPECT_EQ(ConfXmlSave(table, kFile, kBackup), 0u);
    EXPECT_EQ(countErrors("pCallback fail"), 7u);
    EXPECT_EQ(countErrors("[ConfXmlWriteCallBack]the text of c has no end within its 4 bytes"), 1u);
    EXPECT_EQ(countErrors("[ConfXmlTraverseXmlTree]ConfXmlGetXmlNodeAttrAndValue fail"), 1u);
    string expected = "<cfg name=\"Root\">\n";
    for (int at = 0; at < 5; at++) {
        expected += "    <val name=\"a\" type=\"UINT8\"/>\n";
    }
    expected +=
        "    <val name=\"b\" type=\"UINT64\"/>\n"
        "    <val name=\"c\" type=\"CHAR\" CharLen=\"4\"/>\n"
        "    <val name=\"d\" type=\"UINT8\">255</val>\n</cfg>\n";
    EXPECT_EQ(contentOf(kFile), expected);
}

TEST_F(XmlFile, AFailedSaveLeavesBothFilesAndAFailedBackupFailsNothing) {
    ASSERT_EQ(ConfXmlSave(describe, kFile, kBackup), 0u);
    ASSERT_EQ(chmod(nativePath(kFile).c_str(), 0640), 0);
    const string before = contentOf(kFile);
    fields.u8 = 1;
    const support::DescriptorCheck check;
    for (const char *path :
         {"/data/none/settings.xml", "/data", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(ConfXmlSave(describe, path, kBackup), 1u);
    }
    {
        const DiskThatFills disk(before.size() / 2);
        EXPECT_EQ(ConfXmlSave(describe, kFile, kBackup), 1u);
    }
    EXPECT_EQ(countErrors("[ConfXmlSave]TransForm File fail"), 4u);
    EXPECT_EQ(contentOf(kFile), before);
    EXPECT_EQ(contentOf(kBackup), before);
    testkit::failCall(OsCopyFile, 1);
    EXPECT_EQ(ConfXmlSave(describe, kFile, kBackup), 0u);
    EXPECT_EQ(countErrors("[ConfXmlBakFile]OsCopyFile fail, ret:"), 1u);
    EXPECT_EQ(contentOf(kBackup), before);
    EXPECT_NE(contentOf(kFile), before);
    struct stat status = {};
    EXPECT_EQ(stat(nativePath(kFile).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
    ConfXmlBakFile(kFile, nullptr);
    EXPECT_EQ(countErrors("[ConfXmlBakFile]Null ptr."), 1u);
    const uint64_t flushed = testkit::callCount(OsFlushFile);
    ConfXmlBakFile(kFile, kBackup);
    EXPECT_EQ(testkit::callCount(OsFlushFile), flushed + 2) << "the file may be anyone's";
}

TEST_F(XmlFile, MemoryThatRunsOutIsAnAnswer) {
    for (const bool saving : {true, false}) {
        testkit::forEachFailure(
            OsMemMallocSetCharMon, [] { EXPECT_EQ(ConfXmlSave(describe, kFile, kBackup), 0u); },
            [&] { return (saving ? ConfXmlSave : ConfXmlLoad)(describe, kFile, kBackup); },
            [](uint64_t, uint32_t) { EXPECT_FALSE(contentOf(kFile).empty()); },
            [](uint32_t result) { EXPECT_EQ(result, 0u); });
    }
}

/* Text fields, and how the file shows them. */
TEST_F(XmlFile, TextsOfWhiteSpaceComeBack) {
    for (const char *text : {" ", "\t \n\v\f", "  x ", "", "]]>"}) {
        fields = {};
        strcpy(fields.text, text);
        ASSERT_EQ(ConfXmlSave(describe, kFile, kBackup), 0u);
        strcpy(fields.text, "other");
        EXPECT_EQ(ConfXmlLoad(describe, kFile, kBackup), 0u);
        EXPECT_STREQ(fields.text, text);
    }
    put(kFile,
        "<cfg name='Root'><cfg name='Fields'><val name='text' type='CHAR'> </val></cfg></cfg>");
    EXPECT_EQ(ConfXmlLoad(describe, kFile, kBackup), 0u);
    EXPECT_STREQ(fields.text, "");
}

TEST_F(XmlFile, TheStepOfASaveAnswersForElementsOfNoTable) {
    ConfXmlNode *output = ConfXmlAddSingleStructNode(nullptr, "Root");
    for (const auto &[name, result, children] : {std::tuple("cfg", 0u, 1u), {"val", 1u, 2u}}) {
        ConfXmlNodeInfo info = {};
        strcpy(info.nodeName, name);
        TransXMLContext context = {output, 0, {}};
        EXPECT_EQ(ConfXmlWriteCallBack(&info, &context), result) << name;
        EXPECT_EQ(ConfXmlGetNodeChildNum(output), children);
    }
    TransXMLContext context = {output, 0, {}};
    EXPECT_EQ(ConfXmlTraverseXmlTree(output, &context, nullptr), 1u);
    EXPECT_EQ(countErrors("hAddrTable or TransXMLContext or pCallback is null"), 1u);
    const ConfXmlValueNodeDesc desc = {"u8", "UINT8"};
    EXPECT_EQ(ConfXmlAddSingleValueNode(output, &desc, nullptr), nullptr);
    EXPECT_EQ(countErrors("ConfXmlSetNodeText fail, ret = 15!"), 1u);
    ConfXmlFreeRootNode(output);
}

ConfXmlNode *describeDeep(int32_t levelCount) {
    ConfXmlNode *root = ConfXmlAddSingleStructNode(nullptr, "Root");
    ConfXmlNode *last = root;
    ConfXmlAddSingleStructNode(root, "shallow"); /* the deep one comes behind it */
    for (int32_t level = 2; level < levelCount; level++) {
        last = ConfXmlAddSingleStructNode(last, "n");
    }
    addField(last, "u8", "UINT8", addressOf(&fields.u8));
    return root;
}

/* Each level has the context that its parent's call left. */
uint32_t countLevel(ConfXmlNodeInfo *, TransXMLContext *context) {
    levels[0] = static_cast<uint16_t>(++context->spare[1]);
    return 0;
}

/* Saves and loads the deepest document that can be read, and walks a deeper one. */
void *useDeepTrees(void *deeper) {
    const auto describeDeepest = [](int32_t) { return describeDeep(98); };
    bool good = ConfXmlSave(describeDeepest, kFile, kBackup) == 0;
    fields.u8 = 0;
    good = good && ConfXmlLoad(describeDeepest, kFile, kBackup) == 0 && fields.u8 == 255;
    const string before = contentOf(kFile);
    for (const ConfXmlCreateIndexTableFn tooDeep :
         {ConfXmlCreateIndexTableFn{[](int32_t) { return describeDeep(99); }},
          ConfXmlCreateIndexTableFn{[](int32_t) { return describeDeep(200); }}}) {
        good = good && ConfXmlSave(tooDeep, kFile, kBackup) == 1 && contentOf(kFile) == before;
    }
    TransXMLContext context = {};
    const auto result =
        ConfXmlTraverseXmlTree(static_cast<ConfXmlNode *>(deeper), &context, countLevel);
    return good && result == 0 ? deeper : nullptr;
}

TEST_F(XmlFile, ASmallStackSufficesForADeepTree) {
    ConfXmlNode *deeper = describeDeep(5000);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 256 << 10), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, useDeepTrees, deeper), 0);
    void *result = nullptr;
    pthread_join(thread, &result);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(result, deeper);
    EXPECT_EQ(levels[0], 5000);
    ConfXmlFreeRootNode(deeper);
}

}  // namespace

/* Documents that are no documents, and memory that runs out. */
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <conference_testkit_gtest.h>
#include "include/xml_utility.h"
#include "tests/support/open_descriptors.h"
#include "tests/support/scratch_root.h"

namespace {

thread_local int64_t newUntilFailure = -1; /* -1: none fails */

/* Of the library and of the XML library, not of this program. */
bool isTheLibrarys(const void *caller) {
    Dl_info module = {};
    return dladdr(caller, &module) != 0 && strstr(module.dli_fname, ".so") != nullptr;
}

void *takeOrThrow(size_t size, const void *caller) {
    if (newUntilFailure >= 0 && isTheLibrarys(caller) && newUntilFailure-- == 0) {
        throw std::bad_alloc();
    }
    return malloc(size);
}

}  // namespace

/* The XML library's memory comes from here. */
void *operator new(size_t size) {
    return takeOrThrow(size, __builtin_return_address(0));
}
void *operator new[](size_t size) {
    return takeOrThrow(size, __builtin_return_address(0));
}
void *operator new(size_t size, const std::nothrow_t &) noexcept {
    return malloc(size);
}
void operator delete(void *block) noexcept {
    free(block);
}
void operator delete[](void *block) noexcept {
    free(block);
}
void operator delete(void *block, size_t) noexcept {
    free(block);
}
void operator delete[](void *block, size_t) noexcept {
    free(block);
}

namespace {

using std::string;
using testkit::hasRecord;

string nested(size_t levels, bool closed = true) {
    string text;
    for (size_t level = 0; level < levels; level++) {
        text += "<n>";
    }
    for (size_t level = 0; closed && level < levels; level++) {
        text += "</n>";
    }
    return text;
}

class XmlHostile : public testkit::PlatformTest {
  protected:
    XmlHostile() {
        EXPECT_NE(OsFileNativePath("/data/hostile.xml", path_, sizeof(path_)), nullptr);
    }
    ConfXmlNode *parseFile(const string &text) {
        std::ofstream(path_, std::ios::binary) << text;
        return ConfXmlParseFileGetRoot("/data/hostile.xml");
    }

    char path_[PATH_MAX];
};

TEST_F(XmlHostile, WhatIsNoDocumentGivesARecordAndNothing) {
    const string utf16("\xFF\xFE<\0r\0/\0>\0", 10);
    const string whole = "<r a='1'><!--c--><![CDATA[d]]></r>";
    std::vector<string> cases = {
        "\n \v\f\r\t",       "<?xml", "<r><b></r>", "<r a='1' a='2'/>", "text",
        "<r/>text",          utf16,   nested(99),   nested(1000000),    nested(1000000, false),
        string(1 << 20, '<')};
    for (size_t length = 0; length < whole.size(); length++) {
        cases.push_back(whole.substr(0, length));
    }
    ConfXmlFreeRootNode(parseFile("<r/>"));
    const support::DescriptorCheck descriptors;
    for (const string &text : cases) {
        testkit::clearRecords();
        EXPECT_EQ(ConfXmlParseBodyGetRoot(text.c_str()), nullptr) << text.substr(0, 40);
        EXPECT_TRUE(hasRecord(1, "xmlAdapter", "[ConfXmlParseBodyGetRoot]Parse doc failed"))
            << text.substr(0, 40);
        EXPECT_EQ(parseFile(text), nullptr) << text.substr(0, 40);
        EXPECT_TRUE(hasRecord(1, "xmlAdapter", "[ConfXmlParseFileGetRoot]LoadFile failed"));
    }
    testkit::clearRecords();
    EXPECT_EQ(ConfXmlParseFileGetRoot("/data"), nullptr);
    EXPECT_TRUE(hasRecord(1, "xmlAdapter", "[ConfXmlParseFileGetRoot]LoadFile failed"));
    testkit::clearRecords();
    EXPECT_EQ(ConfXmlParseBodyGetRoot("<!-- nobody -->"), nullptr);
    EXPECT_EQ(ConfXmlParseBodyGetRoot("</r>"), nullptr);
    EXPECT_EQ(parseFile("<?xml version='1.0'?><!-- nobody -->"), nullptr);
    EXPECT_TRUE(testkit::records().empty());
}

/* A file of blanks that needs no disk. */
ssize_t readBlanks(void *left, char *buffer, size_t size) {
    auto *count = static_cast<size_t *>(left);
    size = std::min(size, *count);
    memset(buffer, ' ', size);
    *count -= size;
    return static_cast<ssize_t>(size);
}

TEST_F(XmlHostile, AGibibyteOfBlanksTakesNoMemory) {
    size_t left = size_t{1} << 30;
    testkit::replace(OsFopen, [&](const char *, const char *) {
        return fopencookie(&left, "rb", {readBlanks, nullptr, nullptr, nullptr});
    });
    rusage before = {};
    rusage after = {};
    getrusage(RUSAGE_SELF, &before);
    EXPECT_EQ(ConfXmlParseFileGetRoot("/data/blanks.xml"), nullptr);
    getrusage(RUSAGE_SELF, &after);
    EXPECT_EQ(left, 0u);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 16384) << "KiB";
    EXPECT_TRUE(hasRecord(1, "xmlAdapter", "[ConfXmlParseFileGetRoot]LoadFile failed"));
}

/* Every function that takes memory; true when none ran out of it. */
bool buildAndPrint() {
    ConfXmlNode *read = ConfXmlParseBodyGetRoot("<r a='1'>text</r>");
    if (read != nullptr) {
        ConfXmlFreeRootNode(read);
    }
    ConfXmlNode *file = ConfXmlParseFileGetRoot("/data/hostile.xml");
    if (file != nullptr) {
        ConfXmlFreeRootNode(file);
    }
    ConfXmlNode *root = ConfXmlCreateRootNode("r");
    bool good = read != nullptr && file != nullptr && root != nullptr;
    if (root != nullptr) {
        good = ConfXmlCreateLastChildNode(root, "c") != nullptr && good;
        good = ConfXmlAddAttr(root, "a", CONF_XML_TEXT, "x") == CONF_XML_OK && good;
        good = ConfXmlAddAttr(root, "b", CONF_XML_TEXT, "x") == CONF_XML_OK && good;
        good = ConfXmlSetNodeText(root, CONF_XML_TEXT, "t") == CONF_XML_OK && good;
        good = ConfXmlSetNodeText(root, CONF_XML_TEXT, "u") == CONF_XML_OK && good;
        good = ConfXmlTransformStr(root) != nullptr && good;
        ConfXmlFreeRootNode(root);
    }
    return good;
}

TEST_F(XmlHostile, MemoryThatRunsOutIsAnAnswer) {
    ConfXmlFreeRootNode(parseFile("<r/>"));
    testkit::forEachFailure(
        OsMemMallocSetCharMon, [] {}, buildAndPrint,
        [](uint64_t, bool good) { EXPECT_FALSE(good); }, [](bool good) { EXPECT_TRUE(good); });
    int64_t failures = 0;
    for (bool good = false; !good; failures++) {
        newUntilFailure = failures;
        good = buildAndPrint();
        const bool failed = newUntilFailure < 0;
        newUntilFailure = -1;
        EXPECT_NE(good, failed) << failures;
        EXPECT_EQ(testkit::outstanding(), 0);
    }
    EXPECT_GT(failures, 10);
}

uint8_t volume;

ConfXmlNode *describe(int32_t) {
    const int64_t left = std::exchange(newUntilFailure, -1); /* the table is whole */
    ConfXmlNode *root = ConfXmlAddSingleStructNode(nullptr, "Root");
    const string address = std::to_string(reinterpret_cast<uintptr_t>(&volume));
    ConfXmlValue value = {CONF_XML_ATTR_CHAR, {}, 0};
    value.value.text = address.c_str();
    for (const char *name : {"a", "b"}) {
        const ConfXmlValueNodeDesc desc = {name, "UINT8"};
        ConfXmlAddSingleValueNode(ConfXmlAddMultiStructNode(root, name, 1), &desc, &value);
    }
    newUntilFailure = left;
    return root;
}

TEST_F(XmlHostile, ASaveWithoutMemoryForAllOfItLeavesAGoodBackup) {
    volume = 1;
    ASSERT_EQ(ConfXmlSave(describe, "/data/hostile.xml", "/data/hostile.bak"), 0u);
    const string backup = string(path_).replace(strlen(path_) - 3, 3, "bak");
    const auto contentOf = [](const string &path) {
        std::ifstream file(path);
        return string(std::istreambuf_iterator<char>(file), {});
    };
    const string good = contentOf(backup);
    string better = good;
    std::replace(better.begin(), better.end(), '1', '2');
    for (size_t at = better.find("D=\"2"); at != string::npos; at = better.find("D=\"2")) {
        better[at + 3] = '1';
    }
    int64_t incomplete = 0;
    volume = 2;
    for (int64_t failures = 0;; failures++) {
        newUntilFailure = failures;
        const uint32_t result = ConfXmlSave(describe, "/data/hostile.xml", "/data/hostile.bak");
        const bool failed = newUntilFailure < 0;
        newUntilFailure = -1;
        if (!failed) {
            break;
        }
        const string saved = contentOf(path_);
        EXPECT_TRUE(result == 0 || saved == good) << failures;
        EXPECT_EQ(contentOf(backup), saved == better ? better : good) << failures;
        EXPECT_EQ(testkit::outstanding(), 0);
        incomplete += saved != better && saved != good;
        std::ofstream(path_) << good;
        std::ofstream(backup) << good;
    }
    EXPECT_GT(incomplete, 3);
    EXPECT_NE(contentOf(backup), good);
}

}  // namespace

/* Structures in files between processes: a save that is killed, and two at a time. */
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "include/xml_utility.h"
#include "tests/support/child_process.h"

namespace {

int stepsToLive = -1; /* system calls of a save, each begun and ended; -1: for ever */

void step() {
    if (stepsToLive > 0 && --stepsToLive == 0) {
        raise(SIGKILL);
    }
}

template <typename Result, typename... Arguments>
Result pass(const char *name, Arguments... arguments) {
    step();
    auto *next = reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, name));
    const Result result = next(arguments...);
    step();
    return result;
}

}  // namespace

/* The libraries find these before the system's. */
extern "C" {
int ftruncate(int file, off_t size) noexcept {
    return pass<int>("ftruncate", file, size);
}
int fdatasync(int file) {
    return pass<int>("fdatasync", file);
}
int rename(const char *from, const char *to) noexcept {
    return pass<int>("rename", from, to);
}
ssize_t sendfile(int to, int from, off_t *offset, size_t size) noexcept {
    return pass<ssize_t>("sendfile", to, from, offset, size);
}
int linkat(int from, const char *old, int to, const char *name, int flags) noexcept {
    return pass<int>("linkat", from, old, to, name, flags);
}
}

namespace {

constexpr char kFile[] = "/data/store.xml";
constexpr char kBackup[] = "/data/store.bak";
constexpr uint16_t kCount = 500; /* several writes of the file */

uint32_t values[kCount];

ConfXmlNode *describe(int32_t) {
    ConfXmlNode *root = ConfXmlAddSingleStructNode(nullptr, "Root");
    for (uint16_t at = 0; at < kCount; at++) {
        const std::string address = std::to_string(reinterpret_cast<uintptr_t>(&values[at]));
        const ConfXmlValueNodeDesc desc = {"value", "UINT32"};
        ConfXmlValue value = {CONF_XML_ATTR_UINT32, {}, 0};
        value.value.text = address.c_str();
        ConfXmlAddSingleValueNode(ConfXmlAddMultiStructNode(root, "item", at), &desc, &value);
    }
    return root;
}

bool save(uint32_t number) {
    std::fill_n(values, kCount, number);
    return ConfXmlSave(describe, kFile, kBackup) == 0;
}

/* Is every value in the file there, and of one save? */
bool isWhole(const char *path) {
    std::fill_n(values, kCount, 0U);
    return ConfXmlLoad(describe, path, path) == 0 && values[0] != 0 &&
           std::count(values, values + kCount, values[0]) == kCount;
}

const support::ChildRole saverRole("xml-saver", [](const support::ChildArguments &arguments) {
    const auto first = static_cast<uint32_t>(std::stoul(arguments[0]));
    stepsToLive = std::stoi(arguments[1]);
    for (uint32_t number = first; number < first + std::stoul(arguments[2]); number++) {
        if (!save(number)) {
            return 1;
        }
    }
    return 0;
});

TEST(XmlStoreProcess, BothFilesAreWholeWheneverASaveIsKilled) {
    ASSERT_TRUE(save(1));
    int steps = 0;
    support::ChildEnd end = {};
    do {
        steps++;
        support::ChildProcess saver("xml-saver", {"2", std::to_string(steps), "1"});
        end = saver.wait();
        EXPECT_TRUE(isWhole(kFile) && isWhole(kBackup)) << steps;
    } while (end == support::killed(SIGKILL) && steps < 100);
    EXPECT_EQ(end, support::exited(0));
    EXPECT_GT(steps, 10);
    EXPECT_EQ(values[0], 2u) << "what a killed save left stops no other";
}

TEST(XmlStoreProcess, SavesOfTwoProcessesAtOnceAreWhole) {
    support::ChildProcess one("xml-saver", {"100", "-1", "30"});
    support::ChildProcess other("xml-saver", {"200", "-1", "30"});
    EXPECT_EQ(one.wait(), support::exited(0));
    EXPECT_EQ(other.wait(), support::exited(0));
    EXPECT_TRUE(isWhole(kFile) && isWhole(kBackup));
    EXPECT_TRUE(values[0] == 129 || values[0] == 229);
}

}  // namespace

/* The switch file: loaded once in a process, so that each case has a child process. */
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include <conference_testkit_gtest.h>
#include "include/conf_config.h"
#include "tests/support/child_process.h"
#include "tests/support/scratch_root.h"

namespace {

using std::string;
using testkit::hasRecord;

string element(const string &name, const string &value) {
    return "<s name='" + name + "'>" + value + "</s>";
}

class ConfigSwitches : public testkit::PlatformTest {
  protected:
    ConfigSwitches() { std::filesystem::create_directories(folder()); }

    static string folder() { return support::scratchRoot() + "/data/cust/config/conference"; }

    template <typename Body>
    static void inChild(const string &children, Body body) {
        std::ofstream(folder() + "/conf_config.xml") << "<any>" << children << "</any>";
        fflush(nullptr);
        support::inFork(body);
    }

    static string value(const char *name) {
        char buffer[128] = {};
        return ConfConfigGetValueByName(name, buffer, sizeof(buffer)) == 0 ? buffer : "(none)";
    }
};

TEST_F(ConfigSwitches, AreFoundInAnyLetterCaseAndReadAsNumbers) {
    const string file = element("isStopCastWhenConfEnd", "0x1") + "text<!-- comment -->" +
                        element("ignoreLayoutStrategy", "yes") + element("twice", "first") +
                        element("TWICE", "second") + element("ten", "0123456789") +
                        element("isForbiddenKitCapbility", "256") +
                        element("longest", string(127, 'v')) + element(string(127, 'n'), "n");
    inChild(file, [] {
        EXPECT_EQ(IsStopCastWhenConfEnd(), 0) << "nothing is loaded yet";
        EXPECT_EQ(ConfConfigXmlInit(), 0);
        EXPECT_EQ(value("ISSTOPCASTWHENCONFEND"), "0x1");
        EXPECT_EQ(IsStopCastWhenConfEnd(), 1);
        EXPECT_EQ(IgnoreLayoutStrategy(), 0);
        EXPECT_EQ(IsCloseWirelessCast(), 0);
        EXPECT_EQ(IsForbiddenSdkStopWirelessCast(), 0);
        EXPECT_EQ(OnlyReportPresentationDevicePlug(), 0);
        EXPECT_EQ(value("twice"), "first");
        EXPECT_EQ(value("longest"), string(127, 'v'));
        EXPECT_EQ(value(string(127, 'n').c_str()), "n");
        EXPECT_EQ(value(""), "(none)");
        testkit::clearRecords();
        char small[8] = "as was";
        EXPECT_EQ(ConfConfigGetValueByName("ten", small, sizeof(small)), 1);
        EXPECT_TRUE(hasRecord(1, "conf_config", "[ConfConfigGetValueByName]strcpy_s fail"));
        EXPECT_EQ(ConfConfigGetValueByName(nullptr, small, sizeof(small)), 1);
        EXPECT_EQ(ConfConfigGetValueByName("ten", nullptr, 8), 1);
        EXPECT_TRUE(hasRecord(1, "conf_config", "[ConfConfigGetValueByName]name is null"));
        char address[42] = {};
        (void)ConfConfigGetLocalIpv4(0, address);
        EXPECT_EQ(testkit::callCount(TamoOmDevmNetGetIpv4Block), 0u) << "256 forbids nothing";
    });
}

TEST_F(ConfigSwitches, ForbiddenKitCapabilityAsksDeviceManagementForTheAddress) {
    inChild(element("isForbiddenKitCapbility", "1"), [] {
        ASSERT_EQ(ConfConfigXmlInit(), 0);
        const auto answer = [](uint32_t selector, char *buffer) {
            strcpy_s(buffer, 42, "device");
            return static_cast<int32_t>(selector);
        };
        testkit::replace(TamoOmDevmNetGetIpv4Block, answer);
        testkit::replace(TamoOmDevmNetGetIpv6Block, answer);
        char buffer[42];
        EXPECT_EQ(ConfConfigGetLocalIpv4(4, buffer), 4);
        EXPECT_EQ(ConfConfigGetLocalIpv6(6, buffer), 6);
        EXPECT_STREQ(buffer, "device");
        EXPECT_EQ(testkit::callCount(TamoOmConfigStringGet), 0u);
    });
}

TEST_F(ConfigSwitches, AFileWithOneBadEntryIsNoFile) {
    const string good = element("good", "1");
    for (const string &bad : {string("<s name='n'/>"), string("<s>1</s>"), string("<s>"), string(),
                              element("n", string(128, 'v'))}) {
        inChild(bad.empty() ? bad : good + bad + good, [] {
            EXPECT_EQ(ConfConfigXmlInit(), 1);
            EXPECT_EQ(testkit::outstanding(), 0);
            EXPECT_EQ(ConfConfigXmlInit(), 0) << "no second attempt";
            EXPECT_EQ(value("good"), "(none)");
        });
    }
    for (const char *operation : {"OsFopen", "OsMemMallocSetCharMon", "sprintf_s"}) {
        inChild(good, [&] {
            testkit::failCall(operation, 1);
            EXPECT_EQ(ConfConfigXmlInit(), 1) << operation;
            EXPECT_EQ(testkit::outstanding(), 0);
        });
    }
}

}  // namespace

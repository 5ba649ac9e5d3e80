/* Captures: their reader, and tamoctl capture as tshark shows what it wrote. */
#include "tools/capture_file.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "include/conf_msg_api.h"
#include "tamo_host.h"
#include "tests/support/child_process.h"
#include "tests/support/deadline.h"
#include "tests/support/scratch_root.h"

using support::Outcome;
using support::Program;
using tamoctl::CaptureReader;
using tamoctl::CaptureStep;

namespace {

/* What a reader makes of a whole capture. */
struct Seen {
    unsigned events = 0;
    uint64_t lost = 0;
    CaptureStep step = CaptureStep::event;
    TamoHostTraceEvent last = {};
    std::string error = {};
};

Seen see(std::string_view bytes) {
    Seen seen;
    CaptureReader reader{bytes};
    uint64_t lost = 0;
    while ((seen.step = readCaptured(&reader, &seen.last, &lost)) == CaptureStep::event) {
        seen.events++;
        seen.lost += lost;
    }
    seen.error = reader.error;
    return seen;
}

/* The files were written by hand. */
TEST(Capture, IsReadAsFarAsItIsOne) {
    const struct {
        const char *file;
        CaptureStep step;
        unsigned events;
        const char *error;
    } cases[] = {
        {"request", CaptureStep::end, 4, ""},
        {"big_endian", CaptureStep::end, 2, ""},
        {"two_sections", CaptureStep::end, 2, ""},
        {"cut", CaptureStep::cut, 1, "ends inside a block (at byte 208)"},
        {"byte_order", CaptureStep::fault, 0, "byte order is neither of the two (at byte 8)"},
        {"length_in_vain", CaptureStep::fault, 0, "cannot have a length of 13 (at byte 52)"},
        {"lengths_differ", CaptureStep::fault, 0, "two lengths differ (at byte 60)"},
        {"no_interface", CaptureStep::fault, 0, "an interface that was not described"},
        {"no_pcapng", CaptureStep::fault, 0, "not a pcapng file"},
        {"option_beyond", CaptureStep::fault, 0, "option is longer than its block"},
        {"other_version", CaptureStep::fault, 0, "not a trace event of version 1 (at byte 76)"},
        {"packet_beyond", CaptureStep::fault, 0, "packet is longer than its block"},
        {"small_section", CaptureStep::fault, 0, "not a pcapng file of version 1"},
    };
    for (const auto &wanted : cases) {
        SCOPED_TRACE(wanted.file);
        std::string bytes, error;
        ASSERT_TRUE(tamoctl::loadCapture((std::string(CAPTURE_CORPUS "/") + wanted.file).c_str(),
                                         &bytes, &error));
        const Seen seen = see(bytes);
        EXPECT_EQ(seen.step, wanted.step);
        EXPECT_EQ(seen.events, wanted.events);
        EXPECT_NE(seen.error.find(wanted.error), std::string::npos) << seen.error;
        if (wanted.file == std::string("big_endian")) {
            EXPECT_EQ(seen.lost, 3U);
            EXPECT_STREQ(seen.last.queue, "Conf"); /* cut */
            EXPECT_EQ(seen.last.param, 80U);
            EXPECT_EQ(seen.last.timeUs, 1764067200123456);
        }
    }
}

TEST(Capture, CutAtAnyByteHasTheEventsBefore) {
    TamoHostTraceEvent event = {-5, UINT64_MAX, 1, 6, 2, 3, 4, 5, 6, 7, 8, 9, 0, "", "", ""};
    memset(event.process, '\x1b', sizeof(event.process));
    const std::string head = tamoctl::captureHead();
    const std::string packet = tamoctl::capturePacket(event, 9);
    const std::string whole = head + packet + packet + tamoctl::captureTail(2, 18);
    for (size_t length = 0; length <= whole.size(); length++) {
        const Seen seen = see(std::string(whole, 0, length));
        const size_t packets = length < head.size() ? 0 : (length - head.size()) / packet.size();
        SCOPED_TRACE(length);
        ASSERT_EQ(seen.events, std::min<size_t>(packets, 2));
        ASSERT_EQ(seen.lost, 9 * seen.events);
        ASSERT_TRUE(seen.step == CaptureStep::end || seen.step == CaptureStep::cut);
        ASSERT_TRUE(seen.events == 0 || seen.last.timeUs == -5);
    }
    EXPECT_EQ(see(whole).step, CaptureStep::end);
}

Outcome shell(const std::string &line) {
    return Program({"sh", "-c", line}).finish();
}

std::string fileText(const std::string &name) {
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/* Serves a queue, under a name that would recolour a terminal. */
const support::ChildRole server("captureServer", [](const support::ChildArguments &arguments) {
    static char name[] = "\x1b[31mEVIL";
    program_invocation_short_name = name;
    TamoHostQueue *queue = nullptr;
    support::tellParent(TamoHostMsgOpen(arguments[0].c_str(), &queue) == 0 ? "open" : "failed");
    OsMsgHeader *message = nullptr;
    while (TamoHostMsgReceive(queue, &message, -1) == TAMO_HOST_OK) {
        ConfCommMsgProcess(message);
        TamoHostMsgFree(message);
    }
    return 0;
});

uint32_t addsOne(uint32_t param, void *, uint32_t) {
    return param + 1;
}

TEST(TamoctlCapture, IsReadByTsharkAfterItWasKilled) {
    const support::ScratchDirectory directory;
    const std::string file = directory.path() + "/capture.pcapng";
    support::ChildProcess child("captureServer", {"capture.q"});
    ASSERT_EQ(child.hear(), "open");
    Program capture({TAMOCTL, "capture", "--queue", "capture*", file});
    const auto waitForBytes = [&](size_t count) {
        const auto end = std::chrono::steady_clock::now() + support::patience(20);
        struct stat status = {};
        while ((stat(file.c_str(), &status) != 0 || status.st_size < static_cast<off_t>(count)) &&
               std::chrono::steady_clock::now() < end) {
            usleep(5000);
        }
    };
    waitForBytes(1); /* it looks on before it writes */
    const size_t head = fileText(file).size();
    char data[] = "x";
    EXPECT_EQ(ConfCommMsgSynSend("capture.q", addsOne, 41, data, sizeof(data)), 42U);
    EXPECT_NE(ConfCommMsgSynSendImpl("capture.none", addsOne, 1, data, sizeof(data), 1), 0U);
    waitForBytes(head + 5 * tamoctl::capturePacket({}, 0).size());
    capture.kill();
    const Seen seen = see(fileText(file));
    EXPECT_EQ(seen.step, CaptureStep::end) << seen.error;
    EXPECT_EQ(seen.events, 5U);

    if (shell("command -v tshark").code != 0) {
        GTEST_SKIP() << "tshark is not installed, so nothing shows the capture";
    }
    const std::string fields =
        "-e frame.number -e tamo.event -e tamo.queue -e tamo.param "
        "-e tamo.result -e tamo.reason -e tamo.request_in -e tamo.response_in";
    const Outcome shown = shell("tshark -2 -X 'lua_script:" DISSECTOR "' -r '" + file +
                                "' -T fields -E separator=, " + fields + " | sort -n");
    EXPECT_EQ(shown.output,
              "1,sent,capture.q,41,0,,,4\n2,received,capture.q,41,0,,1,\n"
              "3,responded,capture.q,41,42,,1,\n4,answered,capture.q,41,42,,1,\n"
              "5,failed,capture.none,1,5,nobody serves the queue,,\n");
    const std::string plain =
        shell("for how in '' -V; do tshark $how -X 'lua_script:" DISSECTOR "' -r '" + file +
              "'; done")
            .output;
    EXPECT_NE(plain.find(".[31mEVIL["), std::string::npos) << plain;
    EXPECT_EQ(plain.find('\x1b'), std::string::npos) << plain;
}

TEST(TamoctlCapture, EndsByItsCountItsTimeAndWithItsReader) {
    TamoHostTrace *trace = nullptr;
    ASSERT_EQ(TamoHostTraceOpen(&trace), TAMO_HOST_OK); /* makes the device root */
    TamoHostTraceClose(trace);
    const struct {
        const char *words;
        int code;
        const char *error;
    } cases[] = {{"", 2, "a file is missing"},
                 {"--snaplen 63 x", 2, "must be 64 or more"},
                 {"/nowhere/x", 1, "cannot write '/nowhere/x'"},
                 {"-t 0.1 -n 1 - >/dev/null", 3, ""}};
    for (const auto &wanted : cases) {
        const Outcome outcome = shell(std::string("'" TAMOCTL "' capture ") + wanted.words);
        SCOPED_TRACE(wanted.words + outcome.errors);
        EXPECT_EQ(outcome.code, wanted.code);
        EXPECT_NE(outcome.errors.find(wanted.error), std::string::npos);
    }
    EXPECT_EQ(Program({TAMOCTL, "capture", "-"}, true).finish().code, 2);
    EXPECT_EQ(shell("'" TAMOCTL "' capture - | head -c 8 | wc -c").output, "8\n");
}

}  // namespace

#include "quorvex/analysis/TraceCheck.h"

#include "quorvex/analysis/TraceFile.h"
#include "quorvex/format/TCodeInfo.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "tests/support/Doubles.h"
#include "tests/support/Effort.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>

namespace Quorvex::test {
namespace {

/// A line a finding: offset, kind, rule and text.
std::string findingsIn(const std::string& trace) {
    std::istringstream stream(trace);
    TraceFile file("trace", &stream);
    std::string found;
    checkTrace(file, [&found](const Finding& finding) {
        found += std::to_string(finding.offset) + " " +
                 (finding.kind == Invalid ? "-" : CTCodeInfo::TCodeToName(finding.kind)) + " " +
                 std::string(nameOf(finding.rule)) + ": " + finding.text + "\n";
    });
    return found;
}

std::set<std::string> rulesIn(const std::string& trace) {
    std::istringstream stream(trace);
    TraceFile file("trace", &stream);
    std::set<std::string> rules;
    checkTrace(file, [&rules](const Finding& finding) { rules.emplace(nameOf(finding.rule)); });
    return rules;
}

// Parts of 4 bytes: the core, the thread, the function.
const std::string kPlace = bytes("01 00 00 00 | 02 00 00 00 | ff ff ff ff ff ff ff ff");
std::string tick(unsigned char at) {
    return std::string(1, static_cast<char>(at)) + std::string(7, '\0');
}
std::string about(unsigned code, unsigned char at, unsigned char id) {
    return std::string{static_cast<char>(code), 28} + tick(at) + kPlace + std::string(1, static_cast<char>(id)) +
           std::string(3, '\0');
}
std::string define(unsigned char id) {
    return about(FunctionDefine, 0, id) + bytes("7e 01 66");
}
std::string enter(unsigned char at, unsigned char id) {
    return about(FunctionEnter, at, id);
}
std::string leave(unsigned char at, unsigned char id) {
    return about(FunctionLeave, at, id);
}
std::string frame(unsigned char length) {
    return bytes("79 10 00 00 00 00") + tick(length) + std::string(4, '\0');
}
const std::string kDisabled = bytes("7a 00");

TEST(TraceCheck, FindsWhatIsWrongAndNothingElse) {
    const std::string call = define(1) + enter(1, 1) + leave(2, 1); // 33 + 30 + 30 bytes
    std::string run = define(1);                                    // 213 bytes, enough to be known as a trace
    for (unsigned i = 0; i < 3; ++i)
        run += enter(1, 1) + leave(1, 1);
    const std::string sync = bytes("7f 18") + tick(1) + kPlace;
    const std::pair<std::string, std::string> cases[] = {
        {call, ""},
        {frame(18 + 93 + 2) + call + kDisabled + bytes("7c 00"), ""},
        {frame(18 + 93 + 2) + call + kDisabled + frame(18 + 2) + kDisabled, ""},
        {sync + define(1) + bytes("82 06 03 00 01 00 00 00"), ""},
        {call + bytes("7d 03 80 80 80"), ""},
        // damage
        {run + bytes("06 02 00 00") + run, "213 - damage: 4 bytes that are no packet\n"},
        {run + bytes("06 02 00 00"), "213 - damage: 4 bytes that are no packet\n"},
        {run + bytes("7a 03 01 02 03") + run, "213 TraceDisabled damage: 3 bytes behind its fields\n"
                                              "213 TraceDisabled frame: ends a frame that has not begun\n"},
        // cut
        {call + enter(3, 1).substr(0, 9), "93 - cut: the trace ends within a packet\n"},
        {frame(0xFF) + call, "111 - cut: the trace ends within a frame\n"},
        {call + define(2).substr(0, 30) + bytes("7e ff") + std::string(255, 'n'),
         "93 FunctionDefine cut: the trace ends within its text\n"},
        {define(2).substr(0, 30) + bytes("7e ff") + std::string(255, 'n') + call,
         "0 FunctionDefine text: its text breaks off: another packet follows\n"},
        // padding
        {call + bytes("7d 03 80 81 80"), "93 Fill fill: is filled with other bytes than 0x80\n"},
        // frames
        {call + kDisabled, "93 TraceDisabled frame: ends a frame that has not begun\n"},
        {frame(0x72) + call + kDisabled, "0 TraceEnabled frame: tells a frame of 114 bytes, which has 113\n"},
        {frame(38) + frame(20) + kDisabled, "18 TraceEnabled frame: begins a frame before the last one has ended\n"},
        {bytes("79 04 01 00 00 00 7a 00"), "0 TraceEnabled frame: is of version 1 of the format, not 0\n"},
        {call + bytes("7c 00") + define(2), "95 FunctionDefine frame: follows the end of the trace\n"},
        // references
        {define(1) + bytes("82 06 03 00 01 00 00 00 82 06 04 00 01 00 00 00"),
         "33 RelFunctionEnter reference: is relative to the core context, which no packet has told before\n"},
        // definitions
        {enter(1, 7) + enter(2, 7),
         "0 FunctionEnter definition: is about function 0x00000007, which has not been defined before\n"},
        {define(7) + about(FunctionUndefine, 1, 7) + enter(2, 7),
         "63 FunctionEnter definition: is about function 0x00000007, which has not been defined before\n"},
        {call + about(FunctionUndefine, 3, 7),
         "93 FunctionUndefine definition: undefines function 0x00000007, which is not defined\n"},
        {enter(1, 0xFF).substr(0, 26) + bytes("ff ff ff ff"), ""}, // no function
        // balance
        {call + leave(3, 1), "93 FunctionLeave balance: leaves function 0x00000001, which has not been entered\n"},
        {define(1) + define(2) + enter(1, 1) + enter(2, 2) + leave(3, 1),
         "126 FunctionLeave balance: leaves function 0x00000001 while 1 function that it has called is not left\n"},
        {define(1) + enter(1, 1) + enter(2, 1) + enter(3, 1), ""}, // a program may end anywhere
        // time
        {define(1) + enter(5, 1) + leave(4, 1) + enter(5, 1),
         "63 FunctionLeave time: its tick 4 is before the last one of its place, 5\n"},
        {define(1) + enter(5, 1) + define(2) + leave(5, 1), ""}, // definitions may be old
    };
    for (const auto& [trace, expected] : cases) {
        std::string found;
        EXPECT_EQ(thrownBy([&] { found = findingsIn(trace); }), "") << hex(trace);
        EXPECT_EQ(found, expected) << hex(trace);
    }
}

TEST(TraceCheck, KnowsThePagesOfAPagedTrace) {
    MemorySink sink;
    CTraceWriterPaged writer(sink);
    RandomPackets random(20261122);
    for (unsigned i = 0; i < effort(30'000, 15'000); ++i)
        writer.put(random.next().get());
    writer.flush();
    const auto ofPages = [](const std::string& trace) {
        std::string found;
        for (const std::string& rule : rulesIn(trace)) {
            if (rule == "page" || rule == "restated" || rule == "fill" || rule == "damage" || rule == "text")
                found += rule + " ";
        }
        return found;
    };
    const std::string& trace = sink.bytes;
    ASSERT_GT(trace.size(), 3 * kPageSize);
    EXPECT_EQ(ofPages(trace), "");
    std::string page = trace;
    page[2 * kPageSize + 2] ^= 1; // the tick that the page restates
    EXPECT_EQ(ofPages(page), "restated ");
    page = trace;
    page[2 * kPageSize - 1] ^= 1; // padding, or the end of what takes all the room
    EXPECT_TRUE(ofPages(page) == "fill " || trace[2 * kPageSize - 1] != '\x80');
    // A packet more: all pages behind it end elsewhere.
    EXPECT_EQ(ofPages(enter(1, 1) + trace), "");
}

} // namespace
} // namespace Quorvex::test

#include "quorvex/instrument/Record.h"

#include "quorvex/analysis/Trace.h"
#include "quorvex/format/Packet.h"
#include "tests/instrument/Told.h"
#include "tests/support/System.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <map>
#include <sstream>
#include <string>

namespace Quorvex::test {
namespace {

/// What the recording program tells in a mode, a line a packet; numbers of processes and threads as "P" and "T".
std::string toldIn(const std::string& mode, const std::string& settings = "") {
    const TemporaryDirectory directory;
    const int status = run({QUORVEX_RECORDER,
                            {mode},
                            directory.path().string(),
                            {{"QVX_TRACEDIR", "."}, {"QVX_TRACEFILENAME", ""}, {"QVX_TRACEMODE", settings}}});
    std::ostringstream lines;
    if (status != 0)
        lines << "status " << status << '\n';
    for (const std::string& file : directory.files(".qvx")) {
        for (const TracePacket& packet : trace(directory.path(file))) {
            if (packet.kind() == "Timestamp")
                continue;
            std::string text(packet.text().empty() ? packet.name() : packet.text());
            for (const char* const key : {"pid=", "tid="}) {
                if (const std::size_t at = text.find(key); at != std::string::npos)
                    text.replace(at + 4, text.find(' ', at) - at - 4, "N");
            }
            lines << packet.kind() << ' ' << text;
            if (const auto value = packet.field("Value"))
                lines << ' '
                      << (*value >> 52 & 0x7FF && *value >> 63 == 0
                              ? std::to_string(std::bit_cast<double>(*value))
                              : std::to_string(std::bit_cast<std::int64_t>(*value)));
            if (const auto level = packet.field("Priority"))
                lines << ' ' << *level;
            if (packet.kind() == "Event") {
                std::string bytes(packet.packet().StreamSize(), '\0');
                const_cast<CPacket&>(packet.packet()).write(bytes.data(), static_cast<unsigned>(bytes.size()));
                lines << " \"" << bytes.substr(30, 9) << "\" " << bytes.size() - 30;
            }
            lines << '\n';
        }
    }
    return lines.str();
}

TEST(Record, TellsAllThatAProgramSaysOfItself) {
    EXPECT_EQ(toldIn("toldInCpp"), R"(Message quorvex.thread pid=N tid=N name=a \x5c thread\x0a 64
Message quorvex.name pid=N name=a process 64
FunctionDefine outer
FunctionEnter outer
FunctionDefine inner
FunctionEnter inner
FunctionLeave inner
FunctionLeave outer
FunctionDefine twice
FunctionEnter twice
CounterDefine n
CounterValue n 2
EventDefine more than one
Event more than one "" 0
FunctionLeave twice
FunctionDefine a "half"
FunctionEnter a "half"
FunctionLeave a "half"
FunctionEnter a "half"
FunctionLeave a "half"
FunctionDefine alone
FunctionEnter alone
FunctionLeave alone
CounterDefine load
CounterDefineUnit %
CounterValue load 12.500000
CounterDefine few
CounterDefineUnit pieces
CounterValue few 255
CounterDefine below
CounterValue below -1
EventDefine data
Event data "AB" 2
EventDefine much data
Event much data "ABCDEFGHI" 64
Message a message 0
FunctionDefine wait for busy
FunctionEnter wait for busy
FunctionLeave wait for busy
FunctionEnter wait for busy
FunctionLeave wait for busy
FunctionDefine wait for data
FunctionEnter wait for data
FunctionLeave wait for data
FunctionDefine entered before
FunctionEnter entered before
FunctionLeave entered before
)");
    EXPECT_EQ(toldIn("toldInC"), R"(Message quorvex.thread pid=N tid=N name=a thread 64
Message quorvex.name pid=N name=in C 64
FunctionDefine outer
FunctionEnter outer
FunctionDefine inner
FunctionEnter inner
CounterDefine load
CounterDefineUnit %
CounterValue load 12.500000
FunctionDefine countDown
FunctionEnter countDown
CounterDefine n
CounterValue n 1
FunctionEnter countDown
CounterValue n 0
FunctionLeave countDown
FunctionLeave countDown
EventDefine always
Event always "" 0
EventDefine data
Event data "AB" 2
Message a message 0
FunctionDefine wait for data
FunctionEnter wait for data
FunctionLeave wait for data
FunctionLeave inner
FunctionLeave outer
)");
}

TEST(Record, TellsNothingWhereItIsSwitchedOff) {
    EXPECT_EQ(toldIn("toldNothing"), "");
    EXPECT_EQ(toldIn("toldInCpp", "off"), "");
}

// In two threads, and with more names than numbers are kept of.
TEST(Record, GivesWhatHasOneNameOneNumber) {
    std::istringstream lines(toldIn("toldOften"));
    std::map<std::string, unsigned> counts;
    for (std::string kind, name; lines >> kind >> name;)
        ++counts[kind + ' ' + name];
    EXPECT_EQ(counts.size(), 3 * kNames);
    for (const auto& [line, count] : counts) {
        const std::string kind = line.substr(0, line.find(' '));
        const bool isTwice = std::stoul(line.substr(line.find(' ') + 1)) < kSites - kNames;
        EXPECT_EQ(count, kind == "FunctionDefine" ? 2U : isTwice ? 8U : 4U) << line;
    }
}

} // namespace
} // namespace Quorvex::test

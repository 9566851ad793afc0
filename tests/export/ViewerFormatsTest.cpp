#include "quorvex/export/ViewerFormats.h"

#include "quorvex/packets/PacketKinds.h"
#include "tests/support/RandomPackets.h"
#include "tests/support/Samples.h"
#include "tests/support/System.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <span>
#include <sstream>

namespace Quorvex::test {
namespace {

/// A format that has a case for nothing.
class NothingWriter : public CViewerWriter {
public:
    explicit NothingWriter(std::ostream& out) : CViewerWriter(out, {}) {}

protected:
    bool show(const CPacket&, std::uint64_t) override { return false; }
    void end(std::uint64_t) override {}
    bool writeFile() override { return true; }
};

/// The losses of one packet, as "1 messages".
std::string lossesOf(CViewerWriter& writer, CPacket& packet) {
    EXPECT_TRUE(writer.put(&packet));
    std::string losses;
    for (const auto& [what, count] : writer.losses())
        losses += std::to_string(count) + " " + what + ";";
    return losses;
}

TEST(ViewerWriter, CountsWhatAWriterHasNoCaseFor) {
    for (const Sample& sample : samples()) {
        std::ostringstream out;
        NothingWriter writer(out);
        const auto packet = packetOf(bytes(sample.wire));
        const Role role = factsOf(packet->TraceCode()).role;
        const bool tells = role == Role::Happening || role == Role::Definition;
        EXPECT_EQ(lossesOf(writer, *packet).starts_with("1 "), tells) << sample.name;
    }
    std::ostringstream out;
    NothingWriter writer(out);
    CCharString empty;
    EXPECT_EQ(lossesOf(writer, empty), "") << "a reader hands it out behind a definition without a name";
}

TEST(ViewerFormats, DropNothingSilently) {
    const CCoreContext context(1, 0, 1, 0);
    const std::tuple<std::shared_ptr<CPacket>, std::string, std::string> cases[] = {
        {std::make_shared<CTraceBroken>(context), "", "1 gaps in the trace;"},
        {std::make_shared<CTypeDefine>(context, 1, 4, "int"), "1 types;", "1 types;"},
        {std::make_shared<CCharString>("abc"), "1 free texts;", "1 free texts;"},
        {std::make_shared<CCounterDefineUnit>(context, 1, 0, "ms"), "", "1 units of counters;"},
        {std::make_shared<CEventDefine>(1, Watchpoint, "e"), "", "1 event definition packets;"},
        {std::make_shared<CEvent>(context, 1), "", "1 events;"},
        {std::make_shared<CFunctionDefine>(context, 1, "f"), "", ""},
        {std::make_shared<CFunctionEnter>(context, ~0U), "1 functions without a number;",
         "1 functions without a number;"},
        {std::make_shared<CFunctionUndefine>(context, 1), "", ""},
        {std::make_shared<CTypeUndefine>(context, 1), "", ""},
        {std::make_shared<CTimestamp>(1), "", ""},
        {std::make_shared<CSync>(context), "", ""},
    };
    for (const auto& [packet, vcd, btf] : cases) {
        for (const ViewerFormat& format : std::span(viewerFormats()).first(2)) { // of the others, golden files tell
            std::ostringstream out;
            const auto writer = format.make(out, {});
            EXPECT_EQ(lossesOf(*writer, *packet), format.name == "vcd" ? vcd : btf)
                << format.name << ' ' << CTCodeInfo::TCodeToName(packet->TraceCode());
        }
    }
    for (const ViewerFormat& format : std::span(viewerFormats()).first(2)) {
        std::ostringstream out;
        const auto writer = format.make(out, {});
        CTypeDefine first(context, 1, 4, "int");
        CTypeDefine second(context, 1, 4, "long");
        EXPECT_TRUE(writer->put(&first));
        EXPECT_EQ(lossesOf(*writer, second), "2 types;") << "neither name is shown";
    }
}

/// What two traces of their own processes become, in which a counter has these names.
std::string written(const ViewerFormat& format, const char* first, const char* second, bool areTold = true) {
    std::ostringstream out;
    const auto writer = format.make(out, {});
    for (unsigned process = 0; process < 2; ++process) {
        if (areTold)
            writer->setProcess(process);
        CCounterDefine define(CCoreContext(1, 0, process, 0), 5, 0, process == 0 ? first : second);
        CCounterValue value(CCoreContext(2, 0, process, 0), 5, TCounter_t(std::uint64_t{process} + 3));
        EXPECT_TRUE(writer->put(&define) && writer->put(&value));
    }
    writer->flush();
    EXPECT_TRUE(writer->written());
    return out.str();
}

TEST(ViewerFormats, KeepThingsOfDifferentProcessesApart) {
    for (const ViewerFormat& format : viewerFormats()) {
        SCOPED_TRACE(format.name);
        if (!std::ranges::count(format.shownKinds(), CounterValue))
            continue;
        EXPECT_EQ(written(format, "hits", "hits"), written(format, "hits", "hits", false)) << "one process, or alike";
        EXPECT_EQ(written(format, "hits", ""), written(format, "hits", "", false)) << "known by the other's name";
        const std::string apart = written(format, "hits", "misses");
        EXPECT_NE(apart.find("hits"), std::string::npos);
        EXPECT_NE(apart.find("misses"), std::string::npos);
    }
}

TEST(ViewerFormats, TellTimesOfAnyLengthByThePacketOrByItsTick) {
    const std::uint64_t times[] = {0,
                                   7,
                                   99'999'999,
                                   100'000'000,
                                   100'000'001,
                                   199'999'999,
                                   20'000'000'300,
                                   9'999'999'999'999'999,
                                   10'000'000'000'000'000,
                                   10'000'000'012'345'678,
                                   9'223'372'036'854'775'805};
    for (const ViewerFormat& format : viewerFormats()) {
        std::string written[2];
        for (const bool isTold : {false, true}) {
            std::ostringstream out;
            const auto writer = format.make(out, {});
            CTimestamp clock(0, std::uint64_t{1'000'000'000});
            EXPECT_TRUE(writer->put(&clock));
            for (const std::uint64_t time : times) {
                CFunctionEnter enter(CCoreContext(time, 0, 1, 0), 3);
                EXPECT_TRUE(isTold ? writer->putAbsolute(enter, time) : writer->put(&enter));
            }
            writer->flush();
            EXPECT_FALSE(writer->putAbsolute(clock, 0)) << "behind the end";
            written[isTold] = out.str();
        }
        EXPECT_EQ(written[0], written[1]) << format.name;
        for (std::size_t at = 0; const std::uint64_t time : times) {
            const std::string text = std::to_string(time);
            const std::string digits = std::string(text.size() < 4 ? 4 - text.size() : 0, '0') + text;
            const std::pair<std::string_view, std::string> lines[] = {
                {"vcd", "\n#" + std::to_string(time) + "\n"},
                {"btf", "\n" + std::to_string(time) + ","},
                {"chrome",
                 "\"ts\":" + digits.substr(0, digits.size() - 3) + "." + digits.substr(digits.size() - 3) + "}"},
                {"speedscope", "\"at\":" + std::to_string(time) + "}"},
                {"csv", ",0x00000003," + std::to_string(time) + ","},
                {"json", "\"start_ns\": " + std::to_string(time) + ","},
            };
            const auto* row = std::ranges::find(lines, format.name, &std::pair<std::string_view, std::string>::first);
            if (row == std::end(lines))
                continue; // a row of bytes, or one without times
            const std::string& line = row->second;
            if (format.name == "csv" || format.name == "json")
                at = 0; // rows stand where a call ends
            at = written[0].find(line, at);
            EXPECT_NE(at, std::string::npos) << format.name << ' ' << time;
        }
    }
}

TEST(ViewerFormats, StayFailedWhenAPartOfTheBodyIsLost) {
    // In a process of its own whose files cannot grow for a while: 2 where that cannot be had.
    const auto inChild = [] {
        std::ostringstream out;
        const auto writer = viewerFormats().front().make(out, {});
        const auto putMany = [&writer] {
            bool good = true;
            for (std::uint64_t tick = 0; tick < 20'000; ++tick) {
                CFunctionEnter enter(CCoreContext(tick, 0, 0, 0), static_cast<std::uint32_t>(tick % 7));
                good = writer->put(&enter) && good;
            }
            return good;
        };
        if (!limitSpace("there is no such directory", 100'000)) // so it is files that do not grow
            std::_Exit(2);
        const bool hasFailed = !putMany();
        if (!limitFiles(~std::uint64_t{0}))
            std::_Exit(2);
        writer->clear();
        putMany();
        writer->flush();
        std::_Exit(hasFailed && !writer->written() && !writer->good() ? 0 : 1);
    };
    if (isPosix()) {
        const int code = fork(inChild, [] {});
        EXPECT_TRUE(code == 0 || code == 2) << code;
    }
}

} // namespace
} // namespace Quorvex::test

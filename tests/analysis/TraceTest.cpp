#include "quorvex/analysis/Trace.h"

#include "quorvex/analysis/TraceError.h"
#include "quorvex/export/PacketPlain.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/PacketKinds.h"
#include "tests/support/RandomPackets.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <fstream>
#include <initializer_list>
#include <set>
#include <sstream>

namespace Quorvex::test {
namespace {

CCoreContext at(std::uint64_t tick) {
    return CCoreContext(tick, 1, 2, kUnknown64);
}

std::filesystem::path write(const TemporaryDirectory& directory, const std::string& name,
                            std::initializer_list<CPacket*> packets, const std::string& behind = {}) {
    std::ofstream file(directory.path(name), std::ios::binary);
    for (CPacket* packet : packets) {
        file << wireOf(*packet);
        delete packet;
    }
    file << behind;
    return directory.path(name);
}

template <class Value> std::string shown(const std::optional<Value>& value) {
    return value ? std::to_string(*value) : "-";
}

TEST(Trace, TellsAllOfEachPacket) {
    const TemporaryDirectory directory;
    const std::filesystem::path path = write(
        directory, "a.qvx",
        {new CTraceEnabled, new CTimestamp(5, std::uint32_t{1}, std::uint64_t{1'000'000}),
         new CFunctionDefine(at(6), 7, "main"), new CSync(at(10)), new CRelFunctionEnter(1, 0, 7),
         new CFunctionEnter(at(12), 9), new CMessage(13, -1, "hello"), new CExecInsn(CCoreContext(14, 1, 2, 0x10)),
         new CBusData(CBusContext(kUnknown64, 3, 4), CBusDataSignals(), CData(std::uint16_t{0x201})),
         new CStateDefine(1, 5, "open"), new CInitialState(1, 2, 5, 1, 20),
         new CFunctionEnter(CCoreContext(21, ~0U, ~0U, kUnknown64), ~0U), new CTraceDisabled});
    std::ostringstream out;
    for (const auto& packet : trace(path))
        out << packet.kind() << ' ' << shown(packet.tick()) << ' ' << shown(packet.nanoseconds()) << ' '
            << shown(packet.core()) << ' ' << shown(packet.thread()) << ' ' << shown(packet.id()) << " \""
            << packet.name() << "\" \"" << packet.text() << "\" " << packet.offset() << '\n';
    EXPECT_EQ(out.str(), "Timestamp 5 5000 1 - - \"\" \"\" 18\n"
                         "FunctionDefine 6 6000 1 2 7 \"main\" \"main\" 40\n"
                         "FunctionEnter 11 11000 1 2 7 \"main\" \"\" 102\n"
                         "FunctionEnter 12 12000 1 2 9 \"\" \"\" 110\n"
                         "Message 13 13000 - - - \"\" \"hello\" 140\n"
                         "ExecInsn 14 14000 1 2 - \"\" \"\" 158\n"
                         "BusData - - 3 - - \"\" \"\" 184\n"
                         "StateDefine - - - - 5 \"open\" \"open\" 205\n"
                         "InitialState 20 20000 1 - 5 \"open\" \"\" 221\n"
                         "FunctionEnter 21 21000 - - - \"\" \"\" 247\n");
    for (const auto& packet : trace(path.string())) {
        if (packet.kind() == "BusData") {
            EXPECT_EQ(shown(packet.field("Data")) + shown(packet.field("Tick")) + shown(packet.field("None")), "513--");
            EXPECT_NE(packetAs<CBusData>(packet.packet()), nullptr);
        }
        if (packet.kind() == "ExecInsn") {
            EXPECT_EQ(packet.field("IP"), 0x10U);
        }
    }
}

TEST(Trace, MergesFilesWithTheirOwnNamesAndClocks) {
    const TemporaryDirectory directory;
    std::set<std::string> files;
    for (const std::uint64_t file : {0U, 1U})
        files.insert(write(directory, std::to_string(file),
                           {new CTimestamp(1, std::uint64_t{1000} << file),
                            new CFunctionDefine(at(2), 7, file == 0 ? "first" : "second"),
                            new CFunctionEnter(at(10 + file), 7), new CFunctionEnter(at(20 + file), 7)})
                         .string());
    std::string told;
    std::vector<TracePacket> kept;
    for (TracePacket& packet : trace(files)) {
        if (packet.kind() != "FunctionEnter")
            continue;
        told += std::to_string(packet.file()) + " " + shown(packet.nanoseconds()) + " ";
        kept.push_back(std::move(packet));
    }
    EXPECT_EQ(told, "0 10000000 1 5500000 0 20000000 1 10500000 ");
    for (const TracePacket& packet : kept)
        EXPECT_EQ(packet.name(), packet.file() == 0 ? "first" : "second") << "also when the trace is gone";
    kept.front() = std::move(kept.back());
    EXPECT_EQ(kept.front().tick(), 21U);
}

std::string errorOf(const std::function<void()>& step, TraceError* copy = nullptr) {
    try {
        step();
    } catch (const TraceError& error) {
        if (copy)
            *copy = error;
        return error.what();
    }
    return {};
}

TEST(Trace, ThrowsInFrontOfWhatIsLostIfAskedTo) {
    const TemporaryDirectory directory;
    const auto enter = [](std::uint64_t tick) { return new CFunctionEnter(at(tick), 1); };
    const auto leave = [](std::uint64_t tick) { return new CFunctionLeave(at(tick), 1); };
    const std::string damaged = write(directory, "damaged", {enter(1), enter(2)}, "\x06\x02yz").string();
    write(directory, "tail", {enter(3), leave(4), enter(5), leave(6)});
    std::ofstream(damaged, std::ios::binary | std::ios::app) << directory.content("tail");
    const std::string cut = write(directory, "cut", {enter(1)}, "\x10\x18").string();
    const std::string table = directory.path("table");
    std::ofstream rows(table);
    CPacketPlain plain(rows, true, 0);
    for (const std::uint64_t tick : {1U, 2U, 3U, 4U}) {
        plain.put(PacketPointer(enter(tick)).get());
        rows << (tick == 2 ? "\tNonsense\n" : "");
    }
    rows.close();
    const std::tuple<std::string, unsigned, unsigned, std::string> cases[] = {
        {damaged, 2, 6, damaged + ": offset 60: what stands there cannot be read"},
        {cut, 1, 1, cut + ": offset 30: the end of the trace is missing"},
        {table, 2, 4, table + ": line 3, column 2: expected the name of a kind of packet, found \"Nonsense\""},
    };
    for (const auto& [path, before, all, error] : cases) {
        unsigned count = 0;
        TraceError thrown("", "");
        EXPECT_EQ(errorOf(
                      [&] {
                          for (const auto& packet : trace(path, {.strict = true}))
                              count += packet.id().value_or(0);
                      },
                      &thrown),
                  error);
        EXPECT_EQ(count, before);
        const std::string offset = thrown.offset() ? ": offset " + std::to_string(thrown.offset()) : "";
        EXPECT_EQ(thrown.file() + offset + ": " + thrown.reason(), error);
        Trace tolerant({path});
        for ([[maybe_unused]] const auto& packet : tolerant)
            ++count;
        EXPECT_EQ(count, before + all);
        ASSERT_EQ(tolerant.reports().size(), 1U);
        EXPECT_TRUE(tolerant.reports().front().isLossy());
    }
    EXPECT_EQ(errorOf([&] {
                  trace({damaged, directory.path("none")});
              }),
              directory.path("none") + ": No such file or directory");
    EXPECT_EQ(trace({cut}).begin()->kind(), "FunctionEnter");
    takeLog();
    logError("of the host");
    for ([[maybe_unused]] const auto& packet : trace(table)) {
    }
    EXPECT_EQ(takeLog(), "of the host\n");
}

} // namespace
} // namespace Quorvex::test

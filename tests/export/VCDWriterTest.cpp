#include "quorvex/export/VCDWriter.h"

#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/PacketKinds.h"
#include "tests/support/Golden.h"
#include "tests/support/RandomPackets.h"
#include "tests/support/Samples.h"
#include "tests/support/System.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/VcdFile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

namespace Quorvex::test {
namespace {

CCoreContext at(std::uint64_t tick, std::uint32_t core = 0, std::uint32_t thread = 1) {
    return CCoreContext(tick, core, thread, kUnknown64);
}

/// The dump of packets, which are released.
std::string dumpOf(std::list<CPacket*> packets, CViewerWriter::Losses* losses = nullptr) {
    std::ostringstream out;
    CVCDWriter writer(out);
    for (CPacket*& packet : packets)
        EXPECT_TRUE(writer.forward(packet));
    writer.flush();
    EXPECT_TRUE(writer.written());
    if (losses)
        *losses = writer.losses();
    return out.str();
}

std::list<CPacket*> everything() {
    const unsigned char bytes[] = {1, 2, 3};
    CSignalMask lines("10110000"), values("00110000"), valid("10011111");
    return {
        new CTraceEnabled, new CTimestamp(1000, std::uint64_t{1'000'000}), new CFunctionDefine(at(1000), 7, "main"),
        new CFunctionDefine(at(1000), 8, "ns::f(int)"), new CFunctionEnter(at(1005), 7),
        new CFunctionEnter(at(1006), 8), new CFunctionEnter(at(1007), 8), new CFunctionLeave(at(1008), 8),
        new CFunctionEnter(at(1008, 1, 2), 9), new CProcessDefine(at(1009), 3, "idle"), new CProcessEnter(at(1009), 3),
        new CHWExceptionEnter(at(1010), 14), new CHWExceptionLeave(at(1011), 14), new CProcessLeave(at(1012), 3),
        new CCounterDefine(at(1012), 5, 0, "load"), new CCounterValue(at(1012), 5, TCounter_t(std::uint64_t{300})),
        new CCounterValue(at(1013), 5, TCounter_t(0.5)),
        new CCounterValueDim2(at(1013), 6, TCounter_t(std::uint64_t{4}), TCounterIdx_t(std::uint64_t{1}),
                              TCounterIdx_t(std::uint64_t{2})),
        new CCounterValueVar(
            at(1013), 6, CCounterValueVarPayload(TVarCounter_t(std::uint16_t{513}), TVarCounter_t(std::uint16_t{3}))),
        new CEventDefine(4, Watchpoint, "watch"), new CEvent(at(1014), 4, CData(std::uint8_t{0x81})),
        new CEvent(at(1015), 4), new CVariableWrite(at(1015), 2, CData(bytes, 3)),
        new CSignal(CBusContext(1016, 0, 9), values, valid),
        new CSignalDefine(CBusContext(1016, 0, 8), 1, lines, "bus"),
        new CSignal(CBusContext(1016, 0, 8), values, valid), new CStateMachineDefine(11, "door"),
        new CStateMachineInstanceDefine(11, 1, "front"), new CTransitionDefine(11, 0, 2, 5, "open"),
        new CInitialState(11, 1, 0, 0, 1017), new CTransition(11, 1, 5, 0, 1018), new CTransition(11, 1, 6, 0, 1019),
        // Relative to nothing known: at the time of the packet before, on core 0, thread 0.
        new CRelFunctionLeave(0, 0, 7), new CMessage(1020, 0, "lost"), new CTraceDisabled};
}

TEST(VCDWriter, WritesEverythingThatADumpCanShow) {
    std::ostringstream out;
    CVCDWriter writer(out);
    std::list<CPacket*> packets = everything();
    packets.push_front(nullptr);
    EXPECT_TRUE(writer.forward(packets));
    EXPECT_TRUE(writer.written()) << "by the trace-disabled packet";
    expectGolden("everything.vcd", out.str());
    EXPECT_EQ(writer.losses(),
              (CViewerWriter::Losses{{"counters with values like doubles and like whole numbers, all shown as whole "
                                      "numbers",
                                      1},
                                     {"events at once or a tick after another, shown as one pulse", 1},
                                     {"leaves of what had not been entered", 1},
                                     {"messages", 1},
                                     {"state transitions that are not defined", 1}}));
    EXPECT_EQ(writer.duration(), 20U);
    const VcdFile file(out.str());
    const auto details = std::ranges::count_if(file.variables, [](const auto& variable) {
        return variable.first.find(".functions.") != std::string::npos ||
               variable.first.find(".processes.") != std::string::npos;
    });
    EXPECT_GT(details, 0);
    EXPECT_EQ(file.variables.size() - static_cast<std::size_t>(details), writer.variables().size());
    CEndOfTrace end;
    EXPECT_FALSE(writer.put(&end) || writer.put(nullptr) || writer.good());
}

/// The value of a variable at the end of a time.
std::string valueAt(const VcdFile& file, const std::string& path, std::uint64_t time) {
    const auto& changes = file.variables.at(path).changes;
    auto change = changes.upper_bound(time);
    return change == changes.begin() ? "" : std::prev(change)->second;
}

std::uint64_t numberAt(const VcdFile& file, const std::string& path, std::uint64_t time) {
    return std::stoull(valueAt(file, path, time), nullptr, 2);
}

TEST(VCDWriter, SuppliesWhatIsMissingAndKeepsTimeGoingForward) {
    CViewerWriter::Losses losses;
    const VcdFile file(
        dumpOf({new CFunctionLeave(at(kUnknown64), 1), new CFunctionEnter(at(100), 1), new CFunctionEnter(at(110), 2),
                new CFunctionEnter(at(120), 3), new CFunctionLeave(at(130), 1), new CFunctionEnter(at(90), 4),
                new CFunctionEnter(at(140), 4), new CFunctionDefine(at(1), 4, "a b"),
                new CFunctionDefine(at(1), 3, "a-b"), new CFunctionDefine(at(1), 3, "a+b")},
               &losses));
    EXPECT_EQ(numberAt(file, "trace.thread_1.depth", 20), 3U);
    EXPECT_EQ(numberAt(file, "trace.thread_1.depth", 30), 1U) << "all are left, one is entered too early";
    EXPECT_EQ(valueAt(file, "trace.thread_1.functions.function_2", 29), "1");
    EXPECT_EQ(valueAt(file, "trace.thread_1.functions.function_2", 30), "0");
    EXPECT_EQ(valueAt(file, "trace.thread_1.functions.a_b", 40), "0");
    EXPECT_EQ(valueAt(file, "trace.thread_1.functions.a_b_4", 40), "1") << "one name, two functions";
    EXPECT_EQ(file.end, 40U);
    EXPECT_EQ(losses, (CViewerWriter::Losses{{"leaves of what had not been entered", 1},
                                             {"leaves that are missing", 2},
                                             {"names given anew, of which one is shown", 1},
                                             {"packets earlier than the one before them", 4}}));
}

TEST(VCDWriter, TellsIdleFromUnknownAndStopsThreadsThatMoveOrEnd) {
    std::ostringstream out;
    CVCDWriter writer(out);
    const auto put = [&writer](unsigned process, std::shared_ptr<CPacket> packet) {
        writer.setProcess(process);
        EXPECT_TRUE(writer.put(packet.get()));
    };
    put(0, std::make_shared<CFunctionEnter>(at(0, 0, 1), 7));
    put(1, std::make_shared<CFunctionEnter>(at(10, 1, 2), 7));
    put(1, std::make_shared<CFunctionLeave>(at(20, 1, 2), 7));
    put(1, std::make_shared<CFunctionEnter>(at(30, 2, 2), 8)); // it has moved
    put(0, std::make_shared<CFunctionEnter>(at(40, 2, 1), 9)); // so has this one, to where the other ran
    writer.endProcess(0);
    put(1, std::make_shared<CFunctionEnter>(at(50, 0, 2), 9));
    writer.flush();
    EXPECT_EQ(writer.losses(), CViewerWriter::Losses());
    const VcdFile file(out.str());
    const std::string idle(32, 'z'), unknown(32, 'x');
    const std::tuple<const char*, std::uint64_t, std::string> kValues[] = {
        {"core_0.thread", 39, "1"},     {"core_0.thread", 40, "z"},     {"core_0.thread", 50, "2"},
        {"core_1.thread", 9, "x"},      {"core_1.thread", 10, "2"},     {"core_1.thread", 30, "z"},
        {"core_2.thread", 30, "2"},     {"core_2.thread", 40, "z"},     {"thread_1.core", 39, "0"},
        {"thread_1.core", 40, "z"},     {"thread_2.core", 9, "x"},      {"thread_2.core", 30, "2"},
        {"thread_2.core", 40, "z"},     {"thread_2.core", 50, "0"},     {"thread_1.function", 39, "7"},
        {"thread_1.function", 40, "z"}, {"thread_2.function", 9, "x"},  {"thread_2.function", 20, "z"},
        {"thread_2.function", 40, "8"}, {"thread_2.function", 50, "9"}, {"thread_1.depth", 0, "1"},
        {"thread_1.depth", 40, "0"},
    };
    for (const auto& [path, time, value] : kValues) {
        const std::string shown = valueAt(file, std::string("trace.") + path, time);
        EXPECT_EQ(shown == idle      ? "z"
                  : shown == unknown ? "x"
                                     : std::to_string(std::stoul(shown, nullptr, 2)),
                  value)
            << path << ' ' << time;
    }
    EXPECT_EQ(valueAt(file, "trace.thread_1.functions.function_7", 40), "0");
}

TEST(VCDWriter, KeepsCallsOfProcessesThatShareAThreadApart) {
    CViewerWriter::Losses losses;
    const VcdFile file(dumpOf({new CFunctionEnter(at(0), 1), new CProcessEnter(at(1), 5), new CFunctionEnter(at(2), 2),
                               new CProcessEnter(at(3), 6), new CFunctionEnter(at(4), 3), new CFunctionLeave(at(5), 3),
                               new CProcessLeave(at(6), 6), new CFunctionLeave(at(7), 2), new CProcessLeave(at(8), 5),
                               new CFunctionLeave(at(9), 1)},
                              &losses));
    EXPECT_EQ(losses, CViewerWriter::Losses());
    const char* const kFunctions = "1z2z3z2z1z"; // from time 0 on
    for (std::uint64_t time = 0; time < 10; ++time) {
        const std::string value = valueAt(file, "trace.thread_1.function", time);
        EXPECT_EQ(value[31] == 'z' ? 'z' : static_cast<char>('0' + std::stoi(value, nullptr, 2)), kFunctions[time])
            << time;
    }
}

TEST(VCDWriter, TellsGapsByTurningTheDumpOff) {
    CViewerWriter::Losses losses;
    const std::string text = dumpOf({new CFunctionEnter(at(0), 1), new CCounterValue(at(1), 2, TCounter_t(0.5)),
                                     new CEvent(at(2), 3), new CTraceBroken(at(5)), new CTraceBroken(at(6)),
                                     new CFunctionEnter(at(9), 4), new CFunctionLeave(at(10), 1)},
                                    &losses);
    EXPECT_EQ(losses, (CViewerWriter::Losses{{"leaves of what had not been entered", 1}})) << "unknown behind a gap";
    const std::size_t off = text.find("\n#5\n$dumpoff\n"), on = text.find("\n$end\n#9\n$dumpon\n$end\n");
    EXPECT_TRUE(off != std::string::npos && on != std::string::npos && off < on) << text;
    const VcdFile file(text);
    EXPECT_EQ(valueAt(file, "trace.counters.counter_2", 4), "r0.5");
    EXPECT_EQ(valueAt(file, "trace.counters.counter_2", 10), "rnan");
    EXPECT_EQ(valueAt(file, "trace.events.event_3", 10), "x");
    EXPECT_EQ(valueAt(file, "trace.thread_1.functions.function_1", 10), "x");
    EXPECT_EQ(numberAt(file, "trace.thread_1.depth", 9), 1U);

    // Of two processes, only the one that has the gap becomes unknown.
    std::ostringstream out;
    CVCDWriter writer(out);
    for (const unsigned process : {0, 1}) {
        CFunctionEnter enter(at(process, process, process), 7);
        writer.setProcess(process);
        EXPECT_TRUE(writer.put(&enter));
    }
    CTraceBroken gap(at(5, 1, 1));
    EXPECT_TRUE(writer.put(&gap));
    writer.flush();
    EXPECT_EQ(out.str().find("$dumpoff"), std::string::npos);
    const VcdFile two(out.str());
    EXPECT_EQ(numberAt(two, "trace.thread_0.function", 5), 7U);
    EXPECT_EQ(valueAt(two, "trace.thread_1.function", 5), std::string(32, 'x'));
    EXPECT_EQ(valueAt(two, "trace.core_1.thread", 5), std::string(32, 'x'));
}

TEST(VCDWriter, MakesOneVariableOfACounterAndOfValuesOfAnyWidth) {
    constexpr std::uint64_t kMinusTwo = ~std::uint64_t{1};
    const auto bits = [](double value) { return std::bit_cast<std::uint64_t>(value); };
    const std::string mixed = "counters with values like doubles and like whole numbers, all shown as whole numbers";
    const std::tuple<std::vector<std::uint64_t>, const char*, std::string, bool> kCounters[] = {
        {{0, 5}, "reg", "101", false},
        {{0, bits(0.1 + 0.2), bits(-0.0), bits(HUGE_VAL)}, "real", "rinf", false},
        {{bits(0.5), 0}, "real", "r0", false},
        {{bits(0.5), 3}, "reg", "11", true},
        {{3, bits(0.5)}, "reg", std::string(9, '1') + std::string(53, '0'), true},
        {{1, kMinusTwo}, "reg", std::string(63, '1') + "0", false},
    };
    for (const auto& [values, type, last, isMixed] : kCounters) {
        std::list<CPacket*> packets;
        for (std::uint64_t tick = 0; const std::uint64_t value : values)
            packets.push_back(
                new CCounterValueDim1(at(tick++), 2, TCounter_t(value), TCounterIdx_t(std::uint64_t{29042})));
        CViewerWriter::Losses losses;
        const VcdFile file(dumpOf(packets, &losses));
        const VcdFile::Variable& counter = file.variables.at("trace.counters.counter_2_29042");
        EXPECT_EQ(counter.type, type);
        const std::string& value = counter.changes.rbegin()->second;
        EXPECT_TRUE(value == last || value == std::string(64 - last.size(), '0') + last) << value;
        EXPECT_EQ(losses.contains(mixed), isMixed);
        EXPECT_EQ(counter.changes.size(), values.size());
    }
    const unsigned char bytes[] = {0x80, 1, 2};
    const VcdFile wide(
        dumpOf({new CVariableWrite(at(0), 2, CData(bytes, 1)), new CVariableWrite(at(1), 2, CData(bytes, 3)),
                new CVariableWrite(at(2), 2, CData(bytes, 2))}));
    EXPECT_EQ(wide.variables.at("trace.variables.variable_2").width, 24U);
    EXPECT_EQ(numberAt(wide, "trace.variables.variable_2", 0), 0x80U);
    EXPECT_EQ(numberAt(wide, "trace.variables.variable_2", 2), 0x180U);

    std::ostringstream out;
    ViewerOptions options;
    options.counters["n"] = CounterType::Double; // told, and the name comes behind values
    CVCDWriter writer(out, options);
    std::list<CPacket*> packets{new CCounterValue(at(0), 2, TCounter_t(std::uint64_t{1})),
                                new CCounterDefine(at(1), 2, 0, "n"), new CCounterDefineUnit(at(1), 2, 0, "$end"),
                                new CCounterValue(at(2), 2, TCounter_t(2.0))};
    EXPECT_TRUE(writer.forward(packets));
    writer.flush();
    EXPECT_EQ(writer.losses(), CViewerWriter::Losses());
    EXPECT_EQ(valueAt(VcdFile(out.str()), "trace.counters.n", 0), "r4.94065645841e-324");
    EXPECT_NE(out.str().find("$comment n is in ?end $end\n"), std::string::npos);
}

TEST(VCDWriter, GivesNamesThatAllReadersTake) {
    const std::pair<std::string, std::string> kNames[] = {{"a$end b", "a_end_b"},
                                                          {"$x", "_x"},
                                                          {"9lives", "_9lives"},
                                                          {"ns::f<int>(char*)", "ns__f_int__char__"},
                                                          {"\xc3\xa4", "__"},
                                                          {"ok", "ok"},
                                                          {std::string(5000, 'n'), std::string(1000, 'n')}};
    for (const auto& [name, shown] : kNames) {
        CViewerWriter::Losses losses;
        const std::string text = dumpOf(
            {new CFunctionDefine(at(0), 1, CCharStringSequence(name.c_str())), new CFunctionEnter(at(0), 1)}, &losses);
        EXPECT_TRUE(VcdFile(text).variables.contains("trace.thread_1.functions." + shown)) << text;
        EXPECT_EQ(losses.size(), name.size() > 1000 ? 1U : 0U);
    }
    const std::string line =
        dumpOf({new CSignalDefine(CBusContext(0, 0, 8), 1, CSignalMask("10000000"), "line"),
                new CSignal(CBusContext(1, 0, 8), CSignalMask("10000000"), CSignalMask("10000000"))});
    EXPECT_NE(line.find(" line $end\n"), std::string::npos) << "one bit has no range";
}

TEST(VCDWriter, ShowsAddressesAndPulses) {
    CViewerWriter::Losses losses;
    const VcdFile file(dumpOf({new CExecInsn(0, 0, 1, 0x10), new CDirectBranch(1, 0, 1, 0x14, 0x40),
                               new CNonExecInsn(2, 0, 1, 0x40), new CExecInsn(3, 0, 1, kUnknown64),
                               new CEvent(at(10), 4), new CEvent(at(10), 4), new CEvent(at(20), 4)},
                              &losses));
    EXPECT_EQ(losses, (CViewerWriter::Losses{{"events at once or a tick after another, shown as one pulse", 1}}));
    EXPECT_EQ(numberAt(file, "trace.core_0.address", 0), 0x10U);
    EXPECT_EQ(numberAt(file, "trace.core_0.address", 1), 0x14U);
    EXPECT_EQ(numberAt(file, "trace.core_0.branch_target", 1), 0x40U);
    EXPECT_EQ(valueAt(file, "trace.core_0.executed", 1), "x");
    EXPECT_EQ(valueAt(file, "trace.core_0.executed", 2), "0");
    EXPECT_EQ(valueAt(file, "trace.core_0.executed", 3), "1");
    EXPECT_EQ(valueAt(file, "trace.core_0.address", 3), std::string(64, 'x'));
    EXPECT_EQ(file.variables.at("trace.events.event_4").changes,
              (std::map<std::uint64_t, std::string>{{0, "0"}, {10, "1"}, {11, "0"}, {20, "1"}, {21, "0"}}));
    EXPECT_EQ(file.end, 21U);
}

TEST(VCDWriter, TellsTimeInAUnitThatFitsTheClock) {
    // The end is that of 7 ticks.
    const std::tuple<std::uint64_t, std::string, std::uint64_t> cases[] = {
        {1, "1s", 7},
        {1'000, "1ms", 7},
        {1'000'000'000, "1ns", 7},
        {3'000'000, "1ns", 2333},
        {32'768, "1ns", 213623},
        {1'000'000'000'000, "1ps", 7},
        {2'400'000'000, "1ps", 2916},
        {0, "1ns", 7},
    };
    for (const auto& [frequency, unit, end] : cases) {
        std::list<CPacket*> packets{new CFunctionEnter(at(1'000'000'000'000'000'000), 1),
                                    new CFunctionLeave(at(1'000'000'000'000'000'007), 1)};
        if (frequency != 0)
            packets.push_back(new CTimestamp(1'000'000'000'000'000'007, frequency)); // also when it comes late
        const VcdFile file(dumpOf(packets));
        EXPECT_EQ(file.timescale, unit);
        EXPECT_EQ(file.end, end) << frequency;
        EXPECT_EQ(file.variables.at("trace.thread_1.depth").changes.rbegin()->first, end);
    }
}

TEST(VCDWriter, NeverRunsOutOfStackOrLegalIdentifiers) {
    std::list<CPacket*> packets;
    for (std::uint32_t i = 0; i < 10'000; ++i)
        packets.push_back(new CFunctionEnter(at(i), i));
    for (std::uint32_t i = 10'000; i-- > 0;)
        packets.push_back(new CFunctionLeave(at(20'000 - i), i));
    for (std::uint32_t i = 0; i < 10'000; ++i)
        packets.push_back(new CCounterValue(at(30'000), i, TCounter_t(std::uint64_t{i})));
    CViewerWriter::Losses losses;
    const std::string text = dumpOf(packets, &losses);
    const VcdFile file(text);
    EXPECT_EQ(file.variables.size(), 1U + 3 + 4096 + 10'000);
    EXPECT_EQ(numberAt(file, "trace.thread_1.depth", 9'999), 10'000U);
    EXPECT_EQ(numberAt(file, "trace.thread_1.depth", 20'000), 0U);
    EXPECT_EQ(losses.at("nesting deeper than 4096, shown by its depth only"), 10'000U - 4096);
    std::set<std::string> codes;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string word, code;
        if (words >> word && word == "$var" && words >> word >> word >> code) {
            EXPECT_TRUE(codes.insert(code).second && code[0] != '$' && code.find('\x7f') == std::string::npos) << code;
        }
    }
    EXPECT_EQ(codes.size(), file.variables.size());
}

/// Random packets of all kinds with ticks that mostly go forward, and function calls that mostly match.
std::list<CPacket*> randomTrace(unsigned count, unsigned seed) {
    RandomPackets random(seed);
    std::list<CPacket*> packets;
    std::uint64_t tick = 1'000'000;
    for (unsigned i = 0; i < count; ++i) {
        tick += random.below(50);
        const CCoreContext context(tick, random.below(2), random.below(3), 0);
        if (random.below(3) > 0) {
            const std::uint32_t function = random.below(6);
            packets.push_back(random.below(2) ? static_cast<CPacket*>(new CFunctionEnter(context, function))
                                              : new CFunctionLeave(context, function));
            continue;
        }
        std::string wire = random.wire();
        const tagTCode code = codeOf(wire);
        if (code == TraceDisabled || (code == Timestamp && wire[1] != 8))
            continue;
        if (sortOfAbsolute(code) == ContextSort::Core || sortOfSync(code) == ContextSort::Core || code == Event)
            context.write(wire.data() + 2, CCoreContext::Len());
        else if (sortOfAbsolute(code) != ContextSort::None || sortOfSync(code) != ContextSort::None ||
                 code == Message || code == Timestamp || code == TraceBroken)
            storeLittleEndian(wire.data() + 2, tick);
        else if (code == InitialState || code == Transition)
            storeLittleEndian(wire.data() + 2 + 16, tick);
        packets.push_back(packetOf(wire).release());
    }
    return packets;
}

bool isInstalled(const std::string& program) {
    return isPosix() && std::system(("command -v " + program + " >/dev/null 2>&1").c_str()) == 0;
}

/// Has others read the dump a.vcd by a command in a directory; none of them may say anything to the file log.
void expectRead(const TemporaryDirectory& directory, const std::string& dump, const std::string& command) {
    std::ofstream(directory.path("a.vcd"), std::ios::binary) << dump;
    EXPECT_EQ(std::system(("cd " + directory.path().string() + " && " + command).c_str()), 0);
    EXPECT_EQ(directory.content("log"), "");
    takeLog();
}

// Another program reads the dump and writes it again: without a warning, and with the same values.
TEST(VCDWriter, IsReadByOthersWithTheValuesItHas) {
    if (!isInstalled("vcd2fst") || !isInstalled("fst2vcd"))
        GTEST_SKIP() << "no vcd2fst and fst2vcd (package gtkwave)";
    TemporaryDirectory directory;
    std::list<CPacket*> samplesOfAll;
    for (const Sample& sample : samples()) {
        PacketPointer packet(sample.make());
        if (packet->TraceCode() != TraceDisabled)
            samplesOfAll.push_back(packet.release());
    }
    for (const std::string& text :
         {dumpOf(everything()), dumpOf(samplesOfAll), dumpOf(randomTrace(20'000, 1)), dumpOf(randomTrace(20'000, 2))}) {
        expectRead(directory, text,
                   "rm -f a.fst b.vcd && vcd2fst a.vcd a.fst >log 2>&1 && fst2vcd -f a.fst -o b.vcd >>log 2>&1");
        VcdFile ours(text), theirs(directory.content("b.vcd"));
        ours.dropRepeated();
        theirs.dropRepeated();
        EXPECT_EQ(theirs.timescale, ours.timescale);
        ASSERT_EQ(theirs.variables.size(), ours.variables.size());
        for (const auto& [path, variable] : ours.variables) {
            const auto other = theirs.variables.find(path);
            ASSERT_NE(other, theirs.variables.end()) << path;
            EXPECT_EQ(other->second.changes, variable.changes) << path;
        }
    }
}

// A parser of another origin, which knows neither reals nor gaps, and takes a value with an x in it for x.
TEST(VCDWriter, IsReadByAParserInJavaScriptWithTheValuesItHas) {
    const std::string node = "NODE_PATH=${NODE_PATH:-$(npm root -g 2>/dev/null)} node ";
    if (!isInstalled("node") || std::system((node + "-e 'require(\"vcd-parser\")' >/dev/null 2>&1").c_str()) != 0)
        GTEST_SKIP() << "no node with vcd-parser (npm install -g vcd-parser)";
    TemporaryDirectory directory;
    std::ofstream(directory.path("read.js")) << R"(
require('vcd-parser').parse(require('fs').readFileSync('a.vcd', 'utf8')).then(dump => {
    for (const signal of dump.signal)
        for (const [time, value] of signal.wave)
            console.log(signal.name.replace(/\[.*/, ''), time, value);
}).catch(error => console.error(error));
)";
    std::list<CPacket*> random = randomTrace(500, 4);
    random.remove_if([](CPacket* packet) {
        const bool isForeign = packet->TraceCode() == TraceBroken || factsOf(packet->TraceCode()).isCounterValue;
        return isForeign && CPacketFactory::releaseCPacket(&packet);
    });
    for (const std::string& text : {dumpOf(everything()), dumpOf(random)}) {
        expectRead(directory, text, node + "read.js >values 2>log");
        const VcdFile file(text);
        std::map<std::string, std::map<std::uint64_t, std::string>> theirs;
        std::istringstream values(directory.content("values"));
        for (std::string path, value; values >> path;) {
            std::uint64_t time = 0;
            values >> time >> value;
            const unsigned width = file.variables.at(path).width;
            const char filler = value[0] == '1' ? '0' : value[0];
            theirs[path][time] = std::string(width - std::min<std::size_t>(width, value.size()), filler) + value;
        }
        EXPECT_EQ(theirs.size(), file.variables.size());
        for (const auto& [path, variable] : file.variables) {
            for (const auto& [time, value] : variable.changes) {
                const bool hasUnknown = value.find('x') != std::string::npos;
                EXPECT_EQ(theirs[path][time], hasUnknown ? std::string(value.size(), 'x') : value)
                    << path << ' ' << time;
            }
        }
    }
}

TEST(VCDWriter, IsReadByALogicAnalyserWithoutAWarning) {
    if (!isInstalled("sigrok-cli"))
        GTEST_SKIP() << "no sigrok-cli";
    TemporaryDirectory directory;
    // Short ones: that program makes a sample of every unit of time.
    for (const std::string& text : {dumpOf(everything()), dumpOf(randomTrace(2'000, 3))}) {
        expectRead(directory, text, "sigrok-cli -l 2 -I vcd -i a.vcd -O bits >bits 2>log");
        EXPECT_NE(directory.content("bits").find("function_"), std::string::npos);
    }
}

} // namespace
} // namespace Quorvex::test

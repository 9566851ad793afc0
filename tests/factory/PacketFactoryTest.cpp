#include "quorvex/factory/PacketFactory.h"

#include "tests/support/RandomPackets.h"
#include "tests/support/Samples.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <sstream>

namespace Quorvex::test {
namespace {

std::string wireOfHeld(const PacketPointer& packet) {
    return hex(wireOf(*packet));
}

TEST(Factory, HasNoPacketForCodesWithoutAClass) {
    for (const unsigned code : {0x06U, 0x20U, 0x98U, 0xDDU, 0xFEU, 0xFFU, 0x100U}) {
        EXPECT_EQ(CPacketFactory::getCPacket(tagTCode(code)), nullptr) << code;
        CPacket unknown(tagTCode(code), 0);
        EXPECT_EQ(CPacketFactory::duplicate(&unknown), nullptr) << code;
        if (code > 0xFF)
            continue; // no such byte
        std::istringstream in(std::string{static_cast<char>(code), '\x01', 'x'});
        EXPECT_EQ(CPacketFactory::getCPacket(in), nullptr) << code;
        EXPECT_EQ(in.get(), 'x') << "the payload is not read";
    }
}

TEST(Factory, ReadsAHeaderFirst) {
    unsigned consumed = 9;
    EXPECT_EQ(CPacketFactory::getCPacket("\x7a", 1, consumed), nullptr);
    EXPECT_EQ(consumed, 0U);
    EXPECT_EQ(CPacketFactory::getCPacket(nullptr, 100, consumed), nullptr);
    std::istringstream empty;
    empty.get();
    EXPECT_EQ(CPacketFactory::getCPacket(empty), nullptr);
    std::istringstream half("\x7a");
    EXPECT_EQ(CPacketFactory::getCPacket(half), nullptr);

    const std::string fill = bytes("7d 05 00 00 00 00 00");
    const PacketPointer packet(CPacketFactory::getCPacket(fill.data(), 7, consumed));
    EXPECT_EQ(consumed, 7U);
    EXPECT_EQ(thrownBy([&] { CPacketFactory::getCPacket(fill.data(), 5, consumed); }),
              "CFill: Read-In Constructor could not read valid Fill packet from stream.");
}

TEST(Factory, ReleasesPacketsAndForgetsThem) {
    EXPECT_FALSE(CPacketFactory::releaseCPacket(nullptr));
    CPacket* packet = CPacketFactory::getCSync();
    EXPECT_TRUE(CPacketFactory::releaseCPacket(&packet));
    EXPECT_EQ(packet, nullptr);
    EXPECT_FALSE(CPacketFactory::releaseCPacket(&packet));
    std::list<CPacket*> packets;
    EXPECT_TRUE(CPacketFactory::release(packets));
    packets = {CPacketFactory::getCSync(), nullptr, CPacketFactory::getCFill(3)};
    EXPECT_TRUE(CPacketFactory::release(packets));
    EXPECT_TRUE(packets.empty());
}

TEST(Factory, DuplicatesListsUpToTheFirstThatCannotBe) {
    const PacketPointer a(CPacketFactory::getCFill(1)), b(CPacketFactory::getCFill(2));
    CPacket odd(tagTCode(0x06), 0), wrong(ExecInsn, 24);
    std::list<CPacket*> from{a.get(), nullptr, b.get()};
    std::list<CPacket*> to;
    EXPECT_TRUE(CPacketFactory::duplicate(from, to));
    EXPECT_EQ(to.size(), 2U);
    for (CPacket* bad : {&odd, &wrong}) {
        from = {a.get(), bad, b.get()};
        EXPECT_FALSE(CPacketFactory::duplicate(from, to));
        EXPECT_EQ(takeLog(), "CPacketFactory: Error during duplication of packets!\n");
    }
    EXPECT_EQ(to.size(), 4U) << "copies made before stay";
    CPacketFactory::release(to);
    EXPECT_EQ(CPacketFactory::duplicate(static_cast<CPacket*>(nullptr)), nullptr);
}

TEST(Factory, MakesTextsOfAnyLength) {
    const std::string text(300, 'x');
    const PacketPointer packet(
        CPacketFactory::getCCharString(reinterpret_cast<const unsigned char*>(text.data()), 300));
    EXPECT_EQ(packet->StreamSize(), 304U);
    const PacketPointer copy(CPacketFactory::duplicate(packet.get()));
    ASSERT_TRUE(dynamic_cast<CCharStringSequence*>(copy.get()));
    EXPECT_EQ(copy->StreamSize(), 304U);
}

TEST(Factory, CreatesFromValuesWhatTheConstructorsMake) {
    const CCoreContext core(1, 2, 3, 4);
    const CRelCoreContext rel(5, 6);
    const std::string coreBytes = "01 00 00 00 00 00 00 00 02 00 00 00 03 00 00 00 04 00 00 00 00 00 00 00";
    const std::pair<CPacket*, std::string> rows[] = {
        {CPacketFactory::getCFunctionEnter(core, 7), "92 1c " + coreBytes + " 07 00 00 00"},
        {CPacketFactory::getCFunctionEnter(core, 7, 8), "92 20 " + coreBytes + " 07 00 00 00 08 00 00 00"},
        {CPacketFactory::getCRelTypeDefine(rel, 7, 8, "n"), "a0 07 05 06 07 00 00 00 08 7e 01 6e"},
        {CPacketFactory::getCRelVariableDefine(rel, 7, 8, ""), "a2 0a 05 06 07 00 00 00 08 00 00 00"},
        {CPacketFactory::getCRelVariableRead(rel, 7, CData(std::uint8_t{9})), "a4 07 05 06 07 00 00 00 09"},
        {CPacketFactory::getCTimestamp(1, 2, 3), "77 14 01 00 00 00 00 00 00 00 02 00 00 00 03 00 00 00 00 00 00 00"},
        {CPacketFactory::getCMessage(1, -1, "m"), "78 09 01 00 00 00 00 00 00 00 ff 7e 01 6d"},
        {CPacketFactory::getCTraceEnabled(1, MixExpanded), "79 10 00 00 00 00 01 00 00 00 00 00 00 00 03 00 00 00"},
        {CPacketFactory::getCFill(2), "7d 02 80 80"},
    };
    for (const auto& [packet, wire] : rows)
        EXPECT_EQ(wireOfHeld(PacketPointer(packet)), wire);
}

// Every creator by its name and values, absolute and relative. Names, data and texts are passed as a host has them.
TEST(Factory, HasACreatorForEveryKindAndSetOfValues) {
    const CCharStringSequence name("n");
    const CData data(std::uint8_t{1});
    const CSignalMask mask("11");
    const CBusDataSignals signals(std::uint8_t{1});
    const TCounterIdx_t indices[] = {1ULL, 2.0};
    std::set<unsigned> made;
    const auto check = [&made](tagTCode code, CPacket* packet) {
        const PacketPointer owned(packet);
        ASSERT_TRUE(packet);
        EXPECT_EQ(packet->TraceCode(), code);
        EXPECT_FALSE(wireOf(*packet).empty()) << code;
        made.insert(code);
    };
#define PAIR(Context, Name, ...)                                                                                       \
    check(Name, CPacketFactory::getC##Name(C##Context() __VA_OPT__(, ) __VA_ARGS__));                                  \
    check(Rel##Name, CPacketFactory::getCRel##Name(CRel##Context() __VA_OPT__(, ) __VA_ARGS__));
#define CORE(Name, ...) PAIR(CoreContext, Name, __VA_ARGS__)
#define BUS(Name, ...) PAIR(BusContext, Name, __VA_ARGS__)
#define ALONE(Name, ...) check(Name, CPacketFactory::getC##Name(__VA_ARGS__));
    CORE(ExecInsn)
    CORE(NonExecInsn)
    CORE(DirectBranch, 1ULL)
    CORE(IndirectBranch, 1ULL)
    CORE(HWExceptionLeave, 1U)
    CORE(HWExceptionEnter, 1U)
    CORE(ReadData, 1ULL)
    CORE(ReadData, 1ULL, data)
    CORE(WriteData, 1ULL)
    CORE(WriteData, 1ULL, data)
    CORE(CounterDefine, 1U, 2, name)
    CORE(CounterDefineUnit, 1U, 2, name)
    CORE(CounterUndefine, 1U)
    CORE(CounterValueVar, 1U, 2ULL, 3ULL)
    CORE(CounterValue, 1U, 2ULL)
    CORE(CounterValueDim1, 1U, 2.0, 3ULL)
    CORE(CounterValueDim2, 1U, 2ULL, 3ULL, 4.0)
    CORE(CounterValueDimN, 1U, 2, 3ULL, indices)
    CORE(FunctionDefine, 1U, name)
    CORE(FunctionUndefine, 1U)
    CORE(FunctionEnter, 1U)
    CORE(FunctionEnter, 1U, 2U)
    CORE(FunctionLeave, 1U)
    CORE(FunctionLeave, 1U, 2U)
    CORE(ProcessDefine, 1U, name)
    CORE(ProcessUndefine, 1U)
    CORE(ProcessEnter, 1U)
    CORE(ProcessLeave, 1U)
    CORE(TypeDefine, 1U, 2, name)
    CORE(TypeUndefine, 1U)
    CORE(VariableDefine, 1U, 2U, name)
    CORE(VariableUndefine, 1U)
    CORE(VariableRead, 1U)
    CORE(VariableRead, 1U, data)
    CORE(VariableWrite, 1U)
    CORE(VariableWrite, 1U, data)
    BUS(BusData, signals, data)
    BUS(BusAddrData, signals, 1ULL, data)
    BUS(Signal, mask, mask)
    BUS(SignalDefine, 1U, mask, name)
    BUS(SignalUndefine, 1U)
    PAIR(SystemContext, SystemData, data)
    ALONE(BusSync, CBusContext())
    ALONE(SystemSync, CSystemContext())
    ALONE(TraceBroken, CCoreContext())
    ALONE(Sync, CCoreContext())
    ALONE(Sync)
    ALONE(Event, CCoreContext(), 1U)
    ALONE(Event, CCoreContext(), 1U, data)
    ALONE(EventDefine, 1U, EEventType())
    ALONE(EventDefine, 1U, EEventType(), name)
    ALONE(EventUndefine, 1U)
    ALONE(Timestamp, 1ULL)
    ALONE(Timestamp, 1ULL, 2U, 3ULL)
    ALONE(Message, 1ULL, 2, name)
    ALONE(TraceEnabled, 1ULL, Expanded)
    ALONE(TraceEnabled, 1ULL, SFrameConfig(Expanded))
    ALONE(TraceDisabled)
    ALONE(EndOfTrace)
    ALONE(Fill, 3)
    ALONE(CharString, mask.data(), 1U)
    ALONE(StateMachineDefine, 1U, name)
    ALONE(StateMachineInstanceDefine, 1U, 2U, name)
    ALONE(StateDefine, 1U, 2U, name)
    ALONE(TransitionDefine, 1U, 2U, 3U, 4U, name)
    ALONE(StateMachineUndefine, 1U)
    ALONE(InitialState, 1U, 2U, 3U, 4U, 5ULL)
    ALONE(Transition, 1U, 2U, 3U, 4U, 5ULL, data)
#undef ALONE
#undef BUS
#undef CORE
#undef PAIR
    EXPECT_EQ(made.size(), 93U);
}

// Whatever the bytes are: no crash, no more than what is there, and what is handed out can be written again.
TEST(Factory, SurvivesDamagedBytes) {
    std::mt19937 random(20240511);
    const auto& all = samples();
    for (unsigned round = 0; round < 60'000; ++round) {
        std::string wire = bytes(all[random() % all.size()].wire);
        for (unsigned flips = random() % 4; flips > 0; --flips)
            wire[random() % std::min<std::size_t>(wire.size(), 4)] = static_cast<char>(random());
        wire.resize(random() % (wire.size() + 3), static_cast<char>(random()));
        const auto [fromBuffer, fromStream, consumed] = ReadBothWays(wire);
        ASSERT_LE(consumed, wire.size()) << hex(wire);
        // In memory, a counter's definition that is cut counts as none.
        const bool counter = !wire.empty() && (static_cast<unsigned char>(wire[0]) & 0xEE) == CounterDefine - 0x10;
        if (counter && fromBuffer && !fromStream)
            continue;
        ASSERT_EQ(fromBuffer == nullptr, fromStream == nullptr) << "the media disagree: " << hex(wire);
        if (fromBuffer) {
            EXPECT_EQ(wireOfHeld(fromBuffer), wireOfHeld(fromStream)) << hex(wire);
        }
    }
}

} // namespace
} // namespace Quorvex::test

#include "quorvex/stream/Contexts.h"

#include "quorvex/format/Fields.h"
#include "tests/support/RandomPackets.h"

#include <gtest/gtest.h>

#include <sstream>
#include <tuple>

namespace Quorvex::test {
namespace {

std::string told(std::uint64_t value) {
    std::ostringstream out;
    out << std::hex << value;
    return value == kUnknown64 ? "-" : out.str();
}

/// What is told of a packet: its time, then the fields of its context, in the order of the wire.
std::string told(const CContexts& contexts, const CPacket& packet) {
    std::string text = told(contexts.tickOf(packet));
    const auto add = [&text](std::initializer_list<std::uint64_t> values) {
        for (const std::uint64_t value : values)
            text += ' ' + told(value);
    };
    if (const auto core = contexts.coreOf(packet))
        add({core->Tick(), core->HWCtx(), core->SWCtx(), core->CurrAddr()});
    if (const auto bus = contexts.busOf(packet))
        add({bus->Tick(), bus->HWCtx(), bus->Master()});
    if (const auto system = contexts.systemOf(packet))
        add({system->Tick(), system->Channel(), system->Master()});
    return text;
}

const std::string kSync = "7f 18 2211000000000000 01000000 02000000 4433000000000000";
const std::string kBusSync = "72 10 3311000000000000 03000000 04000000";
const std::string kSystemSync = "73 10 4411000000000000 05000000 06000000";

TEST(RelativePackets, StandForTheLastSyncPacketOfTheirSortAndNothingElse) {
    const std::pair<std::string, std::string> trace[] = {
        // Before the first sync packet: the low byte is changed as ever, but that makes no time.
        {"00 02 00 00", "- - 0 0 -"},
        {"00 02 01 02", "- fffffffffffffffe 0 0 fffffffffffffffd"},
        {"c3 05 ff 07000000", "- ffffffffffffff00 0 0"},
        {"c5 02 03 aa", "- fffffffffffffffc 0 0"},
        {kSync, "1122 1122 1 2 3344"},
        {"00 02 07 0c", "1125 1125 1 2 3348"},
        {"00 02 ff ff", "11dd 11dd 1 2 33bb"}, // an exclusive-or like any other
        {"c3 05 01 07000000", "- fffffffffffffffe 0 0"},
        {kBusSync, "1133 1133 3 4"},
        {"c3 05 01 07000000", "1132 1132 3 4"},
        {kSystemSync, "1144 1144 5 6"},
        {"c5 02 01 aa", "1145 1145 5 6"},
        // None of these changes what the next relative packets stand for.
        {"10 18 99aa000000000000 09000000 08000000 7766000000000000", "aa99 aa99 9 8 6677"},
        {"7b 18 98aa000000000000 09000000 08000000 7766000000000000", "aa98 aa98 9 8 6677"},
        {"76 1c 97aa000000000000 09000000 08000000 7766000000000000 05000000", "aa97 aa97 9 8 6677"},
        {"d3 14 96aa000000000000 09000000 08000000 07000000", "aa96 aa96 9 8"},
        {"d5 11 95aa000000000000 09000000 08000000 aa", "aa95 aa95 9 8"},
        {"00 02 00 00", "1122 1122 1 2 3344"},
        {"c3 05 00 07000000", "1133 1133 3 4"},
        {"c5 02 00 aa", "1144 1144 5 6"},
        // Ticks that are no context.
        {"77 08 0102030405060708", "807060504030201"},
        {"78 09 0102000000000000 01", "201"},
        {"77 08 80ffffffffffffff", "-"},
        {"7d 02 80 80", "-"},
        {"7c 00", "-"},
    };
    CContexts contexts;
    for (const auto& [wire, expected] : trace) {
        const PacketPointer packet = packetOf(bytes(wire));
        ASSERT_TRUE(packet) << wire;
        const unsigned code = codeOf(bytes(wire));
        const bool isSync = code == Sync || code == BusSync || code == SystemSync;
        EXPECT_FALSE(contexts.repeats(*packet)) << wire;
        EXPECT_EQ(contexts.note(*packet), isSync);
        EXPECT_EQ(contexts.repeats(*packet), isSync) << wire;
        EXPECT_EQ(told(contexts, *packet), expected) << wire;
        // A packet that is made absolute tells the same by itself.
        const PacketPointer absolute(contexts.absolute(*packet));
        EXPECT_EQ(absolute != nullptr, code == RelExecInsn || code == RelSignalUndefine || code == RelSystemData)
            << wire;
        if (absolute) {
            EXPECT_EQ(told(CContexts(), *absolute), expected) << wire;
            const PacketPointer relative(contexts.relative(*absolute));
            EXPECT_TRUE(contexts.reaches(*absolute) && relative && wireOf(*relative) == bytes(wire)) << wire;
        }
    }
    EXPECT_EQ(contexts.core(), CCoreContext(0x1122, 1, 2, 0x3344));
    EXPECT_EQ(contexts.bus(), CBusContext(0x1133, 3, 4));
    EXPECT_EQ(contexts.system(), CSystemContext(0x1144, 5, 6));
    char room[26];
    for (const auto& [sort, wire] : {std::pair{ContextSort::Core, kSync},
                                     {ContextSort::Bus, kBusSync},
                                     {ContextSort::System, kSystemSync},
                                     {ContextSort::None, std::string()}}) {
        const std::string told = bytes(wire);
        const PacketPointer sync(contexts.sync(sort));
        EXPECT_EQ(sync ? hex(wireOf(*sync)) : "", hex(told));
        EXPECT_EQ(hex({room, contexts.writeSync(sort, room, sizeof room)}), hex(told));
        EXPECT_TRUE(wire.empty() || contexts.writeSync(sort, room, unsigned(told.size()) - 1) == 0);
        EXPECT_EQ(contexts.knows(sort), !wire.empty());
    }
    EXPECT_EQ(contexts.syncSize(), 26U + 18U + 18U);
    contexts.forget();
    EXPECT_TRUE(contexts.syncSize() == 0 && !contexts.knows(ContextSort::Core));
    EXPECT_EQ(contexts.core(), CCoreContext());
    EXPECT_EQ(contexts.bus(), CBusContext());
    EXPECT_EQ(contexts.system(), CSystemContext());
}

TEST(References, TakeWhatTheyDoNotReach) {
    const std::string exec = " 18 2211000000000000 01000000 02000000 4433000000000000";
    const std::tuple<std::string, bool, std::string> packets[] = {
        {"10" + exec, true, "00 02 00 00"}, // the reference itself
        {"10 18 ff11000000000000 01000000 02000000 0033000000000000", true, "00 02 dd 44"},
        {"10 18 0012000000000000 01000000 02000000 4433000000000000", false, ""},
        {"10 18 2211000000000000 01000000 03000000 4433000000000000", false, ""},
        {"7b" + exec, false, ""}, // has no relative form
        {"00 02 00 00", false, ""},
        {"7c 00", false, ""},
    };
    for (const auto& [wire, isReached, relative] : packets) {
        CContexts contexts;
        EXPECT_TRUE(contexts.note(Sync, bytes(kSync).data() + 2, 24));
        const PacketPointer packet = packetOf(bytes(wire));
        ASSERT_TRUE(packet) << wire;
        EXPECT_EQ(contexts.repeats(*packet), relative == "00 02 00 00") << wire;
        EXPECT_EQ(contexts.reaches(*packet), isReached) << wire;
        EXPECT_EQ(PacketPointer(contexts.relative(*packet)) != nullptr, isReached) << wire;
        if (isReached) {
            EXPECT_EQ(hex(wireOf(*PacketPointer(contexts.relative(*packet)))), hex(bytes(relative)));
        }
        const bool hasSort = wire.starts_with("10");
        EXPECT_EQ(contexts.adopt(*packet), hasSort) << wire;
        EXPECT_EQ(contexts.repeats(*packet), hasSort) << wire;
    }
    CContexts contexts;
    EXPECT_FALSE(contexts.note(Sync, bytes(kSync).data() + 2, 23) || contexts.note(Event, bytes(kSync).data() + 2, 24));
    EXPECT_EQ(contexts.syncSize(), 0U);
}

} // namespace
} // namespace Quorvex::test

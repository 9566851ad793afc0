#include "quorvex/stream/TraceTextReader.h"

#include "quorvex/export/PacketPlain.h"
#include "quorvex/stream/TextRun.h"
#include "quorvex/stream/TraceReaderPlain.h"
#include "tests/support/Bytes.h"
#include "tests/support/Doubles.h"
#include "tests/support/RandomPackets.h"
#include "tests/support/Samples.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace Quorvex::test {
namespace {

/// The table of a binary trace.
std::string tableOf(const std::string& trace, bool parsable, bool withOffset, bool hexTick = false) {
    MemorySource source(trace);
    CTraceReaderPlain reader(source);
    std::ostringstream out;
    CPacketPlain table(out, withOffset, 0);
    table.SetParsable(parsable);
    table.SetHexTick(hexTick);
    std::uint64_t offset = 0;
    while (const PacketPointer packet{reader.get()}) {
        EXPECT_TRUE(table.writeCPacket(offset, *packet));
        offset = reader.position();
    }
    return out.str();
}

/// The binary form of what a table's rows give.
std::string traceOf(const std::string& table, std::uint64_t* errors = nullptr) {
    std::istringstream in(table);
    TraceTextReader reader(in);
    std::string trace;
    while (const PacketPointer packet{reader.get()})
        trace += wireOf(*packet);
    if (errors)
        *errors = reader.errors();
    else
        EXPECT_EQ(reader.errors(), 0U) << takeLog();
    return trace;
}

std::string traceOfSamples() {
    std::string trace;
    for (const Sample& sample : samples())
        trace += bytes(sample.wire);
    return trace;
}

TEST(TextReader, ReadsEveryKindBackHoweverTheTableIsDressed) {
    const std::string trace = traceOfSamples();
    const std::string title = "Quorvex (QVX) packet description\n";
    const std::string head = "Offset\t\tDescription \tTCode \tLength \tpacket payload \n";
    for (const bool parsable : {true, false}) {
        for (const bool withOffset : {true, false}) {
            const std::string table = tableOf(trace, parsable, withOffset, !withOffset);
            EXPECT_EQ(hex(traceOf(table)), hex(trace));
            EXPECT_TRUE(traceOf(title + head + table + "\n" + title + head + table) == trace + trace) << "two tables";
            EXPECT_TRUE(traceOf("\xef\xbb\xbfmy title\n\t \tDescription \tTCode \tLength \tpacket payload \n" +
                                table) == trace);
            std::string crlf, bare;
            for (const char c : table) {
                crlf += c == '\n' ? "\r\n" : std::string(1, c);
                if (c == '\n' && bare.ends_with(' '))
                    bare.pop_back(); // as editors leave it
                bare += c;
            }
            EXPECT_TRUE(traceOf(crlf) == trace);
            EXPECT_TRUE(traceOf(bare.substr(0, bare.size() - 1)) == trace) << "the last line has no end";
        }
    }
}

// Also those values that mean unknown, in both forms.
TEST(TextReader, ReadsWordsAndNumbersOfAnyBase) {
    const std::pair<std::string, std::string> rows[] = {
        {"ExecInsn\t24\tInvalid\tInvalid\t0x10\tInvalid",
         "10 18" + std::string(24, 'f') + "10000000" + std::string(16, 'f')},
        {"RelExecInsn \t2 \tInvalid \tInvalid", "00 02 ff ff"},
        {"RelExecInsn\t2\t  7  \t0xA", "00 02 07 0a"},
        {"TraceEnabled\t16\t1\tUnknownLength\tMixExpanded\tExceptionFrames",
         "79 10 01000000 ffffffffffffffff 07000000"},
        {"TraceEnabled\t16\t1\t18446744073709551615\t0xf8", "79 10 01000000 ffffffffffffffff f8000000"},
        {"RelBusData\t2\t1\tBusAccReadWrite", "c0 02 01 03"},
        {"RelBusData\t5\t1\t0xf4\t0x030201", "c0 05 01 f4 030201"},
        {"RelBusData\t4\t1\t0\t0x0201", "c0 04 01 00 0102"},
        {"RelCounterValueVar\t12\t1\t2\t5\t66051\t16777215", "43 0c 01 02 05000000 030201 ffffff"},
        {"Message\t9\tInvalid\t192", "78 09 ffffffffffffffff c0"},
        {"Fill\t3\t", "7d 03 80 80 80"},
        {"Fill\t0", "7d 00"},
        {"CharString\t0\t ", "7e 00"},
        {"CharString\t2\ta ", "7e 02 61 20"},
        {"CharString\t1\t  ", "7e 01 20"},
        {"CharString\t3\t0x630961", "7e 03 61 09 63"},
        {"CharString\t7\tInvalid ", "7e 07 496e76616c6964"},
        {"CharString\t4\t\"x\"\\ ", "7e 04 2278225c"},
    };
    for (const auto& [row, wire] : rows)
        EXPECT_EQ(hex(traceOf("\t" + row + "\n")), hex(bytes(wire))) << row;
}

TEST(TextReader, TellsWhereARowIsWrongAndGoesOnWithTheNext) {
    const std::pair<std::string, std::string> rows[] = {
        {"Sync\t24", "line 2, column 1: expected a row, which begins with a tab, found \"Sync\t24\""},
        {"\tNonsense\t2", "line 2, column 2: expected the name of a kind of packet, found \"Nonsense\""},
        {"\tLineDefine\t6\t1", "line 2, column 2: expected the name of a kind of packet, found \"LineDefine\""},
        {"\t0x10 \tNonsense\t2", "line 2, column 8: expected the name of a kind of packet, found \"Nonsense\""},
        {"\t0x10", "line 2, column 6: expected the name of a kind of packet, found the end of the row"},
        {"\tSync", "line 2, column 6: expected the length of the payload, at most 255, found the end of the row"},
        {"\tSync\t256", "line 2, column 7: expected the length of the payload, at most 255, found \"256\""},
        {"\tSync\t-1", "line 2, column 7: expected the length of the payload, at most 255, found \"-1\""},
        {"\tSync\t25\t1\t2\t3\t4",
         "line 2, column 7: expected a length that the payload of this kind can have, found \"25\""},
        {"\tTimestamp\t9\t1",
         "line 2, column 12: expected a length that the payload of this kind can have, found \"9\""},
        {"\tRelExecInsn\t2\t1",
         "line 2, column 17: expected RelIP, a number of at most 1 byte, found the end of the row"},
        {"\tRelExecInsn\t2\t256\t1", "line 2, column 16: expected RelTick, a number of at most 1 byte, found \"256\""},
        {"\tRelExecInsn\t2\t1\t0x", "line 2, column 18: expected RelIP, a number of at most 1 byte, found \"0x\""},
        {"\tRelExecInsn\t2\t1\t2\t3", "line 2, column 20: expected the end of the row, found \"3\""},
        {"\tRelExecInsn\t2\tUnknownLength\t1",
         "line 2, column 16: expected RelTick, a number of at most 1 byte, found \"UnknownLength\""},
        {"\tEventUndefine\t4\tInvalid",
         "line 2, column 18: expected EvtId, a number of at most 4 bytes, found \"Invalid\""},
        {"\tEventUndefine\t4\t99999999999999999999",
         "line 2, column 18: expected EvtId, a number of at most 4 bytes, found \"99999999999999999999\""},
        {"\tRelSystemData\t3\t1\t0x123",
         "line 2, column 20: expected Data, 0x and the hexadecimal digits of 2 bytes, found \"0x123\""},
        {"\tRelSystemData\t3\t1\t0x12g4",
         "line 2, column 20: expected Data, 0x and the hexadecimal digits of 2 bytes, found \"0x12g4\""},
        {"\tRelSignal\t3\t1\t0x1\t0x01",
         "line 2, column 16: expected SignalValue, 0x and the hexadecimal digits of 1 byte, found \"0x1\""},
        {"\tRelCounterValueVar\t8\t1\t2\t3\t256\t1",
         "line 2, column 29: expected Value, a decimal number of at most 1 byte, found \"256\""},
        {"\tTraceEnabled\t16\t1\t1\tExpanded\tBoth",
         "line 2, column 31: expected FrameConfig, NoExceptionFrames or ExceptionFrames, found \"Both\""},
        {"\tFill\t1\tx", "line 2, column 9: expected FillBytes, an empty cell, found \"x\""},
        {"\tCharString\t3\tabcd ",
         "line 2, column 15: expected a text of 3 bytes, or 0x and their hexadecimal digits, found \"abcd\""},
        {"\tCharString\t2\t0x6",
         "line 2, column 15: expected a text of 2 bytes, or 0x and their hexadecimal digits, found \"0x6\""},
        {"\t" + std::string(50, 'n'),
         "line 2, column 2: expected the name of a kind of packet, found \"" + std::string(40, 'n') + "...\""},
        {"\t" + std::string(0x4000, ' '),
         "line 2, column 16384: expected the end of the row, found more than a row can hold"},
    };
    takeLog();
    for (const auto& [row, message] : rows) {
        std::istringstream in("\tTraceDisabled\t0\n" + row + "\n\tEndOfTrace\t0\n");
        TraceTextReader reader(in);
        EXPECT_EQ(PacketPointer(reader.get())->TraceCode(), TraceDisabled);
        const PacketPointer next(reader.get());
        ASSERT_TRUE(next) << row;
        EXPECT_EQ(next->TraceCode(), EndOfTrace);
        EXPECT_EQ(reader.get(), nullptr);
        EXPECT_EQ(takeLog(), "TraceTextReader: " + message + "\n");
        EXPECT_EQ(reader.errors(), 1U);
        EXPECT_EQ("line " + std::to_string(reader.firstError().line) + ", column " +
                      std::to_string(reader.firstError().column) + ": " + reader.firstError().text,
                  message);
    }
}

// A name must never end up with another packet than its own.
TEST(TextReader, GivesATextThatHasLostItsPacketToNoOther) {
    const std::string define = "\tRelFunctionDefine\t6\t1\t2\t3\n";
    const std::string full = "\tCharString\t255\t" + std::string(255, 'a') + " \n";
    const std::string wireOfDefine = bytes("80 06 01 02 03000000");
    const std::string wireOfFull = bytes("7e ff") + std::string(255, 'a');
    struct {
        std::string table;
        std::string trace;
        unsigned errors;
    } const cases[] = {
        {define + "\tbroken\n\tCharString\t1\tx \n" + define, wireOfDefine + wireOfDefine, 2},
        {define + full + "\tbroken\n\tCharString\t1\tx \n" + define,
         wireOfDefine + wireOfFull + bytes("7e 00") + wireOfDefine, 2},
        {define + full, wireOfDefine + wireOfFull + bytes("7e 00"), 0},
        {define + full + "\tCharString\t1\tx \n\tCharString\t1\ty \n",
         wireOfDefine + wireOfFull + bytes("7e 01 78 7e 01 79"), 0},
        {define + "\tCharString\t0\t \n\tCharString\t1\ty \n", wireOfDefine + bytes("7e 00 7e 01 79"), 0},
    };
    for (const auto& [table, trace, expected] : cases) {
        std::uint64_t errors = 0;
        EXPECT_EQ(hex(traceOf(table, &errors)), hex(trace)) << table;
        EXPECT_EQ(errors, expected) << table;
    }
    takeLog();
}

TEST(TextReader, TellsItsStateAsSourcesDo) {
    std::istringstream in("\tSync\t24\t1\t2\t3\t4\n\tEndOfTrace\t0\n\tFill\t0\n");
    TraceTextReader reader(in);
    EXPECT_EQ(reader.size(), in.str().size());
    EXPECT_TRUE(reader.good());
    EXPECT_EQ(reader.peek(), Sync);
    EXPECT_EQ(reader.peek(), Sync) << "nothing is taken";
    std::list<CPacket*> packets;
    EXPECT_TRUE(reader.get(packets) && reader.get(packets));
    EXPECT_EQ(packets.back()->TraceCode(), EndOfTrace);
    EXPECT_TRUE(reader.eot());
    EXPECT_FALSE(reader.good());
    reader.clear();
    EXPECT_TRUE(reader.good());
    EXPECT_TRUE(reader.get(packets));
    EXPECT_FALSE(reader.get(packets));
    EXPECT_EQ(packets.size(), 3U);
    EXPECT_EQ(reader.peek(), Invalid);
    EXPECT_EQ(reader.position(), in.str().size());
    EXPECT_EQ(reader.size(), in.str().size()) << "also at its end";
    CPacketFactory::release(packets);
}

// Any bytes: reading ends, and memory does not grow with a line that never does.
TEST(TextReader, EndsOnAnyInput) {
    RandomPackets random(9);
    const std::string table = tableOf(traceOfSamples(), true, true);
    for (unsigned round = 0; round < 300; ++round) {
        std::string damaged = table;
        for (unsigned i = 0; i < 30; ++i)
            damaged[random.below(static_cast<unsigned>(damaged.size()))] = "\t\n 0x\0\xff"
                                                                           "9aI"[random.below(10)];
        std::uint64_t errors = 0;
        traceOf(damaged, &errors);
        EXPECT_GT(errors, 0U);
    }
    std::uint64_t errors = 0;
    EXPECT_EQ(traceOf("\t" + std::string(1'000'000, 'x') + "\n\tEndOfTrace\t0", &errors), bytes("7c 00"));
    EXPECT_EQ(errors, 1U);
    takeLog();
}

TEST(TextReader, ReadsBackTheTableOfAMillionRandomPacketsByteForByte) {
    RandomPackets random(20261122);
    std::string trace;
    // In parts, so that the memory of a small machine holds them; builds for debugging, many times slower, do with two.
#ifdef NDEBUG
    constexpr unsigned kParts = 20;
#else
    constexpr unsigned kParts = 2;
#endif
    for (unsigned part = 0; part < kParts; ++part) {
        CFunctionDefine longest(CCoreContext(1, 2, 3, 4), part, std::string(100'000 + part, '~').c_str());
        trace = wireOf(longest);
        bool nameless = false;
        for (unsigned i = 0; i < 50'000; ++i) {
            PacketPointer packet = random.packet();
            // Behind a packet without its name, a full packet of text would be a name that never ends.
            while (nameless && packet->TraceCode() == CharString && packet->Length() == kCharStringMax)
                packet = random.packet();
            nameless = isFollowedByText(packet->TraceCode()) && packet->StreamSize() == packet->Length() + 2;
            trace += wireOf(*packet);
        }
        takeLog(); // of packets that the generator tried
        ASSERT_TRUE(traceOf(tableOf(trace, true, part % 2 == 0, part % 3 == 0)) == trace) << part;
    }
}

} // namespace
} // namespace Quorvex::test

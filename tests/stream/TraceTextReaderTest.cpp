#include "quorvex/stream/TraceTextReader.h"

#include "quorvex/export/PacketPlain.h"
#include "tests/support/Doubles.h"
#include "tests/support/Effort.h"
#include "tests/support/Samples.h"
#include "tests/support/ShortMemory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <streambuf>
#include <thread>

namespace Quorvex::test {
namespace {

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

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
    const std::string trace = join(readAll(reader));
    if (errors)
        *errors = reader.errors();
    else
        EXPECT_EQ(reader.errors(), 0U) << takeLog();
    return trace;
}

std::string everyKind() {
    std::string trace;
    for (const Sample& sample : samples())
        trace += bytes(sample.wire);
    return trace;
}

TEST(TextReader, ReadsEveryKindBackHoweverTheTableIsDressed) {
    const std::string trace = everyKind();
    const std::string title = "Quorvex (QVX) packet description\n";
    const std::string head = "Offset\t\tDescription \tTCode \tLength \tpacket payload \n";
    const std::string mine = "\xef\xbb\xbfmy title\n\t \tDescription \tTCode \tLength \tpacket payload \n";
    for (const bool parsable : {true, false}) {
        for (const bool withOffset : {true, false}) {
            const std::string table = tableOf(trace, parsable, withOffset, !withOffset);
            EXPECT_EQ(hex(traceOf(table)), hex(trace));
            EXPECT_TRUE(traceOf(title + head + table + "\n" + title + head + table) == trace + trace) << "two tables";
            EXPECT_TRUE(traceOf(mine + table) == trace);
            const std::string crlf = replaced(table, "\n", "\r\n");
            EXPECT_TRUE(traceOf(crlf) == trace);
            const std::string bare = replaced(table, " \n", "\n"); // as editors leave it
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
        {"RelCounterValueVar\t12\t0x1\t0x2\t0x5\t0x10203\t0xffffff", "43 0c 01 02 05000000 030201 ffffff"},
        {"RelCounterValueDim1\t0x16\t1\t2\t5\t0xfffffffffffffffe\t0xA",
         "45 16 01 02 05000000 feffffffffffffff 0a00000000000000"},
        {"Message\t9\tInvalid\t192", "78 09 ffffffffffffffff c0"},
        {"Message\t9\t1\t-64", "78 09 0100000000000000 c0"},
        {"Message\t9\t1\t-128", "78 09 0100000000000000 80"},
        {"Message\t9\t1\t255", "78 09 0100000000000000 ff"},
        {"Message\t9\t1\t-0x40", "78 09 0100000000000000 c0"},
        // With the length that its payload has when it is written.
        {"TraceEnabled\t4\t7\tUnknownLength\tExpanded\tNoExceptionFrames", "79 10 07000000 ffffffffffffffff 02000000"},
        {"TraceEnabled\t0\t7\t5\t0", "79 10 07000000 0500000000000000 00000000"},
        {"Fill\t3\t", "7d 03 80 80 80"},
        {"Fill\t0", "7d 00"},
        {"CharString\t0\t ", "7e 00"},
        {"CharString\t2\ta ", "7e 02 61 20"},
        {"CharString\t1\t  ", "7e 01 20"},
        {"CharString\t3\t0x630961", "7e 03 61 09 63"},
        {"CharString\t6\t0x4142 ", "7e 06 30 78 34 31 34 32"},
        {"CharString\t7\tInvalid ", "7e 07 496e76616c6964"},
        {"CharString\t4\t\"x\"\\ ", "7e 04 2278225c"},
    };
    std::string table, trace;
    for (const auto& [row, wire] : rows) {
        EXPECT_EQ(hex(traceOf("\t" + row + "\n")), hex(bytes(wire))) << row;
        table += "\t" + row + "\n";
        trace += bytes(wire);
    }
    EXPECT_EQ(hex(traceOf(table + table)), hex(trace + trace)) << "a kind with changing lengths";
}

TEST(TextReader, TellsWhereARowIsWrongAndGoesOnWithTheNext) {
    const std::string kind = "the name of a kind of packet", end = "the end of the row";
    const std::string length = "the length of the payload, at most 255";
    const std::string otherLength = "a length that the payload of this kind can have";
    const std::string relIp = "RelIP, a number of at most 1 byte", relTick = "RelTick, a number of at most 1 byte";
    const std::string digits = ", 0x and the hexadecimal digits of ",
                      text = " bytes, or 0x and their hexadecimal digits";
    const std::tuple<std::string, unsigned, std::string, std::string> rows[] = {
        {"Sync\t24", 1, "a row, which begins with a tab", "\"Sync\t24\""},
        {"\tNonsense\t2", 2, kind, "\"Nonsense\""},
        {"\tLineDefine\t6\t1", 2, kind, "\"LineDefine\""},
        {"\t0x10 \tNonsense\t2", 8, kind, "\"Nonsense\""},
        {"\t0x10", 6, kind, end},
        {"\t" + std::string(50, 'n'), 2, kind, "\"" + std::string(40, 'n') + "...\""},
        {"\tSync", 6, length, end},
        {"\tSync\t256", 7, length, "\"256\""},
        {"\tSync\t-1", 7, length, "\"-1\""},
        {"\tSync\t25\t1\t2\t3\t4", 7, otherLength, "\"25\""},
        {"\tTimestamp\t9\t1", 12, otherLength, "\"9\""},
        {"\tRelExecInsn\t2\t1", 17, relIp, end},
        {"\tRelExecInsn\t2\t1\t0x", 18, relIp, "\"0x\""},
        {"\tRelExecInsn\t2\t256\t1", 16, relTick, "\"256\""},
        {"\tRelExecInsn\t2\tUnknownLength\t1", 16, relTick, "\"UnknownLength\""},
        {"\tRelExecInsn\t2\t1\t2\t3", 20, end, "\"3\""},
        {"\tMessage\t9\t1\t-129", 14, "Priority, a number of at most 1 byte", "\"-129\""},
        {"\tMessage\t9\t-1\t0", 12, "Timestamp, a number of at most 8 bytes", "\"-1\""},
        {"\tRelCounterValueVar\t8\t1\t2\t3\t0x100\t1", 29, "Value, a number of at most 1 byte", "\"0x100\""},
        {"\tRelCounterValueVar\t8\t1\t2\t3\t0x\t1", 29, "Value, a number of at most 1 byte", "\"0x\""},
        {"\tTraceEnabled\t8\t1\t1\t0", 15, otherLength, "\"8\""},
        {"\tEventUndefine\t4\tInvalid", 18, "EvtId, a number of at most 4 bytes", "\"Invalid\""},
        {"\tEventUndefine\t4\t99999999999999999999", 18, "EvtId, a number of at most 4 bytes",
         "\"99999999999999999999\""},
        {"\tRelSystemData\t3\t1\t0x123", 20, "Data" + digits + "2 bytes", "\"0x123\""},
        {"\tRelSystemData\t3\t1\t0x12g4", 20, "Data" + digits + "2 bytes", "\"0x12g4\""},
        {"\tRelSignal\t3\t1\t0x1\t0x01", 16, "SignalValue" + digits + "1 byte", "\"0x1\""},
        {"\tRelCounterValueVar\t8\t1\t2\t3\t256\t1", 29, "Value, a number of at most 1 byte", "\"256\""},
        {"\tTraceEnabled\t16\t1\t1\tExpanded\tBoth", 31, "FrameConfig, NoExceptionFrames or ExceptionFrames",
         "\"Both\""},
        {"\tFill\t1\tx", 9, "FillBytes, an empty cell", "\"x\""},
        {"\tCharString\t3\tabcd ", 15, "a text of 3" + text, "\"abcd\""},
        {"\tCharString\t2\t0x6", 15, "a text of 2" + text, "\"0x6\""},
        {"\t" + std::string(0x4000, ' '), 16384, end, "more than a row can hold"},
        {"\t" + std::string(1'000'000, 'x'), 16384, end, "more than a row can hold"},
    };
    takeLog();
    for (const auto& [row, column, expected, found] : rows) {
        std::istringstream in("\tTraceDisabled\t0\n" + row + "\n\tEndOfTrace\t0\n");
        TraceTextReader reader(in);
        EXPECT_EQ(readAll(reader), (Steps{bytes("7a 00"), bytes("7c 00")})) << row;
        EXPECT_EQ(reader.errors(), 1U);
        const std::string what = "expected " + expected + ", found " + found;
        EXPECT_EQ(takeLog(), "TraceTextReader: line 2, column " + std::to_string(column) + ": " + what + "\n");
        EXPECT_EQ(reader.firstError().text, what);
        EXPECT_TRUE(reader.firstError().line == 2 && reader.firstError().column == column);
    }
}

// A name must never end up with another packet than its own.
TEST(TextReader, GivesATextThatHasLostItsPacketToNoOther) {
    const std::string define = "\tRelFunctionDefine\t6\t1\t2\t3\n";
    const std::string full = "\tCharString\t255\t" + std::string(255, 'a') + " \n";
    const std::string wireOfDefine = bytes("80 06 01 02 03000000");
    const std::string wireOfFull = bytes("7e ff") + std::string(255, 'a');
    const std::string x = "\tCharString\t1\tx \n", y = "\tCharString\t1\ty \n";
    const std::tuple<std::string, std::string, unsigned> cases[] = {
        {define + "\tbroken\n" + x + define, wireOfDefine + wireOfDefine, 2},
        {define + full + "\tbroken\n" + x + define, wireOfDefine + wireOfFull + bytes("7e 00") + wireOfDefine, 2},
        {define + full, wireOfDefine + wireOfFull + bytes("7e 00"), 0},
        {define + full + x + y, wireOfDefine + wireOfFull + bytes("7e 01 78 7e 01 79"), 0},
        {define + "\tCharString\t0\t \n" + y, wireOfDefine + bytes("7e 00 7e 01 79"), 0},
    };
    for (const auto& [table, trace, expected] : cases) {
        std::uint64_t errors = 0;
        EXPECT_EQ(hex(traceOf(table, &errors)), hex(trace)) << table;
        EXPECT_EQ(errors, expected) << table;
    }
}

// What a short trace-enabled packet becomes must be readable.
TEST(TextReader, GivesAShortTraceEnabledPacketItsFullLength) {
    for (const std::string wire : {"79 00", "79 04 01000000", "79 0c 01000000 0200000000000000"}) {
        const std::string trace = traceOf(tableOf(bytes(wire + "7c 00"), true, false));
        EXPECT_EQ(join(packetsIn(trace)), trace);
        EXPECT_EQ(hex(trace.substr(0, 2)) + hex(trace.substr(18)), "79 107c 00") << wire;
    }
}

TEST(TextReader, TellsATableByMoreThanItsFirstByte) {
    const std::string mark = "\xef\xbb\xbf", row = "\tSync \t24 \t1 ";
    const std::string head = "Offset\t\tDescription \tTCode \tLength \tpacket payload \n";
    const std::pair<std::string, bool> starts[] = {
        {"Quorvex (QVX) packet description\n", true},
        {head, true},
        {mark + "\r\n\n" + row, true},
        {"my title\r\n\r\n" + head, true},
        {row, true},
        {"\t0x10 \tsynchronisation \tSync \t24 \t", true},
        {"\tsynchronisation \tSync \t24", true},
        {"\tnonsense\t1\n" + row, true},
        {"", false},
        {mark, false},
        {"\tSync \t", false},
        {"\tSync \t256 \t1", false},
        {"\tLineDefine \t28 \t1", false},
        {"\tindented\n", false},
        {"two\nlines\n" + row, false},
        {"\x09\x02 \n" + row, false}, // what traces begin with
        {"\xef\x02\x01\x02\n" + row, false},
        {"\xef\xbb\xbf\x7f\x18\n" + row, false},
        {std::string("\t\0\n", 3) + row, false},
    };
    for (const auto& [start, isTable] : starts)
        EXPECT_EQ(TraceTextReader::looksLikeTable(start), isTable) << start;
    for (const bool parsable : {true, false}) {
        const std::string table = tableOf(everyKind(), parsable, !parsable);
        for (std::size_t at = 0; at + 1 < table.size(); at = table.find('\n', at + 1))
            EXPECT_TRUE(TraceTextReader::looksLikeTable(table.substr(at, 4096)));
    }
}

TEST(TextReader, EndsOnAnyInput) {
    RandomPackets random(9);
    const std::string table = tableOf(everyKind(), true, true);
    for (unsigned round = 0; round < 300; ++round) {
        std::string damaged = table;
        for (unsigned i = 0; i < 30; ++i)
            damaged[random.below(static_cast<unsigned>(damaged.size()))] = "\t\n 0x\0\xff"
                                                                           "9aI"[random.below(10)];
        std::uint64_t errors = 0;
        traceOf(damaged, &errors);
        EXPECT_GT(errors, 0U);
    }
}

/// Hands out so many characters at a time; for 0, one by one, and never tells that there are any.
class Dripping : public std::streambuf {
public:
    Dripping(const std::string& text, std::size_t portion) : m_text(text), m_portion(portion) {}

protected:
    int_type underflow() override {
        if (m_portion > 0 && m_at < m_text.size()) {
            char* const from = m_text.data() + m_at;
            const std::size_t count = std::min(m_portion, m_text.size() - m_at);
            setg(from, from, from + count);
            m_at += count;
            return traits_type::to_int_type(*from);
        }
        return m_at < m_text.size() ? traits_type::to_int_type(m_text[m_at]) : traits_type::eof();
    }
    int_type uflow() override {
        if (m_portion > 0)
            return std::streambuf::uflow();
        const int_type next = underflow();
        m_at += next != traits_type::eof();
        return next;
    }

private:
    std::string m_text;
    std::size_t m_portion;
    std::size_t m_at = 0;
};

TEST(TextReader, ReadsLinesWhereverStreamsAndBlocksPartThem) {
    // The longest line, and one that is longer, across the places where the reader's blocks may end.
    for (const std::size_t size : {0x3FFEU, 0x3FFFU, 0x4000U}) {
        for (const std::size_t before : {0U, 0xBFFFU, 0xC000U, 0xC001U, 0xFFFFU, 0x10000U}) {
            std::string row = "\tTraceDisabled\t0 \t";
            row.resize(size, ' ');
            std::uint64_t errors = 0;
            const std::string trace = traceOf(std::string(before, '\n') + row + "\n\tEndOfTrace\t0", &errors);
            EXPECT_EQ(hex(trace), hex(bytes(size < 0x4000 ? "7a 00 7c 00" : "7c 00"))) << size << ' ' << before;
            EXPECT_EQ(errors, size < 0x4000 ? 0U : 1U) << size << ' ' << before;
        }
    }
    const std::string table =
        tableOf(everyKind(), true, true) + "\t" + std::string(0x12345, 'x') + "\n\tTraceDisabled\t0";
    for (const std::size_t portion : {0U, 1U, 7U, 0x3000U}) {
        Dripping drops(table, portion);
        std::istream in(&drops);
        TraceTextReader reader(in);
        EXPECT_EQ(hex(join(readAll(reader))), hex(everyKind() + bytes("7a 00"))) << portion;
        EXPECT_EQ(reader.errors(), 1U) << portion;
        EXPECT_EQ(reader.position(), table.size()) << portion;
    }
    takeLog();
}

TEST(TextReader, TellsItsStateAsSourcesDo) {
    std::istringstream in("\tSync\t24\t1\t2\t3\t4\n\tEndOfTrace\t0\n\tFill\t0\n");
    TraceTextReader reader(in);
    EXPECT_TRUE(reader.good());
    EXPECT_EQ(reader.peek(), Sync);
    EXPECT_EQ(reader.peek(), Sync) << "nothing is taken";
    std::list<CPacket*> packets;
    EXPECT_TRUE(reader.get(packets) && reader.get(packets));
    EXPECT_EQ(packets.back()->TraceCode(), EndOfTrace);
    EXPECT_TRUE(reader.eot() && !reader.good());
    reader.clear();
    EXPECT_TRUE(reader.good());
    EXPECT_TRUE(reader.get(packets) && !reader.get(packets));
    EXPECT_EQ(packets.size(), 3U);
    EXPECT_EQ(reader.peek(), Invalid);
    EXPECT_EQ(reader.position(), in.str().size());
    EXPECT_EQ(reader.size(), in.str().size()) << "also at its end";
    CPacketFactory::release(packets);
}

TEST(TextReader, CatchesWhatItsStreamThrows) {
    const std::string table = "\t" + std::string(0x5000, 'x') + "\n\tEndOfTrace\t0";
    std::istringstream in(table);
    in.exceptions(std::ios::failbit | std::ios::eofbit);
    TraceTextReader reader(in);
    EXPECT_EQ(readAll(reader), Steps{bytes("7c 00")});
    EXPECT_EQ(reader.errors(), 1U);
    EXPECT_EQ(reader.size(), table.size());
    reader.clear();
    EXPECT_EQ(reader.get(), nullptr);
}

TEST(TextReader, LosesNothingWhereMemoryIsShort) {
    CFunctionDefine define = named(300), other = named(255), third = named(600);
    const std::string trace = bytes("00 02 01 02") + wireOf(define) + bytes("10 18") + std::string(24, '\1') +
                              wireOf(other) + wireOf(third) + bytes("7c 00");
    const std::string table = replaced(tableOf(trace, true, false), "\tExecInsn", "\tbroken\n\tExecInsn");
    unsigned number = 0;
    bool came = true;
    const auto read = [&] {
        std::istringstream in(table);
        TraceTextReader reader(in, false);
        std::vector<PacketPointer> packets;
        packets.reserve(10);
        unsigned failures = 0;
        {
            const ShortMemory shortage(number);
            for (bool more = true; more;) {
                try {
                    CPacket* packet = reader.get();
                    more = packet != nullptr;
                    if (packet)
                        packets.emplace_back(packet);
                } catch (const std::exception&) {
                    ++failures;
                }
            }
            came = shortage.came();
        }
        std::string got;
        for (const PacketPointer& packet : packets)
            got += wireOf(*packet);
        EXPECT_EQ(hex(got), hex(trace)) << number;
        EXPECT_EQ(reader.errors(), 1U) << number;
        EXPECT_EQ(failures, came) << number;
    };
    for (; came; ++number)
        std::thread(read).join(); // which has no memory kept from what was before
    EXPECT_GT(number, 20U);
}

TEST(TextReader, ReadsBackTheTableOfAMillionRandomPacketsByteForByte) {
    RandomPackets random(20261122);
    // In parts, so that the memory of a small machine holds them.
    for (unsigned part = 0; part < effort(20, 1); ++part) {
        std::string trace;
        for (unsigned i = 0; i < 50'000; ++i)
            trace += wireOf(*random.next());
        takeLog(); // of packets that the generator tried
        ASSERT_TRUE(traceOf(tableOf(trace, true, part % 2 == 0, part % 3 == 0)) == trace) << part;
    }
}

} // namespace
} // namespace Quorvex::test

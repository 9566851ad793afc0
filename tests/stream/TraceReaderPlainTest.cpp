#include "quorvex/stream/TraceReaderPlain.h"

#include "quorvex/stream/TraceSourceBufferStream.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "quorvex/stream/TraceWriterPlain.h"
#include "tests/support/Bytes.h"
#include "tests/support/Doubles.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Quorvex::test {
namespace {

/// Expects to read these packets and no more, and to stay behind them, one by one and in lists.
void expectPackets(const std::string& trace, const std::vector<std::string>& packets, unsigned portion = ~0U) {
    for (const bool inLists : {false, true}) {
        MemorySource source(trace, portion);
        CTraceReaderPlain reader(source);
        ASSERT_TRUE(readAll(reader, inLists) == packets) << "in portions of " << portion;
        EXPECT_EQ(reader.position(), join(packets).size());
        EXPECT_EQ(reader.get(), nullptr) << "again";
    }
}

std::string fillOf(std::size_t size) {
    return wireOf(*PacketPointer(new CFill(static_cast<std::uint8_t>(size - 2))));
}

CFunctionDefine named(std::size_t length) {
    return CFunctionDefine(CCoreContext(1, 2, 3, 4), 5, std::string(length, 'n').c_str());
}

// The define packet's own end, the ends of the packets of its name, and the byte that tells whether there is one: each
// at each place around the end of a block.
TEST(PlainReader, KeepsADefinitionAndItsNameTogetherAcrossTheEndOfABlock) {
    std::string fills;
    while (fills.size() + 2000 < kPageSize)
        fills += fillOf(255);
    for (const unsigned length : {0U, 1U, 254U, 255U, 256U, 520U}) {
        CFunctionDefine define = named(length);
        const std::string middle = wireOf(define);
        for (std::size_t overlap = 0; overlap <= middle.size() + 3; ++overlap) {
            std::string trace = fills;
            while (const std::size_t left = kPageSize - overlap - trace.size())
                trace += fillOf(left == 256 ? 100 : std::min<std::size_t>(left, 255));
            MemorySource source(trace + middle + bytes("7c 00"));
            CTraceReaderPlain reader(source);
            const std::vector<std::string> packets = readAll(reader);
            ASSERT_EQ(Steps(packets.end() - 2, packets.end()), (Steps{middle, bytes("7c 00")})) << overlap;
        }
    }
}

TEST(PlainReader, ReadsANameThatNoBlockCanHold) {
    for (const unsigned length : {kPageSize - 300, kPageSize, 3 * kPageSize + 17}) {
        CFunctionDefine define = named(length);
        CSync sync;
        const std::vector<std::string> packets{wireOf(sync), wireOf(define), wireOf(sync), bytes("7c 00")};
        for (const unsigned portion : {~0U, 1000U})
            expectPackets(join(packets), packets, portion);
        MemorySource cut(join(packets).substr(0, length));
        CTraceReaderPlain reader(cut);
        EXPECT_EQ(readAll(reader), Steps{wireOf(sync)}) << "what is cut is not handed out";
        EXPECT_EQ(reader.position(), wireOf(sync).size());
    }
}

TEST(PlainReader, StaysAtTheStartOfACutPacket) {
    CSync sync(1, 2, 3, 4);
    CFunctionDefine define = named(4);
    const std::string whole = wireOf(sync) + wireOf(define);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        std::vector<std::string> packets;
        if (size >= 26)
            packets.push_back(wireOf(sync));
        if (size == 26 + 30)
            packets.push_back(whole.substr(26, 30)); // without its name the definition is whole
        expectPackets(whole.substr(0, size), packets);
    }
}

TEST(PlainReader, StepsOverDamageByItsLength) {
    //                       known but too short  unknown         unknown of length 0
    const std::string trace = bytes("7a 00 10 02 11 22   06 03 33 33 33   07 00     7c 00");
    MemorySource source(trace);
    CTraceReaderPlain reader(source);
    EXPECT_EQ(readAll(reader), Steps{bytes("7a 00")});
    EXPECT_EQ(reader.position(), 6U);
    EXPECT_EQ(reader.peek(), 0x06);
    for (unsigned i = 0; i < 2; ++i) {
        EXPECT_EQ(reader.get(), nullptr);
        EXPECT_EQ(reader.position(), 11U) << "nothing tells where the next packet is";
    }
    EXPECT_TRUE(reader.skip() && !reader.eot());
    EXPECT_EQ(PacketPointer(reader.get())->TraceCode(), EndOfTrace);
    EXPECT_TRUE(reader.eot() && !reader.good());
    reader.clear();
    EXPECT_TRUE(reader.good());
    EXPECT_FALSE(reader.skip());
    EXPECT_EQ(reader.peek(), Invalid);

    const std::pair<std::string, std::size_t> lists[] = {
        {trace, 1}, // a known code that cannot be built ends the batch
        {bytes("7a 00 06 03 33 33 33 7c 00"), 2},
        {bytes("06 00 7c 00"), 0},
    };
    for (const auto& [damaged, count] : lists) {
        MemorySource listSource(damaged);
        CTraceReaderPlain listReader(listSource);
        EXPECT_EQ(readAll(listReader, true).size(), count);
    }
}

// Every bit of a small trace flipped, every length cut: reading ends and what stood before the damage is handed out.
TEST(PlainReader, EndsAndLosesNothingBeforeTheDamage) {
    RandomPackets random(3);
    std::vector<std::string> packets;
    std::string trace;
    for (; trace.size() < 700; trace += packets.back())
        packets.push_back(random.wire());
    // How many packets the damage leaves alone. The one before it may have had a text that it changed.
    std::size_t untouched = 0;
    std::size_t end = packets[0].size() + packets[1].size();
    for (std::size_t bit = 0; bit < trace.size() * 8; ++bit) {
        if (bit / 8 == end)
            end += packets[++untouched + 1].size();
        std::string damaged = trace;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
        MemorySource source(damaged);
        CTraceReaderPlain reader(source);
        std::vector<std::string> read;
        for (unsigned steps = 0;; ++steps) {
            ASSERT_LE(steps, damaged.size()) << "no end";
            const std::uint64_t before = reader.position();
            if (const PacketPointer packet{reader.get()})
                read.push_back(wireOf(*packet));
            else if (reader.position() == before && !reader.skip())
                break;
        }
        ASSERT_GE(read.size(), untouched) << bit;
        ASSERT_TRUE(std::equal(packets.begin(), packets.begin() + std::ptrdiff_t(untouched), read.begin())) << bit;
    }
    takeLog();
}

// All kinds, with texts of all lengths, through both writers and back.
TEST(PlainReader, ReadsBackAMillionRandomPacketsByteForByte) {
    RandomPackets random(20261121);
    const auto read = [](const MemorySink& sink) {
        MemorySource source(sink.bytes);
        CTraceReaderPlain reader(source);
        return readAll(reader);
    };
    // In parts, so that the memory of a small machine holds them.
    for (unsigned part = 0; part < 20; ++part) {
        MemorySink plainSink, pagedSink;
        CTraceWriterPlain plain(plainSink);
        CTraceWriterPaged paged(pagedSink);
        std::vector<std::string> expected;
        for (unsigned i = 0; i < 50'000; ++i) {
            const PacketPointer packet = random.next();
            expected.push_back(wireOf(*packet));
            ASSERT_TRUE(plain.put(packet.get()) && paged.put(packet.get()));
        }
        plain.flush();
        paged.flush();
        ASSERT_TRUE(plainSink.bytes == join(expected));
        ASSERT_TRUE(read(plainSink) == expected);
        std::vector<std::string> inPages = read(pagedSink);
        for (auto* packets : {&expected, &inPages})
            std::erase_if(*packets, [](const std::string& wire) { return isPagedBusiness(codeOf(wire)); });
        ASSERT_TRUE(inPages == expected);
    }
    takeLog();
}

TEST(PlainReader, SkipsAndMovesInASeekableSource) {
    struct Reader : CTraceReaderPlain {
        using CTraceReaderPlain::CTraceReaderPlain;
        using CTraceReaderPlain::seek;
    };
    std::string trace;
    for (unsigned i = 0; i < 20'000; ++i) {
        CRelHWExceptionEnter packet(1, 2, i);
        trace += wireOf(packet);
    }
    std::istringstream in(trace + "\x7a");
    CTraceSourceBufferStream source(in);
    Reader reader(source);
    unsigned skipped = 0;
    while (reader.skip())
        ++skipped;
    EXPECT_EQ(skipped, 20'000U);
    EXPECT_EQ(reader.position(), trace.size()) << "a lone byte is left";
    EXPECT_EQ(reader.size(), trace.size() + 1);
    EXPECT_FALSE(reader.seek(trace.size() + 2));
    for (const unsigned at : {17'000U * 8, 16'999U * 8, 3U * 8, 19'999U * 8}) {
        reader.clear();
        ASSERT_TRUE(reader.seek(at));
        EXPECT_EQ(hex(wireOf(*PacketPointer(reader.get()))), hex(trace.substr(at, 8)));
    }
}

} // namespace
} // namespace Quorvex::test

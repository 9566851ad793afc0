#include "quorvex/stream/TraceReaderPlain.h"

#include "quorvex/stream/TraceSourceBufferStream.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "quorvex/stream/TraceWriterPlain.h"
#include "tests/support/Doubles.h"
#include "tests/support/Effort.h"
#include "tests/support/ShortMemory.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Quorvex::test {
namespace {

/// Expects to read these packets and no more, and to stay at `end`, one by one and in lists, however the source gives
/// its bytes.
void expectPackets(const std::string& trace, const std::vector<std::string>& packets, std::uint64_t end,
                   const std::string& what = {}) {
    for (const unsigned portion : {~0U, 1000U}) {
        for (const bool inLists : {false, true}) {
            MemorySource source(trace, portion);
            CTraceReaderPlain reader(source);
            ASSERT_TRUE(readAll(reader, inLists) == packets) << what << " in portions of " << portion;
            EXPECT_EQ(reader.position(), end) << what;
            EXPECT_EQ(reader.get(), nullptr) << what << " again";
        }
    }
}

// The define packet's own end, the ends of the packets of its name, and the byte that tells whether there is one: each
// at each place around the end of a block.
TEST(PlainReader, KeepsADefinitionAndItsNameTogetherAcrossTheEndOfABlock) {
    std::string fills;
    while (fills.size() + 2000 < kBlockSize)
        fills += fillOf(255);
    for (const unsigned length : {0U, 1U, 254U, 255U, 256U, 520U}) {
        CFunctionDefine define = named(length);
        const std::string middle = wireOf(define);
        for (std::size_t overlap = 0; overlap <= middle.size() + 3; ++overlap) {
            std::string trace = fills;
            while (const std::size_t left = kBlockSize - overlap - trace.size())
                trace += fillOf(left == 256 ? 100 : std::min<std::size_t>(left, 255));
            const std::vector<std::string> packets = packetsIn(trace + middle + bytes("7c 00"));
            ASSERT_EQ(Steps(packets.end() - 2, packets.end()), (Steps{middle, bytes("7c 00")})) << overlap;
        }
    }
}

TEST(PlainReader, ReadsANameThatNoBlockCanHold) {
    for (const unsigned length : {kBlockSize - 300, kBlockSize, 3 * kBlockSize + 17}) {
        CFunctionDefine define = named(length);
        CSync sync;
        const std::vector<std::string> packets{wireOf(sync), wireOf(define), wireOf(sync), bytes("7c 00")};
        expectPackets(join(packets), packets, join(packets).size());
        // One that the class refuses is stepped over alone: its texts are packets of their own.
        std::string damaged = join(packets);
        damaged[26 + 1] = 27;
        MemorySource source(damaged);
        CTraceReaderPlain reader(source);
        EXPECT_EQ(PacketPointer(reader.get())->TraceCode(), Sync);
        EXPECT_TRUE(reader.get() == nullptr && reader.position() == 26 + 29);
        // Where memory is short for its name, the reader has not moved, though the source has met its end.
        unsigned number = 0;
        for (bool came = true; came; ++number) {
            std::istringstream in(join(packets));
            CTraceSourceBufferStream stream(in);
            CTraceReaderPlain again(stream);
            PacketPointer packet(again.get());
            std::string failure;
            {
                const ShortMemory shortage(number, length);
                failure = thrownBy([&] { packet.reset(again.get()); });
                came = shortage.came();
            }
            EXPECT_EQ(failure, came ? "There is not enough memory available." : "");
            if (came) {
                EXPECT_EQ(again.position(), 26U) << number;
                packet.reset(again.get());
            }
            EXPECT_TRUE(packet && wireOf(*packet) == packets[1]) << number;
        }
        EXPECT_GE(number, 3U) << "while it is read, and when it is kept";
    }
}

TEST(PlainReader, StaysAtTheStartOfACutPacket) {
    CSync sync(1, 2, 3, 4);
    CMessage message(1, 2, "text");
    const std::string whole = wireOf(sync) + wireOf(message);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        std::vector<std::string> packets;
        if (size >= 26)
            packets.push_back(wireOf(sync));
        if (size >= 26 + 11)
            packets.push_back(whole.substr(26, 11)); // it is the text that is cut
        expectPackets(whole.substr(0, size), packets, join(packets).size());
    }
}

// Wherever the block ends, and for names that no block can hold.
TEST(PlainReader, HandsOutADefinitionWithTheTextThatIsWholeWhereTheTraceEnds) {
    std::string fills;
    while (fills.size() < kBlockSize)
        fills += fillOf(256);
    const auto check = [&](const std::string& before, std::size_t fullTexts, std::size_t cut) {
        CFunctionDefine define = named(255 * fullTexts);
        CFunctionDefine longer = named(255 * fullTexts + 255);
        const std::size_t end = before.size() + 30 + 257 * fullTexts;
        std::vector<std::string> packets{wireOf(define)};
        std::string trace = before + wireOf(longer).substr(0, 30 + 257 * fullTexts + cut);
        for (std::size_t at = before.size(); at > 0; at -= 256)
            packets.insert(packets.begin(), fillOf(256));
        expectPackets(trace, packets, end, std::to_string(fullTexts) + " full texts and " + std::to_string(cut));
        // Or a packet of another kind follows: the text so far.
        if (cut == 0) {
            packets.push_back(bytes("7c 00"));
            expectPackets(trace + bytes("7c 00"), packets, end + 2, "broken off");
        }
    };
    for (const std::size_t cut : {0, 1, 2, 3, 256}) {
        for (const std::size_t fullTexts : {0, 1, 2}) {
            check("", fullTexts, cut);
            check(fills.substr(0, kBlockSize - 256), fullTexts, cut);
            check(fills.substr(0, kBlockSize - 512), fullTexts, cut);
        }
        for (const std::size_t fullTexts : {1018, 1019, 1020, 1021, 3000}) // a block holds 1019 and a bit
            check("", fullTexts, cut);
    }
}

TEST(PlainReader, GoesOnBehindTheAnnouncedLength) {
    // Of kinds that take any length, and of those that refuse one.
    const std::pair<std::string, std::string> cases[] = {
        {"00 04 01 02 7c 00", "00 02 01 02"},
        {"05 08 01 02 03000000 7c 00", "05 06 01 02 03000000"},
        {"10 1a 0100000000000000 02000000 03000000 0400000000000000 7c 00",
         "10 18 0100000000000000 02000000 03000000 0400000000000000"},
        {"7f 19 0100000000000000 02000000 03000000 0400000000000000 7c",
         "7f 18 0100000000000000 02000000 03000000 0400000000000000"},
        {"7a 02 7c 00", "7a 00"},
        {"7b 1a 0100000000000000 02000000 03000000 0400000000000000 7c 00",
         "7b 18 0100000000000000 02000000 03000000 0400000000000000"},
        {"7c 02 7d 00", "7c 00"},
        {"80 08 01 02 03000000 7c 00", ""},
        {"00 01 01", ""},
        {"72 11 0100000000000000 02000000 03000000 7c", ""},
        {"79 11 01000000 0200000000000000 00000000 7c", ""},
    };
    for (const auto& [given, expected] : cases) {
        MemorySource source(bytes(given + "7a 00"));
        CTraceReaderPlain reader(source);
        const PacketPointer packet(reader.get());
        EXPECT_EQ(packet ? hex(wireOf(*packet)) : "", hex(bytes(expected))) << given;
        EXPECT_EQ(reader.position(), bytes(given).size());
        EXPECT_EQ(reader.eot(), packet && packet->TraceCode() == EndOfTrace);
        EXPECT_EQ(PacketPointer(reader.get())->TraceCode(), TraceDisabled) << given;

        MemorySource again(bytes(given + "7a 00"));
        CTraceReaderPlain lists(again);
        std::list<CPacket*> packets{new CFill};
        EXPECT_TRUE(lists.get(packets)) << "the list is not empty";
        EXPECT_EQ(packets.size(), packet ? 3U : 1U) << given;
        CPacketFactory::release(packets);
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
    for (const auto& [damaged, count] : lists)
        EXPECT_EQ(packetsIn(damaged, true).size(), count);
}

// Bits of a small trace flipped, every one where that is quick: reading ends and what stood before is handed out.
TEST(PlainReader, EndsAndLosesNothingBeforeTheDamage) {
    RandomPackets random(3);
    std::vector<std::string> packets;
    std::string trace;
    for (; trace.size() < 700; trace += packets.back())
        packets.push_back(random.wire());
    // How many packets the damage leaves alone. The one before it may have had a text that it changed.
    std::size_t untouched = 0;
    std::size_t end = packets[0].size() + packets[1].size();
    for (std::size_t bit = 0; bit < trace.size() * 8; bit += effort(1, 11)) {
        while (bit / 8 >= end)
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
}

// All kinds, with texts of all lengths, through both writers and back.
TEST(PlainReader, ReadsBackAMillionRandomPacketsByteForByte) {
    RandomPackets random(20261121);
    // In parts, so that the memory of a small machine holds them.
    for (unsigned part = 0; part < effort(20, 1); ++part) {
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
        ASSERT_TRUE(packetsIn(plainSink.bytes) == expected);
        std::vector<std::string> inPages = packetsIn(pagedSink.bytes);
        for (auto* packets : {&expected, &inPages})
            std::erase_if(*packets, [](const std::string& wire) { return isPagedBusiness(codeOf(wire)); });
        ASSERT_TRUE(inPages == expected);
    }
}

TEST(PlainReader, SkipsAndMovesInASeekableSource) {
    struct Reader : CTraceReaderPlain {
        using CTraceReaderPlain::CTraceReaderPlain;
        using CTraceReaderPlain::fill, CTraceReaderPlain::remain, CTraceReaderPlain::seek;
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
    source.clear();
    EXPECT_TRUE(reader.fill(8, 20) && reader.remain() == 20 && reader.fill(4) && reader.remain() == 24);
    for (const unsigned at : {17'000U * 8, 16'999U * 8, 3U * 8, 19'999U * 8}) {
        reader.clear();
        ASSERT_TRUE(reader.seek(at));
        EXPECT_EQ(hex(wireOf(*PacketPointer(reader.get()))), hex(trace.substr(at, 8)));
    }
}

} // namespace
} // namespace Quorvex::test

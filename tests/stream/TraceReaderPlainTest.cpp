#include "quorvex/stream/TraceReaderPlain.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/stream/TextRun.h"
#include "quorvex/stream/TraceAutoBuffer.h"
#include "quorvex/stream/TraceSourceBufferStream.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "quorvex/stream/TraceWriterPlain.h"
#include "tests/support/Bytes.h"
#include "tests/support/Doubles.h"
#include "tests/support/RandomPackets.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Quorvex::test {
namespace {

/// All packets of a trace, taken one by one, each as its bytes.
std::vector<std::string> readAll(CTraceReaderPlain& reader) {
    std::vector<std::string> packets;
    while (const PacketPointer packet{reader.get()})
        packets.push_back(wireOf(*packet));
    return packets;
}

std::vector<std::string> readLists(CTraceReaderPlain& reader) {
    std::vector<std::string> packets;
    std::list<CPacket*> batch;
    while (reader.get(batch)) {
        for (CPacket* packet : batch)
            packets.push_back(wireOf(*packet));
        CPacketFactory::release(batch);
    }
    return packets;
}

std::string join(const std::vector<std::string>& packets) {
    std::string trace;
    for (const std::string& packet : packets)
        trace += packet;
    return trace;
}

TEST(PlainReader, GivesTheSameWhereverTheBlocksAndPortionsEnd) {
    RandomPackets random(7);
    std::vector<std::string> packets;
    for (std::size_t size = 0; size < 3 * kPageSize;) {
        packets.push_back(random.wire());
        // A text of its own behind a packet that takes one would become part of it.
        if (packets.back()[0] == '\x7e')
            packets.pop_back();
        else
            size += packets.back().size();
    }
    for (const unsigned shift : {0U, 1U, 2U, 3U, 29U, 30U, 31U, 100U}) {
        // Something in front moves every packet to another place in the blocks.
        std::vector<std::string> all(packets);
        if (shift >= 2)
            all.insert(all.begin(),
                       std::string("\x7d") + static_cast<char>(shift - 2) + std::string(shift - 2, '\x80'));
        const std::string trace = join(all);
        for (const unsigned portion : {~0U, kPageSize - 1, 4099U}) {
            MemorySource source(trace, portion), listSource(trace, portion);
            CTraceReaderPlain reader(source), listReader(listSource);
            ASSERT_TRUE(readAll(reader) == all) << shift << " " << portion;
            ASSERT_TRUE(readLists(listReader) == all) << shift << " " << portion;
            EXPECT_EQ(reader.position(), trace.size());
        }
    }
}

// The define packet's own end, the ends of the packets of its name, and the byte that tells whether there is one: each
// at each place around the end of a block.
TEST(PlainReader, KeepsADefinitionAndItsNameTogetherAcrossTheEndOfABlock) {
    for (const unsigned length : {0U, 1U, 254U, 255U, 256U, 520U}) {
        CFunctionDefine define(CCoreContext(1, 2, 3, 4), 5, std::string(length, 'n').c_str());
        const std::string middle = wireOf(define);
        CEndOfTrace end;
        for (unsigned overlap = 0; overlap <= middle.size() + 3; ++overlap) {
            std::string trace;
            CFill fill(253);
            while (trace.size() + 600 < kPageSize - overlap)
                trace += wireOf(fill);
            for (std::size_t left = kPageSize - overlap - trace.size(); left > 0;
                 left = kPageSize - overlap - trace.size())
                trace += wireOf(*PacketPointer(
                    new CFill(static_cast<std::uint8_t>(std::min<std::size_t>(left == 256 ? 100 : left - 2, 253)))));
            MemorySource source(trace + middle + wireOf(end));
            CTraceReaderPlain reader(source);
            std::vector<std::string> packets = readAll(reader);
            ASSERT_GE(packets.size(), 2U);
            ASSERT_TRUE(packets[packets.size() - 2] == middle) << length << " " << overlap;
            ASSERT_TRUE(packets.back() == wireOf(end));
        }
    }
}

TEST(PlainReader, ReadsANameThatNoBlockCanHold) {
    for (const unsigned length : {kPageSize - 300, kPageSize, 3 * kPageSize + 17}) {
        CFunctionDefine define(CCoreContext(1, 2, 3, 4), 5, std::string(length, 'n').c_str());
        CEndOfTrace end;
        CSync sync;
        const std::vector<std::string> packets{wireOf(sync), wireOf(define), wireOf(sync), wireOf(end)};
        for (const unsigned portion : {~0U, 1000U}) {
            MemorySource source(join(packets), portion), lists(join(packets), portion);
            CTraceReaderPlain reader(source), listReader(lists);
            EXPECT_TRUE(readAll(reader) == packets) << length;
            EXPECT_TRUE(readLists(listReader) == packets) << length;
        }
        // Cut: the packet is not handed out, and reading ends.
        MemorySource cut(join(packets).substr(0, length));
        CTraceReaderPlain reader(cut);
        EXPECT_EQ(readAll(reader).size(), 1U);
    }
}

TEST(PlainReader, StaysAtTheStartOfACutPacket) {
    CSync sync(1, 2, 3, 4);
    CFunctionDefine define(CCoreContext(1, 2, 3, 4), 5, "name");
    const std::string whole = wireOf(sync) + wireOf(define);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        // Without its name the definition is whole.
        const std::size_t packets = (size >= 26) + (size == 26 + 30);
        const std::uint64_t position = size >= 26 + 30 && size == 26 + 30 ? 56 : size >= 26 ? 26 : 0;
        MemorySource source(whole.substr(0, size)), lists(whole.substr(0, size));
        CTraceReaderPlain reader(source), listReader(lists);
        EXPECT_EQ(readAll(reader).size(), packets) << size;
        EXPECT_EQ(reader.position(), position) << size;
        EXPECT_EQ(readLists(listReader).size(), packets) << size;
        EXPECT_EQ(reader.get(), nullptr) << "again";
    }
}

TEST(PlainReader, StepsOverDamageByItsLength) {
    //                  known but too short  unknown         unknown of length 0
    const std::string damage = "10 02 11 22   06 03 33 33 33   07 00";
    const std::string trace = bytes("7a 00" + damage + "7c 00");
    MemorySource source(trace), lists(trace);
    CTraceReaderPlain reader(source), listReader(lists);
    EXPECT_EQ(PacketPointer(reader.get())->TraceCode(), TraceDisabled);
    EXPECT_EQ(reader.get(), nullptr);
    EXPECT_EQ(reader.position(), 6U);
    EXPECT_EQ(reader.peek(), 0x06);
    EXPECT_EQ(reader.get(), nullptr);
    EXPECT_EQ(reader.position(), 11U);
    EXPECT_EQ(reader.get(), nullptr);
    EXPECT_EQ(reader.position(), 11U) << "nothing tells where the next packet is";
    EXPECT_TRUE(reader.skip());
    EXPECT_FALSE(reader.eot());
    EXPECT_EQ(PacketPointer(reader.get())->TraceCode(), EndOfTrace);
    EXPECT_TRUE(reader.eot());
    EXPECT_FALSE(reader.good());
    reader.clear();
    EXPECT_TRUE(reader.good());
    EXPECT_FALSE(reader.skip());
    EXPECT_EQ(reader.peek(), Invalid);

    EXPECT_EQ(readLists(listReader).size(), 1U) << "a known code that cannot be built ends the batch";
    MemorySource unknown(bytes("7a 00 06 03 33 33 33 7c 00"));
    CTraceReaderPlain skipping(unknown);
    EXPECT_EQ(readLists(skipping).size(), 2U) << "an unknown one is skipped";
    MemorySource endless(bytes("06 00 7c 00"));
    CTraceReaderPlain stuck(endless);
    EXPECT_EQ(readLists(stuck).size(), 0U);
}

// Every bit of a small trace flipped, every length cut: reading ends and what stood before the damage is handed out.
TEST(PlainReader, EndsAndLosesNothingBeforeTheDamage) {
    RandomPackets random(3);
    std::vector<std::string> packets;
    std::vector<std::size_t> starts;
    std::string trace;
    while (trace.size() < 700) {
        starts.push_back(trace.size());
        packets.push_back(random.wire());
        trace += packets.back();
    }
    for (std::size_t bit = 0; bit < trace.size() * 8; ++bit) {
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
        // The packet before the damage may have had a text that the damage changed.
        std::size_t untouched = 0;
        while (untouched + 1 < starts.size() && starts[untouched + 1] <= bit / 8)
            ++untouched;
        untouched = untouched > 0 ? untouched - 1 : 0;
        ASSERT_GE(read.size(), untouched) << bit;
        for (std::size_t i = 0; i < untouched; ++i)
            ASSERT_TRUE(read[i] == packets[i]) << bit;
    }
    takeLog();
}

// All kinds, with texts of all lengths, through both writers and back.
TEST(PlainReader, ReadsBackAMillionRandomPacketsByteForByte) {
    RandomPackets random(20261121);
    MemorySink plainSink, pagedSink;
    CTraceWriterPlain plain(plainSink);
    CTraceWriterPaged paged(pagedSink);
    std::string expected;
    const auto check = [&] {
        plain.flush();
        paged.flush();
        ASSERT_TRUE(plainSink.bytes == expected);
        MemorySource source(pagedSink.bytes);
        CTraceReaderPlain reader(source);
        std::string kept;
        while (const PacketPointer packet{reader.get()}) {
            const tagTCode code = packet->TraceCode();
            if (!isPagedBusiness(code))
                kept += wireOf(*packet);
        }
        MemorySource plainSource(plainSink.bytes);
        CTraceReaderPlain plainReader(plainSource);
        std::string read, withoutInserted;
        while (const PacketPointer packet{plainReader.get()}) {
            const tagTCode code = packet->TraceCode();
            const std::string wire = wireOf(*packet);
            read += wire;
            if (!isPagedBusiness(code))
                withoutInserted += wire;
        }
        ASSERT_TRUE(read == expected);
        ASSERT_TRUE(kept == withoutInserted);
    };
    // In parts, so that the memory of a small machine holds them.
    for (unsigned part = 0; part < 20; ++part) {
        bool nameless = false;
        for (unsigned i = 0; i < 50'000; ++i) {
            PacketPointer packet = random.packet();
            // Behind a packet without its name a text of its own would become that name.
            while (nameless && packet->TraceCode() == CharString)
                packet = random.packet();
            nameless = isFollowedByText(packet->TraceCode()) && packet->StreamSize() == packet->Length() + 2;
            expected += wireOf(*packet);
            ASSERT_TRUE(plain.put(packet.get()) && paged.put(packet.get()));
        }
        check();
        expected.clear();
        plainSink.bytes.clear();
        plainSink.at = 0;
        plain.seekp(0);
        pagedSink.bytes.clear();
        pagedSink.at = 0;
        paged.seekp(0);
    }
    takeLog();
}

TEST(PlainReader, SkipsAndMovesInASeekableSource) {
    class Reader : public CTraceReaderPlain {
    public:
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
    reader.clear();
    for (const unsigned index : {17'000U, 16'999U, 3U, 19'999U}) {
        ASSERT_TRUE(reader.seek(std::uint64_t{index} * 8));
        const PacketPointer packet(reader.get());
        ASSERT_TRUE(packet);
        EXPECT_EQ(dynamic_cast<CRelHWExceptionEnter&>(*packet).ExceptionId(), index);
        reader.clear();
    }
}

} // namespace
} // namespace Quorvex::test

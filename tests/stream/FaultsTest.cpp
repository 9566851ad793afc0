// Faults at the byte layer: whatever fails, and however often, what was accepted is in the output once and in order,
// and what is there can be read.

#include "quorvex/stream/TraceCompressor.h"
#include "quorvex/stream/TraceReaderPlain.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "quorvex/stream/TraceWriterPlain.h"
#include "tests/support/Bytes.h"
#include "tests/support/Doubles.h"
#include "tests/support/RandomPackets.h"

#include <gtest/gtest.h>

#include <optional>

namespace Quorvex::test {
namespace {

enum class Fault { Fails, WritesPartly, Throws, ThrowsAfterPart };

/// Every n-th write of bytes goes wrong.
class FaultySink : public MemorySink {
public:
    FaultySink(Fault fault, unsigned every) : m_fault(fault), m_every(every) {}
    using MemorySink::write;
    bool write(const char* src, unsigned count, unsigned& written) override {
        written = 0;
        if (count == 0 || ++m_writes % m_every != 0)
            return MemorySink::write(src, count, written);
        if (m_fault == Fault::WritesPartly || m_fault == Fault::ThrowsAfterPart)
            MemorySink::write(src, count / 2, written);
        if (m_fault == Fault::Throws || m_fault == Fault::ThrowsAfterPart)
            CQVXException::ThrowDiskFull();
        return m_fault == Fault::WritesPartly && written != 0;
    }
    bool good() override { return true; }

private:
    Fault m_fault;
    unsigned m_every;
    unsigned m_writes = 0;
};

/// Tries a step until it succeeds; the faults leave room for that.
template <class Step> bool insist(Step&& step) {
    for (unsigned i = 0; i < 10; ++i) {
        try {
            if (step())
                return true;
        } catch (const CQVXException&) {
        }
    }
    return false;
}

template <class Writer> std::string written(const std::vector<std::string>& packets, MemorySink& sink, bool& accepted) {
    Writer writer(sink);
    accepted = true;
    for (const std::string& wire : packets) {
        unsigned consumed = 0;
        const PacketPointer packet(
            CPacketFactory::getCPacket(wire.data(), static_cast<unsigned>(wire.size()), consumed));
        accepted = accepted && insist([&] { return writer.put(packet.get()); });
    }
    const std::uint64_t end = writer.tellp();
    accepted = accepted && insist([&] {
                   writer.flush();
                   return sink.bytes.size() == end;
               });
    return sink.bytes;
}

std::vector<std::string> somePackets(std::size_t size, unsigned seed) {
    RandomPackets random(seed);
    std::vector<std::string> packets;
    for (std::size_t at = 0; at < size; at += packets.back().size()) {
        packets.push_back(random.wire());
        if (packets.back()[0] == '\x7e' || packets.back()[0] == '\x79')
            packets.back() = bytes("7f 18 0000000000000000 00000000 00000000 0000000000000000");
    }
    return packets;
}

template <class Writer> void writesAllOnce() {
    const std::vector<std::string> packets = somePackets(5 * kPageSize, 12);
    MemorySink sound;
    bool accepted = false;
    const std::string expected = written<Writer>(packets, sound, accepted);
    ASSERT_TRUE(accepted);
    for (const Fault fault : {Fault::Fails, Fault::WritesPartly, Fault::Throws, Fault::ThrowsAfterPart}) {
        for (const unsigned every : {2U, 3U, 5U}) {
            FaultySink sink(fault, every);
            EXPECT_TRUE(written<Writer>(packets, sink, accepted) == expected) << int(fault) << " every " << every;
            EXPECT_TRUE(accepted) << int(fault) << " every " << every;
        }
    }
    takeLog();
}

TEST(Faults, CostThePlainWriterNothing) {
    writesAllOnce<CTraceWriterPlain>();
}

TEST(Faults, CostThePagedWriterNothing) {
    writesAllOnce<CTraceWriterPaged>();
}

// A disk that is full for good: what is there is a beginning of what should be, and its whole packets can be read.
TEST(Faults, LeaveAReadableBeginning) {
    const std::vector<std::string> packets = somePackets(3 * kPageSize, 13);
    std::string all;
    for (const std::string& packet : packets)
        all += packet;
    for (const unsigned room : {0U, 1U, 1000U, kPageSize - 1, kPageSize, kPageSize + 1, 2 * kPageSize + 77}) {
        class Full : public MemorySink {
        public:
            explicit Full(unsigned room) : m_room(room) {}
            using MemorySink::write;
            bool write(const char* src, unsigned count, unsigned& written) override {
                written = 0;
                return MemorySink::write(src, std::min<unsigned>(count, m_room - static_cast<unsigned>(bytes.size())),
                                         written) &&
                       written != 0;
            }

        private:
            unsigned m_room;
        } sink(room);
        CTraceWriterPlain writer(sink);
        bool good = true;
        for (const std::string& wire : packets) {
            unsigned consumed = 0;
            const PacketPointer packet(
                CPacketFactory::getCPacket(wire.data(), static_cast<unsigned>(wire.size()), consumed));
            good = good && writer.put(packet.get());
        }
        writer.flush();
        EXPECT_EQ(sink.bytes.size(), room);
        EXPECT_TRUE(all.starts_with(sink.bytes));
        MemorySource source(sink.bytes);
        CTraceReaderPlain reader(source);
        std::string read;
        while (const PacketPointer packet{reader.get()})
            read += wireOf(*packet);
        EXPECT_TRUE(all.starts_with(read)) << room;
        EXPECT_GT(read.size() + 4000, sink.bytes.size()) << "no more than the last packet is missing";
    }
    takeLog();
}

/// Every n-th read goes wrong: it fails, or gives one byte.
class FaultySource : public MemorySource {
public:
    FaultySource(const std::string& content, unsigned every, bool fails)
        : MemorySource(content, 5000), m_every(every), m_fails(fails) {}
    using MemorySource::read;
    bool read(char* dst, unsigned count, unsigned& got) override {
        got = 0;
        if (count == 0 || ++m_reads % m_every != 0)
            return MemorySource::read(dst, count, got);
        return m_fails ? false : MemorySource::read(dst, 1, got);
    }

private:
    unsigned m_every;
    bool m_fails;
    unsigned m_reads = 0;
};

TEST(Faults, CostTheReaderNothing) {
    std::string trace;
    for (const std::string& packet : somePackets(2 * kPageSize, 14))
        trace += packet;
    for (const bool fails : {false, true}) {
        for (const unsigned every : {2U, 3U, 7U}) {
            FaultySource source(trace, every, fails);
            CTraceReaderPlain reader(source);
            std::string read;
            for (unsigned misses = 0; misses < 3;) {
                const PacketPointer packet(reader.get());
                misses = packet ? 0 : misses + 1;
                if (packet)
                    read += wireOf(*packet);
            }
            EXPECT_TRUE(read == trace) << fails << " every " << every;
        }
    }
    takeLog();
}

} // namespace
} // namespace Quorvex::test

// Faults at the byte layer: whatever fails, and however often, what was accepted is in the output once and in order,
// and what is there can be read.

#include "quorvex/stream/TraceCursor.h"
#include "quorvex/stream/TraceSourceBufferStream.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "quorvex/stream/TraceWriterPlain.h"
#include "tests/support/Doubles.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

namespace Quorvex::test {
namespace {

/// Every n-th write of bytes goes wrong: it takes nothing or a part, and tells so or throws.
class FaultySink : public MemorySink {
public:
    FaultySink(bool takesPart, bool throws, unsigned every)
        : m_takesPart(takesPart), m_throws(throws), m_every(every) {}
    using MemorySink::write;
    bool write(const char* src, unsigned count, unsigned& written) override {
        const bool faulty = count > 0 && ++m_writes % m_every == 0;
        MemorySink::write(src, !faulty ? count : m_takesPart ? count / 2 : 0, written);
        if (faulty && m_throws)
            CQVXException::ThrowDiskFull();
        return written != 0 || count == 0;
    }

private:
    bool m_takesPart;
    bool m_throws;
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

/// Random packets without texts of their own, which would join the packet before them, and without frames, into which
/// the paged writer puts a length.
std::vector<PacketPointer> somePackets(std::size_t size, unsigned seed) {
    RandomPackets random(seed);
    std::vector<PacketPointer> packets;
    for (std::size_t at = 0; at < size;) {
        PacketPointer packet = random.packet();
        if (packet->TraceCode() == CharString || packet->TraceCode() == TraceEnabled)
            continue;
        at += packet->StreamSize();
        packets.push_back(std::move(packet));
    }
    return packets;
}

std::string traceOf(const std::vector<PacketPointer>& packets) {
    std::string trace;
    for (const PacketPointer& packet : packets)
        trace += wireOf(*packet);
    return trace;
}

/// Whether all packets were accepted in the end.
template <class Writer> bool write(const std::vector<PacketPointer>& packets, MemorySink& sink) {
    Writer writer(sink);
    for (const PacketPointer& packet : packets) {
        if (!insist([&] { return writer.put(packet.get()); }))
            return false;
    }
    return insist([&] {
        writer.flush();
        return sink.bytes.size() == writer.tellp();
    });
}

template <class Writer> void writesAllOnce() {
    const std::vector<PacketPointer> packets = somePackets(5 * kPageSize, 12);
    MemorySink sound;
    ASSERT_TRUE(write<Writer>(packets, sound));
    for (const bool takesPart : {false, true}) {
        for (const bool throws : {false, true}) {
            for (const unsigned every : {2U, 3U, 5U}) {
                FaultySink sink(takesPart, throws, every);
                EXPECT_TRUE(write<Writer>(packets, sink)) << takesPart << throws << every;
                EXPECT_TRUE(sink.bytes == sound.bytes) << takesPart << throws << every;
            }
        }
    }
    takeLog();
}

TEST(Faults, CostTheWritersNothing) {
    writesAllOnce<CTraceWriterPlain>();
    writesAllOnce<CTraceWriterPaged>();
}

TEST(Faults, LeaveAReadableBeginning) {
    const std::vector<PacketPointer> packets = somePackets(3 * kPageSize, 13);
    const std::string all = traceOf(packets);
    for (const unsigned room : {0U, 1U, 1000U, kPageSize - 1, kPageSize, kPageSize + 1, 2 * kPageSize + 77}) {
        MemorySink sink;
        sink.room = room;
        EXPECT_FALSE(write<CTraceWriterPlain>(packets, sink));
        EXPECT_EQ(sink.bytes.size(), room);
        EXPECT_TRUE(all.starts_with(sink.bytes));
        MemorySource source(sink.bytes);
        CTraceReaderPlain reader(source);
        const std::string read = join(readAll(reader));
        const auto end = static_cast<std::size_t>(reader.position());
        EXPECT_EQ(read.substr(0, end), all.substr(0, end)) << room;
        // A text that breaks off gets an end when it is written again.
        EXPECT_TRUE(read.size() == end || read.substr(end) == bytes("7e 00")) << room;
        EXPECT_GT(end + 4000, room) << "no more than the last packet is missing";
    }
}

TEST(Faults, CostTheReaderNothing) {
    const std::string trace = traceOf(somePackets(2 * kPageSize, 14));
    for (const unsigned portion : {5000U, 1U}) {
        for (const unsigned every : {2U, 3U, 7U}) {
            MemorySource source(trace, portion);
            source.failEvery = every;
            CTraceReaderPlain reader(source);
            std::string read;
            for (std::size_t tries = 0; read.size() < trace.size() && tries < trace.size(); ++tries)
                read += join(readAll(reader));
            EXPECT_TRUE(read == trace) << portion << " every " << every;

            MemorySource again(trace, portion);
            again.failEvery = every;
            CTraceCursor cursor(again);
            read.clear();
            for (std::size_t tries = 0; read.size() < trace.size() && tries < trace.size(); ++tries) {
                while (cursor.next())
                    read += wireOf(*PacketPointer(cursor.packet()));
            }
            EXPECT_TRUE(read == trace) << "by the cursor, " << portion << " every " << every;
        }
    }
}

/// A file of which every n-th read fails when it has already taken a part.
class FaultyFile : std::stringbuf, public std::istream {
public:
    FaultyFile(const std::string& bytes, unsigned every) : std::stringbuf(bytes), std::istream(this), m_every(every) {}

private:
    std::streamsize xsgetn(char* to, std::streamsize count) override {
        const bool isFaulty = ++m_reads % m_every == 0;
        const std::streamsize taken = std::stringbuf::xsgetn(to, isFaulty ? count / 3 : count);
        if (isFaulty)
            throw std::runtime_error("fault");
        return taken;
    }

    unsigned m_every;
    unsigned m_reads = 0;
};

TEST(Faults, CostTheReaderOfAStreamNothing) {
    const std::string trace = traceOf(somePackets(4 * kPageSize, 15));
    for (const unsigned every : {1U, 2U, 3U}) {
        for (const bool throws : {false, true}) {
            FaultyFile file(trace, every);
            file.exceptions(throws ? std::ios::badbit | std::ios::failbit : std::ios::goodbit);
            CTraceSourceBufferStream source(file);
            CTraceReaderPlain reader(source);
            std::string read;
            for (unsigned tries = 0; read.size() < trace.size() && tries < 100; ++tries) {
                read += join(readAll(reader));
                EXPECT_FALSE(reader.good());
                reader.clear();
            }
            EXPECT_TRUE(read == (every == 1 ? "" : trace)) << every << throws;
        }
    }
}

} // namespace
} // namespace Quorvex::test

#include "quorvex/stream/TraceWriterPaged.h"

#include "quorvex/stream/TraceFileWriter.h"
#include "quorvex/stream/TraceReaderPlain.h"
#include "quorvex/stream/TraceSourceBufferFile.h"
#include "tests/support/Doubles.h"
#include "tests/support/System.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

namespace Quorvex::test {
namespace {

constexpr char kRefused[] = "CTraceWriterPaged::put(): Unable to ashure the page condition. Exiting!\n";
constexpr char kCut[] = "Error: Could not process current message. Assuming packet is not in buffer completely!\n";
constexpr char kNoFillRoom[] = "CTraceWriterPaged::fill(): Not enough space to emit a packet!\n";

/// The packets of a trace as their bytes, read without any of our code: text is left as packets of its own.
std::vector<std::string> split(const std::string& trace) {
    std::vector<std::string> packets;
    for (std::size_t at = 0; at + 2 <= trace.size(); at += packets.back().size())
        packets.push_back(trace.substr(at, 2 + static_cast<unsigned char>(trace[at + 1])));
    return packets;
}

/// Fill packets of 256 bytes; 1024 of them are a page.
std::string fills(unsigned count) {
    std::string trace;
    for (unsigned i = 0; i < count; ++i)
        trace += fillOf(256);
    return trace;
}

bool put(CTraceWriterPaged& writer, const std::string& trace) {
    MemorySource source(trace);
    return writer.put(source);
}

/// A writer whose page has that many bytes left.
struct WriterWithRoom {
    unsigned room;
    MemorySink sink{std::string(kPageSize - room, 'x')};
    CTraceWriterPaged writer{sink};
    std::string written() const { return sink.bytes.substr(kPageSize - room); }
};

/// What the page rules demand of every paged trace.
void expectPaged(const std::string& trace) {
    std::size_t at = 0;
    for (const std::string& packet : split(trace)) {
        ASSERT_EQ(at / kPageSize, (at + packet.size() - 1) / kPageSize) << "packet across the page's end at " << at;
        at += packet.size();
    }
    ASSERT_EQ(at, trace.size());
}

std::uint64_t frameLength(const std::string& trace, std::size_t enabledAt) {
    return loadLittleEndian<std::uint64_t>(trace.data() + enabledAt + 6);
}

TEST(PageFormat, TellsWherePagesEndAndWhatFitsThem) {
    EXPECT_TRUE(!pages::isBreak(0) && !pages::isBreak(kPageSize - 1) && pages::isBreak(5 * std::uint64_t{kPageSize}));
    EXPECT_EQ(pages::offsetIn((std::uint64_t{1} << 40) + 7), 7U);
    for (const auto& [from, to, crosses] : {std::tuple{0U, kPageSize, false},
                                            {kPageSize - 1, kPageSize, false},
                                            {kPageSize - 1, kPageSize + 1, true},
                                            {kPageSize, 2 * kPageSize, false},
                                            {0U, 3 * kPageSize, true},
                                            {kPageSize, kPageSize, false}})
        EXPECT_EQ(pages::crossesEnd(from, to), crosses) << from << " " << to;
    const unsigned room = pages::room(100);
    for (const auto& [size, fits] :
         {std::pair{room, true}, {room - 1, false}, {room - 2, true}, {room + 1, false}, {~0U, false}})
        EXPECT_EQ(pages::fits(size, 100), fits) << size;
}

TEST(PagedWriter, PutsAPacketOnThePageThatItFitsAndOpensANewOneElse) {
    CSync sync(1, 2, 3, 4); // 26 bytes
    for (const unsigned room : {26U, 28U, 29U, 1000U, 2U, 3U, 25U, 27U}) {
        WriterWithRoom target{room};
        EXPECT_TRUE(target.writer.put(&sync));
        EXPECT_NE(target.writer.out_size(), 0U);
        target.writer.flush();
        EXPECT_EQ(target.writer.out_size(), 0U);
        const bool fits = room >= 26 && room != 27;
        EXPECT_EQ(hex(target.written()), hex((fits ? "" : fillOf(room)) + wireOf(sync))) << room;
    }
    WriterWithRoom full{kPageSize}; // a page that ends exactly
    CFill fill(254);
    for (unsigned i = 0; i < 1024; ++i)
        EXPECT_TRUE(full.writer.put(&fill));
    EXPECT_TRUE(full.sink.operations.empty()) << "handed over when the next packet comes";
    EXPECT_TRUE(full.writer.put(&sync));
    EXPECT_EQ(full.sink.operations.front(), "write 0 262144");

    // What a page holds, and what would leave it a single byte.
    for (const unsigned left : {0U, 2U, 1U}) {
        WriterWithRoom target{kPageSize};
        CFunctionDefine define = named(260'074 - left);
        ASSERT_EQ(define.StreamSize(), kPageSize - left);
        EXPECT_TRUE(target.writer.put(&fill));
        EXPECT_EQ(target.writer.put(&define), left != 1) << left;
        EXPECT_TRUE(target.writer.put(&sync));
        EXPECT_EQ(target.writer.tellp(), left != 1 ? 2 * kPageSize + 26 : 256 + 26) << left;
        EXPECT_EQ(takeLog(), left != 1 ? "" : kRefused);
    }

    WriterWithRoom stuck{1};
    EXPECT_FALSE(stuck.writer.put(&sync));
    EXPECT_EQ(takeLog(), std::string(kNoFillRoom) + kRefused);
    EXPECT_FALSE(put(stuck.writer, wireOf(sync)));
    EXPECT_EQ(takeLog(), std::string(kNoFillRoom) +
                             "Error: Failed to flush current buffer content. Not enough space available!\n");
    EXPECT_FALSE(stuck.writer.put(static_cast<CPacket*>(nullptr)));
}

TEST(PagedWriter, PadsWithFillPacketsNoneOfWhichIsASingleByte) {
    CFunctionDefine large = named(3000);
    for (unsigned room = 2; room < 1100; ++room) {
        WriterWithRoom target{room};
        ASSERT_TRUE(target.writer.put(&large)) << room;
        std::string expected;
        for (const std::string& packet : split(target.written()))
            expected += fillOf(static_cast<unsigned>(packet.size()));
        ASSERT_EQ(expected.size(), room);
        ASSERT_EQ(target.written(), expected);
        EXPECT_TRUE(room != 515 || expected == fillOf(256) + fillOf(256) + fillOf(3));
    }
}

TEST(PagedWriter, RestatesTheLastContextsAtTheStartOfAPage) {
    const std::string core = bytes("7f 18 0100000000000000 02000000 03000000 0400000000000000");
    const std::string bus = bytes("72 10 0500000000000000 06000000 07000000");
    const std::string system = bytes("73 10 0800000000000000 09000000 0a000000");
    MemorySink sink;
    CTraceWriterPaged writer(sink);
    EXPECT_TRUE(put(writer, system + bus + core + bytes("7f 02 ee ee") + fills(1024)));
    CSync sync(0x11, 0x12, 0x13, 0x14);
    CBusSync busSync(CBusContext(0x15, 0x16, 0x17));
    CSystemSync systemSync(CSystemContext(0x18, 0x19, 0x1a));
    for (CPacket* packet : std::initializer_list<CPacket*>{&systemSync, &busSync, &sync})
        EXPECT_TRUE(writer.put(packet));
    EXPECT_TRUE(put(writer, fills(1024)));
    writer.flush();
    const std::string second = wireOf(sync) + wireOf(busSync) + wireOf(systemSync);
    EXPECT_EQ(hex(sink.bytes.substr(kPageSize, 62)), hex(core + bus + system));
    EXPECT_EQ(hex(sink.bytes.substr(2 * kPageSize, 62)), hex(second));
    expectPaged(sink.bytes);
}

TEST(PagedWriter, LetsAReaderBeginAtAnyPage) {
    RandomPackets random(5);
    MemorySink sink;
    CTraceWriterPaged writer(sink);
    std::string plain;
    while (sink.bytes.size() < 4 * kPageSize) {
        const PacketPointer packet = random.packet();
        if (isPagedBusiness(packet->TraceCode()))
            continue;
        plain += wireOf(*packet);
        ASSERT_TRUE(writer.put(packet.get()));
        if (random.below(500) == 0)
            writer.flush();
    }
    writer.flush();
    expectPaged(sink.bytes);
    // No name may stand on another page than its packet: read from the second page on, no text comes first.
    for (std::size_t page = kPageSize; page < sink.bytes.size(); page += kPageSize)
        EXPECT_NE(sink.bytes[page], static_cast<char>(CharString));

    // The raw copy of the plain form gives the same pages.
    for (const unsigned portion : {~0U, 1000U}) {
        MemorySink copySink;
        CTraceWriterPaged copy(copySink);
        MemorySource raw(plain, portion);
        EXPECT_TRUE(copy.put(raw));
        copy.flush();
        EXPECT_TRUE(copySink.bytes == sink.bytes) << portion;
    }
    EXPECT_EQ(takeLog(), "");
}

TEST(PagedWriter, PutsInTheFrameLengthWhereverTheEnabledPacketIs) {
    CTraceDisabled disabled;
    // Packets of 256 bytes between the two.
    for (const auto& [packets, raw] : {std::pair{0U, false}, {3U, false}, {2100U, false}, {3U, true}, {1500U, true}}) {
        for (const std::string& start : {std::string(), std::string(5000, 'e'), std::string(kPageSize + 7, 'e')}) {
            MemorySink sink(start);
            CTraceWriterPaged writer(sink);
            for (unsigned frame = 0; frame < 2; ++frame) {
                const auto from = static_cast<std::size_t>(writer.tellp());
                CTraceEnabled enabled(123, Expanded, true);
                enabled.Version(0x0102);
                if (raw) {
                    EXPECT_TRUE(put(writer, wireOf(enabled) + fills(packets) + wireOf(disabled)));
                } else {
                    writer.put(&enabled);
                    EXPECT_EQ(enabled.FrameLen(), kUnknown64);
                    for (unsigned i = 0; i < packets; ++i) {
                        put(writer, fills(1));
                        if (i % 2 == 0)
                            writer.flush();
                    }
                    writer.put(&disabled);
                }
                const auto to = static_cast<std::size_t>(writer.tellp());
                writer.flush();
                enabled.FrameLen(to - from);
                EXPECT_EQ(hex(sink.bytes.substr(from, 18)), hex(wireOf(enabled))) << packets << raw;
                EXPECT_EQ(hex(sink.bytes.substr(to - 2)), "7a 00");
            }
            EXPECT_EQ(sink.bytes.substr(0, start.size()), start) << "not one earlier byte changes";
        }
    }
    EXPECT_EQ(takeLog(), "");
}

TEST(PagedWriter, LeavesAFrameAloneThatItCannotMeasure) {
    MemorySink sink;
    CTraceWriterPaged writer(sink);
    CTraceEnabled enabled;
    CTraceDisabled disabled;
    EXPECT_TRUE(writer.put(&disabled)) << "no frame is open";
    // A short form has no room for a length: nothing is put over the packets behind it.
    const std::string shortForm = bytes("79 04 01 00 00 00") + fillOf(18) + bytes("7a 00");
    EXPECT_TRUE(put(writer, shortForm));
    CPacket liar(TraceEnabled, 0);
    EXPECT_TRUE(writer.put(&liar));
    EXPECT_EQ(takeLog(), "CTraceWriterPaged::put(): Unable to check packet!\n");
    writer.flush();
    EXPECT_EQ(hex(sink.bytes), hex(bytes("7a 00") + shortForm + bytes("79 00")));

    // A target that cannot go back keeps the unknown length, and goes on.
    MemorySink fixed;
    CTraceWriterPaged forward(fixed);
    forward.put(&enabled);
    forward.flush();
    fixed.fixed = fixed.refuse = true;
    EXPECT_TRUE(forward.put(&disabled));
    EXPECT_TRUE(forward.good()) << "the failure is cleared";
    forward.flush();
    EXPECT_EQ(hex(fixed.bytes), hex(wireOf(enabled)) + " 7a 00");
    EXPECT_EQ(frameLength(fixed.bytes, 0), kUnknown64);
}

TEST(PagedWriter, PutsInTheFrameLengthUnlessSeekingLosesTheEnabledPacket) {
    // What is done between the two packets: s seeks to a place, w writes a packet of 30 bytes, f flushes, d writes the
    // trace-disabled packet. The trace-enabled packet stands at 30.
    constexpr std::uint64_t kNone = kUnknown64;
    struct Step {
        char what;
        std::uint64_t place = 0;
    };
    // At the end, the length that is put in; kNone: nothing is.
    const std::tuple<std::string, std::vector<Step>, std::uint64_t> cases[] = {
        {"to its end", {{'s', 48}, {'w'}, {'d'}}, 50},
        {"before it, in the page alone", {{'s', 30}, {'w'}, {'d'}}, kNone},
        {"away, in the page alone", {{'s', 5000}, {'f'}, {'s', 48}, {'d'}}, kNone},
        {"before it and back", {{'f'}, {'s', 0}, {'s', 78}, {'d'}}, 50},
        {"to its middle and back", {{'f'}, {'s', 40}, {'s', 78}, {'d'}}, 50},
        {"away and back", {{'f'}, {'s', 5000}, {'w'}, {'f'}, {'s', 78}, {'d'}}, 50},
        {"away, ending there", {{'f'}, {'s', 5000}, {'w'}, {'d'}}, 5002},
        {"written before it, and back", {{'f'}, {'s', 0}, {'w'}, {'f'}, {'s', 78}, {'d'}}, 50},
        {"written over, dropped unflushed, and back", {{'f'}, {'s', 30}, {'w'}, {'s', 78}, {'d'}}, 50},
        {"written over, waiting", {{'f'}, {'s', 30}, {'w'}, {'d'}}, kNone},
        {"written over, handed over, and back", {{'f'}, {'s', 20}, {'w'}, {'f'}, {'s', 78}, {'d'}}, kNone},
        {"the same from elsewhere", {{'f'}, {'s', 5000}, {'s', 47}, {'w'}, {'f'}, {'s', 78}, {'d'}}, kNone},
    };
    for (const auto& [name, steps, length] : cases) {
        WriterWithRoom target{kPageSize};
        CFill fill(28);
        CTraceEnabled enabled;
        CTraceDisabled disabled;
        ASSERT_TRUE(target.writer.put(&fill) && target.writer.put(&enabled) && target.writer.put(&fill));
        for (const Step& step : steps) {
            if (step.what == 's')
                ASSERT_TRUE(target.writer.seekp(step.place)) << name;
            else if (step.what == 'f')
                target.writer.flush();
            else
                ASSERT_TRUE(target.writer.put(step.what == 'w' ? static_cast<CPacket*>(&fill) : &disabled)) << name;
        }
        target.writer.flush();
        std::string& written = target.sink.bytes;
        written.resize(std::max<std::size_t>(written.size(), 48));
        const std::uint64_t told = written.substr(30, 2) == bytes("79 10") ? frameLength(written, 30) : kUnknown64;
        EXPECT_EQ(told, length) << name;
    }
    EXPECT_EQ(takeLog(), "");
}

TEST(PagedWriter, ReportsATargetThatDoesNotTakeItsBytesAndWritesNothingTwice) {
    CFill fill(254);
    MemorySink sink;
    CTraceWriterPaged writer(sink);
    const auto flushLog = [&writer] {
        writer.flush();
        return takeLog();
    };
    put(writer, fills(1024));
    sink.refuse = true;
    EXPECT_FALSE(writer.put(&fill));
    EXPECT_EQ(takeLog(),
              "CTraceWriterPaged::overflow_flush(): Failed to flush buffer to trace output.\n" + std::string(kRefused));
    EXPECT_EQ(flushLog(), "CTraceWriterPaged::flush(): Failed to flush buffer to trace output.\n");
    writer.clear();
    sink.most = 100'000;
    EXPECT_FALSE(writer.put(&fill));
    EXPECT_EQ(takeLog(), "CTraceWriterPaged::overflow_flush(): Buffer was only partially written to trace "
                         "output (100000/262144).\n" +
                             std::string(kRefused));
    EXPECT_EQ(writer.tellp(), kPageSize);
    sink.most = ~0U;
    EXPECT_TRUE(writer.put(&fill));
    sink.most = 10;
    EXPECT_EQ(flushLog(), "CTraceWriterPaged::flush(): Buffer was only partially written to trace output (10/256).\n");
    EXPECT_EQ(sink.operations.back(), "flush");
    sink.most = ~0U;
    sink.boast = 1;
    EXPECT_EQ(flushLog(), "CTraceWriterPaged::flush(): Wrote more to output than requested (257/256).\n");
    sink.boast = 0;
    EXPECT_EQ(flushLog(), "");
    EXPECT_TRUE(sink.bytes == fills(1025));
    sink.operations.clear();
    EXPECT_EQ(flushLog(), "");
    EXPECT_TRUE(sink.operations.empty()) << "nothing to do";
}

TEST(PagedWriter, TakesListsAndLeavesASinglePacketWithTheCaller) {
    MemorySink sink;
    CTraceWriterPaged writer(sink);
    const PacketPointer kept(new CFill(1));
    CPacket* one = kept.get();
    EXPECT_TRUE(writer.forward(one));
    EXPECT_EQ(one, kept.get());
    one = nullptr;
    EXPECT_FALSE(writer.forward(one));

    const PacketPointer huge(new CFunctionDefine(named(kPageSize)));
    std::list<CPacket*> packets{new CFill(2), nullptr, huge.get(), new CFill(3)};
    EXPECT_FALSE(writer.forward(packets));
    EXPECT_EQ(packets.size(), 2U) << "the written ones are gone";
    EXPECT_EQ(takeLog(), "CTraceWriterPaged::forward(): Unable to ashure the page condition. Exiting!\n");
    one = packets.front();
    EXPECT_FALSE(writer.forward(one));
    EXPECT_EQ(takeLog(), "CTraceWriterPaged::forward(): Unable to ensure the page condition. Exiting!\n");
    packets.pop_front();
    EXPECT_TRUE(writer.forward(packets));
    writer.flush();
    EXPECT_EQ(hex(sink.bytes), "7d 01 80 7d 02 80 80 7d 03 80 80 80") << "an oversize packet changes nothing";
}

TEST(PagedWriter, SeeksInsideThePageAndElsewhere) {
    MemorySink sink;
    CTraceWriterPaged writer(sink);
    EXPECT_TRUE(put(writer, fillOf(4) + fillOf(4) + fillOf(4)));
    writer.flush();
    EXPECT_TRUE(writer.seekp(8));
    CEndOfTrace end;
    writer.put(&end);
    writer.flush();
    EXPECT_EQ(hex(sink.bytes), "7d 02 80 80 7d 02 80 80 7c 00 80 80") << "the target's old bytes are written over";
    EXPECT_TRUE(writer.seekp(1000));
    EXPECT_EQ(writer.tellp(), 1000U);
    sink.fixed = true;
    EXPECT_FALSE(writer.seekp(5000));
}

TEST(PagedWriter, CopiesARawTraceUpToWhatIsCutOrFitsNoPage) {
    CFunctionDefine define = named(700), huge = named(kPageSize);
    const std::string whole = fillOf(102) + wireOf(define);
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        MemorySink sink;
        CTraceWriterPaged writer(sink);
        // The definition may end behind its payload and behind each full packet of its name.
        const bool good = size == 0 || size == 102 || size == 132 || size == 132 + 257 || size == 132 + 2 * 257 ||
                          size == whole.size();
        EXPECT_EQ(put(writer, whole.substr(0, size)), good) << size;
        EXPECT_EQ(takeLog(), good ? "" : kCut);
        writer.flush();
        // A byte behind a definition that could stand alone tells nothing about a name.
        const bool lone = size == 133 || size == 133 + 257 || size == 133 + 2 * 257;
        EXPECT_EQ(sink.bytes.size(), good ? size : lone ? size - 1 : size < 102 ? 0 : 102) << size;
    }
    MemorySource failing(whole), boasting(fillOf(102));
    failing.failEvery = 1;
    boasting.claimed = 5000; // ends before its size
    MemorySink sink;
    CTraceWriterPaged writer(sink);
    EXPECT_FALSE(put(writer, whole + wireOf(huge) + whole));
    EXPECT_EQ(takeLog(), "Error: Page could not be filled and written to target buffer!\n");
    EXPECT_EQ(sink.bytes.substr(0, whole.size()), whole);
    EXPECT_FALSE(writer.put(failing) || writer.put(boasting));
    EXPECT_EQ(takeLog(), "Error: Could not read from source buffer!\nError: Could not read from source buffer!\n");
    sink.refuse = true;
    EXPECT_FALSE(put(writer, fills(1028))) << "no endless loop on a target that takes nothing";
}

// A name may begin right behind the page's end, where only the source tells that it is there.
TEST(PagedWriter, CopiesADefinitionWithTheNameThatFollowsAtThePagesEnd) {
    for (const unsigned nameLength : {3U, 255U, 300U}) {
        CFunctionDefine define = named(nameLength);
        const std::string definition = wireOf(define);
        for (const unsigned before : {30U, 31U, 32U, 33U, 287U, 288U, 289U}) {
            WriterWithRoom target{before};
            ASSERT_TRUE(put(target.writer, definition + bytes("7c 00")));
            target.writer.flush();
            const std::size_t at = target.sink.bytes.find(definition);
            ASSERT_NE(at, std::string::npos) << nameLength << " " << before;
            EXPECT_EQ(at / kPageSize, (at + definition.size() - 1) / kPageSize) << nameLength << " " << before;
        }
    }
}

// The names that classes of a host derived from the writer may use.
TEST(PagedWriter, LetsDerivedClassesDoItsSteps) {
    struct Host : CTraceWriterPaged {
        using CTraceWriterPaged::CalcSizeOfString, CTraceWriterPaged::check_fill, CTraceWriterPaged::check_initial_pos;
        using CTraceWriterPaged::CTraceWriterPaged, CTraceWriterPaged::CalcSizeOfPacket;
        using CTraceWriterPaged::fill, CTraceWriterPaged::insertSync, CTraceWriterPaged::overflow_flush;
        using CTraceWriterPaged::process, CTraceWriterPaged::remain, CTraceWriterPaged::reset;
        unsigned sizeOf(std::string wire) {
            CPacketHeader header;
            header.read(wire.data(), static_cast<unsigned>(wire.size()));
            return CalcSizeOfPacket(header, wire.data(), static_cast<unsigned>(wire.size()));
        }
    };
    const std::string full = "7e ff" + std::string(510, '0');
    const std::pair<std::string, unsigned> sizes[] = {
        {"00 02 01 02 7e 01 61", 4},
        {"80 06 01 02 03000000 7e 01 61 7e 01 62", 8 + 3},
        {"80 06 01 02 03000000" + full + full + "7c 00", 8 + 2 * 257}, // breaks off
        {"80 06 01 02 03000000 7c 00", 8},
        {"78 09 0100000000000000 02 7e 01 61", 11 + 3},
        {"7e 01 61 7e 01 62", 3},
        // A definition that counts its text has no other.
        {"40 07 01 02 03000000 01 7e 01 61", 9 + 3},
        {"40 0a 01 02 03000000 01 7e 01 61 7e 01 62", 9 + 3},
        {"51 20 0100000000000000 02000000 03000000 0400000000000000 05000000 01 7e 01 61 7e 01 62", 31 + 3},
    };
    MemorySink sink;
    Host host(sink);
    for (const auto& [wire, size] : sizes)
        EXPECT_EQ(host.sizeOf(bytes(wire)), size) << wire;

    CSync sync(1, 2, 3, 4);
    CPacketHeader header = sync;
    bool broke = false;
    host.reset();
    EXPECT_TRUE(host.remain() == kPageSize && host.insertSync() && host.remain() == kPageSize) << "none is known";
    EXPECT_TRUE(host.process(&sync) && host.process(header) && host.insertSync());
    EXPECT_EQ(host.remain(), kPageSize - 26);
    EXPECT_TRUE(host.check_fill(kPageSize - 26, broke) && !broke && host.check_fill(kPageSize - 27, broke) && broke);
    EXPECT_TRUE(host.fill() && host.remain() == 0 && host.overflow_flush() && host.remain() == kPageSize);
    sink.at = 7;
    host.check_initial_pos();
    EXPECT_EQ(host.tellp(), 7U);
}

TEST(PagedWriter, GoesOnInAFileOpenedForAppend) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("trace.qvx");
    std::string before;
    CTraceEnabled enabled;
    CTraceDisabled disabled;
    for (unsigned frame = 0; frame < 3; ++frame) {
        CTraceFileWriterPaged writer(path, true);
        ASSERT_TRUE(writer.is_open());
        EXPECT_EQ(writer.tellp(), before.size());
        writer.put(&enabled);
        put(writer, fills(700 * frame));
        writer.put(&disabled);
        EXPECT_TRUE(writer.close() && writer.close());
        const std::string now = directory.content("trace.qvx");
        EXPECT_TRUE(now.starts_with(before));
        EXPECT_EQ(frameLength(now, before.size()), now.size() - before.size());
        expectPaged(now);
        before = now;
    }
    CTraceFileWriterPaged nowhere(directory.path("missing") + "/x.qvx");
    EXPECT_FALSE(nowhere.is_open() || nowhere.close());
    EXPECT_EQ(nowhere.error(), ENOENT);
    // Where a write fails, and where only the close does.
    for (const unsigned count : {5000U, 10U}) {
        if (!hasFullDevice())
            break;
        CTraceFileWriterPaged full("/dev/full");
        EXPECT_EQ(put(full, fills(count)), count == 10);
        EXPECT_FALSE(full.close());
        EXPECT_EQ(full.error(), ENOSPC);
        takeLog();
    }
}

} // namespace
} // namespace Quorvex::test

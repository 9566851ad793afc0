#include "quorvex/stream/TraceWriterPaged.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/stream/TraceFileWriter.h"
#include "quorvex/stream/TraceReaderPlain.h"
#include "quorvex/stream/TraceSourceBufferFile.h"
#include "tests/support/Bytes.h"
#include "tests/support/Doubles.h"
#include "tests/support/RandomPackets.h"
#include "tests/support/System.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

namespace Quorvex::test {
namespace {

constexpr char kRefused[] = "CTraceWriterPaged::put(): Unable to ashure the page condition. Exiting!\n";
constexpr char kCut[] = "Error: Could not process current message. Assuming packet is not in buffer completely!\n";

/// The packets of a trace as their bytes, read without any of our code: text is left as packets of its own.
std::vector<std::string> split(const std::string& trace) {
    std::vector<std::string> packets;
    for (std::size_t at = 0; at + 2 <= trace.size();) {
        const std::size_t size = 2 + static_cast<unsigned char>(trace[at + 1]);
        packets.push_back(trace.substr(at, size));
        at += size;
    }
    return packets;
}

std::string fillOf(unsigned size) {
    return std::string("\x7d") + static_cast<char>(size - 2) + std::string(size - 2, '\x80');
}

/// A writer whose page has that many bytes left.
struct WriterWithRoom {
    MemorySink sink;
    CTraceWriterPaged writer;
    explicit WriterWithRoom(unsigned room) : sink(std::string(kPageSize - room, 'x')), writer(sink) {}
    std::string page(unsigned number) const { return sink.bytes.substr(std::size_t{number} * kPageSize, kPageSize); }
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

TEST(PagedWriter, PutsAPacketOnThePageThatItFitsAndOpensANewOneElse) {
    CSync sync(1, 2, 3, 4); // 26 bytes
    for (const unsigned room : {26U, 28U, 29U, 1000U}) {
        WriterWithRoom fits(room);
        EXPECT_TRUE(fits.writer.put(&sync));
        fits.writer.flush();
        EXPECT_EQ(fits.sink.bytes.size(), kPageSize - room + 26) << room;
        EXPECT_EQ(fits.writer.out_size(), 0U);
    }
    for (const unsigned room : {2U, 3U, 25U, 27U}) {
        WriterWithRoom broken(room);
        EXPECT_TRUE(broken.writer.put(&sync));
        EXPECT_NE(broken.writer.out_size(), 0U);
        broken.writer.flush();
        EXPECT_EQ(hex(broken.page(0).substr(kPageSize - room)), hex(fillOf(room))) << room;
        EXPECT_EQ(hex(broken.page(1)), hex(wireOf(sync))) << "no sync is restated before the first one";
    }
    WriterWithRoom full(kPageSize); // a page that ends exactly
    CFill fill(254);
    for (unsigned i = 0; i < 1024; ++i)
        EXPECT_TRUE(full.writer.put(&fill));
    EXPECT_TRUE(full.sink.operations.empty()) << "handed over when the next packet comes";
    EXPECT_TRUE(full.writer.put(&sync));
    EXPECT_EQ(full.sink.operations.front(), "write 0 262144");

    WriterWithRoom stuck(1);
    EXPECT_FALSE(stuck.writer.put(&sync));
    EXPECT_EQ(takeLog(), std::string("CTraceWriterPaged::fill(): Not enough space to emit a packet!\n") + kRefused);
    EXPECT_FALSE(stuck.writer.put(static_cast<CPacket*>(nullptr)));
}

TEST(PagedWriter, PadsWithFillPacketsNoneOfWhichIsASingleByte) {
    CFunctionDefine large(CCoreContext(), 1, std::string(3000, 'n').c_str());
    for (unsigned room = 2; room < 1100; ++room) {
        WriterWithRoom target(room);
        ASSERT_TRUE(target.writer.put(&large)) << room;
        const std::string padding = target.page(0).substr(kPageSize - room);
        std::size_t sum = 0;
        for (const std::string& packet : split(padding)) {
            ASSERT_EQ(packet, fillOf(static_cast<unsigned>(packet.size()))) << room;
            sum += packet.size();
        }
        ASSERT_EQ(sum, room);
    }
    WriterWithRoom example(515);
    example.writer.put(&large);
    EXPECT_EQ(example.page(0).substr(kPageSize - 515), fillOf(256) + fillOf(256) + fillOf(3));
}

TEST(PagedWriter, RestatesTheLastContextsAtTheStartOfAPage) {
    const std::string core = bytes("7f 18 0100000000000000 02000000 03000000 0400000000000000");
    const std::string bus = bytes("72 10 0500000000000000 06000000 07000000");
    const std::string system = bytes("73 10 0800000000000000 09000000 0a000000");
    const std::string shortSync = bytes("7f 02 ee ee");
    MemorySink sink;
    CTraceWriterPaged writer(sink);
    MemorySource raw(system + bus + core + shortSync);
    EXPECT_TRUE(writer.put(raw));
    CFill fill(254);
    for (unsigned i = 0; i < 1024; ++i)
        writer.put(&fill);
    CSync sync(0x11, 0x12, 0x13, 0x14);
    writer.put(&sync);
    for (unsigned i = 0; i < 1024; ++i)
        writer.put(&fill);
    writer.flush();
    const std::string all = core + bus + system;
    EXPECT_EQ(hex(sink.bytes.substr(kPageSize, all.size())), hex(all));
    EXPECT_EQ(hex(sink.bytes.substr(2 * kPageSize, 26)), hex(wireOf(sync)));
    EXPECT_EQ(hex(sink.bytes.substr(2 * kPageSize + 26, 18)), hex(bus));
    expectPaged(sink.bytes);
}

TEST(PagedWriter, KeepsEveryPacketAndLetsAReaderBeginAtAnyPage) {
    RandomPackets random(5);
    MemorySink sink;
    CTraceWriterPaged writer(sink);
    std::string expected, plain;
    while (sink.bytes.size() < 4 * kPageSize) {
        const PacketPointer packet = random.packet();
        if (isPagedBusiness(packet->TraceCode()))
            continue;
        plain += wireOf(*packet);
        expected += wireOf(*packet);
        ASSERT_TRUE(writer.put(packet.get()));
        if (random.below(500) == 0)
            writer.flush();
    }
    CSync sync(1, 2, 3, 4);
    writer.put(&sync);
    writer.flush();
    expectPaged(sink.bytes);
    std::string kept;
    for (const std::string& packet : split(sink.bytes)) {
        if (!isPagedBusiness(tagTCode(static_cast<unsigned char>(packet[0]))))
            kept += packet;
    }
    EXPECT_TRUE(kept == expected);

    // No name may stand on another page than its packet: read from the second page on, no text comes first.
    for (std::size_t page = kPageSize; page < sink.bytes.size(); page += kPageSize)
        EXPECT_NE(sink.bytes[page], static_cast<char>(CharString));

    // The raw copy of the plain form gives the same pages.
    for (const unsigned portion : {~0U, 1000U}) {
        MemorySink copySink;
        CTraceWriterPaged copy(copySink);
        MemorySource raw(plain, portion);
        EXPECT_TRUE(copy.put(raw));
        copy.put(&sync);
        copy.flush();
        EXPECT_TRUE(copySink.bytes == sink.bytes) << portion;
    }
    EXPECT_EQ(takeLog(), "");
}

TEST(PagedWriter, PutsInTheFrameLengthWhereverTheEnabledPacketIs) {
    const struct {
        unsigned packets; ///< of 256 bytes between the two
        bool flushed;
        bool raw;
    } rows[] = {{0, false, false},   {3, true, false}, {1500, false, false},
                {2100, true, false}, {3, false, true}, {1500, false, true}};
    for (const auto& row : rows) {
        for (const std::string& start : {std::string(), std::string(5000, 'e'), std::string(kPageSize + 7, 'e')}) {
            MemorySink sink(start);
            CTraceWriterPaged writer(sink);
            for (unsigned frame = 0; frame < 2; ++frame) {
                const auto from = static_cast<std::size_t>(writer.tellp());
                CTraceEnabled enabled(123, Expanded, true);
                enabled.Version(0x0102);
                CFill fill(254);
                CTraceDisabled disabled;
                if (row.raw) {
                    std::string trace = wireOf(enabled);
                    for (unsigned i = 0; i < row.packets; ++i)
                        trace += wireOf(fill);
                    MemorySource source(trace + wireOf(disabled));
                    EXPECT_TRUE(writer.put(source));
                } else {
                    writer.put(&enabled);
                    EXPECT_EQ(enabled.FrameLen(), kUnknown64);
                    for (unsigned i = 0; i < row.packets; ++i) {
                        writer.put(&fill);
                        if (row.flushed && i % 2 == 0)
                            writer.flush();
                    }
                    writer.put(&disabled);
                }
                const auto to = static_cast<std::size_t>(writer.tellp());
                writer.flush();
                EXPECT_EQ(hex(sink.bytes.substr(from, 6)), "79 10 02 01 00 00") << "the version is kept";
                EXPECT_EQ(frameLength(sink.bytes, from), to - from) << row.packets << row.flushed << row.raw;
                EXPECT_EQ(hex(sink.bytes.substr(from + 14, 4)), "06 00 00 00");
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
    CTraceDisabled disabled;
    EXPECT_TRUE(writer.put(&disabled)) << "no frame is open";
    // A short form has no room for a length: nothing is put over the packets behind it.
    MemorySource raw(bytes("79 04 01 00 00 00 | 7d 10") + std::string(16, '\x80') + bytes("7a 00"));
    EXPECT_TRUE(writer.put(raw));
    writer.flush();
    EXPECT_EQ(hex(sink.bytes), hex(bytes("7a 00") + raw.bytes));

    // A target that cannot go back keeps the unknown length, and goes on.
    sink = MemorySink();
    CTraceWriterPaged forward(sink);
    CTraceEnabled enabled;
    forward.put(&enabled);
    forward.flush();
    sink.fixed = true;
    EXPECT_TRUE(forward.put(&disabled));
    forward.flush();
    EXPECT_EQ(sink.bytes.size(), 20U);
    EXPECT_EQ(frameLength(sink.bytes, 0), kUnknown64);
    // Written over: its length must not be put in later.
    sink = MemorySink();
    CTraceWriterPaged rewound(sink);
    rewound.put(&enabled);
    EXPECT_TRUE(rewound.seekp(0));
    CFill fill(30);
    rewound.put(&fill);
    rewound.put(&disabled);
    rewound.flush();
    EXPECT_EQ(hex(sink.bytes), hex(wireOf(fill)) + " 7a 00");
    takeLog();
}

TEST(PagedWriter, ReportsATargetThatDoesNotTakeItsBytesAndWritesNothingTwice) {
    CFill fill(254);
    const auto fullPage = [&fill](CTraceWriterPaged& writer) {
        for (unsigned i = 0; i < 1024; ++i)
            writer.put(&fill);
    };
    std::string page;
    while (page.size() < kPageSize)
        page += wireOf(fill);
    {
        MemorySink sink;
        CTraceWriterPaged writer(sink);
        fullPage(writer);
        sink.refuse = true;
        EXPECT_FALSE(writer.put(&fill));
        EXPECT_EQ(takeLog(),
                  std::string("CTraceWriterPaged::overflow_flush(): Failed to flush buffer to trace output.\n") +
                      kRefused);
        writer.flush();
        EXPECT_EQ(takeLog(), "CTraceWriterPaged::flush(): Failed to flush buffer to trace output.\n");
        sink.refuse = false;
        sink.most = 100'000;
        EXPECT_FALSE(writer.put(&fill));
        EXPECT_EQ(takeLog(),
                  std::string("CTraceWriterPaged::overflow_flush(): Buffer was only partially written to trace "
                              "output (100000/262144).\n") +
                      kRefused);
        EXPECT_EQ(writer.tellp(), kPageSize);
        sink.most = ~0U;
        EXPECT_TRUE(writer.put(&fill));
        writer.flush();
        EXPECT_TRUE(sink.bytes == page + wireOf(fill));
    }
    {
        MemorySink sink;
        CTraceWriterPaged writer(sink);
        writer.put(&fill);
        sink.most = 10;
        writer.flush();
        EXPECT_EQ(takeLog(),
                  "CTraceWriterPaged::flush(): Buffer was only partially written to trace output (10/256).\n");
        EXPECT_EQ(sink.operations.back(), "flush");
        sink.most = ~0U;
        sink.boast = 1;
        writer.flush();
        EXPECT_EQ(takeLog(), "CTraceWriterPaged::flush(): Wrote more to output than requested (257/256).\n");
        sink.boast = 0;
        writer.flush();
        const std::size_t operations = sink.operations.size();
        writer.flush();
        EXPECT_EQ(sink.operations.size(), operations) << "nothing to do";
        EXPECT_TRUE(sink.bytes == wireOf(fill));
    }
}

TEST(PagedWriter, TakesListsAndLeavesASinglePacketWithTheCaller) {
    MemorySink sink;
    CTraceWriterPaged writer(sink);
    CPacket* one = new CFill(1);
    EXPECT_TRUE(writer.forward(one));
    ASSERT_NE(one, nullptr);
    CPacketFactory::releaseCPacket(&one);
    EXPECT_FALSE(writer.forward(one));

    auto* huge = new CFunctionDefine(CCoreContext(), 1, std::string(kPageSize, 'x').c_str());
    std::list<CPacket*> packets{new CFill(2), nullptr, huge, new CFill(3)};
    EXPECT_FALSE(writer.forward(packets));
    EXPECT_EQ(packets.size(), 2U) << "the written ones are gone";
    EXPECT_EQ(takeLog(), "CTraceWriterPaged::forward(): Unable to ashure the page condition. Exiting!\n");
    packets.pop_front();
    CPacket* refused = huge;
    EXPECT_FALSE(writer.forward(refused));
    EXPECT_EQ(takeLog(), "CTraceWriterPaged::forward(): Unable to ensure the page condition. Exiting!\n");
    CPacketFactory::releaseCPacket(&refused);
    EXPECT_TRUE(writer.forward(packets));
    writer.flush();
    EXPECT_EQ(hex(sink.bytes), "7d 01 80 7d 02 80 80 7d 03 80 80 80") << "an oversize packet changes nothing";
}

TEST(PagedWriter, SeeksInsideThePageAndElsewhere) {
    MemorySink sink;
    CTraceWriterPaged writer(sink);
    CFill fill(2);
    for (unsigned i = 0; i < 5; ++i)
        writer.put(&fill);
    writer.flush();
    EXPECT_TRUE(writer.seekp(8));
    CEndOfTrace end;
    writer.put(&end);
    writer.flush();
    EXPECT_EQ(hex(sink.bytes.substr(4, 8)), "7d 02 80 80 7c 00 80 80") << "the target's old bytes are written over";
    EXPECT_TRUE(writer.seekp(1000));
    EXPECT_EQ(writer.tellp(), 1000U);
    sink.fixed = true;
    EXPECT_FALSE(writer.seekp(5000));
}

TEST(PagedWriter, CopiesARawTraceUpToWhatIsCutOrFitsNoPage) {
    CFill fill(100);
    CFunctionDefine define(CCoreContext(), 1, std::string(700, 'n').c_str());
    const std::string whole = wireOf(fill) + wireOf(define);
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        MemorySink sink;
        CTraceWriterPaged writer(sink);
        MemorySource raw(whole.substr(0, size));
        // The definition may end behind its payload and behind each full packet of its name.
        const bool good = size == 0 || size == 102 || size == 132 || size == 132 + 257 || size == 132 + 2 * 257 ||
                          size == whole.size();
        EXPECT_EQ(writer.put(raw), good) << size;
        EXPECT_EQ(takeLog(), good ? "" : kCut);
        writer.flush();
        // A byte behind a definition that could stand alone tells nothing about a name.
        const bool lone = size == 133 || size == 133 + 257 || size == 133 + 2 * 257;
        EXPECT_EQ(sink.bytes.size(), good ? size : lone ? size - 1 : size < 102 ? 0 : 102) << size;
    }
    MemorySink sink;
    CTraceWriterPaged writer(sink);
    CFunctionDefine huge(CCoreContext(), 1, std::string(kPageSize, 'n').c_str());
    MemorySource tooLarge(whole + wireOf(huge) + whole);
    EXPECT_FALSE(writer.put(tooLarge));
    EXPECT_EQ(takeLog(), "Error: Page could not be filled and written to target buffer!\n");
    EXPECT_EQ(sink.bytes.substr(0, whole.size()), whole);
    MemorySource failing(whole);
    failing.failAt = 0;
    EXPECT_FALSE(writer.put(failing));
    EXPECT_EQ(takeLog(), "Error: Could not read from source buffer!\n");
    MemorySource boasting(wireOf(fill));
    boasting.claimed = 5000;
    EXPECT_FALSE(writer.put(boasting)) << "ends before its size";
    takeLog();
    MemorySink refusing;
    refusing.refuse = true;
    CTraceWriterPaged stuck(refusing);
    std::string pages;
    while (pages.size() < kPageSize + 1000)
        pages += wireOf(fill);
    MemorySource two(pages);
    EXPECT_FALSE(stuck.put(two)) << "no endless loop on a target that takes nothing";
    takeLog();
}

// A name may begin right behind the page's end, where only the source tells that it is there.
TEST(PagedWriter, CopiesADefinitionWithTheNameThatFollowsAtThePagesEnd) {
    for (const unsigned nameLength : {3U, 255U, 300U}) {
        CFunctionDefine define(CCoreContext(), 1, std::string(nameLength, 'n').c_str());
        const std::string definition = wireOf(define);
        for (const unsigned before : {30U, 31U, 32U, 33U, 287U, 288U, 289U}) {
            std::string start;
            for (std::size_t left = kPageSize - before; left > 0; left = kPageSize - before - start.size())
                start += fillOf(static_cast<unsigned>(left > 600 ? 257 : left > 257 ? left / 2 : left));
            MemorySink sink;
            CTraceWriterPaged writer(sink);
            MemorySource raw(start + definition + bytes("7c 00"));
            ASSERT_TRUE(writer.put(raw));
            writer.flush();
            const std::size_t at = sink.bytes.find(definition);
            ASSERT_NE(at, std::string::npos) << nameLength << " " << before;
            EXPECT_EQ(at / kPageSize, (at + definition.size() - 1) / kPageSize) << nameLength << " " << before;
            expectPaged(sink.bytes);
        }
    }
}

TEST(PagedWriter, GoesOnInAFileOpenedForAppend) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("trace.qvx");
    std::string before;
    CFill fill(254);
    CTraceDisabled disabled;
    for (unsigned frame = 0; frame < 3; ++frame) {
        {
            CTraceFileWriterPaged writer(path.c_str(), true);
            ASSERT_TRUE(writer.is_open());
            EXPECT_EQ(writer.tellp(), before.size());
            CTraceEnabled enabled;
            writer.put(&enabled);
            for (unsigned i = 0; i < 700 * frame; ++i)
                writer.put(&fill);
            writer.put(&disabled);
            EXPECT_TRUE(writer.close());
            EXPECT_TRUE(writer.close());
        }
        const std::string now = directory.content("trace.qvx");
        EXPECT_TRUE(now.substr(0, before.size()) == before);
        EXPECT_EQ(frameLength(now, before.size()), now.size() - before.size());
        expectPaged(now);
        before = now;
    }
    {
        const CTraceFileWriterPlain anew(path.c_str());
        EXPECT_EQ(directory.content("trace.qvx"), "");
    }
    CTraceFileWriterPaged nowhere((directory.path("missing") + "/x.qvx").c_str());
    EXPECT_FALSE(nowhere.is_open());
    EXPECT_EQ(nowhere.error(), ENOENT);
    EXPECT_FALSE(nowhere.put(&fill) && nowhere.close());
    takeLog();
}

TEST(PagedWriter, ReportsAFullDiskWhenClosed) {
    if (!hasFullDevice())
        GTEST_SKIP() << "no /dev/full here";
    CTraceFileWriterPaged writer("/dev/full");
    CFill fill(254);
    for (unsigned i = 0; i < 10; ++i)
        EXPECT_TRUE(writer.put(&fill));
    EXPECT_FALSE(writer.close());
    takeLog();
}

} // namespace
} // namespace Quorvex::test

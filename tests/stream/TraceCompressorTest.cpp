#include "quorvex/stream/TraceCompressor.h"

#include "quorvex/packets/ContextStub.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/stream/TraceDecompressor.h"
#include "quorvex/stream/TraceQueue.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "quorvex/stream/TraceWriterPlain.h"
#include "tests/support/Doubles.h"
#include "tests/support/Effort.h"
#include "tests/support/ShortMemory.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace Quorvex::test {
namespace {

/// The bytes that come out of the compressor for packets given as bytes.
std::string compressed(const std::string& wire) {
    MemorySource source(wire);
    CTraceReaderPlain reader(source);
    CTraceQueue queue;
    CTraceCompressor compressor(queue);
    while (CPacket* packet = reader.get())
        EXPECT_TRUE(compressor.forward(packet) && packet == nullptr);
    return join(readAll(queue, true));
}

std::string decompressed(const std::string& wire, bool drop, bool lists = false) {
    MemorySource source(wire);
    CTraceReaderPlain reader(source);
    CTraceDecompressor decompressor(reader, drop, drop);
    return join(readAll(decompressor, lists));
}

// Tick 0x1122, core 1, thread 2, address 0x3344, and another in its reach.
const std::string kCore = "2211000000000000 01000000 02000000 4433000000000000";
const std::string kNear = "2511000000000000 01000000 02000000 4833000000000000";
const std::string kUnknown = "ffffffffffffffff 00000000 00000000 ffffffffffffffff";
const std::string kFar = "2512000000000000 01000000 02000000 4833000000000000";

TEST(Compressor, PutsASyncPacketBeforeWhatCannotBeToldRelatively) {
    const std::pair<std::string, std::string> cases[] = {
        {"10 18" + kCore, "7f 18" + kCore + "00 02 00 00"},
        // All are relative to the sync packet, not to each other.
        {"10 18" + kCore + "11 18" + kNear + "11 18" + kNear,
         "7f 18" + kCore + "00 02 00 00  01 02 07 0c  01 02 07 0c"},
        {"10 18" + kCore + "10 18" + kFar, "7f 18" + kCore + "00 02 00 00 7f 18" + kFar + "00 02 00 00"},
        // A sync packet that is there already serves as well.
        {"7f 18" + kCore + "10 18" + kNear, "7f 18" + kCore + "00 02 07 0c"},
        // An unknown context, too: what stands before the trace may know one.
        {"10 18" + kUnknown + "11 18" + kUnknown, "7f 18" + kUnknown + "00 02 00 00 01 02 00 00"},
        {"d3 14 ffffffffffffffff 00000000 00000000 07000000",
         "72 10 ffffffffffffffff 00000000 00000000 c3 05 00 07000000"},
        {"d5 10 ffffffffffffffff 00000000 00000000", "73 10 ffffffffffffffff 00000000 00000000 c5 01 00"},
        {"d5 11 2211000000000000 05000000 06000000 aa", "73 10 2211000000000000 05000000 06000000 c5 02 00 aa"},
        {"d3 14 2211000000000000 01000000 09000000 07000000",
         "72 10 2211000000000000 01000000 09000000 c3 05 00 07000000"},
        // The sorts of context do not mix.
        {"7f 18" + kCore + "72 10 2211000000000000 01000000 09000000 10 18" + kNear +
             "d0 11 2311000000000000 01000000 09000000 01",
         "7f 18" + kCore + "72 10 2211000000000000 01000000 09000000 00 02 07 0c c0 02 01 01"},
        // Everything else passes.
        {"7a 00 00 02 01 02 76 1c" + kCore + "05000000 7b 18" + kCore + "7d 02 80 80 7c 00",
         "7a 00 00 02 01 02 76 1c" + kCore + "05000000 7b 18" + kCore + "7d 02 80 80 7c 00"},
    };
    for (const auto& [absolute, relative] : cases)
        EXPECT_EQ(hex(compressed(bytes(absolute))), hex(bytes(relative))) << absolute;
    EXPECT_EQ(takeLog(), "");
}

TEST(Decompressor, GivesAbsolutePacketsAndDropsWhatItIsTold) {
    const std::string sync = "7f 18" + kCore;
    const std::string busSync = "72 10 2211000000000000 01000000 09000000";
    const std::string systemSync = "73 10 2211000000000000 05000000 06000000";
    const std::string relative = "00 02 01 02 7d 01 80" + sync + "00 02 07 0c" + busSync + "c3 05 02 07000000" +
                                 systemSync + "c5 02 04 aa 7c 00";
    const std::string first = "10 18 feffffffffffffff 00000000 00000000 fdffffffffffffff";
    const std::string next = "10 18" + kNear;
    const std::string bus = "d3 14 2011000000000000 01000000 09000000 07000000";
    const std::string system = "d5 11 2611000000000000 05000000 06000000 aa 7c 00";
    const std::string kept = first + "7d 01 80" + sync + next + busSync + bus + systemSync + system;
    const std::string dropped = first + next + bus + system;
    for (const bool lists : {false, true}) {
        EXPECT_EQ(hex(decompressed(bytes(relative), false, lists)), hex(bytes(kept)));
        EXPECT_EQ(hex(decompressed(bytes(relative), true, lists)), hex(bytes(dropped)));
    }
    MemorySource source(bytes(relative));
    CTraceReaderPlain reader(source);
    CTraceDecompressor decompressor(reader, false, false);
    EXPECT_EQ(decompressor.peek(), RelExecInsn);
    readAll(decompressor);
    EXPECT_EQ(decompressor.position(), decompressor.size());
    EXPECT_TRUE(decompressor.eot() && !decompressor.good());
    decompressor.clear();
    EXPECT_TRUE(decompressor.good());
    EXPECT_EQ(takeLog(), "");
}

/// Random absolute packets of all kinds whose contexts wander about, as bytes.
std::string wanderingTrace(unsigned packets, unsigned seed) {
    RandomPackets random(seed);
    CCoreContext core(0x1000, 1, 2, 0x8000);
    CBusContext bus(0x1000, 1, 3);
    CSystemContext system(0x1000, 4, 5);
    std::string trace;
    while (packets > 0) {
        std::string wire = random.wire();
        const tagTCode code = codeOf(wire);
        const ContextSort sort = sortOfAbsolute(code);
        core.Tick(core.Tick() + random.below(20));
        core.CurrAddr(random.below(20) == 0 ? random.below(1U << 20) : core.CurrAddr() + 4);
        core.SWCtx(random.below(100) == 0 ? core.SWCtx() + 1 : core.SWCtx());
        bus.Tick(core.Tick());
        system.Tick(core.Tick());
        if (sort == ContextSort::Core)
            core.write(wire.data() + 2, CCoreContext::Len());
        else if (sort == ContextSort::Bus)
            bus.write(wire.data() + 2, CBusContext::Len());
        else if (sort == ContextSort::System)
            system.write(wire.data() + 2, CSystemContext::Len());
        // No relative ones, none that pages put in or change, and no texts that would join the packet before them.
        else if (sortOfRelative(code) != ContextSort::None || isPagedBusiness(code) || code == CharString)
            continue;
        trace += wire;
        --packets;
    }
    return trace;
}

TEST(Compressor, IsUndoneByTheDecompressor) {
    const std::string trace = wanderingTrace(effort(100'000, 20'000), 4);
    const std::string relative = compressed(trace);
    EXPECT_LT(relative.size(), trace.size());
    EXPECT_TRUE(decompressed(relative, true) == trace);
    EXPECT_TRUE(decompressed(relative, true, true) == trace);

    // The same through pages, which restate contexts and pad.
    MemorySink sink;
    CTraceWriterPaged paged(sink);
    CTraceCompressor compressor(paged);
    MemorySource source(trace);
    CTraceReaderPlain reader(source);
    std::list<CPacket*> packets;
    while (reader.get(packets))
        ASSERT_TRUE(compressor.forward(packets) && packets.empty());
    compressor.flush();
    EXPECT_EQ(compressor.tellp(), sink.bytes.size());
    EXPECT_TRUE(decompressed(sink.bytes, true) == trace);
}

/// A queue that takes no lists once it has been refused something.
struct Refusing : CTraceQueue {
    bool forward(std::list<CPacket*>& packets) override { return good() && CTraceQueue::forward(packets); }
};

TEST(Compressor, GivesBackWhatItCannotConvert) {
    Refusing queue;
    CTraceCompressor compressor(queue);
    const auto first = [] { return new CExecInsn(CCoreContext(0x1000, 1, 2, 0x8000)); };
    // Packets that are not what their code says.
    const std::pair<tagTCode, std::string> liars[] = {
        {ExecInsn, "CTraceCompressor::compress(): Dynamic cast to CCoreContext failed!"},
        {BusData, "CTraceCompressor::compress(): Dynamic cast to CBusContext failed!"},
        {SystemData, "CTraceCompressor::compress(): Dynamic cast to CSystemContext failed!"},
        {Sync, "CTraceCompressor::compress(): Dynamic cast from CSync to CCoreContext failed!"},
        {BusSync, "CTraceCompressor::compress(): Dynamic cast from CBusSync to CBusContext failed!"},
        {SystemSync, "CTraceCompressor::compress(): Dynamic cast from CSystemSync to CSystemContext failed!"},
    };
    for (const auto& [code, text] : liars) {
        CPacket* liar = new CPacket(code, 0);
        const std::list<CPacket*> given{first(), nullptr, liar};
        std::list<CPacket*> packets(given);
        EXPECT_FALSE(compressor.forward(packets));
        EXPECT_EQ(packets, given) << "the very same packets";
        EXPECT_FALSE(compressor.forward(liar) || compressor.put(liar));
        EXPECT_EQ(liar, given.back());
        EXPECT_EQ(queue.out_size(), 0U);
        EXPECT_EQ(takeLog(), text + "\n" + text + "\n");
        CPacketFactory::release(packets);
    }
    CPacket* none = nullptr;
    EXPECT_FALSE(compressor.put(nullptr) || compressor.forward(none));

    // What was given back has left no trace: the sync packet is still due.
    std::list<CPacket*> packets{first()};
    EXPECT_TRUE(compressor.forward(packets));
    const PacketPointer kept(first());
    EXPECT_TRUE(compressor.put(kept.get())) << "a copy is queued";
    CEndOfTrace end;
    EXPECT_TRUE(compressor.put(&end));
    EXPECT_EQ(queue.out_size(), 4U);
    EXPECT_EQ(compressor.tellp(), 4U) << "of a sink without a position, its size";

    // The sink behind loses packets, maybe the sync packet: the next one gets its own.
    EXPECT_TRUE(compressor.good());
    queue.put(PacketPointer(new CPacket(tagTCode(0x06), 0)).get());
    EXPECT_FALSE(compressor.good());
    CPacket* lost = first();
    EXPECT_FALSE(compressor.forward(lost));
    EXPECT_EQ(lost, nullptr);
    EXPECT_EQ(takeLog(), "CTraceCompressor: Error! Could not forward list content.\n");
    compressor.clear();
    CPacket* next = first();
    EXPECT_TRUE(compressor.forward(next));
    std::vector<tagTCode> codes;
    while (const PacketPointer packet{queue.get()})
        codes.push_back(packet->TraceCode());
    EXPECT_EQ(codes, (std::vector<tagTCode>{Sync, RelExecInsn, RelExecInsn, EndOfTrace, Sync, RelExecInsn}));
}

/// Takes lists, for which it needs no memory, or throws.
struct Taking : CTraceSink {
    bool throws = false;
    std::list<CPacket*> packets;

    ~Taking() { CPacketFactory::release(packets); }
    bool good() override { return true; }
    void clear() override {}
    bool put(CPacket*) override { return false; }
    bool forward(CPacket*&) override { return false; }
    bool forward(std::list<CPacket*>& more) override {
        if (throws)
            throw std::runtime_error("of the host");
        packets.splice(packets.end(), more);
        return true;
    }
    std::uint64_t out_size() override { return packets.size(); }
    void flush() override {}
};

TEST(Compressor, LeavesEachPacketOneOwnerWhateverIsThrown) {
    const auto first = [] { return new CExecInsn(CCoreContext(0x1000, 1, 2, 0x8000)); };
    const auto codesIn = [](const Taking& sink) {
        std::vector<tagTCode> codes;
        for (const CPacket* packet : sink.packets)
            codes.push_back(packet->TraceCode());
        return codes;
    };
    // Memory is short for the n-th of what is asked for: the packet is given back and can be tried again.
    unsigned number = 0;
    for (bool goesOn = true; goesOn; ++number) {
        goesOn = false;
        for (const bool inList : {false, true}) {
            // A thread of its own has no memory kept from what was before.
            std::thread([&] {
                delete first();
                Taking sink;
                CTraceCompressor compressor(sink);
                CPacket* const packet = first();
                CPacket* one = packet;
                std::list<CPacket*> list{packet};
                const auto forward = [&] { return inList ? compressor.forward(list) : compressor.forward(one); };
                bool isTaken = false, came = false;
                {
                    const ShortMemory shortage(number);
                    try {
                        isTaken = forward();
                    } catch (const std::bad_alloc&) {
                    }
                    came = shortage.came();
                }
                goesOn = goesOn || came;
                EXPECT_EQ(isTaken, !came) << number;
                EXPECT_TRUE(isTaken || (inList ? list == std::list{packet} : one == packet)) << number;
                EXPECT_TRUE(isTaken || forward());
                EXPECT_EQ(codesIn(sink), (std::vector<tagTCode>{Sync, RelExecInsn})) << number;
            }).join();
        }
    }
    EXPECT_GT(number, 3U);
    takeLog();

    // What the sink behind throws passes; the packets are lost.
    Taking sink;
    sink.throws = true;
    CTraceCompressor compressor(sink);
    CPacket* one = first();
    std::list<CPacket*> list{first(), first()};
    const PacketPointer kept(first());
    EXPECT_EQ(thrownBy([&] { compressor.forward(one); }), "of the host");
    EXPECT_EQ(thrownBy([&] { compressor.forward(list); }), "of the host");
    EXPECT_EQ(thrownBy([&] { compressor.put(kept.get()); }), "of the host");
    EXPECT_TRUE(one == nullptr && list.empty());
    takeLog();
    sink.throws = false;
    EXPECT_TRUE(compressor.put(kept.get()));
    EXPECT_EQ(codesIn(sink), (std::vector<tagTCode>{Sync, RelExecInsn})) << "as behind another trace";
}

TEST(Decompressor, ConvertsWhatHasComeBeforeItsSourceThrows) {
    struct Source : CTraceQueue {
        bool throws = true;
        bool get(std::list<CPacket*>& packets) override {
            const bool got = CTraceQueue::get(packets);
            return std::exchange(throws, false) ? throw std::runtime_error("of the host") : got;
        }
        CPacket* get() override { return CTraceQueue::get(); }
    };
    for (const bool inList : {false, true}) {
        Source source;
        std::list<CPacket*> packets{new CSync(CCoreContext(0x1000, 1, 2, 0x8000)), new CRelExecInsn(1, 2)};
        source.forward(packets);
        CTraceDecompressor decompressor(source, true, true);
        EXPECT_EQ(thrownBy([&] { decompressor.get(packets); }), "of the host");
        EXPECT_TRUE(packets.empty());
        EXPECT_EQ(hex(join(readAll(decompressor, inList))), hex(bytes("10 18 0110000000000000 01000000 02000000 "
                                                                      "0280000000000000")));
    }
}

TEST(Decompressor, ReleasesABatchThatItCannotConvert) {
    const std::pair<tagTCode, std::string> liars[] = {
        {RelExecInsn, "CTraceDecompressor::decompress(): Could not create decompressed packet!"},
        {Sync, "CTraceDecompressor::decompress(): Could not cast Sync packet to CCoreContext."},
        {BusSync, "CTraceDecompressor::decompress(): Could not cast BusSync packet to CBusContext."},
        {SystemSync, "CTraceDecompressor::decompress(): Could not cast SystemSync packet to CSystemContext."},
    };
    for (const auto& [code, text] : liars) {
        for (const bool list : {false, true}) {
            CTraceQueue queue;
            CTraceDecompressor decompressor(queue, true, true);
            std::list<CPacket*> packets{new CRelExecInsn(1, 2), new CFill(3), new CPacket(code, 0), new CEndOfTrace};
            queue.forward(packets);
            if (list) {
                EXPECT_FALSE(decompressor.get(packets));
                EXPECT_TRUE(packets.empty());
                EXPECT_EQ(queue.size(), 0U);
            } else {
                EXPECT_EQ(PacketPointer(decompressor.get())->TraceCode(), ExecInsn);
                EXPECT_EQ(decompressor.get(), nullptr);
                EXPECT_EQ(PacketPointer(decompressor.get())->TraceCode(), EndOfTrace) << "and goes on behind it";
            }
            EXPECT_EQ(takeLog(), text + "\n");
        }
    }
}

} // namespace
} // namespace Quorvex::test

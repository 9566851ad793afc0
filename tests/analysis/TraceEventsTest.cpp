#include "quorvex/analysis/TraceEvents.h"

#include "quorvex/analysis/Sha256.h"
#include "quorvex/analysis/TraceDigest.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/export/PacketPlain.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/TraceCompressor.h"
#include "quorvex/stream/TraceDecompressor.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "quorvex/stream/TraceWriterPlain.h"
#include "tests/support/Doubles.h"
#include "tests/support/Effort.h"
#include "tests/support/Samples.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace Quorvex::test {
namespace {

struct Event {
    std::string bytes;
    std::uint64_t offset;
    std::uint64_t end;
};

std::vector<Event> eventsOf(const std::string& trace) {
    std::istringstream stream(trace);
    TraceFile file("trace", &stream);
    TraceEvents events(file);
    std::vector<Event> all;
    while (events.next())
        all.push_back({std::string(events.bytes()), events.packet().offset(), events.packet().end()});
    return all;
}

std::string eventBytes(const std::string& trace) {
    std::string bytes;
    for (const Event& event : eventsOf(trace))
        bytes += event.bytes;
    return bytes;
}

std::string digest(const std::string& trace) {
    std::istringstream stream(trace);
    TraceFile file("trace", &stream);
    return digestOf(file);
}

/// Random packets of all kinds, absolute and relative, with sync packets among them. A text of its own behind a packet
/// without its text is kept from it.
std::string randomTrace(RandomPackets& random, std::size_t size) {
    std::string trace;
    bool isNameless = false;
    while (trace.size() < size) {
        const PacketPointer packet = random.packet();
        const std::string wire = wireOf(*packet);
        if (isNameless && codeOf(wire) == CharString)
            trace += bytes("7e 00");
        isNameless = isFollowedByText(codeOf(wire)) && wire.size() == 2 + std::size_t{packet->Length()};
        trace += wire;
    }
    return trace;
}

enum class Form { AsItIs, Absolute, Relative };

std::string written(const std::string& trace, Form form, bool isPaged, bool dropSync = false) {
    MemorySource source(trace);
    CTraceReaderPlain reader(source);
    CTraceDecompressor absolute(reader, dropSync, dropSync);
    CTraceSource& packets = form == Form::AsItIs ? static_cast<CTraceSource&>(reader) : absolute;
    MemorySink sink;
    {
        CTraceWriterPlain plain(sink);
        CTraceWriterPaged paged(sink);
        CTraceSinkEx& writer = isPaged ? static_cast<CTraceSinkEx&>(paged) : plain;
        CTraceCompressor compressor(writer);
        CTraceSink& to = form == Form::Relative ? static_cast<CTraceSink&>(compressor) : writer;
        while (CPacket* packet = packets.get()) {
            EXPECT_TRUE(to.forward(packet));
            delete packet; // which some leave with the caller
        }
        writer.flush();
    }
    return sink.bytes;
}

std::string tableOf(const std::string& trace) {
    MemorySource source(trace);
    CTraceReaderPlain reader(source);
    std::ostringstream out;
    CPacketPlain table(out, false, 0);
    table.SetParsable(true);
    table.writeTableHeader(false);
    while (const PacketPointer packet{reader.get()})
        EXPECT_TRUE(table.writeCPacket(*packet));
    return out.str();
}

TEST(TraceEvents, AreTheSameInAllFormsOfATrace) {
    RandomPackets random(20261122);
    for (unsigned round = 0; round < effort(8, 1); ++round) {
        const std::string trace = randomTrace(random, effort(700'000, 300'000)); // more than a page
        const std::string expected = digest(trace);
        for (const Form form : {Form::AsItIs, Form::Absolute, Form::Relative}) {
            for (const bool isPaged : {false, true}) {
                const std::string other = written(trace, form, isPaged);
                EXPECT_EQ(digest(other), expected) << int(form) << isPaged;
                EXPECT_EQ(digest(written(other, Form::Relative, !isPaged)), expected) << "once more";
            }
        }
        EXPECT_EQ(digest(tableOf(trace)), expected);
        EXPECT_EQ(digest(eventBytes(trace)), expected) << "of a trace that is its events";
    }
}

// By other means: the decompressor leaves out sync packets and padding, the rest is put right here.
TEST(TraceEvents, AreThePacketsOfThePlainAbsoluteTrace) {
    RandomPackets random(7);
    const std::string trace = randomTrace(random, 500'000);
    MemorySource source(trace);
    CTraceReaderPlain reader(source);
    CTraceDecompressor absolute(reader, true, true);
    std::vector<std::string> expected;
    bool isNameless = false;
    while (const PacketPointer packet{absolute.get()}) {
        const bool was = isNameless;
        if (auto* enabled = packetAs<CTraceEnabled>(*packet)) {
            CTraceEnabled whole(kUnknown64, enabled->FrameConfig());
            whole.Version(enabled->Version());
            expected.push_back(wireOf(whole));
            isNameless = false;
            continue;
        }
        std::string wire = wireOf(*packet);
        isNameless = isFollowedByText(codeOf(wire)) && wire.size() == 2 + std::size_t{packet->Length()};
        if (was && wire == bytes("7e 00"))
            continue;
        expected.push_back(wire + (isNameless ? bytes("7e 00") : ""));
    }
    const std::vector<Event> events = eventsOf(trace);
    ASSERT_EQ(events.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
        ASSERT_EQ(hex(events[i].bytes), hex(expected[i])) << i;
}

TEST(TraceEvents, LeaveOutWhatOnlyTheFormNeeds) {
    const std::string define =
        "90 1c | 0a 00 00 00 00 00 00 00 | 01 00 00 00 | 02 00 00 00 | ff ff ff ff ff ff ff ff | "
        "05 00 00 00 | ";
    const std::string sync = "7f 18 | 00 00 00 00 00 00 00 00 | 01 00 00 00 | 02 00 00 00 | ff ff ff ff ff ff ff ff | ";
    const std::string relDefine = sync + "80 06 0a 00 05 00 00 00 | ";
    const std::string enabled = "79 10 00 00 00 00 | ff ff ff ff ff ff ff ff | 00 00 00 00 | ";
    const std::string full = "7e ff " + hex(std::string(255, 'x')) + " ";
    struct Case {
        std::string trace;
        std::string events;
    };
    const Case cases[] = {
        {define + "7e 01 66", define + "7e 01 66"},
        {relDefine + "7e 01 66", define + "7e 01 66"},
        {define, define + "7e 00"},
        {relDefine, define + "7e 00"},
        // A text of its own.
        {define + "7e 00 7e 01 66", define + "7e 00 7e 01 66"},
        {define + "7d 00 7e 01 66", define + "7e 00 7e 01 66"},
        {define + sync + "7e 01 66", define + "7e 00 7e 01 66"},
        {define + "7d 01 80" + sync + "7e 00 7e 01 66", define + "7e 00 7e 01 66"},
        {define + "7e 00 7e 00", define + "7e 00 7e 00"},
        {define + "7e 01 66 7e 00", define + "7e 01 66 7e 00"},
        {"7e 00 7e 00", "7e 00 7e 00"},
        // A text that breaks off, or has no end.
        {define + full, define + full + "7e 00"},
        {define + full + "7d 00 7e 01 66", define + full + "7e 00 7e 01 66"},
        {define + full + "7e 01 66", define + full + "7e 01 66"},
        // Frames.
        {enabled + "7a 00", enabled + "7a 00"},
        {"79 10 00 00 00 00 | 14 00 00 00 00 00 00 00 | 00 00 00 00 7a 00", enabled + "7a 00"},
        {"79 0c 00 00 00 00 | 14 00 00 00 00 00 00 00 7a 00", enabled + "7a 00"},
        {"79 04 00 00 00 00 7a 00", enabled + "7a 00"},
        {"79 00 7a 00 7c 00", enabled + "7a 00 7c 00"},
        // Bytes behind fields are damage.
        {"7a 02 80 80 7c 00", "7a 00 7c 00"},
        // A counter whose header counts its name.
        {"50 21 | 0a 00 00 00 00 00 00 00 | 01 00 00 00 | 02 00 00 00 | ff ff ff ff ff ff ff ff | 05 00 00 00 | 01 | "
         "7e 02 61 62",
         "50 1d | 0a 00 00 00 00 00 00 00 | 01 00 00 00 | 02 00 00 00 | ff ff ff ff ff ff ff ff | 05 00 00 00 | 01 | "
         "7e 02 61 62"},
    };
    std::string known, inEvents; // enough to be known as a trace
    for (unsigned i = 0; i < 8; ++i) {
        known += bytes(relDefine + "7e 01 66");
        inEvents += bytes(define + "7e 01 66");
    }
    for (const Case& its : cases)
        EXPECT_EQ(hex(eventBytes(known + bytes(its.trace))), hex(inEvents + bytes(its.events))) << its.trace;
}

/// All kinds, each relative one behind a sync packet of its sort.
std::string everyKind() {
    std::string sync, trace;
    for (const Sample& sample : samples()) {
        const std::string wire = bytes(sample.wire);
        (codeOf(wire) == Sync ? sync : trace) += wire;
    }
    return sync + trace;
}

// Silent are padding, also where it becomes a packet that cannot be read, and how long a frame is in this form.
TEST(TraceDigest, ChangesWithEveryByteThatTellsSomething) {
    const std::string trace = everyKind();
    const std::string expected = digest(trace);
    unsigned silent = 0;
    CTraceCursor cursor(trace);
    while (cursor.next()) {
        const auto begin = static_cast<std::size_t>(cursor.offset());
        for (std::size_t at = begin; at < cursor.end(); ++at) {
            const std::size_t field = at - begin;
            for (const int change : {0x01, 0x80}) {
                const bool isSilent = (cursor.TraceCode() == Fill && (field >= 2 || (field == 0 && change == 0x80))) ||
                                      (cursor.TraceCode() == TraceEnabled && field >= 6 && field < 14);
                std::string changed = trace;
                changed[at] = static_cast<char>(changed[at] ^ change);
                EXPECT_EQ(digest(changed) == expected, isSilent)
                    << CTCodeInfo::TCodeToName(cursor.TraceCode()) << " byte " << field << ' ' << change;
                silent += isSilent;
            }
        }
    }
    EXPECT_GT(silent, 16U);
    EXPECT_EQ(cursor.end(), trace.size());
}

TEST(TraceDigest, ChangesWithEveryEventThatIsMissingDoubledOrInAnotherPlace) {
    const std::string trace = eventBytes(everyKind());
    const std::string expected = digest(trace);
    const std::vector<Event> events = eventsOf(trace);
    EXPECT_GT(events.size(), 80U);
    for (std::size_t i = 0; i < events.size(); ++i) {
        std::string before, behind;
        for (std::size_t j = 0; j < events.size(); ++j) {
            if (j != i)
                (j < i ? before : behind) += events[j].bytes;
        }
        const std::string& its = events[i].bytes;
        EXPECT_NE(digest(before + behind), expected) << hex(its);
        EXPECT_NE(digest(before + its + its + behind), expected) << hex(its);
        if (i + 1 < events.size()) {
            const std::string& next = events[i + 1].bytes;
            EXPECT_EQ(digest(before + next + its + behind.substr(next.size())) == expected, next == its) << hex(its);
        }
    }
}

// Packets of all codes and lengths, and traces that are damaged.
TEST(TraceEvents, AreATraceWithoutDamageThatHasTheSameEvents) {
    RandomPackets random(5);
    std::string all = randomTrace(random, kPageSize); // enough to be known as a trace
    for (unsigned code = 0; code < 256; ++code) {
        for (unsigned length = 0; length < 256; length += effort(1, 5))
            all += std::string{static_cast<char>(code), static_cast<char>(length)} + std::string(length, '\1');
    }
    std::vector<std::string> traces{all};
    for (unsigned round = 0; round < effort(100, 20); ++round) {
        std::string trace = randomTrace(random, 20'000);
        for (unsigned i = 0; i < 20; ++i)
            trace[random.below(static_cast<unsigned>(trace.size()))] = static_cast<char>(random.below(256));
        traces.push_back(trace);
    }
    for (const std::string& trace : traces) {
        const std::string events = eventBytes(trace);
        EXPECT_TRUE(eventBytes(events) == events);
        CTraceCursor cursor(events);
        while (cursor.next())
            EXPECT_FALSE(factsOf(cursor.TraceCode()).isRelative);
        EXPECT_EQ(cursor.damage().places, 0U);
        EXPECT_EQ(cursor.end(), events.size());
    }
}

// Of a packet whose text is cut, what there is of it.
TEST(TraceEvents, AreWhatCanBeReadOfATrace) {
    const std::string trace = eventBytes(everyKind());
    const std::vector<Event> events = eventsOf(trace);
    for (std::size_t cut = 200; cut <= trace.size(); cut += effort(1, 3)) {
        const std::vector<Event> read = eventsOf(trace.substr(0, cut));
        std::size_t whole = 0;
        while (whole < events.size() && events[whole].end <= cut)
            ++whole;
        ASSERT_TRUE(read.size() == whole || read.size() == whole + 1) << cut;
        for (std::size_t i = 0; i < whole; ++i)
            ASSERT_EQ(hex(read[i].bytes), hex(events[i].bytes)) << cut;
    }
}

std::string sha256(const std::string& text, std::size_t portion) {
    Sha256 sum;
    for (std::size_t at = 0; at < text.size(); at += portion)
        sum.add(std::string_view(text).substr(at, portion));
    std::string digest;
    for (const unsigned char byte : sum.finish())
        digest += static_cast<char>(byte);
    return hex(digest);
}

// The examples of the standard, and the empty text.
TEST(Sha256, IsThatOfTheStandard) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {std::string(1'000'000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    };
    for (const auto& [text, expected] : cases) {
        for (const std::size_t portion : {std::size_t{1}, std::size_t{63}, std::size_t{64}, std::size_t{1'000'000}})
            EXPECT_EQ(sha256(text, portion), hex(bytes(expected))) << text.size() << ' ' << portion;
    }
}

} // namespace
} // namespace Quorvex::test

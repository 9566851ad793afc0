#include "quorvex/stream/TraceParts.h"

#include "quorvex/analysis/TraceFile.h"
#include "quorvex/stream/TraceSourceBufferMapped.h"
#include "tests/support/Doubles.h"
#include "tests/support/Effort.h"
#include "tests/support/RandomTraces.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <iterator>
#include <stdexcept>

namespace Quorvex::test {
namespace {

/// What was seen, a row for each packet.
struct Seen {
    std::vector<std::array<std::uint64_t, 12>> packets;
    unsigned joins = 0;

    void join(Seen&& next) {
        ++joins;
        packets.insert(packets.end(), next.packets.begin(), next.packets.end());
    }
};

template <class... Number> std::string wordsOf(Number... number) {
    return ((std::to_string(number) + " ") + ...);
}

std::string wordsOf(const TraceWalk& walk) {
    return wordsOf(walk.end, walk.left, +walk.cutCode, walk.damage.places, walk.damage.bytes, walk.damage.first,
                   walk.contexts.core().Tick(), walk.contexts.bus().Tick(), walk.hasFailed);
}

std::string wordsOf(const TraceReport& report) {
    return wordsOf(report.endOffset, int(report.end), report.missing, report.damage.places, report.damage.bytes,
                   report.damage.first) +
           report.cutKind;
}

void look(Seen& part, const CTraceCursor& packet) {
    const CContexts& contexts = packet.contexts();
    part.packets.push_back({packet.offset(), packet.end(), packet.TraceCode(), packet.Length(),
                            std::uint64_t(packet.textState()), packet.tick(), contexts.core().Tick(),
                            contexts.core().SWCtx(), contexts.bus().Tick(), contexts.knows(ContextSort::Bus),
                            contexts.system().Tick(), std::hash<std::string_view>()(packet.text())});
}

/// The same by every road and in every number of parts as by one cursor.
void expectSame(const std::string& trace, const std::string& what, unsigned& joins) {
    const TemporaryDirectory directory;
    const std::string path = directory.write("trace", trace);
    Seen expected;
    CTraceCursor cursor(trace);
    while (cursor.next())
        look(expected, cursor);
    const TraceWalk end{cursor.end(), cursor.contexts(), cursor.damage(), cursor.left(), cursor.cutCode(), false};
    TraceFile file(path);
    while (file.advance()) {
    }
    const auto expect = [&](const Seen& seen, const std::string& ended, const std::string& how) {
        const auto [a, b] = std::ranges::mismatch(seen.packets, expected.packets);
        EXPECT_TRUE(a == seen.packets.end() && b == expected.packets.end())
            << what << how << ": packet " << a - seen.packets.begin() << " of " << expected.packets.size();
        EXPECT_TRUE(ended == wordsOf(end) || ended == wordsOf(file.report())) << what << how << ": " << ended;
        joins += seen.joins;
    };
    CTraceSourceBufferMapped mapped;
    ASSERT_TRUE(mapped.open(path));
    for (std::size_t most = 1; most <= trace.size() / kPageSize + 1; ++most) {
        const std::string how = " in " + std::to_string(most) + " parts";
        const TraceShares shares{static_cast<unsigned>(1 + most % 3), kPageSize, most};
        Seen inMemory, inMapped, inFile;
        expect(inMemory, wordsOf(walkInParts(std::string_view(trace), inMemory, look, shares)), how);
        TraceFile read(path);
        read.walkInParts(inFile, look, shares);
        expect(inFile, wordsOf(read.report()), how + " of a file");
        EXPECT_EQ(read.size(), file.size());
        if (most == 3)
            expect(inMapped, wordsOf(walkInParts(mapped, inMapped, look, shares)), how + " of a mapped file");
    }
}

TEST(TraceParts, GiveWhatOneWalkGives) {
    RandomPackets random(20261122);
    for (unsigned round = 0; round < effort(8, 1); ++round) {
        for (const bool isPaged : {true, false}) {
            const std::string trace = randomTrace(random, 4, isPaged);
            const std::string what = "round " + std::to_string(round) + (isPaged ? ", paged" : ", plain");
            unsigned joins = 0;
            expectSame(trace, what, joins);
            EXPECT_EQ(joins > 0, isPaged) << "what has pages is walked ahead, and nothing else";
            for (unsigned kind = 0; kind < 6; ++kind) {
                std::string damaged = trace;
                const unsigned border = kPageSize * (1 + random.below(3));
                switch (kind) {
                case 0: // anywhere
                    damage(damaged, random);
                    break;
                case 1: // where a part may begin
                    for (unsigned i = 0; i < 3; ++i)
                        damaged[border - 20 + random.below(40)] = static_cast<char>(random.below(256));
                    break;
                case 2: // of another place
                    damaged.erase(border, kPageSize);
                    break;
                case 3: // a text, and unknown kinds, over it
                    damaged.replace(border - 600, 1200,
                                    join({bytes("90 1C") + random.bytes(28), std::string(570, '\x06')}) +
                                        bytes("7E FF") + random.bytes(600));
                    break;
                case 4:
                    damaged.resize(border + random.below(200));
                    break;
                default:
                    damaged.resize(random.below(static_cast<unsigned>(trace.size())) + 1);
                }
                expectSame(damaged, what + ", damage " + std::to_string(kind), joins);
            }
        }
    }
}

TEST(TraceParts, FailAsOneWalkDoes) {
    RandomPackets random(3);
    const std::string trace = randomTrace(random, 4, true);
    Seen all;
    walkInParts(std::string_view(trace), all, look, {1, kPageSize, 1});
    for (const std::size_t fatal : {std::size_t{0}, all.packets.size() / 3, all.packets.size() - 1}) {
        Seen seen;
        const auto fail = [&](Seen& part, const CTraceCursor& packet) {
            if (packet.offset() == all.packets[fatal][0])
                throw std::runtime_error("this one");
            look(part, packet);
        };
        std::string thrown;
        try {
            walkInParts(std::string_view(trace), seen, fail, {3, kPageSize, 4});
        } catch (const std::runtime_error& error) {
            thrown = error.what();
        }
        EXPECT_EQ(thrown, "this one");
        EXPECT_EQ(seen.packets.size(), fatal) << "those before it were visited";
    }
}

// One whose pages restate other contexts than it has: what is walked ahead does not count.
TEST(TraceParts, BelieveTheTraceAndNotThePage) {
    CSync first(1000, 2, 3, 0x4000), second(5000, 4, 5, 0x8000);
    CRelFunctionEnter relative(CRelCoreContext(7, 8), 9);
    const std::string page = [&] {
        std::string start = wireOf(second);
        std::string bytes(kPageSize, '\0');
        start += wireOf(relative);
        start.copy(bytes.data(), start.size());
        EXPECT_TRUE(pages::end(bytes.data(), static_cast<unsigned>(start.size())));
        return bytes;
    }();
    std::string lying = page;
    wireOf(first).copy(lying.data(), first.StreamSize());
    // Its second page does not say what its first one does; its third says nothing.
    std::string silent = page;
    fillOf(second.StreamSize()).copy(silent.data(), second.StreamSize());
    unsigned joins = 0;
    expectSame(page + lying + silent + page + silent, "pages", joins);
    EXPECT_GT(joins, 0U);
}

} // namespace
} // namespace Quorvex::test

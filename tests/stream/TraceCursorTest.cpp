#include "quorvex/stream/TraceCursor.h"

#include "quorvex/packets/PacketKinds.h"
#include "tests/support/CursorMatch.h"
#include "tests/support/Doubles.h"
#include "tests/support/Effort.h"
#include "tests/support/Samples.h"

#include <gtest/gtest.h>

namespace Quorvex::test {
namespace {

void expectMatch(const std::string& trace, const std::string& what) {
    for (const unsigned portion : {0U, 1U, 7U, 1000U})
        EXPECT_EQ(cursorMismatch(trace, portion), "") << what << " in portions of " << portion;
}

TEST(TraceCursor, HandsOutWhatTheReaderDoes) {
    RandomPackets random(20261122);
    for (unsigned round = 0; round < effort(200, 8); ++round) {
        std::string trace;
        for (unsigned i = 0; i < 200; ++i) {
            trace += random.wire();
            // An empty text, and one that breaks off or has an end.
            const unsigned odd = random.below(16);
            for (unsigned full = 0; full < odd % 4 && odd < 12; ++full)
                trace += bytes("7E FF") + random.bytes(kCharStringMax);
            if (odd < 8)
                trace += bytes("7E 00");
        }
        expectMatch(trace, "round " + std::to_string(round));
        for (unsigned i = 0; i < 20; ++i) {
            std::string damaged = trace;
            for (unsigned places = 0; places < 10; ++places)
                damaged[random.below(static_cast<unsigned>(damaged.size()))] = static_cast<char>(random.below(256));
            damaged.resize(damaged.size() - random.below(300));
            EXPECT_EQ(cursorMismatch(damaged), "") << "round " << round << ", damaged " << i;
        }
    }
}

TEST(TraceCursor, TakesEveryKindOfEveryLengthAsTheReaderDoes) {
    RandomPackets random(7);
    for (unsigned code = 0; code < 256; ++code) {
        CSync sync(0x1234567890, 2, 3, 0x4000);
        std::string trace = wireOf(sync);
        for (unsigned length = 0; length < 256; ++length) {
            trace += static_cast<char>(code);
            trace += static_cast<char>(length);
            trace += random.bytes(length);
        }
        EXPECT_EQ(cursorMismatch(trace), "") << "code " << code;
    }
}

} // namespace
} // namespace Quorvex::test

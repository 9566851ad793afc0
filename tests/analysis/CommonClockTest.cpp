#include "quorvex/analysis/CommonClock.h"

#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/Contexts.h"

#include <gtest/gtest.h>

namespace Quorvex::test {
namespace {

constexpr std::uint64_t kLast = 0xFFFFFFFFFFFFFEFF;

/// What becomes of a tick; of one that is lost, kUnknown64.
std::uint64_t changed(const CommonClock& clock, std::size_t trace, std::uint64_t tick, std::uint32_t core = 0) {
    CFunctionEnter packet(tick, core, 1, 2, 3);
    const bool isKept = clock.change(packet, trace);
    EXPECT_EQ(isKept, packet.Tick() != kUnknown64 || tick == kUnknown64);
    EXPECT_EQ(packet.SWCtx(), 1U);
    return packet.Tick();
}

TEST(CommonClock, IsTheFastestOfAll) {
    CommonClock clock;
    clock.note(CTimestamp(5, std::uint64_t{3'000}), 0);
    clock.note(CTimestamp(5, std::uint64_t{0}), 2); // tells nothing
    EXPECT_FALSE(clock.changes());
    clock.note(CTimestamp(5, std::uint64_t{8'000}), 1);
    EXPECT_EQ(clock.frequency(), 8'000U);
    EXPECT_TRUE(clock.isSlower(0) && !clock.isSlower(1) && !clock.isSlower(2) && !clock.isSlower(9));
    EXPECT_TRUE(clock.hasClock(0) && clock.hasClock(1) && !clock.hasClock(2) && !clock.hasClock(9));
    EXPECT_TRUE(clock.changes());

    EXPECT_EQ(changed(clock, 0, 1), 2U);
    EXPECT_EQ(changed(clock, 0, 3'001), 8'002U);
    EXPECT_EQ(changed(clock, 0, kLast / 8 * 3), (kLast / 8 * 3) / 3 * 8);
    EXPECT_EQ(changed(clock, 0, kLast / 2), kUnknown64) << "beyond the last tick";
    EXPECT_EQ(changed(clock, 0, kUnknown64), kUnknown64);
    EXPECT_EQ(changed(clock, 1, 3'001), 3'001U);
    EXPECT_EQ(changed(clock, 2, 3'001), 3'001U) << "without a clock";
}

TEST(CommonClock, ChangesEveryTickAndFrequency) {
    CommonClock clock;
    clock.note(CTimestamp(5, std::uint64_t{1}), 0);
    clock.note(CTimestamp(5, std::uint64_t{10}), 1);
    CTimestamp timestamp(7, std::uint32_t{4}, std::uint64_t{1});
    CMessage message(7, 1, "7");
    CSystemData data(7, 1, 7, CData());
    CBusData bus(7, 7, 7, CBusDataSignals(), CData());
    CTransition transition(7, 7, 7, 7, 7);
    for (CPacket* packet :
         {static_cast<CPacket*>(&timestamp), static_cast<CPacket*>(&message), static_cast<CPacket*>(&data),
          static_cast<CPacket*>(&bus), static_cast<CPacket*>(&transition)}) {
        EXPECT_TRUE(clock.change(*packet, 0));
        EXPECT_EQ(absoluteTickOf(*packet), 70U) << packet->TraceCode();
    }
    EXPECT_EQ(timestamp.Frequency(), 10U);
    EXPECT_EQ(timestamp.HWCtx(), 4U);
    EXPECT_EQ(bus.Master(), 7U);
}

TEST(CommonClock, KnowsTheClocksOfCores) {
    CommonClock clock;
    clock.note(CTimestamp(5, std::uint32_t{1}, std::uint64_t{10}), 0);
    clock.note(CTimestamp(5, std::uint32_t{2}, std::uint64_t{5}), 0);
    EXPECT_TRUE(clock.changes());
    EXPECT_EQ(changed(clock, 0, 7, 1), 7U);
    EXPECT_EQ(changed(clock, 0, 7, 2), 14U);
    EXPECT_EQ(changed(clock, 0, 7, 3), 7U) << "the clock that was told first";
    EXPECT_FALSE(clock.contradicts(0));
    clock.note(CTimestamp(5, std::uint32_t{2}, std::uint64_t{10}), 0);
    EXPECT_TRUE(clock.contradicts(0));
    EXPECT_EQ(changed(clock, 0, 7, 2), 14U) << "the first counts";
}

TEST(CommonClock, ShiftsTracesThereAndBack) {
    CommonClock clock;
    clock.shift(1, 100, false);
    clock.shift(2, 100, true);
    EXPECT_TRUE(clock.changes());
    EXPECT_EQ(changed(clock, 0, 5), 5U);
    EXPECT_EQ(changed(clock, 1, 5), 105U);
    EXPECT_EQ(changed(clock, 1, kLast - 100), kLast);
    EXPECT_EQ(changed(clock, 1, kLast - 99), kUnknown64);
    EXPECT_EQ(changed(clock, 2, 100), 0U);
    EXPECT_EQ(changed(clock, 2, 99), kUnknown64);
    clock.note(CTimestamp(5, std::uint64_t{1}), 2);
    clock.note(CTimestamp(5, std::uint64_t{10}), 0);
    EXPECT_EQ(changed(clock, 2, 11), 10U) << "by ticks of the common clock";
}

} // namespace
} // namespace Quorvex::test

#include "quorvex/analysis/TimeBase.h"

#include "quorvex/packets/PacketKinds.h"

#include <gtest/gtest.h>

#include <tuple>

namespace Quorvex::test {
namespace {

constexpr std::uint64_t kMost = ~std::uint64_t{0};

TEST(TimeBase, IsExactForAnyClock) {
    // Computed by hand with whole numbers: ticks * units / frequency, rounded down.
    const std::tuple<std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t> cases[] = {
        {7, 0, 1'000'000'000, 7},
        {7, 1'000'000'000, 1'000'000'000, 7},
        {2, 3, 1'000'000'000, 666'666'666},
        {kMost, 3'000'000'000, 1'000'000'000, 6'148'914'691'236'517'205},
        {kMost, kMost, 1'000, 1'000},
        {kMost - 1, kMost, 1'000'000'000'000, 999'999'999'999},
        {12'345'678'901'234'567'890U, 18'446'744'073'709'551'557U, 1'000'000'000'000, 669'260'594'276},
        {kMost, 1, 1'000, kMost},
        {18'446'744'073'709'551, 1'000, 1'000'000, 18'446'744'073'709'551'000U},
        {18'446'744'073'709'552, 1, 1'000, kMost},
        {18'446'744'073'709'551, 1, 1'000, 18'446'744'073'709'551'000U},
        // Other clocks: any number of units a second.
        {10'000'000'019, 3'000'000'000, 2'400'000'000, 8'000'000'015},
        {7, 24'000'000, 1'000'000'007, 291},
        {kMost / 3, 18'446'744'073'709'551'557U, kMost, 6'148'914'691'236'517'224},
        {123'456'789, 18'446'744'073'709'551'557U, kMost, 123'456'789},
        {kMost, 2'400'000'000, 2'399'999'999, 18'446'744'066'023'408'250U},
    };
    for (const auto& [ticks, frequency, units, expected] : cases)
        EXPECT_EQ(TimeBase::unitsOf(ticks, frequency, units), expected) << ticks << " at " << frequency;
    EXPECT_EQ(TimeBase::unitsOf(5'000, 1, 1'000, 4'000'000), 4'000'000U) << "no more than asked for";
    EXPECT_EQ(TimeBase::ticksOf(1'500'000'000'000, 32'768), 49'152U);
    EXPECT_EQ(TimeBase::ticksOf(999'999'999'999, kMost), 18'446'744'073'691'104'870U);
    EXPECT_EQ(TimeBase::ticksOf(kMost, kMost), kMost);
}

TEST(TimeBase, KnowsTheClocksThatTimestampsTell) {
    TimeBase base;
    EXPECT_TRUE(base.note(CTimestamp(5)));
    EXPECT_FALSE(base.nanoseconds(10, 0)) << "no frequency is told";
    EXPECT_TRUE(base.note(CTimestamp(5, std::uint32_t{1}, std::uint64_t{1'000})));
    EXPECT_EQ(base.nanoseconds(10, 0), 10'000'000U) << "the clock that was told first";
    EXPECT_TRUE(base.note(CTimestamp(5, std::uint64_t{1'000})));
    EXPECT_FALSE(base.note(CTimestamp(5, std::uint32_t{2}, std::uint64_t{500})));
    EXPECT_FALSE(base.note(CTimestamp(5, std::uint32_t{2}, std::uint64_t{1'000}))) << "a clock keeps its frequency";
    EXPECT_EQ(base.nanoseconds(10, 2), 20'000'000U);
    EXPECT_EQ(base.nanoseconds(10, TimeBase::kAnyCore), 10'000'000U);
    EXPECT_EQ(base.frequency(), 1'000U);
}

} // namespace
} // namespace Quorvex::test

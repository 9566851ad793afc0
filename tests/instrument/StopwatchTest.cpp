#include "quorvex/instrument/Stopwatch.h"

#include "tests/support/Bytes.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace Quorvex::test {
namespace {

TEST(Stopwatch, MeasuresFromStartToStop) {
    CStopwatch watch;
    EXPECT_EQ(watch.getExpiredTicks(), 0U);
    EXPECT_EQ(watch.getExpiredSeconds(), 0.0);
    EXPECT_GT(watch.getFreq(), 1U);
    const std::uint64_t before = watch.getCurrentTick();
    watch.stop();
    EXPECT_GE(watch.getExpiredTicks(), before) << "never started: the stop tick itself";
    CStopwatch running(true);
    running.stop();
    const CStopwatch copy(running);
    EXPECT_LT(copy.getExpiredSeconds(), 60.0);
    running.start();
    EXPECT_GT(running.getExpiredTicks(), ~std::uint64_t{0} / 2) << "stopped before started: wraps around";
}

TEST(Autowatch, ReportsWhenItEnds) {
    takeLog();
    const auto checkEnd = [](const std::string& log, const std::string& start) {
        ASSERT_TRUE(log.starts_with(start + ":\n")) << log;
        const std::string seconds = log.substr(start.size() + 2);
        EXPECT_TRUE(seconds.ends_with("s\n")) << log;
        EXPECT_GE(std::strtod(seconds.c_str(), nullptr), 0.0);
    };
    { const CAutowatch watch("load", 3); }
    checkEnd(takeLog(), "load\n[load]\n");
    { const CAutowatch watch("load", 0); }
    checkEnd(takeLog(), "load\n");
    { const CAutowatch watch(nullptr, 0); }
    checkEnd(takeLog(), "");
}

} // namespace
} // namespace Quorvex::test

#include "quorvex/platform/Clock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

namespace Quorvex::test {
namespace {

/// A machine whose clocks take time to be read.
struct Machine {
    static inline double time = 0;       ///< of the system's clock, in its ticks
    static inline double counted = 0;    ///< by the counter
    static inline double rate = 0;       ///< of the counter, for each tick of the clock
    static inline unsigned readings = 0; ///< how many more before the counter jumps, 0: never
    static inline double jumpsTo = 0;

    static void pass(double ticks) {
        time += ticks;
        counted += ticks * rate;
    }
    static std::uint64_t counter() {
        pass(14);
        if (readings > 0 && --readings == 0)
            counted = jumpsTo;
        return static_cast<std::uint64_t>(counted);
    }
    static std::uint64_t system() {
        pass(20);
        return static_cast<std::uint64_t>(time);
    }
    static std::uint64_t frequency() { return 1'000'000'000; }
};

using Line = platform::ClockLine<Machine>;
constexpr double kSecond = 1e9;

/// Reads the time every so often for some seconds: it never goes back. How far it is off in the last tenth of them.
double follow(Line& line, double every, double seconds) {
    const double begin = Machine::time;
    double off = 0;
    std::uint64_t before = line.now();
    while (Machine::time < begin + seconds * kSecond) {
        Machine::pass(every);
        const std::uint64_t now = line.now();
        EXPECT_GE(now, before);
        before = now;
        if (Machine::time > begin + 0.9 * seconds * kSecond)
            off = std::max(off, std::abs(static_cast<double>(now) - Machine::time));
    }
    return off;
}

TEST(ClockLine, StaysWithTheClockAndNeverGoesBack) {
    constexpr double kWorst = 100; // nanoseconds
    const std::pair<const char*, std::function<void()>> cases[] = {
        {"nothing", [] {}},
        {"the clock is steered", [] { Machine::rate *= 1.0005; }},
        {"it moves to a machine whose counter is quicker", [] { Machine::rate *= 1.3; }},
        {"nobody asks for hours", [] { Machine::pass(10'000 * kSecond); }},
        {"suspended, the counter begins anew", [] { Machine::counted = 0; }},
        {"suspended, it goes on", [] { Machine::counted += 2.6 * 10'000 * kSecond; }},
        {"suspended for a moment, it goes on", [] { Machine::counted += 2.6 * 0.1 * kSecond; }},
        {"it goes back a little", [] { Machine::counted -= 2.6 * 0.001 * kSecond; }},
    };
    for (const double every : {2e3, 2e6, 3e8}) {
        for (const auto& [what, happens] : cases) {
            SCOPED_TRACE(what + std::string(", read every ") + std::to_string(every));
            Machine::time = 5'000 * kSecond;
            Machine::counted = 1e12;
            Machine::rate = 2.6;
            Line line;
            ASSERT_TRUE(line.start());
            EXPECT_LT(Machine::time, 5'000 * kSecond + 100'000) << "it does not take long";
            EXPECT_LT(follow(line, every, every < 1e4 ? 0.001 : 3), kWorst);
            happens();
            EXPECT_LT(follow(line, every, every < 1e4 ? 1.2 : 3), kWorst);
        }
    }
}

TEST(ClockLine, MeasuresAgainWhereTheCounterJumpsMeanwhile) {
    for (const double jumpsTo : {0.0, 1e11, 1e15}) {
        for (unsigned reading = 1; reading < 1000; reading += reading < 200 ? 1 : 50) {
            SCOPED_TRACE(std::to_string(jumpsTo) + " at reading " + std::to_string(reading));
            Machine::counted = 1e10;
            Machine::rate = 2.6;
            Machine::readings = reading;
            Machine::jumpsTo = jumpsTo;
            Line line;
            ASSERT_TRUE(line.start());
            EXPECT_LT(follow(line, 1e6, 2), 100);
        }
    }
    Machine::readings = 0;
}

TEST(ClockLine, TellsWhatTheSystemDoesWhereItIsNotStarted) {
    Machine::rate = 0;
    Line line;
    for (unsigned i = 0; i < 2; ++i) {
        const double before = Machine::time;
        EXPECT_EQ(line.now(), static_cast<std::uint64_t>(before + 20));
        EXPECT_FALSE(line.start()) << "the counter stands still";
    }
}

TEST(Clock, IsTheProcessorsWhereTheSystemCountsByItOrTheUserSays) {
    const platform::CounterFacts steady{true, "tsc"}, unsteady{false, "tsc"}, distrusted{true, "hpet"},
        guest{true, "kvm-clock"}, unknown{true, ""};
    const struct {
        const char* word;
        const platform::CounterFacts& facts;
        bool byCounter;
        bool complains;
    } cases[] = {
        {"", steady, true, false},          {"auto", steady, true, false},       {"auto", unsteady, false, false},
        {"auto", distrusted, false, false}, {"auto", guest, false, false},       {"auto", unknown, false, false},
        {"tsc", steady, true, false},       {"tsc", unsteady, false, true},      {"tsc", distrusted, true, false},
        {"tsc", guest, true, false},        {"monotonic", steady, false, false}, {"sundial", steady, true, true},
        {"sundial", guest, false, true},    {"TSC", steady, true, true},
    };
    for (const auto& [word, facts, byCounter, complains] : cases) {
        const platform::ClockChoice choice = platform::chooseClock(word, facts);
        EXPECT_EQ(choice.byCounter, byCounter) << word << ' ' << facts.systemClock;
        EXPECT_EQ(!choice.complaint.empty(), complains) << word << ' ' << facts.systemClock;
    }
}

} // namespace
} // namespace Quorvex::test

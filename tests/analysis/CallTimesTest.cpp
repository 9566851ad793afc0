#include "quorvex/analysis/CallTimes.h"

#include "quorvex/analysis/TraceFile.h"
#include "quorvex/analysis/TraceNames.h"
#include "tests/support/TraceSteps.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <sstream>

namespace Quorvex::test {
namespace {

/// For each row "thread/function calls total self", with those that are unfinished behind a plus.
std::string timesIn(CallTimes& times, const std::vector<std::string>& traces, CTraceNames& names) {
    for (std::size_t process = 0; process < traces.size(); ++process) {
        std::istringstream stream(traceOfSteps(traces[process]));
        TraceFile file("trace", &stream);
        times.read(file, names, static_cast<std::uint32_t>(process));
    }
    std::ostringstream out;
    for (const auto& [key, its] : times.times()) {
        out << (out.tellp() > 0 ? ", " : "");
        if (key.thread != 0)
            out << static_cast<std::int32_t>(key.thread) << '/';
        out << key.function << ' ' << its.calls;
        if (its.unfinished > 0)
            out << '+' << its.unfinished;
        out << ' ' << its.total << ' ' << its.self;
        EXPECT_EQ(its.durations.count(), its.calls - its.unfinished);
    }
    return out.str();
}

TEST(CallTimes, AreThoseBetweenEntersAndLeaves) {
    struct Case {
        std::string trace;
        std::string functions; ///< over all threads
        std::string threads;   ///< thread by thread
        std::uint64_t stray = 0;
    };
    const Case cases[] = {
        {"+1 10 7 -1 15 7", "1 1 5 5", "7/1 1 5 5"},
        {"+1 10 7 +2 12 7 -2 15 7 +2 16 7 -2 17 7 -1 20 7", "1 1 10 6, 2 2 4 4", "7/1 1 10 6, 7/2 2 4 4"},
        // Called by itself, directly and through another: the time counts once.
        {"+1 10 7 +1 12 7 -1 15 7 -1 20 7", "1 2 10 10", "7/1 2 10 10"},
        {"+1 0 7 +2 1 7 +1 2 7 -1 5 7 -2 6 7 -1 10 7", "1 2 10 8, 2 1 5 2", "7/1 2 10 8, 7/2 1 5 2"},
        // Threads have nothing to do with each other; what is not known of a thread is taken by its core.
        {"+1 10 7 +1 11 8 -1 13 7 +2 12 8 -2 15 8 -1 16 8", "1 2 8 5, 2 1 3 3", "7/1 1 3 3, 8/1 1 5 2, 8/2 1 3 3"},
        {"+1 10 ? -1 15 ? +1 10 7 -1 11 7", "1 2 6 6", "7/1 1 1 1, -1/1 1 5 5"},
        // A missing leave ends with the function around it, or with the thread's last packet.
        {"+1 10 7 +2 12 7 +3 13 7 -1 20 7", "1 1 10 2, 2 1+1 8 1, 3 1+1 7 7", "7/1 1 10 2, 7/2 1+1 8 1, 7/3 1+1 7 7"},
        {"+1 10 7 +2 12 7 -2 14 7 +3 10 8 -3 99 8", "1 1+1 4 2, 2 1 2 2, 3 1 89 89",
         "7/1 1+1 4 2, 7/2 1 2 2, 8/3 1 89 89"},
        {"-1 5 7 +1 10 7 -2 12 7 -1 15 7", "1 1 5 5", "7/1 1 5 5", 2},
        // A leave without a number leaves what runs.
        {"+1 10 7 -4294967295 15 7", "1 1 5 5", "7/1 1 5 5"},
        // Time that goes back takes none.
        {"+1 10 7 -1 5 7", "1 1 0 0", "7/1 1 0 0"},
        {"@1000 +1 10 7 -1 15 7", "1 1 5000000 5000000", "7/1 1 5000000 5000000"},
    };
    for (const Case& its : cases) {
        for (const bool byThread : {false, true}) {
            CallTimes times(byThread);
            CTraceNames names;
            EXPECT_EQ(timesIn(times, {its.trace}, names), byThread ? its.threads : its.functions) << its.trace;
            EXPECT_EQ(times.strayLeaves(), its.stray) << its.trace;
            EXPECT_EQ(times.withoutClock(), its.trace[0] != '@');
        }
    }
}

TEST(CallTimes, CountWhatIsWithinTheirWindow) {
    const std::pair<CallTimes::Window, std::string> cases[] = {
        {{0, 100}, "1 1 10 4, 2 2 6 6"},
        {{10, 20}, "1 1 10 4, 2 2 6 6"},
        {{11, 13}, "1 1 2 1, 2 1 1 1"},
        {{15, 17}, "1 1 2 2"},
        {{20, 30}, ""},
        {{19, 30}, "1 1 1 0, 2 1 1 1"},
        {{0, 10}, ""},
        {{0, 11}, "1 1 1 1"},
    };
    for (const auto& [window, expected] : cases) {
        CallTimes times(false, window);
        CTraceNames names;
        std::string found = timesIn(times, {"+1 10 7 +2 12 7 -2 15 7 +2 17 7 -2 20 7 -1 20 7"}, names);
        // Functions without a call there are not asked about.
        for (const std::string none : {", 2 0 0 0", "1 0 0 0", "2 0 0 0"}) {
            if (const auto at = found.find(none); at != found.npos)
                found.erase(at, none.size());
        }
        EXPECT_EQ(found, expected) << window.from << ' ' << window.to;
    }
}

TEST(CallTimes, TellFunctionsApartByTheNamesOfTheirProcess) {
    CallTimes times;
    CTraceNames names;
    const std::string found =
        timesIn(times, {"=1 a +1 0 7 -1 1 7", "=1 b +1 0 7 -1 2 7", "=1 a +1 0 7 -1 4 7 =1 c +1 5 7 -1 13 7"}, names);
    std::map<std::string, std::uint64_t> byName;
    for (const auto& [key, its] : times.times())
        byName[names.name(TextSort::Function, key.function)] += its.total;
    EXPECT_EQ(byName, (std::map<std::string, std::uint64_t>{{"a", 5}, {"b", 2}, {"c", 8}})) << found;
    EXPECT_EQ(times.span(), 13U);
}

TEST(Durations, TellThePartsOfARowToWithinASixtyFourth) {
    std::mt19937_64 random(20261122);
    for (const unsigned count : {1U, 2U, 3U, 99U, 1000U, 50'000U}) {
        for (const unsigned most : {3U, 10U, 40U, 64U}) {
            Durations all, one, other;
            std::vector<std::uint64_t> sorted(count);
            for (std::uint64_t& duration : sorted) {
                duration = random() >> (64 - 1 - random() % most);
                all.add(duration);
                (random() % 2 ? one : other).add(duration);
            }
            std::ranges::sort(sorted);
            one.add(other);
            for (const Durations* its : {&all, &one}) {
                EXPECT_EQ(its->count(), count);
                EXPECT_EQ(its->least(), sorted.front());
                EXPECT_EQ(its->most(), sorted.back());
                for (const double part : {0., 1., 50., 90., 99., 100.}) {
                    const double index = std::max(1., std::ceil(count * part / 100));
                    const auto exact = static_cast<double>(sorted[static_cast<std::size_t>(index) - 1]);
                    const auto told = static_cast<double>(its->percentile(part));
                    EXPECT_LE(std::abs(told - exact), exact < 128 ? 0 : exact / 64) << count << ' ' << part;
                }
            }
        }
    }
    const Durations none;
    EXPECT_EQ(none.least() + none.most() + none.percentile(50), 0U);
}

} // namespace
} // namespace Quorvex::test

#include "quorvex/analysis/CallTree.h"

#include "quorvex/analysis/CallTimes.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/packets/SoftwareObjectPackets.h"
#include "quorvex/stream/TraceCursor.h"
#include "tests/support/Effort.h"
#include "tests/support/TraceSteps.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <sstream>
#include <tuple>

namespace Quorvex::test {
namespace {

void readSteps(auto& calls, const std::vector<std::string>& traces, CTraceNames& names, auto&&... takes) {
    for (std::uint32_t process = 0; process < traces.size(); ++process) {
        std::istringstream stream(traceOfSteps(traces[process]));
        TraceFile file("trace", &stream);
        calls.read(file, names, process, takes...);
    }
}

/// "1 2/9 4, .3 1/5 5": function 1 was called twice, for 9 and itself 4, and called 3. Threads stand as "7: ".
std::string shown(const CallTree& tree) {
    std::ostringstream out;
    std::uint32_t thread = 0;
    for (const CallPath& path : tree.paths()) {
        out << (out.tellp() > 0 ? ", " : "");
        if (path.thread != thread)
            out << std::int32_t(thread = path.thread) << ": ";
        out << std::string(path.depth, '.');
        path.function == CallTree::kOther ? out << "other" : out << path.function;
        out << ' ' << path.calls << (path.unfinished > 0 ? "?" : "") << '/' << path.total << ' ' << path.self;
    }
    return out.str();
}

constexpr char kTwoWays[] = "+1 0 7 +2 1 7 +3 2 7 -3 4 7 -2 5 7 +3 6 7 -3 7 7 -1 10 7 +2 20 7 +3 21 7 -3 29 7 -2 30 7";

TEST(CallTree, TellsCallsByTheirPaths) {
    const std::tuple<std::string, bool, std::string> cases[] = {
        {kTwoWays, false, "1 1/10 5, .2 1/4 2, ..3 1/2 2, .3 1/1 1, 2 1/10 2, .3 1/8 8"},
        {kTwoWays, true, "7: 1 1/10 5, .2 1/4 2, ..3 1/2 2, .3 1/1 1, 2 1/10 2, .3 1/8 8"},
        // A function that calls itself has another path each time.
        {"+1 0 7 +1 2 7 +1 3 7 -1 4 7 -1 6 7 -1 9 7 +1 9 7 -1 10 7", false, "1 2/10 6, .1 1/4 3, ..1 1/1 1"},
        {"+1 0 7 +2 1 8 -1 4 7 -2 9 8 +2 9 7 -2 11 7", false, "2 2/10 10, 1 1/4 4"},
        {"+1 0 7 +2 1 8 -1 4 7 -2 9 8 +2 9 7 -2 11 7", true, "7: 1 1/4 4, 2 1/2 2, 8: 2 1/8 8"},
        {"+1 0 7 +2 4 7", false, "1 1?/4 4, .2 1?/0 0"},
        {"@1000 +1 0 7 -1 1 7", false, "1 1/1000000 1000000"},
        {"", false, ""},
    };
    for (const auto& [trace, byThread, expected] : cases) {
        CallTree tree(byThread);
        CTraceNames names;
        readSteps(tree, {trace}, names);
        EXPECT_EQ(shown(tree), expected) << trace;
    }
    // Of more paths than that, only functions are told.
    CallTree few(false, {}, 3);
    CTraceNames names;
    readSteps(few, {kTwoWays}, names);
    EXPECT_EQ(shown(few), "other 0/13 0, .3 3/11 11, .2 1/2 2, 1 1/10 5, .2 1/4 2");
}

TEST(CallTree, BeginsWithFunctionsAndTurnsToTheirCallers) {
    using Change = void (*)(CallTree&);
    const std::tuple<std::string, Change, std::string> cases[] = {
        {kTwoWays, [](CallTree& tree) { tree.beginWith([](std::uint64_t its) { return its == 2; }); },
         "2 2/14 4, .3 2/10 10"},
        {kTwoWays, [](CallTree& tree) { tree.beginWith([](std::uint64_t its) { return its >= 2; }); },
         "2 2/14 4, .3 2/10 10, 3 1/1 1"},
        {kTwoWays, [](CallTree& tree) { tree.turnTo([](std::uint64_t its) { return its == 3; }); },
         "3 3/11 0, .2 2/10 8, ..1 1/2 2, .1 1/1 1"},
        // Time counts once, of the outermost.
        {"+1 0 7 +2 1 7 +2 2 7 -2 4 7 -2 8 7 -1 9 7",
         [](CallTree& tree) { tree.turnTo([](std::uint64_t its) { return its == 2; }); },
         "2 2/7 0, .1 1/7 7, .2 1/0 0, ..1 1/0 0"},
        {kTwoWays, [](CallTree& tree) { tree.beginWith([](std::uint64_t) { return false; }); }, ""},
    };
    for (const auto& [trace, change, expected] : cases) {
        CallTree tree;
        CTraceNames names;
        readSteps(tree, {trace}, names);
        change(tree);
        EXPECT_EQ(shown(tree), expected);
    }
}

TEST(CallTree, TakesPartsOfTracesOnly) {
    CallTree tree(false, {3, 25});
    CTraceNames names;
    readSteps(tree, {kTwoWays}, names, [](const CTraceCursor& packet) {
        const auto enter = packet.as<CFunctionEnter>();
        return !enter || enter->TgtFuncId() != 1;
    });
    EXPECT_EQ(shown(tree), "2 2/7 2, .3 2/5 5, 3 1/1 1");
    EXPECT_EQ(tree.strayLeaves(), 0U);
}

TEST(CallTree, TellsOfCallsThatAreTakenWhatTheyTookInTheWholeTrace) {
    const std::pair<std::uint32_t, const char*> cases[] = {{1, "1 1/10 8"}, {2, "2 1/2 1"}, {3, "3 1/1 1"}};
    for (const auto& [id, expected] : cases) {
        CallTree tree;
        CTraceNames names;
        readSteps(tree, {"+1 10 7 +2 12 7 +3 12 7 -3 13 7 -2 14 7 -1 20 7"}, names,
                  [id = id](const CTraceCursor& packet) {
                      const auto enter = packet.as<CFunctionEnter>();
                      return enter && enter->TgtFuncId() == id;
                  });
        EXPECT_EQ(shown(tree), expected);
        EXPECT_EQ(tree.span(), id == 1 ? 10U : id == 2 ? 2U : 1U);
        EXPECT_EQ(tree.strayLeaves(), 0U);
    }
}

/// Calls in three threads that go on for long, with leaves that are missing, stray, or of no name.
std::string randomCalls(std::mt19937& random) {
    std::ostringstream steps;
    const auto below = [&random](unsigned limit) { return static_cast<unsigned>(random() % limit); };
    std::vector<unsigned> open[3];
    unsigned tick = 0;
    if (below(2))
        steps << "@3000000 ";
    for (unsigned i = 0; i < 2000; ++i) {
        const unsigned thread = below(3);
        std::vector<unsigned>& calls = open[thread];
        tick += below(10);
        if (!calls.empty() && below(40) == 0)
            tick -= std::min(tick, 15U);
        if (calls.empty() || below(2)) {
            calls.push_back(below(5));
            steps << '+' << calls.back();
        } else {
            steps << '-' << (below(20) ? calls.back() : below(7));
            if (below(20))
                calls.pop_back();
        }
        steps << ' ' << tick << ' ' << thread + 1 << ' ';
    }
    return steps.str();
}

TEST(CallTree, AgreesWithTheTimesOfFunctions) {
    std::mt19937 random(20261122);
    for (unsigned run = 0; run < effort(40, 6); ++run) {
        const std::vector<std::string> traces = {"=1 a =2 b " + randomCalls(random), "=1 c " + randomCalls(random)};
        const bool byThread = run % 2;
        const TickWindow window = run % 3 ? TickWindow() : TickWindow{1000, 5000};
        CTraceNames names;
        CallTimes times(byThread, window);
        readSteps(times, traces, names);
        for (const std::size_t most : {std::size_t{1}, std::size_t{50}, CallTree::kMostPaths}) {
            CallTree tree(byThread, window, most);
            CTraceNames others;
            readSteps(tree, traces, others);
            std::map<CallTimes::Key, std::tuple<std::uint64_t, std::uint64_t, std::uint64_t>> sums;
            std::uint64_t otherTime = 0;
            for (const CallPath& path : tree.paths()) {
                if (path.function == CallTree::kOther) {
                    otherTime = path.total;
                    continue;
                }
                auto& [calls, unfinished, self] = sums[{path.thread, path.process, path.function}];
                calls += path.calls;
                unfinished += path.unfinished;
                self += path.self;
            }
            EXPECT_EQ(otherTime == 0, most == CallTree::kMostPaths);
            for (const auto& [key, its] : times.times()) {
                EXPECT_EQ(sums[key], std::tuple(its.calls, its.unfinished, its.self)) << run << ' ' << most;
            }
            EXPECT_EQ(tree.strayLeaves(), times.strayLeaves());
            EXPECT_EQ(tree.span(), times.span());
        }
    }
}

TEST(CallTree, GoesAsDeepAsStacksDo) {
    std::ostringstream steps;
    for (unsigned i = 0; i < 70'000; ++i)
        steps << "+1 " << i << " 7 ";
    CallTree tree;
    CTraceNames names;
    readSteps(tree, {steps.str()}, names);
    const std::vector<CallPath> paths = tree.paths();
    EXPECT_EQ(paths.size(), 65536U);
    EXPECT_EQ(tree.hiddenCalls(), 70'000U - 65536U);
    EXPECT_EQ(paths.back().depth, 65535U);
    EXPECT_EQ(paths.front().total, 69'999U);
}

} // namespace
} // namespace Quorvex::test

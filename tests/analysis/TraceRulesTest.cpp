#include "quorvex/analysis/TraceRules.h"

#include "quorvex/analysis/Merged.h"
#include "quorvex/analysis/TraceFile.h"
#include "tests/support/TraceSteps.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <sstream>

namespace Quorvex::test {
namespace {

/// For each rule "CHECKED/BROKEN", then its findings: "trace:tick thread.core text".
std::string shown(TraceRules& rules) {
    std::ostringstream out;
    for (const RuleResult& its : rules.results()) {
        out << (out.tellp() > 0 ? "; " : "") << its.checked << '/' << its.broken;
        const char* before = " ";
        for (const RuleFinding& finding : its.findings) {
            out << before;
            if (finding.file != ~0U)
                out << finding.file << ':';
            if (finding.tick != kUnknown64)
                out << finding.tick << ' ';
            if (finding.thread != ~0U)
                out << finding.thread << '.' << finding.core << ' ';
            out << finding.text;
            before = ", ";
        }
    }
    return out.str();
}

enum class Road { OneByOne, Merged };

std::string held(const std::string& text, const std::vector<std::string>& traces, Road road, std::uint64_t most = 10) {
    TraceRules rules(most);
    if (const auto fault = rules.add(text, "rules"))
        return std::to_string(fault->line) + ": " + fault->text;
    std::deque<std::istringstream> streams;
    const auto open = [&](std::size_t file) {
        return std::make_unique<TraceFile>("trace", &streams.emplace_back(traceOfSteps(traces[file])));
    };
    for (std::uint32_t file = 0; file < traces.size(); ++file)
        rules.learn(*open(file), file);
    if (road == Road::Merged) {
        Merged merged;
        for (std::size_t file = 0; file < traces.size(); ++file)
            merged.add(open(file));
        rules.read(merged);
    } else {
        for (std::uint32_t file = 0; file < traces.size(); ++file)
            rules.read(*open(file), file);
    }
    return shown(rules);
}

TEST(TraceRules, TellWhatBreaksThem) {
    const std::string calls = "=1 parse =2 print +1 10 7 +2 12 7 -2 15 7 -1 20 7 +2 30 7 -2 32 7 ";
    const std::string events = "=!1 ask =!2 answer !1 10 7 !2 15 7 !1 20 8@2 !1 21 7 !2 40 7 !2 41 7 ";
    struct Case {
        std::string rule, trace, expected;
    };
    const Case cases[] = {
        {R"(function "p*" never longer than 4)", calls, "3/1 0:10 7.1 parse takes 10 ticks"},
        {R"(function "p*" never longer than 10)", calls, "3/0"},
        {R"(function "p*" never shorter than 3)", calls, "3/1 0:30 7.1 print takes 2 ticks"},
        {R"(function "?????" never longer than 9ms)", "@1000 " + calls, "3/1 0:10 7.1 parse takes 10.000 ms"},
        {R"(function "parse" never longer than 10ms)", "@1000 " + calls, "1/0"},
        {R"(function "parse" never longer than 10.9ms)", "@1000 " + calls, "1/0"},
        {R"(function "parse" never longer than 9ms)", calls,
         "0/1 0:the trace does not tell how many ticks are a second"},
        {R"(function "0x00000003" never longer than 1)", "+3 1 7 +4 3 7",
         "1/1 0:1 7.1 0x00000003 takes 2 ticks, and its end is missing"},
        {R"(function "*" never shorter than 9)", "+3 1 7", "0/0"},
        {R"(function "print" called at most 1 time)", calls, "2/1 0:30 7.1 print happens 2 times"},
        {R"(function "print" called at most 2 times)", calls, "2/0"},
        {R"(function "print" called at least 3 times)", calls, "2/1 this happens 2 times"},
        {R"(function "none" called at least 1 times)", calls, "0/1 this happens 0 times"},
        {R"(function "parse" called never)", calls, "1/1 0:10 7.1 parse happens"},
        {"depth never above 1", calls, "3/1 0:12 7.1 print makes 2 functions in each other"},
        {"depth never above 2", calls, "3/0"},
        {R"(event "ask" before event "answer")", events, "3/0"},
        {R"(event "ask" before event "answer" within 5)", events,
         "3/2 0:40 7.1 answer has the last ask 19 ticks before it, 0:41 7.1 answer has the last ask 20 ticks before "
         "it"},
        {R"(event "ask" before event "answer" within 19)", events,
         "3/1 0:41 7.1 answer has the last ask 20 ticks before it"},
        {R"(event "answer" before event "ask")", events, "3/1 0:10 7.1 ask has no answer before it"},
        {R"(event "answer" after event "ask")", events, "3/0"},
        {R"(event "answer" after event "ask" within 19)", events,
         "3/1 0:20 8.2 ask has no answer behind it for 20 ticks"},
        {R"(event "ask" after event "answer")", events,
         "3/2 0:40 7.1 answer has no ask behind it, 0:41 7.1 answer has no ask behind it"},
        {R"(event "ask" after event "ask" within 10)", events, "3/1 0:21 7.1 ask has no ask behind it"},
        {R"(event "ask" before event "ask")", events, "3/1 0:10 7.1 ask has no ask before it"},
        {R"(event "a*" at most 4 times)", events,
         "6/2 0:40 7.1 answer happens 5 times, 0:41 7.1 answer happens 6 times"},
        {R"(event "reset" never)", events, "0/0"},
        {R"(message "e*r\"" never)", "\"fine 1 \"error\" 2 \"e\"r 3", "1/1 0:2 error\" happens"},
        {R"(counter "q" between 1 and 10)", "=#1 q #1 5 7 1 #1 6 7 10 #1 7 7 0 #1 8 7 11 #2 9 7 99",
         "4/2 0:7 7.1 q is 0, 0:8 7.1 q is 11"},
        {R"(counter "q" never above 10)", "=#1 q #1 5 7 -1 #1 6 7 11", "2/1 0:6 7.1 q is 11"},
        {R"(counter "q" never below 0)", "=#1 q #1 5 7 0 #1 6 7 -1", "2/1 0:6 7.1 q is -1"},
        {R"(counter "q" between 0.5 and 10.5)", "=#1 q #1 5 7 10 #1 6 7 11 #1 7 7 0",
         "3/2 0:6 7.1 q is 11, 0:7 7.1 q is 0"},
        {R"(counter "q" between -1 and 10)", "=#1 q #1 5 7 9.75 #1 6 7 10.25 #1 7 7 -1.5",
         "3/2 0:6 7.1 q is 10.25, 0:7 7.1 q is -1.5"},
        {R"(counter "q" between -1 and 10)", "=#1 q #1 5 7 -1 #1 6 7 -2", "2/1 0:6 7.1 q is -2"},
        {R"(counter "q" never below -3)", "=#1 q #1 5 7 -3 #1 6 7 -4", "2/1 0:6 7.1 q is -4"},
        {R"(counter "q" between 0 and 0.5)", "=#1 q #1 5 7 0.25 #1 6 7 0.75", "2/1 0:6 7.1 q is 0.75"},
        {R"(counter "q" between -2 and 10)", "=#1 q %1 5 7 -2 %1 6 7 -3 %1 7 7 11",
         "3/2 0:6 7.1 q is -3, 0:7 7.1 q is 11"},
        {R"(counter "q" never above 10)", "=#1 q %1 5 7 -1", "1/1 0:5 7.1 q is 4294967295"},
        {R"(counter "q" between 0 and 0.5)", "=#1 q %1 5 7 0.25 %1 6 7 0.75", "2/1 0:6 7.1 q is 0.75"},
        {"thread gap never longer than 5", "!1 10 7 !1 12 8 !1 15 7 !1 21 7 !1 21 ? !1 90 ?",
         "2/1 0:21 7.1 nothing in thread 7 for 6 ticks"},
        {"core gap never longer than 5", "!1 10 7 !1 12 8 !1 15 7 !1 21 7@2 !1 90 7@2",
         "3/1 0:90 7.2 nothing on core 2 for 69 ticks"},
        {"no gap", "=^3 lost !3 5 7", "1/1 0:5 7.1 the target tells of an overflow, by event lost"},
        {"no loss", "=!3 lost !3 5 7", "1/0"},
        {"\n  # nothing\t\r\n depth never above 1#so\n\n", "+1 1 7", "1/0"},
    };
    for (const Case& its : cases) {
        for (const Road road : {Road::OneByOne, Road::Merged})
            EXPECT_EQ(held(its.rule, {its.trace}, road), its.expected) << its.rule << ' ' << unsigned(road);
    }
}

TEST(TraceRules, HoldForManyTracesAsOne) {
    const std::vector<std::string> traces = {"@1000 =!1 ask =!2 answer !1 10 7 !1 50 7",
                                             "@1000 !2 12 8 !2 49 8 !2 50 8"};
    const std::string order = R"(event "ask" before event "answer" within 2ms)";
    EXPECT_EQ(held(order, traces, Road::Merged), "3/1 1:49 8.1 answer has the last ask 39.000 ms before it");
    EXPECT_EQ(held("event \"answer\" at most 2 times", traces, Road::OneByOne), "3/1 1:50 8.1 answer happens 3 times");
    EXPECT_EQ(held("core gap never longer than 2ms", traces, Road::Merged),
              "4/1 1:49 8.1 nothing on core 1 for 37.000 ms");
    // A name that only a later trace gives.
    EXPECT_EQ(held("event \"late\" never", {"!1 5 7", "=!1 late !1 6 7"}, Road::OneByOne, 1),
              "2/2 0:5 7.1 late happens");
    const std::pair<const char*, bool> rules[] = {{"depth never above 1", false},
                                                  {"thread gap never longer than 1ms", false},
                                                  {"event \"a\" never", false},
                                                  {"core gap never longer than 1ms", true},
                                                  {order.c_str(), true}};
    for (const auto& [text, needsOrder] : rules) {
        TraceRules its;
        EXPECT_FALSE(its.add(text, ""));
        EXPECT_EQ(its.needOrder(), needsOrder) << text;
    }
}

TEST(TraceRules, TellFirstFindingsAndTheirTimes) {
    TraceRules rules(2);
    EXPECT_FALSE(rules.add("# so\nevent \"e\" never # that\nno loss", "ci.rules"));
    EXPECT_EQ(rules.size(), 2U);
    std::istringstream stream(traceOfSteps("@1000 =!1 e !2 5 7 !1 8 7 !1 9 7 !1 10 7"));
    TraceFile trace("trace", &stream);
    rules.read(trace, 3);
    const std::vector<RuleResult> results = rules.results();
    ASSERT_EQ(results.size(), 2U);
    EXPECT_EQ(results[0].source, "ci.rules");
    EXPECT_EQ(results[0].line, 2U);
    EXPECT_EQ(results[0].rule, "event \"e\" never");
    EXPECT_EQ(results[0].broken, 3U);
    ASSERT_EQ(results[0].findings.size(), 2U);
    EXPECT_EQ(results[0].findings[1].file, 3U);
    EXPECT_EQ(results[0].findings[1].nanoseconds, 9'000'000U);
    EXPECT_EQ(results[0].findings[1].offset, 18U + 10 + 3 + 2 * 30);
    EXPECT_EQ(results[1].line, 3U);
}

TEST(TraceRules, CountNoMoreThanCanWait) {
    std::ostringstream steps;
    steps << "=!1 ask =!2 answer ";
    for (unsigned i = 0; i < 70'000; ++i)
        steps << "!1 " << i / 1000 << " 7 ";
    EXPECT_EQ(held("event \"answer\" after event \"ask\"", {steps.str()}, Road::OneByOne, 0), "70000/70000");
    EXPECT_EQ(held("event \"answer\" after event \"ask\" within 100", {steps.str() + "!2 170 7"}, Road::OneByOne, 0),
              "70000/70000");
    EXPECT_EQ(held("event \"answer\" after event \"ask\" within 100", {steps.str() + "!2 168 7"}, Road::OneByOne, 0),
              "70000/65536");
}

TEST(TraceRules, SayWhatIsWrongWithThem) {
    const std::pair<const char*, const char*> cases[] = {
        {"bogus", "expected function, depth, event, message, counter, thread, core or no, found 'bogus'"},
        {"\n\nfunction f", "expected a name in double quotes, found 'f'"},
        {"function \"f", "a name lacks the quote at its end"},
        {"function \"f\"", "expected 'never' or 'called', found the end of the line"},
        {"function \"f\" never # longer", "expected 'longer' or 'shorter', found the end of the line"},
        {"function \"f\" never longer than 5 ms", "expected the end of the line, found 'ms'"},
        {"function \"f\" never longer than 5m", "expected a time, as 5ms, found '5m'"},
        {"function \"f\" called at most -1 times", "expected a whole number from 0 on, found '-1'"},
        {"function \"f\" called at most 1", "expected 'times', found the end of the line"},
        {"function \"f\" called at 1", "expected 'most' or 'least', found '1'"},
        {"depth never above x", "expected a number, found 'x'"},
        {"counter \"a\" never 1", "expected 'above' or 'below', found '1'"},
        {"event \"a\" before \"b\"", "expected 'event', found '\"b\"'"},
        {"event \"a\" before event \"b\" within", "expected a time, as 5ms, found the end of the line"},
        {"counter \"a\" between 2 and 1", "no number is between these"},
        {"counter \"a\" between 0x1 and 1", "expected a number, found '0x1'"},
        {"thread gap never shorter than 1", "expected 'longer', found 'shorter'"},
        {"no doubt", "expected 'loss', found 'doubt'"},
    };
    for (const auto& [text, expected] : cases) {
        TraceRules rules;
        const auto fault = rules.add("depth never above 1\n" + std::string(text), "rules");
        ASSERT_TRUE(fault) << text;
        EXPECT_EQ(fault->text, expected);
        EXPECT_EQ(fault->line, text[0] == '\n' ? 4U : 2U);
        EXPECT_EQ(rules.size(), 0U);
    }
}

} // namespace
} // namespace Quorvex::test

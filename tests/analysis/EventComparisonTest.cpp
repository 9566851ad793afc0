#include "quorvex/analysis/EventComparison.h"

#include "quorvex/analysis/TraceEvents.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/packets/PacketKinds.h"
#include "tests/support/RandomPackets.h"
#include "tests/support/Samples.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace Quorvex::test {
namespace {

using Names = std::vector<std::string_view>;
constexpr auto kOfFirst = EventComparison::First, kOfSecond = EventComparison::Second;

std::vector<std::string> shownEventsOf(const std::string& trace) {
    std::istringstream stream(trace);
    TraceFile file("trace", &stream);
    TraceEvents events(file);
    std::vector<std::string> all;
    while (events.next())
        all.emplace_back(events.bytes());
    return all;
}

std::vector<std::string> eventsOfAllKinds() {
    std::string trace;
    for (const Sample& sample : samples())
        trace += bytes(sample.wire);
    return shownEventsOf(trace);
}

// Each field of each kind, with its lowest bit changed.
TEST(EventComparison, NamesTheFieldsThatDiffer) {
    for (const bool time : {false, true}) {
        for (const bool place : {false, true}) {
            EventComparison comparison({.ignoreTime = time, .ignorePlace = place});
            for (const std::string& event : eventsOfAllKinds()) {
                EXPECT_TRUE(comparison.areSame(event, event));
                std::size_t at = 2;
                for (const EventField& field : comparison.fieldsOf(event)) {
                    const bool isText = field.name == "Text";
                    const bool isRun = isText && isFollowedByText(codeOf(event));
                    EXPECT_EQ(event.substr(at + (isRun ? 2 : 0), field.bytes.size()), field.bytes);
                    if (!field.bytes.empty()) {
                        std::string other = event;
                        other[at + (isRun ? 2 : 0)] ^= 1;
                        const bool isIgnored = (time && field.meaning == FieldMeaning::Tick) ||
                                               (place && field.meaning == FieldMeaning::Context);
                        EXPECT_EQ(comparison.differences(event, other), isIgnored ? Names{} : Names{field.name});
                        EXPECT_EQ(comparison.areSame(event, other), isIgnored) << field.name;
                    }
                    at += field.bytes.size();
                }
            }
        }
    }
}

TEST(EventComparison, IsOfWholeEvents) {
    const std::vector<std::string> events = eventsOfAllKinds();
    EventComparison exact({}), byName({.byName = true});
    for (const std::string& one : events) {
        for (const std::string& other : events) {
            EXPECT_EQ(exact.areSame(one, other), one == other);
            EXPECT_EQ(byName.areSame(one, other), one == other);
            if (codeOf(one) != codeOf(other))
                EXPECT_EQ(exact.differences(one, other), Names{"Kind"});
            else
                EXPECT_EQ(exact.differences(one, other).empty(), one == other);
        }
    }
    // Payloads of several lengths.
    const CCoreContext at(1, 2, 3, 4);
    CFunctionEnter enter(at, 5), from(at, 6, 5);
    CEvent none(at, 5, CData()), some(at, 5, CData(std::uint16_t{7}));
    EXPECT_EQ(exact.differences(wireOf(none), wireOf(some)), Names{"Data"});
    EXPECT_EQ(exact.differences(wireOf(enter), wireOf(from)).size(), 2U);
}

TEST(EventComparison, TakesNamesForNumbers) {
    const CCoreContext at(1, 2, 3, 4);
    struct Case {
        const char* what;
        std::vector<std::pair<std::string, std::string>> defined; ///< in the first trace, in the second
        std::pair<std::string, std::string> events;
        Names differences;
    };
    const auto function = [&at](std::uint32_t id, const char* name) { return wireOf(CFunctionDefine(at, id, name)); };
    const auto enter = [&at](std::uint32_t id) { return wireOf(CFunctionEnter(at, id)); };
    const auto machine = [](std::uint32_t id, const char* name) { return wireOf(CStateMachineDefine(id, name)); };
    const auto state = [](std::uint32_t of, std::uint32_t id, const char* name) {
        return wireOf(CStateDefine(of, id, name));
    };
    const auto edge = [](std::uint32_t of, std::uint32_t from, std::uint32_t to) {
        return wireOf(CTransitionDefine(of, from, to, 9, "go"));
    };
    const Case cases[] = {
        {"other numbers", {{function(1, "f"), function(2, "f")}}, {enter(1), enter(2)}, {}},
        {"the definitions", {{function(1, "f"), function(2, "f")}}, {function(1, "f"), function(2, "f")}, {}},
        {"other names", {{function(1, "f"), function(1, "g")}}, {enter(1), enter(1)}, {"FuncId"}},
        {"no names", {}, {enter(1), enter(2)}, {"FuncId"}},
        {"one name", {{function(1, "f"), function(3, "g")}}, {enter(1), enter(2)}, {"FuncId"}},
        {"one name and the same number", {{function(1, "f"), function(3, "g")}}, {enter(1), enter(1)}, {}},
        {"states of machines",
         {{machine(1, "m"), machine(7, "m")},
          {state(1, 2, "on"), state(7, 5, "on")},
          {state(1, 3, "off"), state(7, 2, "off")}},
         {edge(1, 2, 3), edge(7, 5, 2)},
         {}},
        {"other states",
         {{machine(1, "m"), machine(7, "m")},
          {state(1, 2, "on"), state(7, 5, "on")},
          {state(1, 3, "off"), state(7, 2, "off")}},
         {edge(1, 2, 3), edge(7, 2, 5)},
         {"SourceState", "TargetState"}},
    };
    for (const Case& its : cases) {
        EventComparison comparison({.byName = true});
        for (const auto& [first, second] : its.defined) {
            comparison.note(kOfFirst, first);
            comparison.note(kOfSecond, second);
        }
        const auto& [first, second] = its.events;
        EXPECT_EQ(comparison.differences(first, second), its.differences) << its.what;
        EXPECT_EQ(comparison.areSame(first, second), its.differences.empty()) << its.what;
    }
}

} // namespace
} // namespace Quorvex::test

#include "quorvex/analysis/TraceNames.h"

#include "quorvex/packets/PacketKinds.h"
#include "tests/support/RandomPackets.h"
#include "tests/support/Samples.h"

#include <gtest/gtest.h>

#include <map>
#include <tuple>

namespace Quorvex::test {
namespace {

const CCoreContext kContext(1, 0, 1, 0);

TEST(TraceNames, BelongToTheProcessThatGivesThem) {
    // What processes define (0: by a name, or use: by none), and the number and the name of it there.
    struct Step {
        unsigned process;
        std::uint32_t id;
        const char* name;
        std::uint32_t number;
        const char* shown;
        bool isRenamed = false;
    };
    constexpr std::uint32_t kFirst = 0xFFFFFFFE;
    const std::vector<Step> cases[] = {
        {{0, 7, "main", 7, "main"},
         {1, 7, "main", 7, "main"},
         {2, 7, "", 7, "main"},
         {1, 8, "f", 8, "f"},
         {0, 8, "", 8, "f"}},
        {{0, 7, "main", 7, "main"}, {0, 7, "start", 7, "start", true}, {1, 7, "", 7, "start"}},
        // A process that means something else shares nothing but what it names alike.
        {{0, 7, "a", 7, "a"},
         {0, 8, "b", 8, "b"},
         {0, 9, "c", 9, "c"},
         {1, 7, "x", kFirst, "x"},
         {1, 8, "", kFirst - 1, ""},
         {1, 9, "c", 9, "c"},
         {1, 5, "", 5, ""},
         {0, 7, "", 7, "a"},
         {0, 8, "", 8, "b"},
         {2, 7, "x", kFirst, "x"},
         {2, 8, "y", kFirst - 2, "y"},
         {1, 5, "own", 5, "own"},
         {0, 5, "", kFirst - 3, ""}},
        // Nor does a new name reach those who share the old one.
        {{0, 7, "a", 7, "a"}, {1, 7, "a", 7, "a"}, {1, 7, "b", kFirst, "b"}, {0, 7, "", 7, "a"}},
        {{0, 7, "a", 7, "a"}, {1, 7, "a", 7, "a"}, {0, 7, "b", kFirst, "b"}, {1, 7, "", 7, "a"}, {2, 7, "", 7, "a"}},
        {{0, 7, "main", 7, "main"},
         {1, 7, "parse", kFirst, "parse"},
         {2, 7, "parse", kFirst, "parse"},
         {1, 7, "render", kFirst - 1, "render"},
         {2, 7, "", kFirst, "parse"},
         {3, 7, "parse", kFirst, "parse"},
         {1, 7, "paint", kFirst - 1, "paint", true},
         {2, 7, "main", 7, "main"},
         {3, 7, "draw", kFirst, "draw", true},
         {1, 7, "draw", kFirst, "draw"},
         {2, 7, "", 7, "main"}},
        {{0, 7, "main", 7, "main"},
         {1, 7, "parse", kFirst, "parse"},
         {1, 7, "render", kFirst, "render", true},
         {2, 7, "parse", kFirst - 1, "parse"},
         {3, 7, "render", kFirst, "render"}},
        {{0, 7, "main", 7, "main"}, {0, 7, "start", 7, "start", true}, {1, 7, "main", kFirst, "main"}},
        {{0, kFirst, "a", kFirst, "a"}, {1, kFirst, "b", kFirst - 1, "b"}},
    };
    for (const auto& steps : cases) {
        CTraceNames names;
        for (const Step& step : steps) {
            SCOPED_TRACE(std::to_string(step.process) + " " + std::to_string(step.id) + " " + step.name);
            EXPECT_EQ(names.note(CFunctionDefine(kContext, step.id, step.name), step.process), !step.isRenamed);
            const std::uint64_t number = names.numberOf(TextSort::Function, step.id, step.process);
            EXPECT_EQ(number, step.number);
            EXPECT_EQ(names.name(TextSort::Function, number), step.shown);
            EXPECT_EQ(names.idOf(TextSort::Function, number), step.id);
        }
    }
}

TEST(TraceNames, AreThoseOfThreadsThatMessagesTell) {
    const auto tell = [](CTraceNames& names, const char* text, unsigned process = 0) {
        EXPECT_TRUE(names.note(CMessage(1, 0, text), process));
    };
    CTraceNames names;
    tell(names, "quorvex.thread pid=1 tid=8 name=starting");
    tell(names, "quorvex.thread pid=1 tid=9");
    tell(names, "no quorvex.thread pid=1 tid=8 name=x");
    tell(names, "quorvex.gone pid=1 tid=8 name=x");
    EXPECT_EQ(names.threadText(9), "thread 9");
    tell(names, "quorvex.process pid=1 parent=7 program=/usr/bin/ma\\x20ke");
    tell(names, "quorvex.thread pid=1 tid=8 name=wo\\x0ark er");
    EXPECT_EQ(names.threadText(8), "thread 8 (wo\nrk er)");
    EXPECT_EQ(names.threadName(9), "ma ke");
    // Another program's thread, which is called like that, and one that both tell of.
    tell(names, "quorvex.process pid=2 program=sh (deleted)", 1);
    tell(names, "quorvex.thread pid=2 tid=10 name=sh", 1);
    tell(names, "quorvex.thread pid=2 tid=8 name=main", 1);
    const struct {
        std::uint32_t thread;
        unsigned process;
        const char *name, *title;
    } cases[] = {{8, 0, "wo\nrk er", "wo\nrk er of ma ke"},
                 {8, 1, "main", "main of sh (deleted)"},
                 {8, CTraceNames::kAnyProcess, "main", "main of sh (deleted)"},
                 {9, 1, "ma ke", "ma ke"},
                 {10, 0, "sh", "sh"},
                 {11, 0, "", ""}};
    for (const auto& its : cases) {
        EXPECT_EQ(names.threadName(its.thread, its.process), its.name);
        EXPECT_EQ(names.threadTitle(its.thread, its.process), its.title);
    }
    tell(names, "quorvex.name pid=1 name=/the make");
    EXPECT_EQ(names.threadName(9), "/the make");
    EXPECT_EQ(names.threads(), (std::vector<std::uint32_t>{8, 9, 10}));
}

TEST(TraceNames, NumberPartsWithinTheirStateMachine) {
    CTraceNames names;
    for (unsigned process = 0; process < 2; ++process) {
        names.note(CStateMachineDefine(3, process == 0 ? "door" : "lift"), process);
        names.note(CStateDefine(3, 1, process == 0 ? "open" : "up"), process);
    }
    const std::uint64_t other = names.numberOf(TextSort::StateMachine, 3, 1);
    EXPECT_NE(other, 3U);
    for (unsigned process = 0; process < 2; ++process) {
        const std::uint64_t state = names.numberOf(TextSort::State, CTraceNames::pair(3, 1), process);
        EXPECT_EQ(state >> 32, process == 0 ? 3 : other);
        EXPECT_EQ(names.name(TextSort::State, state), process == 0 ? "open" : "up");
    }
}

TEST(TraceNames, KnowWhatEachDefinitionIsAbout) {
    // Every identifier of a sample is another one: in wire order these. What is part of a state machine comes behind
    // it.
    constexpr std::uint32_t kIds[] = {0x51525354, 0x61626364, 0x71727374, 0x81828384};
    const std::map<TextSort, unsigned> placeInMachine = {
        {TextSort::StateMachineInstance, 1}, {TextSort::State, 1}, {TextSort::Transition, 3}};
    std::size_t definitions = 0;
    for (const Sample& sample : samples()) {
        const auto packet = packetOf(bytes(sample.wire));
        const KindFacts& facts = factsOf(packet->TraceCode());
        const auto subject = subjectOf(*packet);
        if (facts.role != Role::Definition)
            continue;
        ++definitions;
        ASSERT_TRUE(subject) << sample.name;
        EXPECT_EQ(subject->sort, facts.text) << sample.name;
        const auto part = placeInMachine.find(facts.text);
        const bool isPart = part != placeInMachine.end();
        EXPECT_EQ(subject->id, isPart ? CTraceNames::pair(kIds[0], kIds[part->second]) : kIds[0]) << sample.name;
    }
    EXPECT_GT(definitions, 0U);
    const CFunctionEnter call(kContext, 5, 6);
    EXPECT_EQ(subjectOf(call)->id, 6U) << "not where control comes from";
    const CTransition transition(3, 4, 5, 0, 1);
    EXPECT_EQ(subjectOf(transition)->sort, TextSort::Transition);
    EXPECT_EQ(subjectOf(transition)->id, CTraceNames::pair(3, 5));
    EXPECT_EQ(subjectOf(CVariableDefine(kContext, 8, 9, "v"))->id, 8U);
    EXPECT_EQ(subjectOf(CHWExceptionEnter(kContext, 2))->sort, TextSort::None);
    EXPECT_FALSE(subjectOf(CExecInsn(kContext)));
    EXPECT_FALSE(subjectOf(CFunctionEnter(kContext, ~0U))) << "of no function";
    EXPECT_FALSE(subjectOf(CFunctionEnter(kContext, 5, ~0U)));
    EXPECT_EQ(subjectOf(CCounterValue(kContext, ~0U, TCounter_t(1.0)))->id, ~0U);
}

} // namespace
} // namespace Quorvex::test

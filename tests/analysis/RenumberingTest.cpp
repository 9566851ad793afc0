#include "quorvex/analysis/Renumbering.h"

#include "quorvex/analysis/TraceNames.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/packets/PacketKinds.h"
#include "tests/support/Effort.h"
#include "tests/support/RandomPackets.h"

#include <gtest/gtest.h>

#include <ctime>
#include <map>
#include <set>
#include <tuple>

namespace Quorvex::test {
namespace {

using Key = CTraceNames::Key;

const CCoreContext kSomewhere(1, 0, 1, 0);

/// Calls `take(key, value)` with what the packet refers to; parts of state machines with the number of the machine.
template <class Take> void eachReference(const CPacket& packet, Take take) {
    std::uint64_t machine = 0;
    eachNumber(packet, [&](const NumberField& field) {
        const Reference* reference = field.meaning == FieldMeaning::Id ? referenceOf(field.name) : nullptr;
        if (!reference || (reference->sort == TextSort::Function && field.value == CFunctionEnter::kNoFunction))
            return;
        if (reference->sort == TextSort::StateMachine)
            machine = field.value;
        take(Key(reference->sort, isPartOfMachine(reference->sort) ? machine << 32 | field.value : field.value));
    });
}

/// What a reader of a trace knows: of an identifier, what the last definition of each kind says. A text that is missing
/// takes nothing back.
class NameReader {
public:
    struct Fact {
        std::string text, numbers;
        std::vector<std::string> references; ///< by their names

        /// Whether it says the same, or more.
        bool covers(const Fact& other) const {
            bool does = (text == other.text || other.text.empty()) && numbers == other.numbers;
            for (std::size_t i = 0; does && i < references.size(); ++i)
                does = references[i] == other.references[i] || other.references[i].empty();
            return does;
        }
    };
    using Told = std::map<tagTCode, Fact>;

    void read(const CPacket& packet) {
        const KindFacts& facts = factsOf(packet.TraceCode());
        const auto subject = subjectOf(packet);
        if (!subject || (facts.role != Role::Definition && facts.role != Role::Undefinition))
            return;
        const Key key(subject->sort == TextSort::CounterUnit ? TextSort::Counter : subject->sort, subject->id);
        if (facts.role == Role::Undefinition) {
            m_told.erase(key);
            return;
        }
        Fact& fact = m_told[key][packet.TraceCode()];
        const std::string text = wholeTextOf(packet).empty() ? fact.text : std::string(wholeTextOf(packet));
        fact = {text, "", {}};
        eachReference(packet, [&](const Key& other) {
            if (other != key && other.first != TextSort::StateMachine)
                fact.references.push_back(nameOf(other));
        });
        eachNumber(packet, [&](const NumberField& field) {
            if (field.meaning == FieldMeaning::Count || field.meaning == FieldMeaning::Bytes ||
                std::string_view(field.name) == "EvtType")
                fact.numbers += std::to_string(field.value) + ",";
        });
        if (!wholeTextOf(packet).empty() && subject->sort != TextSort::CounterUnit)
            m_names[key] = wholeTextOf(packet);
    }
    Told of(const Key& key) const { return m_told.contains(key) ? m_told.at(key) : Told(); }
    std::string nameOf(const Key& key) const { return m_names.contains(key) ? m_names.at(key) : ""; }

private:
    std::map<Key, Told> m_told;
    std::map<Key, std::string> m_names;
};

/// Packets of all kinds that refer to something, with few identifiers and few names.
class References {
public:
    explicit References(unsigned seed) : m_random(seed) {
        for (unsigned code = 0; code < 256; ++code) {
            const KindFacts& facts = factsOf(tagTCode(code));
            if (!facts.hasClass || facts.isRelative)
                continue;
            const PacketPointer packet(CPacketFactory::getCPacket(tagTCode(code)));
            bool refers = code == FunctionEnter || code == FunctionLeave; // to no function, as they are made
            eachReference(*packet, [&](const Key&) { refers = true; });
            if (refers)
                m_codes.push_back(tagTCode(code));
        }
    }
    std::size_t kinds() const { return m_codes.size(); }

    /// A definition gives a name that nearly all traces give, or one of the trace's own.
    PacketPointer next(unsigned trace) {
        const tagTCode code = m_codes[m_random.below(static_cast<unsigned>(m_codes.size()))];
        const KindFacts& facts = factsOf(code);
        const PacketPointer packet(CPacketFactory::getCPacket(code));
        std::uint64_t last = 0;
        changeNumbers(*packet, [&](FieldMeaning meaning, std::string_view, std::uint64_t& value) {
            constexpr std::uint32_t kIds[] = {1, 2, 3, 4, 0xFFFFFFFE, 0xFFFFFFFD, 0xFFFFFFFF};
            if (meaning == FieldMeaning::Id)
                last = value = kIds[m_random.below(std::size(kIds))];
            else if (meaning == FieldMeaning::Count)
                value = m_random.below(8) == 0;
        });
        std::string wire = wireOf(*packet);
        if (isFollowedByText(code) && m_random.below(8) != 0) {
            const bool isOwn = m_random.below(6) == 0;
            const std::string name = "n" + std::to_string(last) + (isOwn ? "of" + std::to_string(trace) : "");
            wire += "\x7e" + std::string(1, static_cast<char>(name.size())) + name;
        }
        PacketPointer made = packetOf(wire);
        if (const auto subject = subjectOf(*made)) {
            if (facts.role == Role::Definition)
                m_defined.insert({trace, subject->sort, subject->id});
            else if (facts.role == Role::Undefinition && !m_defined.contains({trace, subject->sort, subject->id}))
                return next(trace);
        }
        return made;
    }

private:
    RandomPackets m_random;
    std::vector<tagTCode> m_codes;
    std::set<std::tuple<unsigned, TextSort, std::uint64_t>> m_defined;
};

TEST(Renumbering, LetsReadersSeeWhatEachTraceSays) {
    std::uint64_t given = 0, compared = 0, shared = 0;
    for (unsigned seed = 1; seed <= 300; seed += effort(1, 7)) {
        References random(seed);
        ASSERT_GT(random.kinds(), 30U);
        RandomPackets order(seed);
        const unsigned traces = 2 + seed % 3;
        std::vector<std::vector<PacketPointer>> packets(traces);
        Renumbering renumbering;
        std::vector<std::map<Key, std::set<std::string>>> names(traces);
        for (unsigned trace = 0; trace < traces; ++trace) {
            for (unsigned i = 0; i < seed / 3; ++i) {
                packets[trace].push_back(random.next(trace));
                const CPacket& packet = *packets[trace].back();
                renumbering.note(packet);
                const auto subject = subjectOf(packet);
                if (factsOf(packet.TraceCode()).role == Role::Definition && subject && !wholeTextOf(packet).empty())
                    names[trace][{subject->sort, subject->id}].emplace(wholeTextOf(packet));
            }
            renumbering.endTrace();
        }
        NameReader together;
        std::vector<NameReader> alone(traces);
        std::vector<std::size_t> next(traces);
        std::map<Key, std::map<unsigned, std::uint64_t>> numbers; // of what traces call so
        for (std::size_t left = traces * (seed / 3); left > 0;) {
            const unsigned trace = order.below(traces);
            if (next[trace] == packets[trace].size())
                continue;
            --left;
            CPacket& packet = *packets[trace][next[trace]++];
            alone[trace].read(packet);
            std::vector<Key> before, after;
            eachReference(packet, [&](const Key& key) { before.push_back(key); });
            std::string wire = wireOf(packet);
            ASSERT_TRUE(renumbering.change(packet, trace));
            EXPECT_EQ(packet.StreamSize(), wire.size());
            eachReference(packet, [&](const Key& key) { after.push_back(key); });
            together.read(packet);
            ASSERT_EQ(before.size(), after.size());
            for (std::size_t i = 0; i < before.size(); ++i) {
                const NameReader::Told now = together.of(after[i]);
                for (const auto& [kind, told] : alone[trace].of(before[i])) {
                    ASSERT_TRUE(now.contains(kind)) << "seed " << seed;
                    EXPECT_TRUE(now.at(kind).covers(told)) << "seed " << seed;
                    ++compared;
                }
                if (names[trace].contains(before[i]) || together.nameOf(after[i]).empty())
                    continue;
                // What a trace does not name has the name that another gives to just that.
                bool isNamed = false;
                for (unsigned other = 0; other < traces; ++other)
                    isNamed |= names[other][before[i]].contains(together.nameOf(after[i]));
                EXPECT_TRUE(isNamed || isPartOfMachine(before[i].first)) << "seed " << seed;
                ++shared;
            }
            if (!before.empty()) { // one number from the first packet to the last
                const auto number = numbers[before.front()].try_emplace(trace, after.front().second).first->second;
                EXPECT_EQ(number, after.front().second);
            }
        }
        given += renumbering.given();
    }
    EXPECT_GT(given, 1000U);
    EXPECT_GT(compared, 1000U);
    EXPECT_GT(shared, 100U);
}

/// The number that a trace's function has.
std::uint32_t numberOf(Renumbering& renumbering, std::size_t trace, std::uint32_t function) {
    CFunctionEnter packet(kSomewhere, function);
    EXPECT_TRUE(renumbering.change(packet, trace));
    return packet.TgtFuncId();
}

TEST(Renumbering, KeepsWhatIsAlike) {
    // Definitions of functions, trace by trace, then the numbers of 1 to 4 there.
    struct Case {
        std::vector<std::vector<std::pair<std::uint32_t, const char*>>> traces;
        std::vector<std::vector<std::uint32_t>> numbers;
        unsigned given;
    };
    constexpr std::uint32_t kFirst = 0xFFFFFFFE;
    const Case cases[] = {
        {{{{1, "a"}, {2, "b"}}, {{1, "a"}, {3, "c"}}, {}}, {{1, 2, 3, 4}, {1, 2, 3, 4}, {1, 2, 3, 4}}, 0},
        {{{{1, "a"}, {2, "b"}}, {{1, "x"}, {3, "c"}}, {{1, "x"}}},
         {{1, 2, kFirst - 1, 4}, {kFirst, kFirst - 2, 3, 4}, {kFirst, kFirst - 3, kFirst - 4, 4}},
         5},
        {{{{1, "a"}, {1, "b"}}, {{1, "b"}}, {{2, "c"}}}, {{1, 2, 3, 4}, {kFirst, 2, 3, 4}, {1, 2, 3, 4}}, 1},
        {{{{1, ""}}, {{1, "a"}}, {{1, "b"}}}, {{1, 2, 3, 4}, {1, 2, 3, 4}, {kFirst, 2, 3, 4}}, 1},
    };
    for (const Case& its : cases) {
        Renumbering renumbering;
        for (const auto& trace : its.traces) {
            for (const auto& [id, name] : trace)
                renumbering.note(CFunctionDefine(kSomewhere, id, name));
            renumbering.endTrace();
        }
        for (std::size_t trace = 0; trace < its.numbers.size(); ++trace) {
            for (std::uint32_t id = 1; id <= 4; ++id)
                EXPECT_EQ(numberOf(renumbering, trace, id), its.numbers[trace][id - 1]) << trace << ' ' << id;
            EXPECT_EQ(numberOf(renumbering, trace, ~0U), ~0U) << "no function";
        }
        EXPECT_EQ(renumbering.given(), its.given);
    }
}

/// Processor time for so many traces each of which means something of its own by a number.
std::clock_t timeFor(unsigned traces, CPacket* (*define)(unsigned trace)) {
    Renumbering renumbering;
    const std::clock_t begin = std::clock();
    for (unsigned trace = 0; trace < 2 * traces; ++trace) { // and each meaning comes again
        const PacketPointer packet(define(trace % traces));
        renumbering.note(*packet);
        renumbering.endTrace();
    }
    const std::clock_t time = std::clock() - begin;
    EXPECT_EQ(renumbering.given(), traces - 1);
    return time;
}

TEST(Renumbering, TakesNoLookAtAllThatANumberMeans) {
    CPacket* (*const defines[])(unsigned) = {
        [](unsigned trace) -> CPacket* {
            return new CFunctionDefine(kSomewhere, 1, ("f" + std::to_string(trace)).c_str());
        },
        [](unsigned trace) -> CPacket* { return new CVariableDefine(kSomewhere, 1, trace, "v"); },
    };
    constexpr unsigned kFew = 500, kTimes = 16;
    for (const auto define : defines) {
        timeFor(10, define);
        EXPECT_LT(timeFor(kTimes * kFew, define), 4 * kTimes * (timeFor(kFew, define) + CLOCKS_PER_SEC / 1000));
    }
}

TEST(Renumbering, TellsThatThereIsNoNumberLeft) {
    constexpr unsigned kNew = 3;
    Renumbering renumbering(0xFFFFFFFF - kNew);
    for (const char* name : {"a", "b"}) {
        for (std::uint32_t id = 0; id <= kNew; ++id)
            renumbering.note(CFunctionDefine(kSomewhere, id, name));
        renumbering.endTrace();
    }
    for (std::uint32_t id = 0; id < kNew; ++id)
        EXPECT_EQ(numberOf(renumbering, 1, id), 0xFFFFFFFE - id);
    CFunctionEnter packet(kSomewhere, kNew);
    EXPECT_FALSE(renumbering.change(packet, 1));
    EXPECT_EQ(packet.TgtFuncId(), kNew);
}

TEST(ChangeNumbers, LeavesWhatDoesNotFit) {
    CTypeDefine packet(kSomewhere, 7, 255, "name");
    const auto addOne = [](FieldMeaning meaning, std::string_view, std::uint64_t& value) {
        value += meaning == FieldMeaning::Id || meaning == FieldMeaning::Count;
    };
    EXPECT_FALSE(changeNumbers(packet, addOne));
    EXPECT_EQ(packet.TypeId(), 8U);
    EXPECT_EQ(packet.VarSize(), 255U);
    EXPECT_EQ(packet.Tick(), kSomewhere.Tick());
    CMessage message(1, -2, "text");
    EXPECT_TRUE(changeNumbers(message, addOne));
    EXPECT_EQ(message.Level(), -2);
}

} // namespace
} // namespace Quorvex::test

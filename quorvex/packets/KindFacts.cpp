#include "quorvex/packets/KindFacts.h"

#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <type_traits>

namespace Quorvex {

namespace {

template <class Context, class Absolute, class Relative>
constexpr bool isOneOf = std::is_same_v<Context, Absolute> || std::is_same_v<Context, Relative>;

template <class Context> constexpr ContextSort sortOf() {
    return isOneOf<Context, CCoreContext, CRelCoreContext>       ? ContextSort::Core
           : isOneOf<Context, CBusContext, CRelBusContext>       ? ContextSort::Bus
           : isOneOf<Context, CSystemContext, CRelSystemContext> ? ContextSort::System
                                                                 : ContextSort::None;
}

/// What the class of a kind tells, beside the columns of its row.
template <class Packet> constexpr KindFacts factsOfClass(Role role, TextSort text) {
    KindFacts facts{.hasClass = true, .role = role, .text = text, .length = Packet::Len()};
    if constexpr (MadeOfParts<Packet>) {
        using Context = typename Packet::Context;
        facts.context = sortOf<Context>();
        facts.isRelative = requires {
            typename Context::Absolute;
        };
        facts.textMayCount = requires {
            Packet::kTextMayCount;
        };
    }
    return facts;
}

template <class Packet, Role role, TextSort text> constexpr void addKind(KindTable& table) {
    static_assert((text != TextSort::None) == HasFollowingText<Packet>, "a text sort for kinds with a text, no other");
    static_assert((role == Role::Definition) == (text != TextSort::None && text != TextSort::Message),
                  "definitions give a name, and nothing else does");
    table[Packet::kCode] = factsOfClass<Packet>(role, text);
}

template <class Absolute, class Relative> constexpr void addPair(KindTable& table) {
    static_assert(unsigned{Relative::kCode} + 0x10 == unsigned{Absolute::kCode},
                  "a relative code lies 0x10 below its absolute one");
    static_assert(std::is_same_v<typename Relative::Context::Absolute, typename Absolute::Context>);
    table[Absolute::kCode].otherForm = Relative::kCode;
    table[Relative::kCode].otherForm = Absolute::kCode;
}

constexpr void addPlanned(KindTable& table, tagTCode code, Role role, TextSort text) {
    table[code].role = role;
    table[code].text = text;
}

constexpr void addSteps(KindTable& table, tagTCode enter, tagTCode leave, TextSort entered) {
    for (const tagTCode code : {enter, table[enter].otherForm, leave, table[leave].otherForm})
        table[code].entered = entered;
    table[enter].step = table[table[enter].otherForm].step = Step::Enter;
    table[leave].step = table[table[leave].otherForm].step = Step::Leave;
}

constexpr KindTable makeTable() {
    KindTable table{};
#define QUORVEX_TCODE(code, name, description, layout, role, text) addKind<C##name, Role::role, TextSort::text>(table);
#define QUORVEX_ABSOLUTE_TCODE(code, name, description, layout, role, text)                                            \
    addKind<C##name, Role::role, TextSort::text>(table);                                                               \
    addPair<C##name, CRel##name>(table);
#define QUORVEX_PLANNED_TCODE(code, name, description, layout, role, text)                                             \
    addPlanned(table, name, Role::role, TextSort::text);
#include "quorvex/format/TCodes.def"
    table[Sync].sync = ContextSort::Core;
    table[BusSync].sync = ContextSort::Bus;
    table[SystemSync].sync = ContextSort::System;
    addSteps(table, FunctionEnter, FunctionLeave, TextSort::Function);
    addSteps(table, ProcessEnter, ProcessLeave, TextSort::Process);
    addSteps(table, HWExceptionEnter, HWExceptionLeave, TextSort::None);
    for (const tagTCode code : {CounterValueVar, CounterValue, CounterValueDim1, CounterValueDim2, CounterValueDimN})
        table[code].isCounterValue = table[table[code].otherForm].isCounterValue = true;
    for (const tagTCode code : {TraceEnabled, TraceDisabled, EndOfTrace})
        table[code].isFrame = true;
    for (KindFacts& kind : table)
        kind.standsAlone = kind.text == TextSort::None && kind.role != Role::Structure;
    table[CharString].standsAlone = false; // it may be a whole text
    return table;
}

constexpr bool isSorted() {
    constexpr tagTCode kCodes[] = {
#define QUORVEX_TCODE(code, name, description, layout, role, text) name,
#include "quorvex/format/TCodes.def"
    };
    return std::adjacent_find(std::begin(kCodes), std::end(kCodes), std::greater_equal<>()) == std::end(kCodes);
}
static_assert(isSorted(), "the rows of TCodes.def are sorted by code, each code once");

} // namespace

constexpr KindTable kKindFacts = makeTable();

static_assert(std::ranges::all_of(kKindFacts,
                                  [](const KindFacts& kind) { return !kind.isRelative || kind.otherForm != Invalid; }),
              "every relative kind has an absolute one");

} // namespace Quorvex

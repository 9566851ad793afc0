#pragma once

#include "quorvex/format/TCodeInfo.h"
#include "quorvex/platform/Export.h"

#include <array>
#include <cstdint>

namespace Quorvex {

/// The three sorts of context that have an absolute and a relative form.
enum class ContextSort : std::uint8_t { None, Core, Bus, System };

/// All that there are.
inline constexpr ContextSort kContextSorts[] = {ContextSort::Core, ContextSort::Bus, ContextSort::System};
/// The word for a sort: "core", "bus" or "system"; empty for none.
constexpr const char* nameOf(ContextSort sort) {
    constexpr const char* kNames[] = {"", "core", "bus", "system"};
    return kNames[unsigned(sort)];
}

/// What a packet does in a trace.
enum class Role : std::uint8_t {
    Happening,    ///< tells what happened: whoever shows a trace shows it, or tells that it cannot
    Definition,   ///< gives something a name
    Undefinition, ///< takes a name back
    Structure,    ///< frames, times, padding: nothing to show by itself
};

/// What the text behind a packet is.
enum class TextSort : std::uint8_t {
    None, ///< no text follows
    Message,
    Function,
    Process,
    Line,
    Type,
    Variable,
    Expression,
    Counter,
    CounterUnit,
    Event,
    Signal,
    StateMachine,
    StateMachineInstance,
    State,
    Transition,
};

/// Whether something begins or ends by a packet: a function in a thread, a process or an interrupt on a core.
enum class Step : std::uint8_t { None, Enter, Leave };

/// What is known of a kind of packet without one at hand. Name, description and layout of a kind tells CTCodeInfo.
struct KindFacts {
    bool hasClass = false;                   ///< without a class, packets of that code can be stepped over only
    Role role = Role::Structure;             ///< what it does in a trace
    TextSort text = TextSort::None;          ///< what the text behind it is
    ContextSort context = ContextSort::None; ///< of the context it carries, absolute or relative
    bool isRelative = false;                 ///< carries the relative form of it
    ContextSort sync = ContextSort::None;    ///< of the context that it restates for relative packets behind it
    tagTCode otherForm = Invalid;            ///< the absolute kind of a relative one, and the other way round
    std::uint8_t length = 0;                 ///< payload bytes, of a kind of changing length the fewest
    Step step = Step::None;                  ///< it enters or leaves something,
    TextSort entered = TextSort::None;       ///< a Function or a Process; None: an interrupt
    bool isCounterValue = false;             ///< tells what a counter has come to
    bool isFrame = false;                    ///< a frame, or the trace, begins or ends there
    bool textMayCount = false;               ///< also read when the header's length counts the text
    bool standsAlone = false;                ///< no text follows it, and writers take no note of it

    /// Whether the payload of a packet, as long as its header says, holds the text too; then none follows.
    bool countsText(unsigned payload) const { return textMayCount && payload > length; }
};

/// The facts of each type code.
using KindTable = std::array<KindFacts, 256>;
/// The facts, by type code.
extern QUORVEX_API const KindTable kKindFacts;

/// The facts of a code; those of Invalid for what is no type code.
inline const KindFacts& factsOf(tagTCode code) {
    return kKindFacts[code < kKindFacts.size() ? code : Invalid];
}

/// Whether a packet of that code may be followed by CharString packets that belong to it.
///
/// A text is a run of CharString packets: it goes on as long as they are full (255 bytes) and ends with the first that
/// is not. A run that breaks off (a packet of another kind follows, or the trace ends) is the text so far. An empty
/// CharString packet that begins a run is no text.
inline bool isFollowedByText(tagTCode code) {
    return factsOf(code).text != TextSort::None;
}

/// The absolute kind of a relative one, any other as it is.
inline tagTCode absoluteKind(tagTCode code) {
    const KindFacts& kind = factsOf(code);
    return kind.isRelative ? kind.otherForm : code;
}

/// The sort of context of a kind that has a relative form; None for all others.
inline ContextSort sortOfAbsolute(tagTCode code) {
    const KindFacts& kind = factsOf(code);
    return kind.otherForm != Invalid && !kind.isRelative ? kind.context : ContextSort::None;
}

/// The sort of context of a relative kind; None for all others.
inline ContextSort sortOfRelative(tagTCode code) {
    const KindFacts& kind = factsOf(code);
    return kind.isRelative ? kind.context : ContextSort::None;
}

/// The sort of context that a packet of that code restates; None when it is no sync packet.
inline ContextSort sortOfSync(tagTCode code) {
    return factsOf(code).sync;
}

/// The sort of context that a packet of that code tells in full: of a sync packet, or of a kind that has a relative
/// form. None for all others.
inline ContextSort sortOfFull(tagTCode code) {
    const ContextSort sync = sortOfSync(code);
    return sync != ContextSort::None ? sync : sortOfAbsolute(code);
}

} // namespace Quorvex

#pragma once

#include "quorvex/analysis/TraceNames.h"
#include "quorvex/format/Packet.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/platform/Export.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace Quorvex {

/// Gives identifiers of several traces new numbers where they would mean two things in one trace. It is told all
/// definitions first, trace by trace, so that an identifier has one number from the first packet of its trace to the
/// last, wherever its definition stands:
///
/// - What two traces define alike has one number: by the same name, and with the same type, size, unit, lines and the
///   like, as far as both tell them. A trace that gives an identifier several names, or takes its definition back,
///   shares it with none that defines it too.
/// - What a trace does not define is what the traces define that are of its process. All are of one process but those
///   that give an identifier another name than the first process does: each of these is one of its own.
/// - The first that defines an identifier keeps its number. New ones are given from 0xfffffffe down; where there are
///   any, identifiers up there that nothing defines get new ones too.
///
/// Identifiers that are given no name (exceptions, types of events) stay, and so does the function with all ones, which
/// is none. Memory grows with the definitions. Used by one thread at a time.
class QUORVEX_API Renumbering {
public:
    /// New numbers are given down to that one.
    explicit Renumbering(std::uint32_t lowest = 0xFFF00000) : m_lowest(lowest) {}

    /// Takes note of what an absolute packet of the trace that is noted defines, or takes back.
    void note(const CPacket& packet);
    /// What has been noted since the last call is all of a trace: the first is 0. To be called for each one, also
    /// without definitions.
    void endTrace();

    /// Gives the packet's identifiers the numbers of its trace. False where there is no number left for one; it is left
    /// as it is. To be called when all traces have been noted.
    bool change(CPacket& packet, std::size_t trace);
    /// How many new numbers have been given.
    std::uint64_t given() const { return m_given; }

private:
    using Key = CTraceNames::Key;
    using Number = std::optional<std::uint64_t>;

    /// What is told of an identifier beside its name by definitions of one kind: their fields, and what those refer to.
    struct Fact {
        tagTCode kind;
        std::string fields;
        std::vector<Key> references;
    };
    /// What an identifier means.
    struct Meaning {
        std::uint64_t id = 0; ///< that identifier
        std::set<std::string> names;
        std::vector<Fact> facts; ///< one of a kind
        bool isDefined = false;
        bool isFixed = true; ///< it means the same all the time

        bool isNamedOtherwise(const Meaning& other) const;
        bool agreesWith(const Meaning& other) const;
        void add(const Meaning& other);
    };

    /// Who means something by an identifier: 0 is the first process, trace + 1 a trace that is on its own in that.
    using Owner = std::size_t;
    Owner processOf(std::size_t trace) const { return m_apart.contains(trace) ? trace + 1 : 0; }

    /// The identifier with the number of its state machine, if it is of one.
    Key keyOf(std::size_t trace, Key identifier);
    /// None where none is left, as in the next two.
    Number numberOf(std::size_t trace, Key identifier);
    /// The number of what is defined so: one that is taken by the same, or else one of its own.
    Number define(Key key, const Meaning& meaning);
    Number newNumber(Key key);
    /// Whether what nothing defines can keep that number.
    bool isFree(Key key) const;

    std::map<Key, Meaning> m_noted; ///< of the trace that is noted
    std::map<std::tuple<Owner, TextSort, std::uint64_t>, Number> m_numbers;
    std::map<Key, Meaning> m_meanings;                  ///< of numbers that are taken
    std::map<Key, std::vector<std::uint64_t>> m_others; ///< new numbers that an identifier has got
    std::map<Key, std::uint64_t> m_last;                ///< new number, by sort and state machine
    std::set<std::size_t> m_apart;                      ///< traces that are not of the first process
    std::size_t m_traces = 0;                           ///< that have been noted
    std::uint32_t m_lowest;
    std::uint64_t m_given = 0;
    bool m_changes = false;
};

} // namespace Quorvex

#pragma once

#include "quorvex/format/Fields.h"
#include "quorvex/format/Packet.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quorvex {

/// A field of a packet as a number.
struct NumberField {
    FieldMeaning meaning;  ///< what it tells
    const char* name;      ///< as in the layout of the kind
    std::uint64_t value;   ///< of raw bytes, the first eight, lowest first
    bool isKnown;          ///< false for all ones where those mean that it is not known, and for no bytes at all
    bool isSigned = false; ///< the value is that of a negative number, or might be, in the two's complement of 64 bits
    std::string_view bytes = {}; ///< of raw bytes, all of them; valid during the call
};

namespace detail {
QUORVEX_API void eachNumber(const CPacket& packet, void (*take)(void* to, const NumberField& field), void* to);
QUORVEX_API bool changeNumbers(CPacket& packet,
                               void (*change)(void* to, FieldMeaning meaning, const char* name, std::uint64_t& value),
                               void* to);
} // namespace detail

/// Calls `take` with each field of the packet's context and payload, in wire order.
template <class Take> void eachNumber(const CPacket& packet, Take take) {
    detail::eachNumber(
        packet, [](void* to, const NumberField& field) { (*static_cast<Take*>(to))(field); }, &take);
}

/// Calls `change(meaning, name, value)` with each whole number of the packet's context and payload, in wire order; what
/// it makes of the value comes to stand in the field. False where that does not fit a field, which then keeps what it
/// holds.
template <class Change> bool changeNumbers(CPacket& packet, Change change) {
    return detail::changeNumbers(
        packet,
        [](void* to, FieldMeaning meaning, const char* name, std::uint64_t& value) {
            (*static_cast<Change*>(to))(meaning, std::string_view(name), value);
        },
        &change);
}

/// The text behind a packet, of a CharString packet its own; empty where there is none. Valid as long as the packet.
QUORVEX_API std::string_view wholeTextOf(const CPacket& packet);

/// What packets are about.
struct Subject {
    TextSort sort = TextSort::None; ///< None: it can have no name, as an interrupt
    std::uint64_t id = 0;           ///< of a part of a state machine, that of CTraceNames::pair()
};

/// What the packet defines, or else what it is about: the function that is entered, the state that is begun with.
/// Nothing for kinds without an identifier, and for the function with all ones, which is none.
QUORVEX_API std::optional<Subject> subjectOf(const CPacket& packet);

/// What a field refers to that holds an identifier.
struct Reference {
    std::string_view field;         ///< its name
    TextSort sort = TextSort::None; ///< of what it refers to
    bool isSubject = true;          ///< the packet is about it, as long as it is about nothing before
};

/// What the field of that name refers to; null for all that hold no identifier that is given a name.
QUORVEX_API const Reference* referenceOf(std::string_view field);

/// Whether identifiers of that sort are numbered within a state machine.
constexpr bool isPartOfMachine(TextSort sort) {
    return sort == TextSort::StateMachineInstance || sort == TextSort::State || sort == TextSort::Transition;
}

/// The names that the define packets of traces give, and those of threads, which messages of recorded programs tell
/// (RecordedFact). Undefine packets take nothing back: what was shown under a name keeps it.
///
/// Identifiers belong to a process. Where nothing says otherwise, all traces are of one: an identifier that one of them
/// does not name has the name that another one gives. A process that names an identifier otherwise than those before it
/// is another one, though: from then on it shares what it names alike, and nothing else. So that one number is one
/// thing for whoever shows them, what is not shared gets a number that is nobody's. A process that names its own
/// identifier anew does so for itself alone: where others have the old name, they keep it with its number.
///
/// Used by one thread at a time. Memory grows with the definitions.
class QUORVEX_API CTraceNames {
public:
    using Key = std::pair<TextSort, std::uint64_t>; ///< sort and number

    CTraceNames();
    CTraceNames(const CTraceNames&) = delete;
    CTraceNames& operator=(const CTraceNames&) = delete;
    ~CTraceNames();

    /// The id of what is numbered within a state machine.
    static constexpr std::uint64_t pair(std::uint32_t machine, std::uint32_t id) {
        return std::uint64_t{machine} << 32 | id;
    }

    /// Takes note of what the packet of a process defines, if anything. False when a name is lost by that: no other
    /// process has the old one, and its number has the new one now.
    bool note(const CPacket& packet, unsigned process = 0);
    /// The same of what a message tells.
    void noteMessage(std::string_view text, unsigned process = 0);
    /// The number of what a process calls by that identifier: nearly always the identifier itself.
    std::uint64_t numberOf(TextSort sort, std::uint64_t id, unsigned process = 0) {
        return m_hasOwn ? ownNumberOf(sort, id, process) : id;
    }
    /// The identifier behind a number.
    std::uint64_t idOf(TextSort sort, std::uint64_t number) const;
    /// The name of a number; empty when none was given.
    const std::string& name(TextSort sort, std::uint64_t number) const;

    /// The same; where none was given, the identifier in hexadecimal.
    std::string nameOrId(TextSort sort, std::uint64_t number) const;

    /// What a thread (a software context) is called, by the process itself, or else by the one that told of it last:
    /// its own name, or that of its process or program. Empty where nothing is told.
    const std::string& threadName(std::uint32_t thread, unsigned process = kAnyProcess) const;
    /// The same for people: "main", "main of make" where programs of several names are told.
    std::string threadTitle(std::uint32_t thread, unsigned process = kAnyProcess) const;
    /// The same with its number: "thread 8 (main)"; "thread 8" where nothing is told.
    std::string threadText(std::uint32_t thread, unsigned process = kAnyProcess) const;
    /// Those of which a process tells something, in their order.
    std::vector<std::uint32_t> threads(unsigned process = kAnyProcess) const;
    static constexpr unsigned kAnyProcess = ~0U; ///< whichever has told of it last

    /// What is known of a number.
    struct Name {
        std::string text; ///< its name
        unsigned process; ///< the first that has given it
        unsigned users;   ///< how many processes have given it, and no other since
    };
    /// The names of all numbers so far.
    const std::map<Key, Name>& all() const { return m_names; }

private:
    struct Numbers;
    struct Thread;

    const Thread* threadOf(std::uint32_t thread, unsigned process) const;
    bool give(unsigned process, Key key, std::string_view text);
    /// The identifier with the number of its state machine, if it is of one.
    Key keyOf(TextSort sort, std::uint64_t id, unsigned process);
    std::uint64_t newNumber(Key key);
    std::uint64_t ownNumberOf(TextSort sort, std::uint64_t id, unsigned process);
    /// Whether two processes are one as far as their names tell.
    bool isOfSame(unsigned one, unsigned other) const;

    std::map<Key, Name> m_names;
    platform::Owned<Numbers> m_numbers;
    bool m_hasOwn = false; ///< some numbers are not the identifiers
};

} // namespace Quorvex

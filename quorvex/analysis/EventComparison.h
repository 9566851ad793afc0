#pragma once

#include "quorvex/format/Fields.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Quorvex {

class CTraceNames;

/// A field of an event, or the text behind it.
struct EventField {
    std::string_view name;              ///< as in the layout of its kind; of the text, "Text"
    FieldMeaning meaning;               ///< what it tells
    std::string bytes;                  ///< as they stand in a trace; of a text, all of it
    TextSort refersTo = TextSort::None; ///< what its identifier is of; None: nothing that has a name
    std::uint64_t id = 0;               ///< that identifier, as CTraceNames takes it
};

/// Whether events of two traces tell the same (see TraceEvents, whose bytes are given here). Used by one thread at a
/// time. Memory grows with the definitions and the kinds of events.
class QUORVEX_API EventComparison {
public:
    /// What does not count; without any of these, events that tell the same have the same bytes.
    struct Rules {
        bool ignoreTime = false;  ///< ticks
        bool ignorePlace = false; ///< cores and threads
        bool byName = false;      ///< identifiers that both traces have named are the same when the names are
    };
    /// Which of the two traces.
    enum Side : unsigned { First, Second };

    explicit EventComparison(Rules rules);
    EventComparison(const EventComparison&) = delete;
    EventComparison& operator=(const EventComparison&) = delete;
    ~EventComparison();

    /// Takes note of the name that an event gives, if any. To be told of each event before it is asked about.
    void note(Side side, std::string_view event);
    /// Whether an event of the first trace tells the same as one of the second.
    bool areSame(std::string_view first, std::string_view second) {
        return m_isExact ? first == second : differences(first, second, nullptr) == 0;
    }
    /// The fields in which the two differ, "Text" among them; "Kind" alone, if their kinds do.
    std::vector<std::string_view> differences(std::string_view first, std::string_view second);

    /// The fields of an event in wire order, its text behind them.
    std::vector<EventField> fieldsOf(std::string_view event);
    /// The names that a trace has given so far.
    CTraceNames& namesOf(Side side);
    /// The name of what a field refers to in a trace; empty where it has none.
    const std::string& nameOf(Side side, const EventField& field) const;

private:
    struct Names;
    struct Slot;
    using Shape = std::vector<Slot>;

    const Shape& shapeOf(std::string_view event);
    bool isSame(const Slot& one, std::string_view first, const Slot& other, std::string_view second) const;
    std::size_t differences(std::string_view first, std::string_view second, std::vector<std::string_view>* names);

    Rules m_rules;
    bool m_isExact;
    platform::Owned<Names> m_names;
};

} // namespace Quorvex

#pragma once

#include "quorvex/analysis/CallSummary.h"
#include "quorvex/analysis/Durations.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"

#include <compare>
#include <cstdint>
#include <map>

namespace Quorvex {

class CTraceCursor;
class CTraceNames;

/// What processes and interrupts do on the cores of traces, in nanoseconds; of traces that do not tell their clock, in
/// ticks. On a core, the interrupt runs that was entered last, or else such a process. What has no leave ends with the
/// last packet of its trace that has a tick.
///
/// The packets of a trace go to look() one after the other, then finish() ends it. Used by one thread at a time. Memory
/// grows with processes, interrupts and cores.
class QUORVEX_API CoreTimes {
public:
    /// What times are told for.
    struct Key {
        TextSort sort;        ///< Process, or None for interrupts
        std::uint64_t number; ///< of the process (CTraceNames::numberOf), or of the interrupt
        std::uint32_t core;   ///< all ones: not known

        auto operator<=>(const Key&) const = default;
    };
    /// What one of them did on one core.
    struct Times {
        std::uint64_t entered = 0; ///< how often
        std::uint64_t total = 0;   ///< from enters to leaves; while it is entered in itself, once
        std::uint64_t running = 0; ///< of that, while nothing else that was entered behind it ran
        Durations durations;       ///< from enter to leave, of those that were left
    };

    explicit CoreTimes(TickWindow window = {});
    CoreTimes(const CoreTimes&) = delete;
    CoreTimes& operator=(const CoreTimes&) = delete;
    ~CoreTimes();

    /// Looks at the next packet of a trace whose identifiers are those of a process. What is not taken when it is
    /// entered does not count, but runs.
    void look(const CTraceCursor& packet, CTraceNames& names, std::uint32_t process, bool isTaken = true);
    /// Ends the trace, so that another can be looked at.
    void finish();

    /// What has been seen, by what it is told for.
    const std::map<Key, Times>& times() const;
    /// From the first tick to the last that has been seen, within the window, over all traces.
    std::uint64_t span() const;
    bool hasClock() const; ///< times are nanoseconds

private:
    struct State;

    platform::Owned<State> m_state;
};

} // namespace Quorvex

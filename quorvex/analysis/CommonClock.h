#pragma once

#include "quorvex/analysis/TimeBase.h"
#include "quorvex/format/Packet.h"
#include "quorvex/platform/Export.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Quorvex {

/// Brings the ticks of several traces to one clock: the one with most ticks a second that any of them tells, so that no
/// two ticks of a trace become one. All arithmetic is exact, in integers; results are rounded down. Traces that tell no
/// clock keep their ticks. First it is told all Timestamp packets of all traces, then it changes packets; the first
/// frequency that a trace tells of a clock stays. Used by one thread at a time.
class QUORVEX_API CommonClock {
public:
    /// Takes note of the frequency that a packet of a trace tells, if any.
    void note(const CPacket& packet, std::size_t trace);
    /// Shifts all ticks of a trace by so many ticks of the common clock, to later ones or back to earlier ones.
    void shift(std::size_t trace, std::uint64_t ticks, bool back);

    /// Ticks in a second of the common clock; 0 while no trace has told any.
    std::uint64_t frequency() const { return m_frequency; }
    bool hasClock(std::size_t trace) const; ///< it has told one
    /// It has a clock with fewer ticks a second.
    bool isSlower(std::size_t trace) const;
    /// It has told several frequencies of one clock, of which the first counts.
    bool contradicts(std::size_t trace) const;
    /// Whether packets of any trace are changed.
    bool changes() const;

    /// Changes ticks and frequencies of an absolute packet of a trace. False where a tick would be no number that a
    /// known tick can be; it is unknown then.
    bool change(CPacket& packet, std::size_t trace) const;

private:
    struct Clocks {
        TimeBase base;
        std::uint64_t slowest = 0; ///< lowest frequency; 0 while none is told
        std::uint64_t fastest = 0; ///< highest one
        std::uint64_t shift = 0;   ///< ticks of the common clock
        bool isBack = false;
        bool contradicts = false;
    };

    const Clocks& of(std::size_t trace) const;
    Clocks& at(std::size_t trace);

    std::vector<Clocks> m_traces;
    std::uint64_t m_frequency = 0;
};

} // namespace Quorvex

#pragma once

#include "quorvex/format/Packet.h"
#include "quorvex/platform/Export.h"

#include <cstdint>
#include <map>
#include <optional>

namespace Quorvex {

/// What ticks are in seconds, as the Timestamp packets of a trace tell it. All arithmetic is exact, in integers;
/// results are rounded down. Used by one thread at a time.
class QUORVEX_API TimeBase {
public:
    static constexpr std::uint32_t kAnyCore = ~0U; ///< where it is not known which

    /// Takes note of the frequency that a packet tells, if any. The first one of a clock stays. False when another one
    /// has been told before, of this clock or another: then not all ticks are alike.
    bool note(const CPacket& packet);

    /// Ticks in a second of the clock that was told first; 0 when none has been told.
    std::uint64_t frequency() const { return m_frequency; }
    /// The same of the clock of a core (hardware context): where that core has told none of its own, the clock that was
    /// told first.
    std::uint64_t frequency(std::uint32_t core) const;
    /// Nanoseconds since tick 0 of that clock, at most the greatest number of 64 bits; none while its frequency is not
    /// known.
    std::optional<std::uint64_t> nanoseconds(std::uint64_t tick, std::uint32_t core) const;

    /// Ticks of a clock in other units, of which there are so many in a second: ticks of another clock, say; at most
    /// `most`. Of a clock of frequency 0, which is not known, a tick is a unit.
    static std::uint64_t unitsOf(std::uint64_t ticks, std::uint64_t frequency, std::uint64_t unitsPerSecond,
                                 std::uint64_t most = UINT64_MAX);

    /// The same in nanoseconds.
    static std::uint64_t nanosecondsOf(std::uint64_t ticks, std::uint64_t frequency) {
        return unitsOf(ticks, frequency, 1'000'000'000);
    }
    /// Ticks of a clock in so many picoseconds; at most the greatest number of 64 bits. The frequency is known.
    static std::uint64_t ticksOf(std::uint64_t picoseconds, std::uint64_t frequency) {
        return unitsOf(picoseconds, 1'000'000'000'000, frequency);
    }

private:
    std::uint64_t m_frequency = 0;
    std::map<std::uint32_t, std::uint64_t> m_cores; ///< those that have told their own
};

} // namespace Quorvex

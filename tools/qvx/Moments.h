#pragma once

#include "quorvex/analysis/TraceSpan.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qvx {

/// A length of time as users tell it: `12` ticks, or with a unit, `1.5s`, `3ms`, `10us`, `20ns`.
class Duration {
public:
    Duration() = default;
    /// None where the text is none, or longer than 200 days.
    static std::optional<Duration> of(std::string_view text);

    bool isTicks() const { return !m_hasUnit; }
    /// In ticks of a clock, rounded down; all ones where that is more than 64 bits hold. With a unit, the frequency
    /// must be known.
    std::uint64_t ticks(std::uint64_t frequency) const;

private:
    std::uint64_t m_amount = 0; ///< ticks, or picoseconds
    bool m_hasUnit = false;
};

/// A moment of traces as users tell it: `12` is that tick; `1.5s`, or `+12` ticks, are since the first tick; with `-`
/// in front, before the last one.
class Moment {
public:
    /// None where the text is none.
    static std::optional<Moment> of(std::string_view text);

    bool needsFirst() const { return m_from == From::First; }
    bool needsLast() const { return m_from == From::Last; }
    bool needsFrequency() const { return !m_distance.isTicks(); }
    /// Its tick, at least 0 and at most all ones; what it needs must be known.
    std::uint64_t tickIn(const Quorvex::TraceSpan& span) const;

private:
    enum class From : std::uint8_t { Zero, First, Last };

    From m_from = From::Zero;
    Duration m_distance;
};

/// What help says of moments.
inline constexpr char kMomentHelp[] =
    "A time is a tick (12), or with a unit (s, ms, us, ns) or + counts from the first tick (1.5s, +12), with - in\n"
    "front from the last (-10ms).";

} // namespace qvx

#pragma once

#include "quorvex/analysis/TimeLength.h"
#include "quorvex/analysis/TraceSpan.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace qvx {

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
    Quorvex::TimeLength m_distance;
};

} // namespace qvx

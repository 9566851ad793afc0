#pragma once

#include "quorvex/platform/Export.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Quorvex {

/// A length of time as users tell it: `12` ticks, or with a unit, `1.5s`, `3ms`, `10us`, `20ns`.
class QUORVEX_API TimeLength {
public:
    TimeLength() = default;
    /// None where the text is none, or longer than 200 days.
    static std::optional<TimeLength> of(std::string_view text);

    bool isTicks() const { return !m_hasUnit; } ///< it is told without a unit
    /// In ticks of a clock, rounded down; all ones where that is more than 64 bits hold. With a unit, the frequency
    /// must be known.
    std::uint64_t ticks(std::uint64_t frequency) const;

private:
    std::uint64_t m_amount = 0; ///< ticks, or picoseconds
    bool m_hasUnit = false;
};

/// A length of time with three digits behind the point, in the unit that fits: "1.500 ms".
QUORVEX_API std::string durationText(std::uint64_t nanoseconds);
QUORVEX_API void appendDuration(std::string& to, std::uint64_t nanoseconds); ///< the same, appended
/// The same, put there. The end of the text; kDurationRoom characters may change.
QUORVEX_API char* putDuration(char* to, std::uint64_t nanoseconds);
inline constexpr unsigned kDurationRoom = 28; ///< see putDuration()

} // namespace Quorvex

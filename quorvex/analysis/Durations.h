#pragma once

#include "quorvex/platform/Export.h"

#include <array>
#include <bit>
#include <cstdint>
#include <vector>

namespace Quorvex {

/// How long something took, many times over, in any unit. It takes 64 counters for each power of two between the
/// shortest and the longest, however many there are. Used by one thread at a time.
class QUORVEX_API Durations {
public:
    void add(std::uint64_t duration, std::uint64_t count = 1); ///< adds one that many times, at least once
    /// Adds all of another row of durations, in the same unit.
    void add(const Durations& other);

    /// What counts a duration, below 4096: those of one counter are told apart by least() and most() alone.
    static unsigned counterOf(std::uint64_t duration) {
        const auto width = static_cast<unsigned>(std::bit_width(duration));
        const unsigned row = width > kBits ? width - kBits : 0;
        return row * kSlots + static_cast<unsigned>((row > 0 ? duration >> (row - 1) : duration) % kSlots);
    }

    std::uint64_t count() const { return m_count; }
    std::uint64_t least() const { return m_count > 0 ? m_least : 0; } ///< exact; 0 where there is none
    std::uint64_t most() const { return m_most; }                     ///< exact; 0 where there is none
    /// What so many hundredths of all do not exceed: to within a 64th of it, exact below 128, between least() and
    /// most().
    std::uint64_t percentile(double hundredths) const;

private:
    static constexpr unsigned kBits = 6;
    static constexpr unsigned kSlots = 1U << kBits;
    using Row = std::array<std::uint64_t, kSlots>;

    /// The counters of a row; those of rows between it and the others are made.
    Row& row(unsigned number);

    std::uint64_t m_count = 0;
    std::uint64_t m_least = ~std::uint64_t{0};
    std::uint64_t m_most = 0;
    /// Row 0 has durations below 64, each in its slot; row n > 0 those from 32 << n, by the six bits behind the first.
    std::vector<Row> m_rows;
    unsigned m_firstRow = 0; ///< the number of m_rows[0]
};

} // namespace Quorvex

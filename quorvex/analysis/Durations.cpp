#include "quorvex/analysis/Durations.h"

#include <algorithm>
#include <cmath>

namespace Quorvex {

Durations::Row& Durations::row(unsigned number) {
    if (m_rows.empty())
        m_firstRow = number;
    if (number < m_firstRow) {
        m_rows.insert(m_rows.begin(), m_firstRow - number, Row());
        m_firstRow = number;
    } else if (number - m_firstRow >= m_rows.size()) {
        m_rows.resize(number - m_firstRow + 1);
    }
    return m_rows[number - m_firstRow];
}

void Durations::add(std::uint64_t duration, std::uint64_t count) {
    m_count += count;
    m_least = std::min(m_least, duration);
    m_most = std::max(m_most, duration);
    const unsigned counter = counterOf(duration);
    row(counter / kSlots)[counter % kSlots] += count;
}

void Durations::add(const Durations& other) {
    m_count += other.m_count;
    m_least = std::min(m_least, other.m_least);
    m_most = std::max(m_most, other.m_most);
    for (unsigned i = 0; i < other.m_rows.size(); ++i) {
        Row& to = row(other.m_firstRow + i);
        for (unsigned slot = 0; slot < kSlots; ++slot)
            to[slot] += other.m_rows[i][slot];
    }
}

std::uint64_t Durations::percentile(double hundredths) const {
    const double wanted = std::ceil(static_cast<double>(m_count) * hundredths / 100);
    if (wanted >= static_cast<double>(m_count))
        return m_most;
    std::uint64_t passed = 0;
    for (unsigned i = 0; i < m_rows.size(); ++i) {
        for (unsigned slot = 0; slot < kSlots; ++slot) {
            passed += m_rows[i][slot];
            if (passed == 0 || static_cast<double>(passed) < wanted)
                continue;
            // The middle of what comes into the slot.
            const unsigned number = m_firstRow + i;
            const std::uint64_t first = number > 0 ? std::uint64_t{kSlots + slot} << (number - 1) : slot;
            const std::uint64_t half = number > 1 ? std::uint64_t{1} << (number - 2) : 0;
            return std::clamp(first + half, m_least, m_most);
        }
    }
    return m_most;
}

} // namespace Quorvex

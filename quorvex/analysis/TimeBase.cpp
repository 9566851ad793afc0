#include "quorvex/analysis/TimeBase.h"

#include "quorvex/packets/PacketKinds.h"

#include <limits>

namespace Quorvex {

namespace {

/// factor * part / whole; `part` is less than `whole`.
std::uint64_t scaled(std::uint64_t factor, std::uint64_t part, std::uint64_t whole) {
    if (part == 0 || factor <= std::numeric_limits<std::uint64_t>::max() / part)
        return factor * part / whole;
    // The product would not fit: it is added up from the factor's highest bit on, and divided as it comes.
    std::uint64_t quotient = 0, rest = 0;
    const auto add = [&](std::uint64_t summand) {
        const bool isFull = rest >= whole - summand;
        rest = isFull ? rest - (whole - summand) : rest + summand;
        quotient += isFull;
    };
    for (unsigned bit = 64; bit-- > 0;) {
        quotient *= 2;
        add(rest);
        if ((factor >> bit & 1) != 0)
            add(part);
    }
    return quotient;
}

} // namespace

bool TimeBase::note(const CPacket& packet) {
    const auto* timestamp = packetAs<CTimestamp>(packet);
    if (!timestamp || !timestamp->is_Frequency_valid() || timestamp->Frequency() == 0)
        return true;
    const std::uint64_t frequency = timestamp->Frequency();
    if (m_frequency == 0)
        m_frequency = frequency;
    bool isNew = true;
    if (timestamp->is_HWCtx_valid())
        isNew = m_cores.try_emplace(timestamp->HWCtx(), frequency).first->second == frequency;
    return isNew && frequency == m_frequency;
}

std::uint64_t TimeBase::frequency(std::uint32_t core) const {
    const auto own = m_cores.find(core);
    return own == m_cores.end() ? m_frequency : own->second;
}

std::optional<std::uint64_t> TimeBase::nanoseconds(std::uint64_t tick, std::uint32_t core) const {
    const std::uint64_t ticks = frequency(core);
    if (ticks == 0)
        return std::nullopt;
    return nanosecondsOf(tick, ticks);
}

std::uint64_t TimeBase::unitsOf(std::uint64_t ticks, std::uint64_t frequency, std::uint64_t unitsPerSecond,
                                std::uint64_t most) {
    if (frequency == 0 || frequency == unitsPerSecond)
        return ticks < most ? ticks : most;
    const std::uint64_t part = scaled(unitsPerSecond, ticks % frequency, frequency);
    const std::uint64_t seconds = ticks / frequency;
    const std::uint64_t last = most / unitsPerSecond;
    const bool fits = seconds < last || (seconds == last && part <= most % unitsPerSecond);
    return fits ? seconds * unitsPerSecond + part : most;
}

} // namespace Quorvex

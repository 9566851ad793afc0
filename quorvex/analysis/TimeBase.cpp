#include "quorvex/analysis/TimeBase.h"

#include "quorvex/packets/PacketKinds.h"

#include <limits>

namespace Quorvex {

namespace {

/// 1000 * rest / frequency; `rest`, which is less than the frequency, becomes the remainder.
std::uint64_t nextThreeDigits(std::uint64_t& rest, std::uint64_t frequency) {
    if (frequency <= std::numeric_limits<std::uint64_t>::max() / 1000) {
        const std::uint64_t product = rest * 1000;
        rest = product % frequency;
        return product / frequency;
    }
    // The product would not fit: a sum whose multiples of the frequency are taken out as they come.
    std::uint64_t digits = 0, sum = 0;
    for (unsigned i = 0; i < 1000; ++i) {
        const bool isFull = sum >= frequency - rest;
        digits += isFull;
        sum = isFull ? sum - (frequency - rest) : sum + rest;
    }
    rest = sum;
    return digits;
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
    return unitsOf(tick, ticks, 1'000'000'000);
}

std::uint64_t TimeBase::unitsOf(std::uint64_t ticks, std::uint64_t frequency, std::uint64_t unitsPerSecond,
                                std::uint64_t most) {
    if (frequency == 0 || frequency == unitsPerSecond)
        return ticks < most ? ticks : most;
    std::uint64_t rest = ticks % frequency;
    std::uint64_t part = 0;
    for (std::uint64_t units = 1; units < unitsPerSecond; units *= 1000)
        part = part * 1000 + nextThreeDigits(rest, frequency);
    const std::uint64_t seconds = ticks / frequency;
    const std::uint64_t last = most / unitsPerSecond;
    const bool fits = seconds < last || (seconds == last && part <= most % unitsPerSecond);
    return fits ? seconds * unitsPerSecond + part : most;
}

std::uint64_t TimeBase::ticksOf(std::uint64_t picoseconds, std::uint64_t frequency) {
    constexpr std::uint64_t kMicro = 1'000'000; // in a second; as many picoseconds are in one
    constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
    const std::uint64_t micros = picoseconds / kMicro;
    const std::uint64_t seconds = micros / kMicro;
    if (seconds > 0 && frequency >= kMost / (seconds + 1))
        return kMost;
    // Each product is below 2^63, as both parts of a second are below 2^20.
    const std::uint64_t ofMicros = micros % kMicro * frequency;
    const std::uint64_t rest = ofMicros % kMicro * kMicro + picoseconds % kMicro * frequency;
    return seconds * frequency + ofMicros / kMicro + rest / (kMicro * kMicro);
}

} // namespace Quorvex

#include "quorvex/analysis/CommonClock.h"

#include "quorvex/analysis/TraceNames.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/Contexts.h"

#include <algorithm>

namespace Quorvex {

namespace {

/// Ticks above that are unknown.
constexpr std::uint64_t kLastTick = (kUnknown64 & ~std::uint64_t{0xFF}) - 1;

} // namespace

const CommonClock::Clocks& CommonClock::of(std::size_t trace) const {
    static const Clocks kNone;
    return trace < m_traces.size() ? m_traces[trace] : kNone;
}

CommonClock::Clocks& CommonClock::at(std::size_t trace) {
    if (trace >= m_traces.size())
        m_traces.resize(trace + 1);
    return m_traces[trace];
}

void CommonClock::note(const CPacket& packet, std::size_t trace) {
    const auto* timestamp = packetAs<CTimestamp>(packet);
    if (!timestamp || !timestamp->is_Frequency_valid() || timestamp->Frequency() == 0)
        return;
    Clocks& clocks = at(trace);
    clocks.base.note(packet);
    const std::uint64_t frequency =
        timestamp->is_HWCtx_valid() ? clocks.base.frequency(timestamp->HWCtx()) : clocks.base.frequency();
    clocks.contradicts |= frequency != timestamp->Frequency();
    clocks.slowest = clocks.slowest == 0 ? frequency : std::min(clocks.slowest, frequency);
    clocks.fastest = std::max(clocks.fastest, frequency);
    m_frequency = std::max(m_frequency, frequency);
}

void CommonClock::shift(std::size_t trace, std::uint64_t ticks, bool back) {
    at(trace).shift = ticks;
    at(trace).isBack = back;
}

bool CommonClock::hasClock(std::size_t trace) const {
    return of(trace).fastest != 0;
}

bool CommonClock::isSlower(std::size_t trace) const {
    return hasClock(trace) && of(trace).slowest != m_frequency;
}

bool CommonClock::contradicts(std::size_t trace) const {
    return of(trace).contradicts;
}

bool CommonClock::changes() const {
    for (std::size_t trace = 0; trace < m_traces.size(); ++trace) {
        if (isSlower(trace) || m_traces[trace].shift != 0 || m_traces[trace].contradicts)
            return true;
    }
    return false;
}

bool CommonClock::change(CPacket& packet, std::size_t trace) const {
    const Clocks& clocks = of(trace);
    std::uint32_t core = TimeBase::kAnyCore;
    if (clocks.slowest != clocks.fastest) {
        eachNumber(packet, [&core](const NumberField& field) {
            if (field.meaning == FieldMeaning::Context && std::string_view(field.name) == "HWCtx")
                core = static_cast<std::uint32_t>(field.value);
        });
    }
    const std::uint64_t frequency = clocks.base.frequency(core);
    bool fits = true;
    changeNumbers(packet, [&](FieldMeaning meaning, std::string_view name, std::uint64_t& value) {
        if (meaning == FieldMeaning::Tick && checkedTick(value) != kUnknown64) {
            const std::uint64_t tick = TimeBase::unitsOf(value, frequency, m_frequency);
            const bool isIn = tick <= kLastTick && clocks.shift <= (clocks.isBack ? tick : kLastTick - tick);
            value = !isIn ? kUnknown64 : clocks.isBack ? tick - clocks.shift : tick + clocks.shift;
            fits &= isIn;
        } else if (name == "Frequency" && value != 0) {
            value = m_frequency;
        }
    });
    return fits;
}

} // namespace Quorvex

#include "quorvex/analysis/OneClock.h"

namespace Quorvex {

void OneClock::look(std::size_t file, TraceFile& trace) {
    while (!m_clock.hasClock(file) && trace.advance()) {
        if (trace.cursor().TraceCode() != Timestamp)
            continue;
        if (const PacketPointer packet{trace.cursor().packet()})
            m_clock.note(*packet, file);
    }
}

void OneClock::tell(Merged& merged) {
    if (m_clock.changes())
        merged.changeBy(*this);
}

void OneClock::change(std::size_t file, CPacket& packet) {
    if (!m_clock.change(packet, file))
        m_unplaced.insert(file);
}

} // namespace Quorvex

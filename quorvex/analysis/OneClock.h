#pragma once

#include "quorvex/analysis/CommonClock.h"
#include "quorvex/analysis/Merged.h"
#include "quorvex/platform/Export.h"

#include <cstddef>
#include <cstdint>
#include <set>

namespace Quorvex {

/// Lets traces that are merged be shown by one clock, the fastest that any of them tells. Of a trace, what it tells
/// first is its clock; to find that, a trace is read up to there, before all of them are merged.
class QUORVEX_API OneClock : public PacketChange {
public:
    /// Reads a trace up to what tells its clock, which is nearly always in its first packets. Throws what TraceFile
    /// throws.
    void look(std::size_t file, TraceFile& trace);
    /// Has the packets of the merge changed, if traces have different clocks. This must outlive it.
    void tell(Merged& merged);

    const CommonClock& clock() const { return m_clock; } ///< what is known of the clocks
    /// Traces with ticks that are lost because they would be no ticks of 64 bits by the common clock.
    const std::set<std::size_t>& unplaced() const { return m_unplaced; }

    void change(std::size_t file, CPacket& packet) override;

private:
    CommonClock m_clock;
    std::set<std::size_t> m_unplaced;
};

} // namespace Quorvex

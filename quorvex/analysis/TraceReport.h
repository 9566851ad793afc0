#pragma once

#include "quorvex/stream/TraceDamage.h"

#include <cstdint>
#include <string>

namespace Quorvex {

/// How a trace ends.
enum class TraceEnd : std::uint8_t {
    Unread,    ///< that is not known yet: there are packets left
    Empty,     ///< without any packet: its program has not written yet, or was killed before
    NotMarked, ///< with neither frames nor an end-of-trace packet; a table, which may be a part of a trace, always does
    Complete,  ///< with the end of its last frame told, or an end-of-trace packet
    Recording, ///< in a frame that a program still records, or recorded until it was killed; nothing is missing
    Missing,   ///< in a frame: what its program had not written yet is missing
    InPacket,  ///< within a packet
    InText,    ///< within the text of a packet
};

/// How reading one file went.
struct TraceReport {
    std::string file;   ///< as it was named
    TraceDamage damage; ///< so far
    TraceEnd end = TraceEnd::Unread;
    std::uint64_t endOffset = 0;      ///< where what could not be read begins, the end if nothing; 0 for a table
    std::uint64_t missing = 0;        ///< bytes that are missing at the end; 0 where the trace does not tell
    std::uint64_t lacking = 0;        ///< bytes that frames which have ended have less than they tell
    std::string cutKind;              ///< the kind of the cut packet, as FunctionEnter; empty for an unknown one
    std::uint64_t wrongTicks = 0;     ///< packets whose tick could not be and is taken as unknown
    std::uint64_t firstWrongTick = 0; ///< offset of the first of them

    /// Whether something is missing: the end, a part of a frame, or what was damaged.
    bool isLossy() const { return damage.places > 0 || wrongTicks > 0 || lacking > 0 || end >= TraceEnd::Missing; }
};

} // namespace Quorvex

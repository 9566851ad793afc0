#pragma once

#include "quorvex/format/Fields.h"
#include "quorvex/platform/Export.h"

#include <cstdint>

namespace Quorvex {

class CTraceCursor;
class TraceFile;

/// When a trace begins and ends, and what its ticks are. Definitions do not count: they may be older than what is
/// traced.
struct TraceSpan {
    std::uint64_t first = kUnknown64; ///< its first tick; kUnknown64 where it has none
    std::uint64_t last = kUnknown64;  ///< its last one; likewise
    std::uint64_t frequency = 0;      ///< ticks in a second of the first clock that is told; 0 where none is

    /// How far into a trace its clock is looked for where that is only shown: programs and targets tell it first.
    static constexpr std::uint64_t kClockWithin = std::uint64_t{4} << 20;

    /// Of a trace that is not read any more: by reading from its beginning until `first` is known, and for as many
    /// bytes as `clockWithin` until `frequency` is; `last` is not looked for. Throws what TraceFile throws.
    QUORVEX_API static TraceSpan beginningOf(TraceFile& trace, std::uint64_t clockWithin);
    /// Of all of a trace, by several threads where it is large. Throws what TraceFile throws.
    QUORVEX_API static TraceSpan of(TraceFile& trace);
    /// Adds the next packet of a trace.
    QUORVEX_API void look(const CTraceCursor& packet);
    /// Adds another trace: from the first of both to the last; the clock is the first that is known.
    QUORVEX_API void add(const TraceSpan& other);
};

} // namespace Quorvex

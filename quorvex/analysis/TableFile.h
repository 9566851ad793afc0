#pragma once

/// What makes rows of packets has to know of their file.

#include "quorvex/analysis/CallSummary.h"
#include "quorvex/analysis/CounterType.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/TableBatch.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/packets/KindFacts.h"

#include <array>
#include <cstdint>

namespace Quorvex::detail {

/// Several threads look here at once; it is not changed while they do.
struct TableFile {
    explicit TableFile(const TableLayout& its) : layout(its) {}

    /// The index of a name in the dictionary of its columns; null where there is none.
    const std::int32_t* nameOf(TextSort sort, std::uint64_t id) const {
        return names[static_cast<std::size_t>(sort)].find(id);
    }
    void setName(TableBatch& rows, unsigned column, std::size_t row, TextSort sort, std::uint64_t id) const {
        if (!layout.wants(column))
            return;
        if (const std::int32_t* index = nameOf(sort, id))
            rows[column].setNumber(row, *index);
        else
            rows[column].setNull(row);
    }
    /// Sets a number of ticks, all ones where it is not known, and the same in nanoseconds.
    void setTicks(TableBatch& rows, unsigned column, unsigned inNanoseconds, std::size_t row,
                  std::uint64_t ticks) const {
        rows.setUnsigned(column, row, ticks);
        if (layout.wants(inNanoseconds))
            rows.setUnsigned(inNanoseconds, row,
                             ticks == kUnknown64 || frequency == 0 ? kUnknown64
                                                                   : TimeBase::nanosecondsOf(ticks, frequency));
    }
    bool isWithin(std::uint64_t tick) const { return tick >= window.from && tick < window.to; }

    const TableLayout& layout;
    std::int64_t number = 0;
    std::uint64_t frequency = 0; ///< ticks in a second; 0 where that is not known
    TickWindow window;
    bool isRange = false; ///< there may be packets before and behind
    std::array<Directory<std::uint64_t, std::int32_t>, static_cast<std::size_t>(TextSort::Transition) + 1> names;
    Directory<std::uint64_t, std::uint32_t> targets; ///< states that transitions lead to (CTraceNames::pair)
    Directory<std::uint32_t, CounterSort> counters;
};

} // namespace Quorvex::detail

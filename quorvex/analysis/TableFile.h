#pragma once

/// What makes rows of packets has to know of their file.

#include "quorvex/analysis/CallSummary.h"
#include "quorvex/analysis/CounterType.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/TableBatch.h"
#include "quorvex/analysis/TableColumns.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/stream/TraceCursor.h"

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace Quorvex::detail {

using Batches = std::vector<TableBatch>;

/// The batch that the next row comes into.
inline TableBatch& batchFor(Batches& rows, const TableLayout& layout) {
    if (rows.empty() || rows.back().isFull())
        rows.emplace_back(layout);
    return rows.back();
}

/// The number of four bytes at a place in a packet.
inline std::uint32_t fourBytes(const char* from) {
    return loadLittleEndian<std::uint32_t>(from);
}

/// Where and when a packet happened, as far as it tells; what is not known is all ones.
struct PacketPlace {
    std::uint64_t tick = kUnknown64;
    std::uint32_t core = ~0U;
    std::uint32_t thread = ~0U;
    std::uint64_t address = kUnknown64;

    /// Of a packet of a kind that has the context of a core.
    static PacketPlace onCore(const CTraceCursor& packet) {
        const char* const payload = packet.payload();
        if (!factsOf(packet.TraceCode()).isRelative)
            return {checkedTick(loadLittleEndian<std::uint64_t>(payload)), fourBytes(payload + 8),
                    fourBytes(payload + 12), loadLittleEndian<std::uint64_t>(payload + 16)};
        const auto context = *packet.contextOf<CCoreContext>();
        return {checkedTick(context.tick), context.hwCtx, context.swCtx, context.ip};
    }
    /// Of one of any kind.
    static PacketPlace of(const CTraceCursor& packet) {
        const ContextSort sort = factsOf(packet.TraceCode()).context;
        if (sort == ContextSort::Core)
            return onCore(packet);
        PacketPlace place;
        place.tick = packet.tick();
        if (sort == ContextSort::Bus)
            place.core = packet.contextOf<CBusContext>()->hwCtx;
        else if (packet.TraceCode() == InitialState || packet.TraceCode() == Transition)
            place.core = fourBytes(packet.payload() + 12);
        return place;
    }
};

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
    /// Sets the number of a thread, all ones where it is not known, and its name.
    template <const auto& Columns> void setThread(TableBatch& rows, std::size_t row, std::uint32_t thread) const {
        using columns::at;
        setThread(rows, at(Columns, "thread"), at(Columns, "thread_name"), row, thread);
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
    /// Whether what happened then is wanted; where the time is not known, only if all is.
    bool isWithin(std::uint64_t tick) const {
        const bool isAll = window.from == 0 && window.to == UINT64_MAX;
        return isAll || (tick != kUnknown64 && tick >= window.from && tick < window.to);
    }

    using Indices = Directory<std::uint64_t, std::int32_t>; ///< of names in their dictionary, by what they are of

    const TableLayout& layout;
    std::int64_t number = 0;
    std::uint64_t frequency = 0; ///< ticks in a second; 0 where that is not known
    TickWindow window;
    bool isRange = false; ///< there may be packets before and behind
    std::array<Indices, static_cast<std::size_t>(TextSort::Transition) + 1> names;
    Indices threads;                                 ///< indices of the names that the file gives them
    const Indices* othersThreads = nullptr;          ///< likewise any file
    Directory<std::uint64_t, std::uint32_t> targets; ///< states that transitions lead to (CTraceNames::pair)
    Directory<std::uint32_t, CounterSort> counters;

private:
    void setThread(TableBatch& rows, unsigned column, unsigned name, std::size_t row, std::uint32_t thread) const {
        rows.setUnsigned(column, row, thread == ~0U ? kUnknown64 : thread);
        if (!layout.wants(name))
            return;
        const std::int32_t* index = threads.find(thread);
        if (!index && othersThreads)
            index = othersThreads->find(thread);
        rows.set(name, row, index ? std::optional<std::int64_t>(*index) : std::nullopt);
    }
};

} // namespace Quorvex::detail

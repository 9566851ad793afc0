#pragma once

#include "quorvex/platform/Export.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace Quorvex {

/// The tables that are made of traces.
enum class TraceTable : std::uint8_t {
    Spans,
    Packets,
    Functions,
    Threads,
    Counters,
    Variables,
    Events,
    Messages,
    States,
    Losses,
};

/// All of them.
inline constexpr TraceTable kTraceTables[] = {
    TraceTable::Spans,     TraceTable::Packets, TraceTable::Functions, TraceTable::Threads, TraceTable::Counters,
    TraceTable::Variables, TraceTable::Events,  TraceTable::Messages,  TraceTable::States,  TraceTable::Losses};

/// A column of a table.
struct TableColumn {
    const char* name;
    const char* format;  ///< of its values, in Arrow's letters: l, i, g, u, z or b
    bool isName;         ///< they are indices (i) into a dictionary, which has that format
    bool isNullable;     ///< there can be nulls
    const char* unit;    ///< of a number: "ticks", "ns", "bytes"; else empty
    const char* meaning; ///< in a few words
};

/// What a table is.
struct TableFacts {
    const char* name;                     ///< as it is asked for: "spans"
    const char* meaning;                  ///< of its rows, in a few words
    std::span<const TableColumn> columns; ///< in their order
};

/// All of them, by their TraceTable.
QUORVEX_API std::span<const TableFacts> tableFacts();
/// What that one is.
inline const TableFacts& tableFacts(TraceTable table) {
    return tableFacts()[static_cast<std::size_t>(table)];
}
/// The table of that name.
QUORVEX_API std::optional<TraceTable> tableOf(std::string_view name);

} // namespace Quorvex

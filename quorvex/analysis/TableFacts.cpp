#include "quorvex/analysis/TableFacts.h"

#include "quorvex/analysis/TableColumns.h"

#include <algorithm>

namespace Quorvex {

namespace {

using namespace columns;

constexpr TableFacts kTables[] = {
    {"spans", "calls of functions, where they end", kSpans},
    {"packets", "what happened and what is defined; not what frames, syncs and fills a trace", kPackets},
    {"functions", "the functions that have names", kFunctions},
    {"threads", "the threads of which packets tell", kThreads},
    {"counters", "what counters have come to", kCounters},
    {"variables", "values of variables that were read or written", kVariables},
    {"events", "events that occurred", kEvents},
    {"messages", "messages", kMessages},
    {"states", "states of state machines, and transitions between them", kStates},
    {"losses", "what is missing or could not be read", kLosses},
};

} // namespace

std::span<const TableFacts> tableFacts() {
    return kTables;
}

std::optional<TraceTable> tableOf(std::string_view name) {
    const auto* table =
        std::ranges::find(kTables, name, [](const TableFacts& its) { return std::string_view(its.name); });
    if (table == std::end(kTables))
        return std::nullopt;
    return static_cast<TraceTable>(table - std::begin(kTables));
}

} // namespace Quorvex

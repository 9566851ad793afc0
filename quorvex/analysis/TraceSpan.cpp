#include "quorvex/analysis/TraceSpan.h"

#include "quorvex/analysis/TraceFile.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>

namespace Quorvex {

void TraceSpan::look(const CTraceCursor& packet) {
    const KindFacts& facts = factsOf(packet.TraceCode());
    if (facts.role == Role::Definition || facts.sync != ContextSort::None)
        return;
    if (packet.TraceCode() == Timestamp && frequency == 0) {
        const auto timestamp = packet.as<CTimestamp>();
        if (timestamp->is_Frequency_valid())
            frequency = timestamp->Frequency();
    }
    if (const std::uint64_t tick = packet.tick(); tick != kUnknown64) {
        first = std::min(first, tick);
        last = last == kUnknown64 ? tick : std::max(last, tick);
    }
}

TraceSpan TraceSpan::beginningOf(TraceFile& trace, std::uint64_t clockWithin) {
    TraceSpan part;
    std::uint64_t end = 0;
    while ((part.first == kUnknown64 || (part.frequency == 0 && end < clockWithin)) && trace.advance()) {
        part.look(trace.cursor());
        end = trace.cursor().end();
    }
    part.last = kUnknown64;
    return part;
}

TraceSpan TraceSpan::of(TraceFile& trace) {
    struct Part : TraceSpan {
        void join(Part&& next) { add(next); }
    } part;
    trace.walkInParts(part, [](Part& its, const CTraceCursor& packet) { its.look(packet); });
    return part;
}

void TraceSpan::add(const TraceSpan& other) {
    first = std::min(first, other.first);
    if (last == kUnknown64 || (other.last != kUnknown64 && other.last > last))
        last = other.last;
    if (frequency == 0)
        frequency = other.frequency;
}

} // namespace Quorvex

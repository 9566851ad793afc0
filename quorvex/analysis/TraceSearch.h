#pragma once

#include "quorvex/platform/Export.h"

#include <cstdint>
#include <string>

namespace Quorvex {

class CTraceSourceBuffer;

/// A trace within other bytes.
struct FoundTrace {
    std::uint64_t offset; ///< of its first packet
    std::uint64_t size;   ///< up to the end of its last one
};

namespace detail {
QUORVEX_API void findTraces(CTraceSourceBuffer& source, const std::string& name,
                            void (*take)(void* to, const FoundTrace& trace), void* taker);
} // namespace detail

/// Looks for traces anywhere in a source, such as the image of a disk or a memory, and calls `take(trace)` with each.
/// One begins with a TraceEnabled packet with all its fields, as this version writes them, and four packets without a
/// gap, one of which tells a tick. Where its beginning is lost, it begins with a packet that tells a tick, and has
/// within 64 KiB without a gap: eight such packets with ticks less than 2^40 from each other, of which a quarter at
/// most are before the one before, and packets of three kinds, not all of the same size. It ends with an EndOfTrace
/// packet, or where packets end and nothing within 256 KiB goes on, which four packets with ticks that fit those before
/// would do if no frame begins with them. Shorter traces are not found. Throws a TraceError where reading fails.
template <class Take> void findTraces(CTraceSourceBuffer& source, const std::string& name, Take take) {
    detail::findTraces(
        source, name, [](void* taker, const FoundTrace& trace) { (*static_cast<Take*>(taker))(trace); }, &take);
}

} // namespace Quorvex

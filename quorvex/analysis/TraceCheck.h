#pragma once

#include "quorvex/format/TCodeInfo.h"
#include "quorvex/platform/Export.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Quorvex {

class TraceFile;

/// What can be wrong with a trace.
enum class CheckRule : std::uint8_t {
    Damage,     ///< bytes that are no packet, or stand behind the fields of one
    Cut,        ///< the end is missing
    Text,       ///< a text breaks off
    Page,       ///< a packet stands on two pages
    Restated,   ///< a page does not begin with the contexts as they are there
    Fill,       ///< padding is not made of bytes 0x80
    Frame,      ///< frames stand in each other, lack a beginning or tell a wrong length; packets follow the end
    Reference,  ///< a packet is relative to a context that no packet has told
    Definition, ///< something is used that has not been defined
    Balance,    ///< something is left that has not been entered, or was entered in something that is left
    Time,       ///< a tick is before that of the last packet of the same place
};
/// The word for a rule: "damage", "cut" and so on.
QUORVEX_API std::string_view nameOf(CheckRule rule);

/// One place where a trace is not as docs/format.md says.
struct Finding {
    std::uint64_t offset; ///< of the packet, or of the bytes that are none
    tagTCode kind;        ///< of the packet; Invalid where there is none
    CheckRule rule;       ///< what it is about
    std::string text;     ///< what is wrong, in a sentence without a full stop
};

namespace detail {
QUORVEX_API void checkTrace(TraceFile& trace, void (*take)(void* to, const Finding& finding), void* to);
}

/// Reads a trace from its beginning to its end and calls `take` with each finding. Where that is the first of many of
/// its sort it stands for them: an identifier without a definition is told once, and after a tick that goes back, time
/// is taken to go on from there. Findings come in the order of their offsets, but those about pages may come up to
/// eight pages late: only so many page ends tell whether a trace is paged at all. Functions and interrupts that are
/// open at the end are no finding, as a program may end anywhere.
///
/// Memory does not grow with the trace, but with the identifiers, the threads, and what is open in them. Throws what
/// TraceFile throws.
template <class Take> void checkTrace(TraceFile& trace, Take take) {
    detail::checkTrace(
        trace, [](void* to, const Finding& finding) { (*static_cast<Take*>(to))(finding); }, &take);
}

} // namespace Quorvex

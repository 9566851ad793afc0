#pragma once

#include "quorvex/platform/Export.h"

#include <functional>
#include <string>

namespace Quorvex {

class CTraceCursor;
class TraceFile;

/// A number that traces share which tell the same, whatever their form: the SHA-256 of their events' bytes, one after
/// the other (see TraceEvents), in 64 hexadecimal digits. So it is that of the file of a plain, absolute trace without
/// Sync packets and padding, with unknown frame lengths and a text behind all that may have one.
///
/// Any difference in what two traces tell changes it; no two traces are known, nor can be found, that tell other things
/// and share it. A cryptographic function costs more than one that only mixes, but anybody has it at hand to compute
/// the number once more, and a trace that is stored under its number can be trusted to be that trace.
///
/// With `takes`, only the events count for whose packets that is true; it is asked for each, in their order.
///
/// Reads the trace to its end; of a damaged one, the number is that of what can be read. Throws what TraceFile throws.
QUORVEX_API std::string digestOf(TraceFile& trace, const std::function<bool(const CTraceCursor&)>& takes = {});

} // namespace Quorvex

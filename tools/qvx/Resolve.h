#pragma once

#include "Verbs.h"
#include "quorvex/analysis/TraceFile.h"

#include <functional>
#include <string>

namespace qvx {

/// Names the functions of a trace whose calls are told by addresses, as docs/format.md says of recorded programs. It is
/// read three times and must be in the order of ticks. Hands out all its packets in their order: calls with new
/// identifiers, and before the first one of each function what defines it. Tells what cannot be named; the exit code
/// that follows from damage. Throws what `put` throws, and TraceError.
ExitCode resolve(const std::string& from, const std::function<void(Quorvex::PacketPointer)>& put,
                 const std::string& debugDirectory = "/usr/lib/debug");

} // namespace qvx

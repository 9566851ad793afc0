#pragma once

#include "quorvex/export/PacketTableWriter.h"

#include <memory>
#include <ostream>

namespace qvx {

class Option;
class Verb;

/// How packets are shown, and kinds of packet.
enum class TableFormat { Plain, HTML, LaTeX, Verbose, JSON };

/// Adds --format to a verb: with Verbose for those that show packets, with JSON for those that show kinds.
Option addFormatOption(Verb& verb, TableFormat& format, bool ofPackets);

/// The renderer of a table format; not for Verbose and JSON, which are no tables.
std::unique_ptr<Quorvex::CPacketTableWriter> makeTable(TableFormat format, std::ostream& out, bool withOffset);

} // namespace qvx

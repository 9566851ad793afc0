#pragma once

#include "quorvex/export/PacketTableWriter.h"

#include <memory>
#include <ostream>

namespace qvx {

class Option;
class Verb;

/// How packets are shown, and kinds of packet.
enum class TableFormat { Plain, HTML, LaTeX, Verbose, JSON, Text, Auto };

/// Adds --format to a verb: for those that show packets, or for those that show kinds.
Option addFormatOption(Verb& verb, TableFormat& format, bool ofPackets);

/// The renderer of Plain, HTML or LaTeX, which are tables.
std::unique_ptr<Quorvex::CPacketTableWriter> makeTable(TableFormat format, std::ostream& out, bool withOffset);

} // namespace qvx

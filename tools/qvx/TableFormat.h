#pragma once

#include "quorvex/export/PacketTableWriter.h"

#include <memory>
#include <ostream>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace qvx {

/// How packets are shown.
enum class TableFormat { Plain, HTML, LaTeX, Verbose };

/// Adds --format to a verb; Verbose only to those that show packets.
CLI::Option* addFormatOption(CLI::App& verb, TableFormat& format, bool withVerbose);

/// The renderer of a table format; not for Verbose, which is no table.
std::unique_ptr<Quorvex::CPacketTableWriter> makeTable(TableFormat format, std::ostream& out, bool withOffset);

} // namespace qvx

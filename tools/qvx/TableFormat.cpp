#include "TableFormat.h"

#include "Arguments.h"
#include "quorvex/export/PacketHTML.h"
#include "quorvex/export/PacketLaTeX.h"
#include "quorvex/export/PacketPlain.h"

namespace qvx {

Option addFormatOption(Verb& verb, TableFormat& format, bool ofPackets) {
    if (ofPackets)
        return verb.choice("--format", format,
                           {{"text", TableFormat::Text},
                            {"json", TableFormat::JSON},
                            {"plain", TableFormat::Plain},
                            {"html", TableFormat::HTML},
                            {"latex", TableFormat::LaTeX},
                            {"verbose", TableFormat::Verbose}},
                           "text: what happened, for people (default on a terminal), json: an object a line, tables: "
                           "plain (default), html, latex, verbose: a field a line");
    return verb.choice("--format", format,
                       {{"plain", TableFormat::Plain},
                        {"html", TableFormat::HTML},
                        {"latex", TableFormat::LaTeX},
                        {"json", TableFormat::JSON}},
                       "plain (default), html, latex, json");
}

std::unique_ptr<Quorvex::CPacketTableWriter> makeTable(TableFormat format, std::ostream& out, bool withOffset) {
    if (format == TableFormat::HTML)
        return std::make_unique<Quorvex::CPacketHTML>(out, withOffset, 0);
    if (format == TableFormat::LaTeX)
        return std::make_unique<Quorvex::CPacketLaTeX>(out, withOffset, 0);
    return std::make_unique<Quorvex::CPacketPlain>(out, withOffset, 0);
}

} // namespace qvx

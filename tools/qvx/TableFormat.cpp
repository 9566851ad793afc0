#include "TableFormat.h"

#include "quorvex/export/PacketHTML.h"
#include "quorvex/export/PacketLaTeX.h"
#include "quorvex/export/PacketPlain.h"

#include <CLI/CLI.hpp>

#include <map>
#include <string>

namespace qvx {

CLI::Option* addFormatOption(CLI::App& verb, TableFormat& format, bool ofPackets) {
    std::map<std::string, TableFormat> formats{
        {"plain", TableFormat::Plain}, {"html", TableFormat::HTML}, {"latex", TableFormat::LaTeX}};
    const auto& last =
        *formats.emplace(ofPackets ? "verbose" : "json", ofPackets ? TableFormat::Verbose : TableFormat::JSON).first;
    return verb.add_option("--format", format, "plain (default), html, latex, " + last.first)
        ->type_name("FORMAT")
        ->transform(CLI::CheckedTransformer(formats).description(""));
}

std::unique_ptr<Quorvex::CPacketTableWriter> makeTable(TableFormat format, std::ostream& out, bool withOffset) {
    if (format == TableFormat::HTML)
        return std::make_unique<Quorvex::CPacketHTML>(out, withOffset, 0);
    if (format == TableFormat::LaTeX)
        return std::make_unique<Quorvex::CPacketLaTeX>(out, withOffset, 0);
    return std::make_unique<Quorvex::CPacketPlain>(out, withOffset, 0);
}

} // namespace qvx

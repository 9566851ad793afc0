#include "Output.h"
#include "TableFormat.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/factory/PacketFactory.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fmt/ostream.h>

#include <memory>

namespace qvx {

namespace {

struct KindsOptions {
    TableFormat format = TableFormat::Plain;
    Output output;
};

ExitCode kinds(KindsOptions& options) {
    std::ostream& out = options.output.open();
    const auto table = makeTable(options.format, out, false);
    // The plain form is for reading on the terminal: it has the codes too, and no page around it.
    const bool isPage = options.format != TableFormat::Plain;
    if (isPage)
        table->writePageHeader(nullptr);
    else
        out << "Code";
    table->writeTableHeader();
    for (unsigned code = 0; code < 256; ++code) {
        const auto kind = Quorvex::tagTCode(code);
        if (!PacketPointer(Quorvex::CPacketFactory::getCPacket(kind)))
            continue;
        if (!isPage)
            fmt::print(out, "0x{:02x}", code);
        table->writeCPacket(kind);
    }
    if (isPage) {
        table->writeTableFooter();
        table->writePageFooter();
    }
    options.output.commit();
    return Done;
}

} // namespace

void addKinds(CLI::App& program, ExitCode& exitCode) {
    auto options = std::make_shared<KindsOptions>();
    CLI::App* verb = program.add_subcommand("kinds", "Show the format of every kind of packet");
    addFormatOption(*verb, options->format, false);
    options->output.addOptions(*verb);
    verb->footer(
        "Example: qvx kinds\n"
        "Behind each field stands its size in bytes, smallest:largest where it varies, and in braces how often\n"
        "it occurs.");
    verb->callback([options, &exitCode] { exitCode = kinds(*options); });
}

} // namespace qvx

#include "Output.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/export/PacketPlain.h"
#include "quorvex/factory/PacketFactory.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fmt/ostream.h>

#include <memory>

namespace qvx {

namespace {

ExitCode kinds(Output& output) {
    std::ostream& out = output.open();
    Quorvex::CPacketPlain table(out, false, 0);
    out << "Code";
    table.writeTableHeader();
    for (unsigned code = 0; code < 256; ++code) {
        const auto kind = Quorvex::tagTCode(code);
        if (!PacketPointer(Quorvex::CPacketFactory::getCPacket(kind)))
            continue;
        fmt::print(out, "0x{:02x}", code);
        table.writeCPacket(kind);
    }
    output.commit();
    return Done;
}

} // namespace

void addKinds(CLI::App& program, ExitCode& exitCode) {
    auto output = std::make_shared<Output>();
    CLI::App* verb = program.add_subcommand("kinds", "Show the format of every kind of packet");
    output->addOptions(*verb);
    verb->footer(
        "Example: qvx kinds\n"
        "Behind each field stands its size in bytes, smallest:largest where it varies, and in braces how often\n"
        "it occurs.");
    verb->callback([output, &exitCode] { exitCode = kinds(*output); });
}

} // namespace qvx

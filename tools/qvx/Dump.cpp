#include "Output.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/export/PacketPlain.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace qvx {

namespace {

struct DumpOptions {
    std::string file;
    bool parsable = false;
    bool hexTick = false;
    std::uint64_t limit = ~std::uint64_t{0};
    Output output;
};

ExitCode dump(DumpOptions& options) {
    TraceInput input(options.file);
    std::ostream& out = options.output.open();
    Quorvex::CPacketPlain table(out, true, 0);
    table.SetParsable(options.parsable);
    table.SetHexTick(options.hexTick);
    table.writePageHeader(nullptr);
    table.writeTableHeader(true);
    bool more = true;
    for (std::uint64_t count = 0; more && count < options.limit && out.good(); ++count) {
        const PacketPointer packet = input.next();
        more = packet && table.writeCPacket(input.offset(), *packet);
    }
    table.writeTableFooter();
    table.writePageFooter();
    options.output.commit();
    return input.reportDamage();
}

} // namespace

void addDump(CLI::App& program, ExitCode& exitCode) {
    auto options = std::make_shared<DumpOptions>();
    CLI::App* verb = program.add_subcommand("dump", "Show the packets of a trace as a table");
    verb->add_option("FILE", options->file, "Trace file; - for standard input")->required();
    verb->add_flag("--parsable", options->parsable,
                   "For programs: without descriptions, unknown values as \"Invalid\"");
    verb->add_flag("--hex-tick", options->hexTick, "Ticks in hexadecimal");
    verb->add_option("--limit", options->limit, "Show the first N packets only")->type_name("N");
    options->output.addOptions(*verb);
    verb->footer("Example: qvx dump --limit 20 thread_4711.qvx");
    verb->callback([options, &exitCode] { exitCode = dump(*options); });
}

} // namespace qvx

#include "Arguments.h"
#include "Output.h"
#include "Selection.h"
#include "TableFormat.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/export/PacketDebugger.h"

#include <memory>

namespace qvx {

namespace {

struct DumpOptions {
    std::string file;
    TableFormat format = TableFormat::Plain;
    bool bytes = false;
    bool parsable = false;
    bool hexTick = false;
    Selection selection;
    Output output;
};

/// Shows the packets that are selected, until `show` fails.
template <class Show> void showAll(TraceInput& input, Selection& selection, Show&& show) {
    std::uint64_t left = selection.limit();
    while (left > 0 && input.advance()) {
        const Quorvex::CTraceCursor& at = input.cursor();
        if (!selection.takes(0, at))
            continue;
        --left;
        if (!show(*PacketPointer(at.packet()), at.offset(), at.end()))
            break;
    }
}

ExitCode dump(DumpOptions& options) {
    options.output.check({options.file});
    options.selection.begin({options.file});
    TraceInput input(options.file);
    std::ostream& out = options.output.target().open();
    if (options.format == TableFormat::Verbose) {
        Quorvex::CPacketDebugger printer(out, options.bytes);
        showAll(input, options.selection, [&](Quorvex::CPacket& packet, std::uint64_t offset, std::uint64_t end) {
            return printer.put(offset, packet, end - offset);
        });
    } else {
        const auto table = makeTable(options.format, out, true);
        table->SetParsable(options.parsable);
        table->SetHexTick(options.hexTick);
        table->writePageHeader(nullptr);
        table->writeTableHeader(true);
        showAll(input, options.selection, [&](Quorvex::CPacket& packet, std::uint64_t offset, std::uint64_t end) {
            return table->writeCPacket(offset, packet, end - offset);
        });
        table->writeTableFooter();
        table->writePageFooter();
    }
    options.output.target().commit();
    return input.reportDamage();
}

} // namespace

void addDump(Program& program) {
    auto options = std::make_shared<DumpOptions>();
    Verb verb = program.add("dump", "Show the packets of a trace as a table, or one field a line");
    verb.option("FILE", options->file, "Trace file; - for standard input").required();
    addFormatOption(verb, options->format, true);
    verb.flag("--bytes", options->bytes, "(verbose) The bytes of each packet too");
    verb.flag("--parsable", options->parsable,
              "For programs and `qvx convert`: without descriptions, unknown values as \"Invalid\"");
    verb.flag("--hex-tick", options->hexTick, "Ticks in hexadecimal");
    options->selection.addTo(verb, Selection::Packets & ~Selection::Tail);
    options->output.addOptions(verb);
    verb.footer("Example: qvx dump --limit 20 thread_4711.qvx");
    verb.runs([options] {
        const bool isVerbose = options->format == TableFormat::Verbose;
        if (options->bytes && !isVerbose)
            throw Misuse("--bytes", "goes with --format verbose");
        if (isVerbose && (options->parsable || options->hexTick))
            throw Misuse(options->parsable ? "--parsable" : "--hex-tick", "goes with tables");
        return dump(*options);
    });
}

} // namespace qvx

#include "Arguments.h"
#include "Inputs.h"
#include "Output.h"
#include "PacketJson.h"
#include "Selection.h"
#include "Story.h"
#include "TableFormat.h"
#include "TimeText.h"
#include "Timeline.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/analysis/TraceError.h"
#include "quorvex/export/PacketDebugger.h"

#include <deque>
#include <exception>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

struct DumpOptions {
    Inputs inputs;
    TableFormat format = TableFormat::Auto;
    std::optional<TimeForm> time; ///< as it was asked for
    bool bytes = false;
    bool parsable = false;
    bool hexTick = false;
    Selection selection;
    Output output;
};

/// Writes what is shown, or the last rows of it.
class Rows {
public:
    /// The rows that are not the last ones are forgotten, if only so many are wanted.
    Rows(std::ostream& out, std::uint64_t last) : m_out(out), m_last(last), m_isTail(last != ~std::uint64_t{0}) {}

    /// Where a row is written.
    std::ostream& stream() { return m_isTail ? m_row : m_out; }
    /// One has been written; false if writing has failed.
    bool next() {
        if (m_isTail) {
            m_rows.push_back(std::move(m_row).str());
            m_row.str("");
            if (m_rows.size() > m_last)
                m_rows.pop_front();
        }
        return m_out.good();
    }
    /// Has `read` make the rows, and writes what was kept, and from then on all. What is there is written as well where
    /// a trace cannot be read any further, which failIfUnread() tells then.
    template <class Read> void readAll(Read read) {
        try {
            read();
        } catch (const TraceError&) {
            m_failure = std::current_exception();
        }
        for (const std::string& row : m_rows)
            m_out << row;
        m_rows.clear();
    }
    /// Throws what a trace could not be read for.
    void failIfUnread() const {
        if (m_failure)
            std::rethrow_exception(m_failure);
    }

private:
    std::ostream& m_out;
    std::uint64_t m_last;
    bool m_isTail;
    std::ostringstream m_row;
    std::deque<std::string> m_rows;
    std::exception_ptr m_failure;
};

/// Shows the packets of one trace that are selected, as they are, by `show(packet, offset, size)` until that fails.
template <class Show> ExitCode showPackets(const std::string& file, Selection& selection, Rows& rows, Show show) {
    TraceInput input(file);
    std::uint64_t left = selection.limit();
    rows.readAll([&] {
        while (left > 0 && input.advance()) {
            const CTraceCursor& at = input.cursor();
            if (!selection.takes(0, at))
                continue;
            --left;
            if (!show(*PacketPointer(at.packet()), at.offset(), at.end() - at.offset()) || !rows.next())
                break;
        }
    });
    return input.reportDamage();
}

ExitCode dumpVerbose(DumpOptions& options, const std::string& file, Rows& rows) {
    CPacketDebugger printer(rows.stream(), options.bytes);
    return showPackets(file, options.selection, rows, [&](CPacket& packet, std::uint64_t offset, std::uint64_t size) {
        return printer.put(offset, packet, size);
    });
}

ExitCode dumpTable(DumpOptions& options, const std::string& file, std::ostream& out, Rows& rows) {
    const auto frame = makeTable(options.format, out, true);
    const auto table = makeTable(options.format, rows.stream(), true);
    table->SetParsable(options.parsable);
    table->SetHexTick(options.hexTick);
    frame->SetParsable(options.parsable);
    frame->writePageHeader(nullptr);
    frame->writeTableHeader(true);
    const ExitCode exitCode =
        showPackets(file, options.selection, rows, [&](CPacket& packet, std::uint64_t offset, std::uint64_t size) {
            return table->writeCPacket(offset, packet, size);
        });
    frame->writeTableFooter();
    frame->writePageFooter();
    return exitCode;
}

ExitCode dumpText(DumpOptions& options, const std::vector<std::string>& files, std::ostream& out, Rows& rows) {
    Story story(rows.stream(), options.time.value_or(TimeForm::Seconds), options.output.isColored(), options.selection);
    Timeline timeline(files, options.selection, &story);
    bool isBegun = false, isEmpty = true;
    const auto begin = [&] {
        story.tellTime(options.selection.span());
        if (std::exchange(isBegun, true))
            return;
        story.writeHead(out);
        const std::string open = story.openCalls();
        out << open;
        isEmpty = isEmpty && open.empty();
    };
    rows.readAll([&] {
        while (const PacketPointer packet = timeline.next()) {
            isEmpty = false;
            begin();
            if (!story.tell(timeline.file(), *packet, timeline.tick()) || !rows.next())
                break;
        }
        begin();
    });
    if (isEmpty && options.selection.isAsked())
        qvx::tell("nothing is selected");
    return timeline.reportDamage();
}

ExitCode dumpJson(DumpOptions& options, const std::vector<std::string>& files, Rows& rows) {
    PacketJson json(files);
    Timeline timeline(files, options.selection, &json);
    rows.readAll([&] {
        while (const PacketPointer packet = timeline.next()) {
            rows.stream() << json.line(timeline, *packet, options.selection.span());
            if (!rows.next())
                break;
        }
    });
    return timeline.reportDamage();
}

ExitCode dump(DumpOptions& options) {
    const std::vector<std::string> files = options.inputs.files();
    const bool isOne = files.size() == 1;
    if (options.format == TableFormat::Auto)
        options.format = options.output.isTerminal() || !isOne ? TableFormat::Text : TableFormat::Plain;
    const bool isTold = options.format == TableFormat::Text || options.format == TableFormat::JSON;
    if (!isTold && !isOne)
        throw Misuse(options.parsable  ? "--parsable"
                     : options.hexTick ? "--hex-tick"
                                       : "--format",
                     "goes with one trace, of which tables are; text and json take several");
    if (options.format == TableFormat::Text) {
        options.selection.preferHappenings();
        options.output.checkForPeople(files);
    } else {
        options.output.check(files);
    }
    if (isTold)
        options.selection.beginWithClock(files);
    else
        options.selection.begin(files);
    std::ostream& out = options.output.target().open();
    Rows rows(out, options.selection.tail());
    const ExitCode exitCode = options.format == TableFormat::Text      ? dumpText(options, files, out, rows)
                              : options.format == TableFormat::JSON    ? dumpJson(options, files, rows)
                              : options.format == TableFormat::Verbose ? dumpVerbose(options, files.front(), rows)
                                                                       : dumpTable(options, files.front(), out, rows);
    options.output.target().commit();
    rows.failIfUnread();
    return exitCode;
}

} // namespace

void addDump(Program& program) {
    auto options = std::make_shared<DumpOptions>();
    Verb verb = program.add("dump", "Show what is in traces, packet by packet");
    options->inputs.addTo(verb);
    addFormatOption(verb, options->format, true);
    addTimeOption(verb, options->time);
    options->selection.addTo(verb);
    verb.flag("--bytes", options->bytes, "(verbose) The bytes of each packet too");
    verb.flag("--parsable", options->parsable,
              "(tables) For programs and `qvx convert`: without descriptions, unknown values as \"Invalid\"");
    verb.flag("--hex-tick", options->hexTick, "(tables) Ticks in hexadecimal");
    options->output.addOptionsForPeople(verb);
    verb.footer(
        "Example: qvx dump --from 1s --to 2s traces/*.qvx\n"
        "Several traces are shown as one, in the order of time. > is what is entered, < what is left, with the\n"
        "time that it took. With --from, | are calls that were entered before and are open there.");
    verb.runs([options] {
        const bool isTable = options->format != TableFormat::Verbose && options->format != TableFormat::Text &&
                             options->format != TableFormat::JSON;
        if (options->bytes && options->format != TableFormat::Verbose)
            throw Misuse("--bytes", "goes with --format verbose");
        if (!isTable && (options->parsable || options->hexTick))
            throw Misuse(options->parsable ? "--parsable" : "--hex-tick", "goes with tables");
        if (options->format == TableFormat::Auto && (options->parsable || options->hexTick))
            options->format = TableFormat::Plain;
        if (options->format == TableFormat::Auto && options->time)
            options->format = TableFormat::Text;
        if (options->format != TableFormat::Text && options->time)
            throw Misuse("--time", "goes with --format text");
        return dump(*options);
    });
}

} // namespace qvx

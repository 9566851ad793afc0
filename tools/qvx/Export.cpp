#include "Arguments.h"
#include "Inputs.h"
#include "Json.h"
#include "Moments.h"
#include "Output.h"
#include "Print.h"
#include "SaveFile.h"
#include "Selection.h"
#include "TableFormat.h"
#include "TraceInput.h"
#include "TracePart.h"
#include "Verbs.h"
#include "Words.h"
#include "quorvex/analysis/Merged.h"
#include "quorvex/analysis/OneClock.h"
#include "quorvex/export/BtfWriter.h"
#include "quorvex/export/VCDWriter.h"
#include "quorvex/export/ViewerFormats.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

struct ExportOptions {
    Inputs inputs;
    std::vector<std::string> to;
    const ViewerFormat* format = nullptr;
    bool strict = false;
    std::string save;
    std::vector<std::string> counters;
    ViewerOptions viewer;
    Selection selection;
    Output output;
    bool lists = false;
    TableFormat listFormat = TableFormat::Plain;
};

/// Takes the types of counters from NAME=TYPE.
void takeCounters(const std::vector<std::string>& texts, ViewerOptions& options) {
    for (const std::string& text : texts) {
        const std::size_t equals = text.rfind('=');
        const auto type = std::ranges::find(kCounterTypes, equals == std::string::npos ? "" : text.substr(equals + 1));
        if (type == kCounterTypes.end())
            throw Misuse("--counter", "'" + text + "' is not NAME=TYPE, with a TYPE of " +
                                          fmt::format("{}", fmt::join(kCounterTypes, ", ")));
        options.counters[text.substr(0, equals)] = static_cast<CounterType>(type - kCounterTypes.begin());
    }
}

/// When the last of the files was written to, where they are files.
std::optional<std::int64_t> lastWritten(const std::vector<std::string>& files) {
    std::optional<std::int64_t> last;
    for (const std::string& file : files) {
        using namespace std::chrono;
        std::error_code error;
        const auto time = std::filesystem::last_write_time(file, error);
        if (!error && std::filesystem::is_regular_file(file, error))
            last = std::max(last.value_or(0),
                            std::int64_t{nanoseconds(file_clock::to_sys(time).time_since_epoch()).count()});
    }
    return last;
}

/// Looks at the clocks of several traces. Of what can be read once only, the clock is found when it is shown.
void lookAtClocks(const std::vector<std::string>& files, OneClock& clocks) {
    for (std::size_t file = 0; files.size() > 1 && file < files.size(); ++file) {
        std::error_code error;
        if (!std::filesystem::is_regular_file(files[file], error))
            continue;
        TraceInput trace(files[file]);
        clocks.look(file, trace);
    }
}

/// Tells how ticks became times, where that is not as the traces say; the exit code that follows.
ExitCode tellOfClocks(const std::string& target, const std::vector<std::string>& files, const CViewerWriter& writer,
                      const OneClock& clocks) {
    for (std::size_t file = 0; clocks.clock().frequency() != 0 && file < files.size(); ++file) {
        if (!clocks.clock().hasClock(file))
            tell(fmt::format("{} does not tell how many ticks are a second; they are taken for those of the others",
                             files[file]));
    }
    if (!writer.knowsClock() && !writer.isEmpty())
        tell(fmt::format("{}: no trace tells how many ticks are a second; a tick is shown as 1 ns", target));
    for (const std::size_t file : clocks.unplaced())
        tell(fmt::format("{} has ticks that are too far ahead for the fastest clock; they are unknown", files[file]));
    return clocks.unplaced().empty() ? Done : DoneWithLoss;
}

/// What there is to choose from, as help says it.
std::string formatNames() {
    std::string list;
    for (const ViewerFormat& format : viewerFormats())
        list += fmt::format("{}{} ({})", list.empty() ? "" : ", ", format.name, format.description);
    return list + "; else the ending of -o tells";
}

/// Shows the formats, to programs also which kinds of packet they show.
ExitCode list(ExportOptions& options) {
    options.output.check({});
    std::ostream& out = options.output.target().open();
    for (const ViewerFormat& format : viewerFormats()) {
        if (options.listFormat == TableFormat::JSON) {
            std::vector<std::string> kinds;
            for (const tagTCode kind : format.shownKinds())
                kinds.emplace_back(CTCodeInfo::TCodeToName(kind));
            JsonLine line;
            line.add("format", format.name).add("description", format.description);
            line.add("endings", std::vector<std::string>(format.endings.begin(), format.endings.end()));
            out << line.add("shows", kinds).text();
        } else {
            qvx::print(out, "{:<12}{:<40}{}\n", format.name, format.description, fmt::join(format.endings, " "));
        }
    }
    options.output.target().commit();
    return Done;
}

/// Tells formats from times: --to has the one, and may have the other too.
void takeTo(ExportOptions& options) {
    const std::vector<ViewerFormat>& formats = viewerFormats();
    std::vector<std::string> names;
    for (const ViewerFormat& format : formats)
        names.emplace_back(format.name);
    for (const std::string& text : options.to) {
        const auto format = std::ranges::find(formats, text, &ViewerFormat::name);
        if (format != formats.end())
            options.format = &*format;
        else if (Moment::of(text))
            options.selection.endAt(text);
        else
            throw Misuse("--to", fmt::format("'{}' is none of {}, and no time{}", text, fmt::join(names, ", "),
                                             didYouMean(text, names)));
    }
}

std::string listOf(const CViewerWriter::Losses& losses) {
    std::string list;
    for (const auto& [what, count] : losses)
        list += fmt::format("{}{} ({})", list.empty() ? "" : ", ", what, count);
    return list;
}

ExitCode exportTo(ExportOptions& options) {
    const std::vector<std::string> files = options.inputs.files();
    DirectoryTarget* directory = nullptr;
    if (options.format->metadata)
        directory = &options.output.checkDirectory(files, {"stream", "metadata"});
    else
        options.output.check(files);
    Target& target = options.output.target();
    std::optional<SaveFile> save;
    if (!options.save.empty()) {
        if (!target.isFile())
            throw Failure(target.name(), "is no file that a viewer could be set up for");
        save.emplace(options.save, options.output.force(), options.output.claims());
    }
    options.selection.begin(files);
    OneClock clocks;
    lookAtClocks(files, clocks);
    Merged merged;
    merged.extendTicks();
    clocks.tell(merged);
    for (std::size_t file = 0; file < files.size(); ++file)
        merged.add(openSelected(files, file, options.selection));
    if (directory)
        directory->open();
    else
        target.open();
    if (save)
        save->open();
    options.viewer.inputs = fmt::format("{}", fmt::join(files, " "));
    options.viewer.recordedUntil = lastWritten(files);
    const std::unique_ptr<CViewerWriter> writer = options.format->make(target.stream(), options.viewer);

    bool good = true;
    while (const PacketPointer packet = good ? merged.next() : nullptr) {
        if (merged.ended() != Merged::kNone)
            writer->endProcess(static_cast<unsigned>(merged.ended()));
        writer->setProcess(static_cast<unsigned>(merged.file()));
        good = writer->putAbsolute(*packet, merged.tick());
    }
    if (good)
        writer->flush();
    target.finish();
    if (!writer->written())
        throw Failure("temporary file", platform::errorText(writer->error() ? writer->error() : EIO));

    const std::string losses = listOf(writer->losses());
    if (options.strict && !losses.empty())
        throw Failure(target.name(), "cannot show " + losses);
    ExitCode exitCode = reportDamage(merged);
    if (options.strict && exitCode != Done)
        throw Failure(target.name(), "cannot show what its traces lack");
    if (options.strict && writer->isEmpty())
        throw Failure(target.name(), "would show nothing: the traces hold nothing that it could");
    if (save)
        save->write(target.name(), dynamic_cast<const CVCDWriter&>(*writer));
    if (directory) {
        directory->file(1).stream() << options.format->metadata(*writer);
        directory->commit();
    } else {
        target.commit();
    }
    if (save)
        save->commit();
    if (!losses.empty()) {
        tell(fmt::format("{}: not shown as in the trace: {}", target.name(), losses));
        exitCode = DoneWithLoss;
    }
    if (writer->isEmpty()) {
        tell(target.name() + ": shows nothing: the traces hold nothing that it could");
        exitCode = DoneWithLoss;
    }
    return tellOfClocks(target.name(), files, *writer, clocks) == Done ? exitCode : DoneWithLoss;
}

} // namespace

void addExport(Program& program) {
    auto options = std::make_shared<ExportOptions>();
    Verb verb = program.add("export", "Write traces in the formats of other viewers");
    options->inputs.addTo(verb, "Traces, or directories of *.qvx, merged by time; - for standard input", false);
    std::vector<std::string> formats;
    for (const ViewerFormat& format : viewerFormats())
        formats.emplace_back(format.name);
    verb.option("--to", options->to, (formatNames() + "; beside that a time: end before it").c_str(), "FORMAT|TIME",
                formats);
    verb.flag("--strict", options->strict, "Fail if something cannot be shown as it is in the trace");
    verb.option("--save", options->save,
                "(vcd) Also write FILE, which sets the viewer GTKWave up, and names beside it");
    verb.option(
        "--counter", options->counters,
        "Take the values of a counter as NAME=unsigned, NAME=signed or NAME=double; usually they tell by themselves",
        "NAME=TYPE");
    std::vector<std::pair<std::string, std::string>> versions;
    for (const std::string_view version : CBtfWriter::kVersions)
        versions.emplace_back(version, version);
    verb.choice("--btf-version", options->viewer.btfVersion, versions, "(btf) Write that version of the format",
                "VERSION");
    verb.flag("--list", options->lists, "Show the formats");
    verb.choice("--format", options->listFormat, {{"text", TableFormat::Plain}, {"json", TableFormat::JSON}},
                "(--list) text (default), json: a format a line, with what it shows");
    options->selection.addTo(verb, Selection::OfTrace & ~Selection::To);
    options->output.addOptions(verb);
    verb.footer("Example: qvx export traces/*.qvx --to vcd -o run.vcd --save run.gtkw && gtkwave run.gtkw\n"
                "What the target cannot show is counted, told, and gives exit code 3.\n" +
                std::string(kPartHelp));
    verb.runs([options] {
        if (options->lists)
            return list(*options);
        if (options->inputs.empty())
            throw Misuse("FILES", "is required");
        takeTo(*options);
        if (!options->format)
            options->format = viewerFormatOf(options->output.path());
        if (!options->format)
            throw Misuse("--to", "is required, because the ending of the output names no format");
        if (!options->save.empty() && (options->format->name != "vcd" || !options->output.isNamed()))
            throw Misuse("--save", "goes with --to vcd and a named file");
        takeCounters(options->counters, options->viewer);
        return exportTo(*options);
    });
}

} // namespace qvx

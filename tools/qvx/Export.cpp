#include "Arguments.h"
#include "Inputs.h"
#include "Output.h"
#include "SaveFile.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/analysis/Merged.h"
#include "quorvex/export/VCDWriter.h"
#include "quorvex/export/ViewerFormats.h"

#include <fmt/format.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

struct ExportOptions {
    Inputs inputs;
    const ViewerFormat* format = nullptr;
    bool strict = false;
    std::string save;
    Output output;
};

/// What there is to choose from, as help says it.
std::string formatNames() {
    std::string list;
    for (const ViewerFormat& format : viewerFormats())
        list += fmt::format("{}{} ({})", list.empty() ? "" : ", ", format.name, format.description);
    return list;
}

std::string listOf(const CViewerWriter::Losses& losses) {
    std::string list;
    for (const auto& [what, count] : losses)
        list += fmt::format("{}{} ({})", list.empty() ? "" : ", ", what, count);
    return list;
}

ExitCode exportTo(ExportOptions& options) {
    const std::vector<std::string> files = options.inputs.files();
    options.output.check(files);
    Target& target = options.output.target();
    std::optional<SaveFile> save;
    if (!options.save.empty()) {
        if (!target.isFile())
            throw Failure(target.name(), "is no file that a viewer could be set up for");
        save.emplace(options.save, options.output.force(), options.output.claims());
    }
    Merged merged;
    addAll(merged, files);
    std::ostream& out = target.open();
    if (save)
        save->open();
    const std::unique_ptr<CViewerWriter> writer = options.format->make(out, fmt::format("{}", fmt::join(files, " ")));

    bool good = true;
    while (const PacketPointer packet = good ? merged.next() : nullptr) {
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
    if (save)
        save->write(target.name(), dynamic_cast<const CVCDWriter&>(*writer));
    target.commit();
    if (save)
        save->commit();
    if (!losses.empty()) {
        tell(fmt::format("{}: not shown as in the trace: {}", target.name(), losses));
        exitCode = DoneWithLoss;
    }
    return exitCode;
}

} // namespace

void addExport(Program& program) {
    auto options = std::make_shared<ExportOptions>();
    Verb verb = program.add("export", "Write traces in the formats of other viewers");
    options->inputs.addTo(verb, "Traces, or directories of *.qvx, merged by time; - for standard input");
    std::vector<std::pair<std::string, const ViewerFormat*>> formats;
    for (const ViewerFormat& format : viewerFormats())
        formats.emplace_back(format.name, &format);
    verb.choice("--to", options->format, formats, formatNames().c_str()).required();
    verb.flag("--strict", options->strict, "Fail if something cannot be shown as it is in the trace");
    verb.option("--save", options->save,
                "(vcd) Also write FILE, which sets the viewer GTKWave up, and names beside it");
    options->output.addOptions(verb, true);
    verb.footer("Example: qvx export traces/*.qvx --to vcd -o run.vcd --save run.gtkw && gtkwave run.gtkw\n"
                "What the target cannot show is counted, told, and gives exit code 3.");
    verb.runs([options] {
        if (!options->save.empty() && (options->format->name != "vcd" || !options->output.isNamed()))
            throw Misuse("--save", "goes with --to vcd and a named file");
        return exportTo(*options);
    });
}

} // namespace qvx

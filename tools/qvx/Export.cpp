#include "Arguments.h"
#include "Merged.h"
#include "Output.h"
#include "SaveFile.h"
#include "Verbs.h"
#include "quorvex/export/BtfWriter.h"
#include "quorvex/export/VCDWriter.h"

#include <fmt/format.h>

#include <cerrno>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

enum class Viewer { VCD, BTF };

struct ExportOptions {
    std::vector<std::string> files;
    Viewer viewer = Viewer::VCD;
    bool strict = false;
    std::string save;
    Output output;
};

std::string listOf(const CViewerWriter::Losses& losses) {
    std::string list;
    for (const auto& [what, count] : losses)
        list += fmt::format("{}{} {}", list.empty() ? "" : ", ", count, what);
    return list;
}

ExitCode exportTo(ExportOptions& options) {
    options.output.check(options.files);
    Target& target = options.output.target();
    std::optional<SaveFile> save;
    if (!options.save.empty()) {
        if (!target.isFile())
            throw Failure(target.name(), "is no file that a viewer could be set up for");
        save.emplace(options.save, options.output.force(), options.output.claims());
    }
    Merged merged(options.files);
    std::ostream& out = target.open();
    if (save)
        save->open();
    std::unique_ptr<CViewerWriter> writer;
    CVCDWriter* dump = nullptr;
    if (options.viewer == Viewer::BTF)
        writer = std::make_unique<CBtfWriter>(out, fmt::format("{}", fmt::join(options.files, " ")));
    else
        writer.reset(dump = new CVCDWriter(out));

    errno = 0;
    bool good = true;
    while (const PacketPointer packet = good ? merged.next() : nullptr)
        good = writer->put(packet.get());
    if (good)
        writer->flush();
    target.finish();
    if (!writer->written())
        throw Failure("temporary file", platform::errorText(errno ? errno : EIO));

    const std::string losses = listOf(writer->losses());
    if (options.strict && !losses.empty())
        throw Failure(target.name(), "cannot show " + losses);
    if (save)
        save->write(target.name(), *dump);
    target.commit();
    if (save)
        save->commit();
    ExitCode exitCode = merged.reportDamage();
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
    verb.option("FILES", options->files, "Trace files, merged by time; - for standard input").required();
    verb.choice("--to", options->viewer, {{"vcd", Viewer::VCD}, {"btf", Viewer::BTF}},
                "vcd (value change dump), btf (best trace format)")
        .required();
    verb.flag("--strict", options->strict, "Fail if something cannot be shown as it is in the trace");
    verb.option("--save", options->save,
                "(vcd) Also write FILE, which sets the viewer GTKWave up, and names beside it");
    options->output.addOptions(verb, true);
    verb.footer("Example: qvx export traces/*.qvx --to vcd -o run.vcd --save run.gtkw && gtkwave run.gtkw\n"
                "What the target cannot show is counted, told, and gives exit code 3.");
    verb.runs([options] {
        if (!options->save.empty() && (options->viewer != Viewer::VCD || !options->output.isNamed()))
            throw Misuse("--save", "goes with --to vcd and a named file");
        return exportTo(*options);
    });
}

} // namespace qvx

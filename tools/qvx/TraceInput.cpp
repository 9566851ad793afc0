#include "TraceInput.h"

#include "Inputs.h"
#include "Output.h"
#include "TracePart.h"
#include "Work.h"
#include "quorvex/analysis/Merged.h"
#include "quorvex/analysis/TraceError.h"
#include "quorvex/stream/PageFormat.h"

#include <fmt/format.h>

#include <iostream>
#include <string_view>

namespace qvx {

using namespace Quorvex;

namespace {

constexpr char kAllThere[] = "the program that records it still runs or was killed; nothing is missing";

/// What a trace without its end lacks: what its frame says, or what a program that was killed has not written yet, if
/// it recorded in the usual way.
std::string missing(const TraceReport& report) {
    return report.missing > 0 ? fmt::format("the last {} byte{}", report.missing, plural(report.missing))
                              : fmt::format("of what a program recorded, at most the last {} bytes", kPageSize);
}

/// What frames that have ended lack.
std::string lackingIn(const TraceReport& report) {
    return fmt::format("frames have {} byte{} less than they tell: something was taken out of the trace",
                       report.lacking, plural(report.lacking));
}

/// What a cut trace ends within, and what it lacks.
std::string cutIn(const TraceReport& report) {
    const std::string packet =
        report.cutKind.empty() ? "a packet of unknown kind" : "a packet of kind " + report.cutKind;
    return fmt::format("{}{}; {} {} missing", report.end == TraceEnd::InText ? "the text of " : "", packet,
                       missing(report), report.missing == 1 ? "is" : "are");
}

void tellEmpty(const std::string& file) {
    tell(fmt::format("{}: is empty; a program that records it has not written yet, or was killed before", file));
}

void tellPlaces(const std::string& file, const TraceDamage& damage) {
    if (damage.places == 0)
        return;
    const std::string where = damage.places > 1 ? fmt::format("first of {} damaged places, ", damage.places) : "";
    tell(fmt::format("{}: offset {}: {}{} byte{} stepped over", file, damage.first, where, damage.bytes,
                     plural(damage.bytes)));
}

ExitCode tellDamage(const TraceFile& input) {
    const TraceReport& report = input.report();
    const TraceDamage& damage = report.damage;
    if (const TraceTextReader::Error* error = input.tableError()) {
        tell(fmt::format("{}: line {}, column {}: {}; {} row{} skipped", report.file, error->line, error->column,
                         error->text, damage.places, plural(damage.places)));
        return DoneWithLoss;
    }
    tellPlaces(report.file, damage);
    if (report.lacking > 0)
        tell(fmt::format("{}: {}", report.file, lackingIn(report)));
    switch (report.end) {
    case TraceEnd::Recording:
        tell(fmt::format("{}: {}", report.file, kAllThere));
        break;
    case TraceEnd::Missing:
        tell(fmt::format("{}: the end of the trace is missing; {}", report.file, missing(report)));
        break;
    case TraceEnd::InPacket:
    case TraceEnd::InText:
        tell(fmt::format("{}: offset {}: the trace ends within {}", report.file, report.endOffset, cutIn(report)));
        break;
    case TraceEnd::Empty:
        tellEmpty(report.file);
        break;
    case TraceEnd::Unread:
    case TraceEnd::NotMarked:
    case TraceEnd::Complete:
        break;
    }
    return report.isLossy() ? DoneWithLoss : Done;
}

} // namespace

const char* plural(std::uint64_t count) {
    return count == 1 ? "" : "s";
}

TraceInput::TraceInput(const std::string& path)
    : TraceFile(path == "-" ? "standard input" : path, path == "-" ? &std::cin : nullptr) {
    watchBy(Work::now());
    shareAmong(Work::now().jobs());
}

PagesInput::PagesInput(const std::string& path) : TracePages(path) {
    watchBy(Work::now());
    shareAmong(Work::now().jobs());
}

std::string TraceInput::ending() const {
    switch (report().end) {
    case TraceEnd::Complete:
        return report().lacking > 0 ? "complete; " + lackingIn(report()) : "complete";
    case TraceEnd::Recording:
        return kAllThere;
    case TraceEnd::Missing:
        return fmt::format("missing; {}", missing(report()));
    case TraceEnd::InPacket:
    case TraceEnd::InText:
        return fmt::format("offset {}, within {}", report().endOffset, cutIn(report()));
    case TraceEnd::Empty:
        return "not marked; the file is empty";
    case TraceEnd::Unread:
    case TraceEnd::NotMarked:
        break;
    }
    return "not marked";
}

ExitCode TraceInput::reportDamage() const {
    return tellDamage(*this);
}

ExitCode reportDamage(const TraceFile& trace) {
    const auto* part = dynamic_cast<const SelectedTrace*>(&trace);
    return tellDamage(part ? part->whole() : trace);
}

ExitCode reportDamage(const TracePages& pages, bool isEndMissing) {
    tellPlaces(pages.name(), pages.damage());
    if (pages.size() == 0)
        tellEmpty(pages.name());
    if (isEndMissing)
        tell(pages.name() + ": the end of the trace is missing");
    return pages.damage().places > 0 || isEndMissing ? DoneWithLoss : Done;
}

ExitCode eachByItself(const Inputs& inputs, Output& output,
                      const std::function<ExitCode(const std::string& file, std::ostream& out)>& work) {
    const std::vector<std::string> files = inputs.files();
    output.check(files);
    std::ostream& out = output.target().open();
    ExitCode exitCode = Done;
    for (const std::string& file : files) {
        try {
            if (const ExitCode its = work(file, out); exitCode == Done)
                exitCode = its;
        } catch (const TraceError& error) {
            tell(error.what());
            exitCode = Failed;
        }
    }
    output.target().commit();
    return exitCode;
}

void addAll(Merged& merged, const std::vector<std::string>& files) {
    for (const std::string& file : files)
        merged.add(std::make_unique<TraceInput>(file));
}

ExitCode reportDamage(const Merged& merged) {
    ExitCode exitCode = Done;
    for (std::size_t file = 0; file < merged.size(); ++file) {
        const TraceReport report = merged.report(file);
        if (report.wrongTicks > 0) {
            const std::string place = dynamic_cast<const SelectedTrace*>(&merged.trace(file))
                                          ? "in what is selected"
                                          : fmt::format("offset {}", report.firstWrongTick);
            tell(fmt::format("{}: {}: a tick far ahead of all behind it; {} packet{} shown at the time of the one "
                             "before",
                             report.file, place, report.wrongTicks, plural(report.wrongTicks)));
            exitCode = DoneWithLoss;
        }
        if (const ExitCode damage = reportDamage(merged.trace(file)); damage != Done)
            exitCode = damage;
    }
    return exitCode;
}

} // namespace qvx

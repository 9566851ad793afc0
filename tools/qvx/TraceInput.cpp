#include "TraceInput.h"

#include "quorvex/analysis/Merged.h"
#include "quorvex/stream/PageFormat.h"

#include <fmt/format.h>

#include <iostream>
#include <string_view>

namespace qvx {

using namespace Quorvex;

namespace {

/// What a program that is killed has not written yet, if it records in the usual way.
const std::string kMissing = fmt::format("of what a program recorded, at most the last {} bytes", kPageSize);
constexpr char kAllThere[] = "the program that records it still runs or was killed; nothing is missing";

const char* plural(std::uint64_t count) {
    return count == 1 ? "" : "s";
}

/// What a cut trace ends within.
std::string cutIn(const TraceReport& report) {
    if (report.end == TraceEnd::InText)
        return fmt::format("the text of a packet of kind {}", report.cutKind);
    return report.cutKind.empty() ? "a packet of unknown kind" : fmt::format("a packet of kind {}", report.cutKind);
}

ExitCode tellDamage(const TraceFile& input) {
    const TraceReport& report = input.report();
    const TraceDamage& damage = report.damage;
    if (const TraceTextReader::Error* error = input.tableError()) {
        tell(fmt::format("{}: line {}, column {}: {}; {} row{} skipped", report.file, error->line, error->column,
                         error->text, damage.places, plural(damage.places)));
        return DoneWithLoss;
    }
    if (damage.places > 0) {
        const std::string where = damage.places > 1 ? fmt::format("first of {} damaged places, ", damage.places) : "";
        tell(fmt::format("{}: offset {}: {}{} byte{} stepped over", report.file, damage.first, where, damage.bytes,
                         plural(damage.bytes)));
    }
    switch (report.end) {
    case TraceEnd::Recording:
        tell(fmt::format("{}: {}", report.file, kAllThere));
        break;
    case TraceEnd::Missing:
        tell(fmt::format("{}: the end of the trace is missing; {}", report.file, kMissing));
        break;
    case TraceEnd::InPacket:
    case TraceEnd::InText:
        tell(fmt::format("{}: offset {}: the trace ends within {}; {} are missing", report.file, report.endOffset,
                         cutIn(report), kMissing));
        break;
    case TraceEnd::Unread:
    case TraceEnd::NotMarked:
    case TraceEnd::Complete:
        break;
    }
    return report.isLossy() ? DoneWithLoss : Done;
}

} // namespace

TraceInput::TraceInput(const std::string& path)
    : TraceFile(path == "-" ? "standard input" : path, path == "-" ? &std::cin : nullptr) {}

std::string TraceInput::ending() const {
    switch (report().end) {
    case TraceEnd::Complete:
        return "complete";
    case TraceEnd::Recording:
        return kAllThere;
    case TraceEnd::Missing:
        return fmt::format("missing; {}", kMissing);
    case TraceEnd::InPacket:
    case TraceEnd::InText:
        return fmt::format("offset {}, within {}; {} are missing", report().endOffset, cutIn(report()), kMissing);
    case TraceEnd::Unread:
    case TraceEnd::NotMarked:
        break;
    }
    return "not marked";
}

ExitCode TraceInput::reportDamage() const {
    return tellDamage(*this);
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
            tell(fmt::format("{}: offset {}: a tick far ahead of all behind it; {} packet{} shown at the time of the "
                             "one before",
                             report.file, report.firstWrongTick, report.wrongTicks, plural(report.wrongTicks)));
            exitCode = DoneWithLoss;
        }
        if (const ExitCode damage = tellDamage(merged.trace(file)); damage != Done)
            exitCode = damage;
    }
    return exitCode;
}

} // namespace qvx

#include "Arguments.h"
#include "Inputs.h"
#include "Json.h"
#include "Output.h"
#include "Print.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/analysis/TraceCheck.h"
#include "quorvex/stream/PageFormat.h"

#include <fmt/format.h>

#include <memory>
#include <ostream>
#include <string>

namespace qvx {

namespace {

using namespace Quorvex;

constexpr std::uint64_t kAll = ~std::uint64_t{0};
constexpr std::uint64_t kShown = 100; ///< to people who do not say how many they want

enum class CheckFormat : std::uint8_t { Text, JSON };

struct CheckOptions {
    Inputs inputs;
    CheckFormat format = CheckFormat::Text;
    std::uint64_t limit = kAll;
    Output output;
};

void show(std::ostream& out, CheckFormat format, const std::string& file, const Finding& finding) {
    const std::uint64_t page = pages::numberAt(finding.offset);
    const std::string kind = finding.kind == Invalid ? "" : CTCodeInfo::TCodeToName(finding.kind);
    if (format == CheckFormat::Text) {
        qvx::print(out, "{}: offset {}, page {}: {}{}{} [{}]\n", shown(file), finding.offset, page, kind,
                   kind.empty() ? "" : " ", shown(finding.text), nameOf(finding.rule));
        return;
    }
    JsonLine line;
    line.add("file", file).add("offset", finding.offset).add("page", page);
    kind.empty() ? line.addUnknown("kind") : line.add("kind", kind);
    line.add("rule", nameOf(finding.rule)).add("text", finding.text);
    out << line.text();
}

/// Checks one file.
ExitCode check(const CheckOptions& options, const std::string& file, std::ostream& out) {
    TraceInput input(file);
    const std::uint64_t most = options.limit == kAll && options.format == CheckFormat::Text ? kShown : options.limit;
    std::uint64_t findings = 0;
    checkTrace(input, [&](const Finding& finding) {
        if (++findings <= most)
            show(out, options.format, input.name(), finding);
    });
    if (options.format == CheckFormat::Text) {
        const std::string left =
            findings > most ? fmt::format(", {} not shown (--limit tells how many are)", findings - most) : "";
        qvx::print(out, "{}: {}\n", shown(input.name()),
                   findings == 0 ? "whole and legal" : fmt::format("{} finding{}{}", findings, plural(findings), left));
    }
    return findings == 0 ? Done : DoneWithLoss;
}

} // namespace

void addCheck(Program& program) {
    auto options = std::make_shared<CheckOptions>();
    Verb verb = program.add("check", "Tell whether traces are whole and legal");
    options->inputs.addTo(verb, "Traces, each by itself, or directories of *.qvx; - for standard input");
    verb.choice("--format", options->format, {{"text", CheckFormat::Text}, {"json", CheckFormat::JSON}},
                "text (default), json: a finding a line");
    verb.option("--limit", options->limit, "Show the first N findings of a file (text: 100, json: all)");
    options->output.addOptions(verb);
    verb.footer("Example: qvx check traces/*.qvx\n"
                "In brackets stands the rule that a finding is about. Exit code 3 tells that there are any.");
    verb.runs([options] {
        return eachByItself(options->inputs, options->output,
                            [&](const std::string& file, std::ostream& out) { return check(*options, file, out); });
    });
}

} // namespace qvx

#include "Arguments.h"
#include "Inputs.h"
#include "Output.h"
#include "Print.h"
#include "Selection.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/analysis/TraceDigest.h"

#include <memory>
#include <ostream>
#include <string>

namespace qvx {

namespace {

struct DigestOptions {
    Inputs inputs;
    Selection selection;
    Output output;
};

/// Shows the digest of one file.
ExitCode digest(const DigestOptions& options, const std::string& file, std::ostream& out) {
    Selection selection(options.selection);
    selection.begin({file});
    TraceInput input(file);
    const std::string digits =
        options.selection.isAsked()
            ? Quorvex::digestOf(input, [&](const Quorvex::CTraceCursor& at) { return selection.takes(0, at); })
            : Quorvex::digestOf(input);
    qvx::print(out, "{}  {}\n", shown(file), digits);
    return input.reportDamage();
}

} // namespace

void addDigest(Program& program) {
    auto options = std::make_shared<DigestOptions>();
    Verb verb = program.add("digest", "Tell a number that all forms of a trace share");
    options->inputs.addTo(verb);
    options->selection.addTo(verb, Selection::OfTrace);
    options->output.addOptions(verb);
    verb.footer(
        "Example: qvx digest thread_4711.qvx small.qvx\n"
        "Traces that tell the same have the same number, whatever their layout, form and padding: the SHA-256\n"
        "of their packets in absolute form. Of a damaged trace it is that of what can be read. Only packets that\n"
        "are selected count: traces that share it then are those in which `qvx diff` with the same options\n"
        "finds no difference.");
    verb.runs([options] {
        return eachByItself(options->inputs, options->output,
                            [&](const std::string& file, std::ostream& out) { return digest(*options, file, out); });
    });
}

} // namespace qvx

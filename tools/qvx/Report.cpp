#include "Arguments.h"
#include "Inputs.h"
#include "Output.h"
#include "ReportPage.h"
#include "Tracks.h"
#include "Verbs.h"

#include <algorithm>
#include <bit>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qvx {

namespace {

struct ReportOptions {
    Inputs inputs;
    std::string title;
    Output output;
};

/// All that is on the page, of all traces.
class Report : public Tracks {
public:
    explicit Report(const std::vector<std::string>& files) : Tracks(files, 0) {}

    void write(std::ostream& out, const std::string& its, const std::vector<std::string>& given);

private:
    struct Written {
        Rank rank;
        JsonLine line;
        std::vector<ReportColumn> columns;
    };

    std::uint64_t keep(std::string_view text) override { return m_texts.indexOf(text) + std::uint64_t{1}; }
    void take(Track&) override {}
    void finish(Track&& track, std::uint32_t file, std::uint64_t frequency) override;

    std::vector<ReportColumn> columnsOf(const std::vector<Span>& spans) const;
    std::vector<ReportColumn> columnsOf(const std::vector<Mark>& marks) const;
    std::vector<ReportColumn> columnsOf(const Track& track) const; ///< of its values

    TextTable m_texts;
    std::vector<Written> m_tracks;
};

std::int64_t distance(std::uint64_t from, std::uint64_t to) {
    return static_cast<std::int64_t>(to - from);
}

/// Puts what is within a span behind it.
std::vector<Span> outermostFirst(const std::vector<Span>& spans) {
    // How many each has within, and itself.
    std::vector<std::size_t> sizes(spans.size(), 1), open;
    for (std::size_t i = 0; i < spans.size(); ++i) {
        for (; !open.empty() && spans[open.back()].depth > spans[i].depth; open.pop_back())
            sizes[i] += sizes[open.back()];
        open.push_back(i);
    }
    // From the last one on, each stands before what has been placed at its depth.
    std::vector<Span> all(spans.size());
    std::vector<std::size_t> ends{spans.size()}; // of what is still to be placed, by depth
    for (std::size_t i = spans.size(); i-- > 0;) {
        const std::uint32_t depth = spans[i].depth;
        ends.resize(std::max<std::size_t>(ends.size(), depth + std::size_t{2}));
        ends[depth + 1] = ends[depth];
        ends[depth] -= sizes[i];
        all[ends[depth]] = spans[i];
    }
    return all;
}

std::vector<ReportColumn> Report::columnsOf(const std::vector<Span>& spans) const {
    ReportColumn up, at, length, name, open;
    std::vector<std::uint64_t> ends; // of the last one at each depth
    std::uint64_t depth = ~std::uint64_t{0}, last = first();
    std::size_t lastOpen = 0;
    for (std::size_t i = 0; i < spans.size(); ++i) {
        const Span& span = spans[i];
        // The first one within another is told from its start, others from the end of the one before them.
        const bool isDeeper = depth == ~std::uint64_t{0} || span.depth > depth;
        up.add(depth + 1 - span.depth);
        at.addSigned(distance(isDeeper ? last : ends[span.depth], span.from));
        length.add(span.to - span.from);
        name.add(span.name);
        if (span.isOpen)
            open.add(i - std::exchange(lastOpen, i));
        ends.resize(std::max<std::size_t>(ends.size(), span.depth + 1));
        ends[span.depth] = span.to;
        last = span.from;
        depth = span.depth;
    }
    return {std::move(up), std::move(at), std::move(length), std::move(name), std::move(open)};
}

std::vector<ReportColumn> Report::columnsOf(const std::vector<Mark>& marks) const {
    std::vector<ReportColumn> columns(3);
    std::uint64_t last = first();
    for (const Mark& mark : marks) {
        columns[0].addSigned(distance(std::exchange(last, mark.at), mark.at));
        columns[1].add(mark.name);
        columns[2].add(mark.text);
    }
    return columns;
}

std::vector<ReportColumn> Report::columnsOf(const Track& track) const {
    std::vector<ReportColumn> columns(2);
    std::uint64_t last = first(), before = 0;
    for (const Value& value : track.values) {
        columns[0].addSigned(distance(std::exchange(last, value.at), value.at));
        const auto real = std::bit_cast<double>(value.bits);
        if (track.isReal()) {
            columns[1].addReal(real);
        } else {
            const std::uint64_t whole =
                track.isCounter ? value.bits : static_cast<std::uint64_t>(static_cast<std::int64_t>(real));
            columns[1].addSigned(distance(std::exchange(before, whole), whole));
        }
    }
    return columns;
}

void Report::finish(Track&& track, std::uint32_t file, std::uint64_t frequency) {
    // Their ticks may go back where a trace is damaged; what begins together stays in its order.
    std::ranges::stable_sort(track.marks, {}, &Mark::at);
    std::ranges::stable_sort(track.values, {}, &Value::at);
    const bool isMarks = track.rank == Rank::Marks, isValues = track.rank == Rank::Curves;
    m_tracks.push_back({track.rank,
                        lineOf(track, file, frequency,
                               isMarks    ? track.marks.size()
                               : isValues ? track.values.size()
                                          : track.spans.size()),
                        isMarks    ? columnsOf(track.marks)
                        : isValues ? columnsOf(track)
                                   : columnsOf(outermostFirst(track.spans))});
}

void Report::write(std::ostream& out, const std::string& its, const std::vector<std::string>& given) {
    std::ranges::stable_sort(m_tracks, {}, &Written::rank);
    ReportPage page;
    page.add(title(its, given).text() + lines(given));
    for (const std::string& text : m_texts.texts())
        page.add(record("name").add("table", std::string_view("text")).add("name", text).text());
    for (const Written& track : m_tracks)
        page.addTrack(track.line, track.columns);
    page.write(out);
}

ExitCode report(ReportOptions& options) {
    const std::vector<std::string> files = options.inputs.files();
    options.output.check(files);
    Report report(files);
    const ExitCode exitCode = report.read();
    report.write(options.output.target().open(), options.title, options.inputs.given());
    options.output.target().commit();
    return exitCode;
}

} // namespace

void addReport(Program& program) {
    auto options = std::make_shared<ReportOptions>();
    Verb verb = program.add("report", "Write a page for the browser that shows traces");
    options->inputs.addTo(verb);
    verb.option("--title", options->title, "What the page is called, in place of the first file", "TEXT");
    options->output.addOptions(verb);
    verb.footer(
        "Example: qvx report traces -o run.html\n"
        "The page holds all that it shows, and asks nobody for anything: it can be opened from a disk and sent\n"
        "to others. Its numbers are those of qvx stats. What it cannot show it counts, under \"Trace\".");
    verb.runs([options] { return report(*options); });
}

} // namespace qvx

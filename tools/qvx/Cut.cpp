#include "Arguments.h"
#include "Output.h"
#include "Selection.h"
#include "TraceInput.h"
#include "TracePart.h"
#include "TraceSinks.h"
#include "Verbs.h"
#include "quorvex/analysis/TracePages.h"
#include "quorvex/analysis/TracePiece.h"
#include "quorvex/analysis/TraceState.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/stream/PageFormat.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <memory>
#include <optional>
#include <utility>

namespace qvx {

namespace {

using namespace Quorvex;

constexpr std::uint64_t kEnd = std::numeric_limits<std::uint64_t>::max();

struct CutOptions {
    std::string file;
    std::string pages;
    bool noState = false;
    Selection selection;
    Output output;
};

/// Pages as they are asked for: the first and the last one, from the end where they are negative.
struct PageRange {
    std::int64_t first = 0;
    std::int64_t last = -1;

    static PageRange of(const std::string& text) {
        const auto numberOf = [&](std::string_view part, std::int64_t otherwise) {
            std::int64_t number = otherwise;
            const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), number);
            if (!part.empty() && (error != std::errc() || end != part.data() + part.size()))
                throw Misuse("--pages", "'" + text + "' is not FIRST:LAST, as 0:9, 5: or -2:");
            return number;
        };
        const std::size_t colon = text.find(':');
        const std::string_view all = text;
        PageRange range;
        range.first = numberOf(all.substr(0, colon), 0);
        range.last = colon == text.npos ? range.first : numberOf(all.substr(colon + 1), -1);
        if ((range.first < 0) == (range.last < 0) && range.last < range.first)
            throw Misuse("--pages", "'" + text + "' ends before it begins");
        return range;
    }
    /// Makes sure that they are among so many pages.
    void check(const std::string& file, std::uint64_t count) const {
        const auto most = static_cast<std::int64_t>(count);
        if (std::max(first, last) >= most && (first != 0 || last > 0))
            throw Failure(file, fmt::format("has {} page{}, the first of which is 0", count, plural(count)));
        if (const auto [from, to] = places(count); from >= to && most > 0)
            throw Misuse("--pages",
                         fmt::format("of {} page{}, the part would end before it begins", count, plural(count)));
    }
    bool needsSize() const { return first < 0 || last < -1; }
    /// The places between which they stand, of a trace of so many pages.
    std::pair<std::uint64_t, std::uint64_t> places(std::uint64_t count) const {
        // Counted from the end, a page may be before the first one, and then what is behind it is, too.
        const auto placeOf = [count](std::int64_t number, unsigned behind) {
            constexpr std::uint64_t kMost = pages::numberAt(kEnd) - 1;
            const auto page = static_cast<std::uint64_t>(number);
            if (number >= 0)
                return pages::beginOf(std::min(page + behind, kMost));
            const std::uint64_t back = 0 - page;
            return back <= count ? pages::beginOf(count - back + behind) : 0;
        };
        return {placeOf(first, 0), last == -1 ? kEnd : placeOf(last, 1)};
    }
};

class Cut {
public:
    explicit Cut(CutOptions& options) : m_options(options), m_target(options.output.target()) {
        if (!options.pages.empty())
            m_pages = PageRange::of(options.pages);
    }

    ExitCode run() {
        const bool isOfPages = isFileOfPages(m_options.file);
        if (m_pages && m_pages->needsSize() && !isOfPages)
            throw Failure(m_options.file, m_options.file == "-" ? "pages of standard input cannot be told from its end"
                                                                : "has no pages");
        // A part of the file that is all there is between two places.
        const bool isPart = m_pages || m_options.selection.isOfTime();
        ExitCode exitCode = Done;
        std::optional<PagesInput> pages;
        if (isOfPages && isPart && (pages.emplace(m_options.file), m_pages || pages->areInOrder()))
            exitCode = copy(*pages);
        else
            exitCode = walk();
        m_target.commit();
        tell(fmt::format("{} bytes, {} of them to begin with", m_size, m_front));
        return exitCode;
    }

private:
    void begin(const TraceFrame& frame, const TraceState* state, const CContexts& contexts) {
        TracePiece& piece = *m_piece;
        if (!piece.beginFrame(frame) || !(state ? piece.put(*state) : piece.put(contexts)))
            failToWrite(m_target, m_options.file, 0);
        m_front = piece.position();
    }
    void end(bool isMissing) {
        if (!m_piece->end(!isMissing))
            failToWrite(m_target, m_options.file, 0);
        m_size = m_piece->position();
    }

    ExitCode copy(TracePages& pages) {
        const auto [from, to] = placesIn(pages);
        m_sink = makeSink(m_target);
        m_piece.emplace(*m_sink, true);
        std::optional<TraceState> state;
        if (!m_options.noState)
            state = pages.stateAt(from);
        const TraceFrame frame = state ? state->frame() : pages.frameAt(from);
        // A page that it begins with tells them itself.
        const CContexts contexts = state                                      ? state->contexts()
                                   : pages::offsetIn(from) == 0 || from == to ? CContexts()
                                                                              : pages.contextsAt(from);
        begin(frame, state ? &*state : nullptr, contexts);
        if (!pages.copyTo(*m_piece, from, to, contexts, frame))
            failToWrite(m_target, m_options.file, pages.stoppedAt());
        const bool isMissing = to == pages.size() && m_piece->isInFrame() && !pages.isRecording();
        end(isMissing);
        return reportDamage(pages, isMissing);
    }

    std::pair<std::uint64_t, std::uint64_t> placesIn(TracePages& pages) {
        std::pair<std::uint64_t, std::uint64_t> places;
        if (m_pages) {
            m_pages->check(m_options.file, pages.count());
            places = m_pages->places(pages.count());
        } else {
            const Selection& selection = m_options.selection;
            places.first = selection.from() > 0 ? pages.placeOf(selection.from()) : 0;
            places.second = selection.to() < kEnd ? pages.placeOf(selection.to()) : pages.size();
        }
        places.second = std::min(places.second, pages.size());
        places.first = std::min(places.first, places.second);
        return places;
    }

    ExitCode walk() {
        TraceInput input(m_options.file);
        m_sink = makeSink(m_target);
        m_piece.emplace(*m_sink, true);
        TracePart part(input, *m_piece, !m_options.noState);
        part.keepLayout();
        if (m_pages)
            part.select(m_pages->places(0));
        else
            part.select(m_options.selection, 0);
        while (part.advance()) {
        }
        if (!part.good())
            failToWrite(m_target, m_options.file, part.offset());
        if (m_pages && !part.isBehind())
            m_pages->check(m_options.file, pages::countIn(input.size()));
        m_front = part.front();
        m_size = m_piece->position();
        return input.reportDamage();
    }

    CutOptions& m_options;
    Target& m_target;
    std::optional<PageRange> m_pages;
    std::unique_ptr<CTraceSinkBuffer> m_sink;
    std::optional<TracePiece> m_piece;
    std::uint64_t m_front = 0;
    std::uint64_t m_size = 0;
};

ExitCode cut(CutOptions& options) {
    options.output.check({options.file});
    options.selection.begin({options.file});
    if (!options.pages.empty() && !options.selection.takesAll())
        throw Misuse("--pages", "pages are not told together with what they hold");

    return Cut(options).run();
}

} // namespace

void addCut(Program& program) {
    auto options = std::make_shared<CutOptions>();
    Verb verb = program.add("cut", "Cut a part out of a trace");
    verb.option("FILE", options->file, "Trace file; - for standard input").required();
    options->selection.addTo(verb, Selection::OfTrace);
    verb.option("--pages", options->pages, "Only these pages, the first is 0; negative ones count from the end",
                "FIRST:LAST");
    verb.flag("--no-state", options->noState, "Leave out what the trace has told before");
    options->output.addOptions(verb, true);
    verb.footer("Example: qvx cut long.qvx --from 1.5s --to 1.6s -o short.qvx\n"
                "The part begins with what has been told before and holds there: names, the clock, open calls with\n"
                "their times, last values. It ends before the first packet at --to or behind; where ticks go back,\n"
                "qvx merge puts them in order. qvx cat joins parts that follow one another.");
    verb.runs([options] { return cut(*options); });
}

} // namespace qvx

#include "Arguments.h"
#include "LiveNames.h"
#include "Stats.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "Work.h"
#include "quorvex/analysis/TimeLength.h"
#include "quorvex/platform/RunningThread.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

struct WatchOptions {
    StatsOptions stats;
    std::string interval = "1s";
    std::uint64_t count = ~std::uint64_t{0};
};

class Watching {
public:
    explicit Watching(WatchOptions& options) : m_options(options) {
        options.stats.nameOf = [this](std::uint64_t id) { return m_names.nameOf(id); };
    }

    ExitCode run() {
        using Clock = std::chrono::steady_clock;
        const std::chrono::nanoseconds interval = intervalOf(m_options.interval);
        Output& output = m_options.stats.output;
        output.check(m_options.stats.inputs.files());
        Work::now().hide();
        const bool redraws = output.isTerminal();
        if (redraws)
            m_options.stats.rows = 20; // with what is said besides, they fit in
        std::ostream& out = output.target().open();
        ExitCode exitCode = Done;
        for (std::uint64_t table = 0; table < m_options.count; ++table) {
            const Clock::time_point from = Clock::now();
            std::ostringstream text;
            m_goesOn = false;
            try {
                exitCode = tellTable(text);
            } catch (const std::exception&) {
                if (table == 0 || areThere())
                    throw;
                break; // who recorded them has taken them away
            }
            if (redraws)
                out << redrawn(text.str());
            else
                out << (table > 0 ? "\n" : "") << text.str();
            output.target().finish();
            if (!m_goesOn || table + 1 == m_options.count)
                break;
            // A long trace takes its time: no more than half of a processor is taken.
            std::this_thread::sleep_for(std::max<std::chrono::nanoseconds>(interval, Clock::now() - from));
        }
        output.target().commit();
        return exitCode;
    }

private:
    /// In the place of what the terminal shows; lines that are too long are cut.
    static std::string redrawn(const std::string& text) {
        constexpr char kHome[] = "\033[H", kCut[] = "\033[?7l", kWrap[] = "\033[?7h", kErase[] = "\033[J";
        std::string all = std::string(kHome) + kCut;
        for (const char c : text)
            all += c == '\n' ? std::string("\033[K\n") : std::string(1, c); // nothing is left of a longer line
        return all + kWrap + kErase;
    }

    ExitCode tellTable(std::ostream& out) {
        m_files = m_options.stats.inputs.files(); // there may be more threads by now
        m_names.read(m_files);
        return tellStats(out, m_options.stats, m_files, [this](const TraceInput& input) { return look(input); });
    }
    /// Whether all is there that is read.
    bool areThere() const {
        const auto isThere = [](const std::string& path) {
            std::error_code missing;
            return std::filesystem::exists(path, missing);
        };
        return std::ranges::all_of(m_options.stats.inputs.given(), isThere) && std::ranges::all_of(m_files, isThere);
    }

    static std::chrono::nanoseconds intervalOf(const std::string& text) {
        constexpr std::uint64_t kNanoseconds = 1'000'000'000;
        const std::optional<TimeLength> length = TimeLength::of(text);
        if (!length || length->isTicks())
            throw Misuse("--interval", "'" + text + "' is no length of time, as 1s or 200ms");
        return std::chrono::nanoseconds(length->ticks(kNanoseconds));
    }

    /// Takes note of whether more of a trace may come. One whose program still writes it, or has been killed, lacks its
    /// end; then there is more to come as long as the thread runs, or has run since the last time.
    ExitCode look(const TraceInput& input) {
        const TraceReport& report = input.report();
        const auto [known, isNew] = m_sizes.try_emplace(report.file, input.size());
        const bool hasGrown = std::exchange(known->second, input.size()) != input.size();
        if (report.end == TraceEnd::Complete || report.end == TraceEnd::NotMarked)
            return report.isLossy() ? DoneWithLoss : Done;
        m_goesOn = m_goesOn || isNew || hasGrown || isRunning(report.file);
        return report.isLossy() ? DoneWithLoss : Done;
    }
    /// Whether the thread runs that recorded the file.
    bool isRunning(const std::string& file) {
        std::optional<std::uint32_t>& thread = m_threads[file];
        TraceFile trace(file);
        while (!thread && trace.advance()) {
            const auto context = trace.cursor().contextOf<CCoreContext>();
            if (context && !isUnknown(FieldMeaning::Context, context->swCtx))
                thread = context->swCtx;
        }
        return !thread || platform::isThreadRunning(*thread);
    }

    WatchOptions& m_options;
    LiveNames m_names;
    std::vector<std::string> m_files;
    bool m_goesOn = false;
    std::map<std::string, std::uint64_t> m_sizes;                  ///< of files, when they were read
    std::map<std::string, std::optional<std::uint32_t>> m_threads; ///< that recorded them
};

} // namespace

void addWatch(Program& program) {
    auto options = std::make_shared<WatchOptions>();
    Verb verb = program.add("watch", "Follow traces while they are recorded, with the table of stats");
    options->stats.inputs.addTo(verb, "Traces, or directories of *.qvx, to which more may come");
    verb.option("--interval", options->interval, "Show a table every so often; 1s by default", "TIME");
    verb.option("--count", options->count, "Show so many tables at most");
    options->stats.addTo(verb);
    verb.footer(
        "Example: qvx watch traces --interval 200ms --limit 10\n"
        "Programs that record with QVX_TRACEMODE=mapped are seen up to their last call; of others, what they have\n"
        "written so far. It ends with the last table when all programs have. On a terminal each table stands in the\n"
        "place of the one before. Traces are read from their beginning for each table, which takes longer as they\n"
        "grow; tables then come less often.");
    verb.runs([options] {
        options->stats.check();
        const std::vector<std::string> files = options->stats.inputs.files();
        if (std::ranges::count(files, "-") > 0)
            throw Misuse("FILES", "standard input does not grow after its end");
        return Watching(*options).run();
    });
}

} // namespace qvx

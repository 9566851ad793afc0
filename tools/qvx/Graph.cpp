#include "Arguments.h"
#include "Inputs.h"
#include "Json.h"
#include "Output.h"
#include "Print.h"
#include "Selection.h"
#include "TimeText.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/analysis/CallTree.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/export/FoldedWriter.h"
#include "quorvex/format/Glob.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <memory>
#include <string>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

enum class GraphFormat : std::uint8_t { Text, JSON };

struct GraphOptions {
    Inputs inputs;
    GraphFormat format = GraphFormat::Text;
    bool isFolded = false;
    bool byThread = false;
    std::string least = "0"; ///< in percent
    std::uint64_t depth = 1000;
    std::string begin, callers; ///< patterns of names
    Selection time, place;
    Output output;
};

class Graph {
public:
    Graph(GraphOptions& options, std::vector<std::string> files)
        : m_options(options),
          m_files(std::move(files)),
          m_tree(options.byThread, {options.time.from(), options.time.to()}) {}

    ExitCode read() {
        ExitCode exitCode = Done;
        for (std::uint32_t file = 0; file < m_files.size(); ++file) {
            TraceInput input(m_files[file]);
            if (!m_options.place.asksPlace())
                m_tree.read(input, m_names, file);
            else
                m_tree.read(input, m_names, file,
                            [&](const CTraceCursor& packet) { return m_options.place.takesPlaceOf(file, packet); });
            if (const ExitCode damage = input.reportDamage(); damage != Done)
                exitCode = damage;
        }
        const auto isOf = [this](const std::string& pattern) {
            return [this, &pattern](std::uint64_t function) {
                return matches(pattern, m_names.nameOrId(TextSort::Function, function));
            };
        };
        if (!m_options.begin.empty())
            m_tree.beginWith(isOf(m_options.begin));
        if (!m_options.callers.empty())
            m_tree.turnTo(isOf(m_options.callers));
        return exitCode;
    }

    void print(std::ostream& out, double least) {
        std::vector<CallPath> paths = m_tree.paths();
        for (const CallPath& path : paths) {
            m_whole += path.self;
            m_unfinished += m_options.callers.empty() ? path.unfinished : 0;
        }
        const bool isEmpty = paths.empty();
        const Hidden hidden = hide(paths, least);
        if (m_options.isFolded)
            printFolded(out, paths);
        else if (m_options.format == GraphFormat::JSON)
            printJson(out, paths);
        else if (isEmpty && isAsked())
            tell("nothing is selected");
        else if (isEmpty)
            qvx::print(out, "no functions in these traces\n");
        else
            printTree(out, paths);
        tellNotes(out, hidden);
    }

private:
    /// Paths that are not shown.
    struct Hidden {
        std::uint64_t small = 0;
        std::uint64_t deep = 0;
    };

    bool isAsked() const {
        return m_options.time.isAsked() || m_options.place.isAsked() || !m_options.begin.empty() ||
               !m_options.callers.empty();
    }
    bool hasClock() const { return m_tree.withoutClock() == 0; }
    double partOf(const CallPath& path) const {
        return m_whole > 0 ? 100. * static_cast<double>(path.total) / static_cast<double>(m_whole) : 0;
    }

    /// Takes out what is not to be shown. For flame graphs, its time is left with what called it.
    Hidden hide(std::vector<CallPath>& paths, double least) const {
        Hidden hidden;
        std::size_t kept = 0;
        std::vector<std::size_t> open; // the path to the last one that is kept, by depth
        std::uint64_t* counter = nullptr;
        std::uint32_t depth = 0; // from which on nothing is kept
        for (const CallPath& path : paths) {
            if (counter && path.depth > depth) {
                ++*counter;
                continue;
            }
            depth = path.depth;
            counter = depth >= m_options.depth ? &hidden.deep : partOf(path) < least ? &hidden.small : nullptr;
            if (!counter) {
                open.resize(depth);
                open.push_back(kept);
                paths[kept++] = path;
                continue;
            }
            ++*counter;
            if (m_options.isFolded && depth > 0)
                paths[open[depth - 1]].self += path.total;
        }
        paths.resize(kept);
        return hidden;
    }

    std::string nameOf(const CallPath& path) const { return FoldedStacks::nameOf(path, m_names); }
    std::string nameOfThread(const CallPath& path) const {
        const std::string file = m_files.size() > 1 ? " of " + m_files[path.process] : "";
        return (isUnknown(FieldMeaning::Context, path.thread) ? "thread unknown"
                                                              : m_names.threadText(path.thread, path.process)) +
               file;
    }
    bool isNewThread(const CallPath& path, const CallPath* before) const {
        return m_options.byThread && (!before || path.thread != before->thread || path.process != before->process);
    }

    void printTree(std::ostream& out, const std::vector<CallPath>& paths) const {
        const auto time = [this](std::uint64_t value) {
            return hasClock() ? durationText(value) : std::to_string(value);
        };
        qvx::print(out, "{} in functions, {} from the first call to the last{}\n", time(m_whole), time(m_tree.span()),
                   hasClock() ? "" : "; in ticks, because not all traces tell how many are a second");
        if (m_tree.clocksDiffer())
            qvx::print(out, "A trace has clocks of several frequencies; its times are by the first.\n");
        if (!paths.empty())
            qvx::print(out, "{:>11} {:>6} {:>11} {:>10}  function\n", "total", "%", "self", "calls");
        const CallPath* before = nullptr;
        for (const CallPath& path : paths) {
            if (isNewThread(path, before))
                qvx::print(out, "{}\n", shown(nameOfThread(path)));
            qvx::print(out, "{:>11} {:>6.2f} {:>11} {:>10}  {:{}}{}\n", time(path.total), partOf(path), time(path.self),
                       path.calls, "", 2 * path.depth, shown(nameOf(path)));
            before = &path;
        }
    }

    void printFolded(std::ostream& out, const std::vector<CallPath>& paths) const {
        FoldedStacks::write(
            paths, [this](const CallPath& path) { return nameOf(path); },
            [this](const CallPath& path) { return m_options.byThread ? nameOfThread(path) : std::string(); },
            [&out](std::string_view line) { out << line; });
    }

    void printJson(std::ostream& out, const std::vector<CallPath>& paths) const {
        std::vector<std::string> stack;
        for (const CallPath& path : paths) {
            stack.resize(path.depth);
            stack.push_back(nameOf(path));
            JsonLine line;
            line.add("stack", stack);
            if (m_options.byThread) {
                if (isUnknown(FieldMeaning::Context, path.thread))
                    line.addUnknown("thread");
                else
                    line.add("thread", path.thread);
                line.add("process", m_files[path.process]);
                if (const std::string& name = m_names.threadName(path.thread, path.process); !name.empty())
                    line.add("thread_name", name);
            }
            line.add("calls", path.calls);
            for (const auto& [name, value] : {std::pair("total_ns", path.total), std::pair("self_ns", path.self)}) {
                if (hasClock())
                    line.add(name, value);
                else
                    line.addUnknown(name);
            }
            out << line.text();
        }
    }

    /// What is to be known of the numbers: behind the tree, or beside what programs read.
    void tellNotes(std::ostream& out, const Hidden& hidden) const {
        const auto note = [&](std::uint64_t count, const char* one, const char* many, const std::string& text) {
            if (count == 0)
                return;
            const std::string line = fmt::format("{} {}{}", count, count == 1 ? one : many, text);
            if (m_options.isFolded || m_options.format == GraphFormat::JSON)
                tell(line);
            else
                qvx::print(out, "{}.\n", line);
        };
        note(hidden.small, "path", "paths", fmt::format(" of less than {} % not shown (--min)", m_options.least));
        note(hidden.deep, "path", "paths",
             fmt::format(" longer than {} function{} not shown (--depth)", m_options.depth, plural(m_options.depth)));
        note(m_unfinished, "call", "calls", " had not ended when the trace did");
        note(m_tree.hiddenCalls(), "call", "calls", " too deep to be told apart");
        note(m_tree.strayLeaves(), "leave", "leaves", " of what had not been entered");
    }

    GraphOptions& m_options;
    std::vector<std::string> m_files;
    CTraceNames m_names;
    CallTree m_tree;
    std::uint64_t m_whole = 0;      ///< time of all paths
    std::uint64_t m_unfinished = 0; ///< calls on them
};

double percentOf(const std::string& text) {
    double percent = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), percent);
    if (error != std::errc() || end != text.data() + text.size() || !(percent >= 0 && percent <= 100))
        throw Misuse("--min", "'" + text + "' is no number from 0 to 100");
    return percent;
}

ExitCode graph(GraphOptions& options) {
    const double least = percentOf(options.least);
    const std::vector<std::string> files = options.inputs.files();
    options.output.checkForPeople(files);
    options.time.beginWithTicks(files);
    options.place.begin(files);
    std::ostream& out = options.output.target().open();
    Graph graph(options, files);
    const ExitCode exitCode = graph.read();
    graph.print(out, least);
    options.output.target().commit();
    return exitCode;
}

} // namespace

void addGraph(Program& program) {
    auto options = std::make_shared<GraphOptions>();
    Verb verb = program.add("graph", "Show which functions called which, and what that took");
    options->inputs.addTo(verb);
    verb.choice("--by", options->byThread, {{"all", false}, {"thread", true}},
                "all (default): one tree for all threads, thread: one for each", "WHAT");
    verb.option("--min", options->least, "Hide what takes less than so much of the whole", "PERCENT");
    verb.option("--depth", options->depth, "Show N functions in each other at most (1000)");
    const Option begin = verb.option("--name", options->begin, "Begin with functions of that name: 'read*'", "GLOB");
    verb.option("--callers", options->callers, "Turned round: who calls functions of that name", "GLOB")
        .excludes(begin);
    const Option folded = verb.flag("--folded", options->isFolded, "For flame graphs: a line for each stack");
    verb.choice("--format", options->format, {{"text", GraphFormat::Text}, {"json", GraphFormat::JSON}},
                "text (default), json: a stack a line")
        .excludes(folded);
    options->time.addTo(verb, Selection::Time);
    options->place.addTo(verb, Selection::Place);
    options->output.addOptionsForPeople(verb);
    verb.footer(
        "Examples: qvx graph --min 1 traces\n"
        "          qvx graph --folded traces -o run.folded\n"
        "total is the time in a function and what it called, self in nothing that it called. A line of --folded\n"
        "is main;parse;read 1234: nanoseconds in read itself, or ticks where no clock is told. A ; in a name\n"
        "becomes a :, and what cannot be shown \\xNN. What --min and --depth hide there counts for its caller.\n"
        "A call counts if it was entered on the cores and in the processes that are selected; what it took is as in\n"
        "the whole trace, wherever it was left. % and the first line are of what is selected.");
    verb.runs([options] { return graph(*options); });
}

} // namespace qvx

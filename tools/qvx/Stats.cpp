#include "Arguments.h"
#include "Json.h"
#include "Output.h"
#include "Print.h"
#include "TimeText.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/analysis/CallTimes.h"
#include "quorvex/analysis/TraceNames.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

enum class StatsFormat : std::uint8_t { Text, JSON, CSV };

/// A line of the table; times in nanoseconds, or in ticks where the clock is not known.
struct Row {
    std::string name;
    std::uint32_t id;
    std::uint32_t thread;
    std::string process;
    std::uint64_t calls;
    std::uint64_t unfinished;
    std::uint64_t total, self, least, median, p99, most;
};

struct StatsOptions {
    std::vector<std::string> files;
    StatsFormat format = StatsFormat::Text;
    std::uint64_t Row::*sort = &Row::self; ///< null: by name
    bool byThread = false;
    std::uint64_t limit = 40;
    Output output;
};

class Statistics {
public:
    explicit Statistics(StatsOptions& options) : m_options(options), m_times(options.byThread) {}

    ExitCode read() {
        ExitCode exitCode = Done;
        for (std::size_t file = 0; file < m_options.files.size(); ++file) {
            TraceInput input(m_options.files[file]);
            m_times.read(input, m_names, static_cast<std::uint32_t>(file));
            if (const ExitCode damage = input.reportDamage(); damage != Done)
                exitCode = damage;
        }
        return exitCode;
    }

    void print(std::ostream& out) {
        std::vector<Row> rows;
        for (const auto& [key, times] : m_times.times())
            rows.push_back(rowOf(key, times));
        std::ranges::sort(rows, [this](const Row& one, const Row& other) { return isBefore(one, other); });
        switch (m_options.format) {
        case StatsFormat::Text:
            printTable(out, rows);
            break;
        case StatsFormat::JSON:
            for (const Row& row : rows)
                printJson(out, row);
            break;
        case StatsFormat::CSV:
            printCsv(out, rows);
            break;
        }
    }

private:
    bool hasClock() const { return m_times.withoutClock() == 0; }

    Row rowOf(const CallTimes::Key& key, const FunctionTimes& times) const {
        const std::string& name = m_names.name(TextSort::Function, key.function);
        const auto id = static_cast<std::uint32_t>(m_names.idOf(TextSort::Function, key.function));
        const Durations& durations = times.durations;
        return {name.empty() ? fmt::format("0x{:08x}", id) : name,
                id,
                key.thread,
                m_options.byThread ? m_options.files[key.process] : "",
                times.calls,
                times.unfinished,
                times.total,
                times.self,
                durations.least(),
                durations.percentile(50),
                durations.percentile(99),
                durations.most()};
    }

    bool isBefore(const Row& one, const Row& other) const {
        const auto value = [this](const Row& row) { return m_options.sort ? row.*m_options.sort : 0; };
        const std::uint64_t left = value(one), right = value(other);
        return left != right ? left > right
                             : std::tie(one.name, one.process, one.thread, one.id) <
                                   std::tie(other.name, other.process, other.thread, other.id);
    }

    static std::string threadText(std::uint32_t thread) {
        return isUnknown(FieldMeaning::Context, thread) ? "unknown" : std::to_string(thread);
    }

    void printTable(std::ostream& out, const std::vector<Row>& rows) const {
        const auto time = [this](std::uint64_t value) {
            return hasClock() ? durationText(value) : std::to_string(value);
        };
        std::uint64_t all = 0, unfinished = 0;
        for (const Row& row : rows) {
            all += row.self;
            unfinished += row.unfinished;
        }
        qvx::print(out, "{} in functions, {} from the first call to the last{}\n", time(all), time(m_times.span()),
                   hasClock() ? "" : "; in ticks, because not all traces tell how many are a second");
        if (m_times.clocksDiffer())
            qvx::print(out, "A trace has clocks of several frequencies; its times are by the first.\n");
        if (rows.empty())
            return;
        const std::string thread = m_options.byThread ? fmt::format("{:>10}  ", "thread") : "";
        qvx::print(out, "{:>11} {:>6} {:>11} {:>10} {:>11} {:>11} {:>11} {:>11}  {}function\n", "self", "%", "total",
                   "calls", "min", "median", "p99", "max", thread);
        std::uint64_t left = m_options.limit;
        for (const Row& row : rows) {
            if (left-- == 0) {
                qvx::print(out, "... and {} more (--limit tells how many are shown)\n", rows.size() - m_options.limit);
                break;
            }
            const double part = all > 0 ? 100. * static_cast<double>(row.self) / static_cast<double>(all) : 0;
            qvx::print(out, "{:>11} {:>6.2f} {:>11} {:>10} {:>11} {:>11} {:>11} {:>11}  {}{}\n", time(row.self), part,
                       time(row.total), row.calls, time(row.least), time(row.median), time(row.p99), time(row.most),
                       m_options.byThread ? fmt::format("{:>10}  ", threadText(row.thread)) : "", shown(row.name));
        }
        if (unfinished > 0)
            qvx::print(out, "{} call{} had not ended when the trace did.\n", unfinished, plural(unfinished));
        if (m_times.strayLeaves() > 0)
            qvx::print(out, "{} leave{} of what had not been entered.\n", m_times.strayLeaves(),
                       plural(m_times.strayLeaves()));
        if (m_times.hiddenCalls() > 0)
            qvx::print(out, "{} call{} too deep to be told apart.\n", m_times.hiddenCalls(),
                       plural(m_times.hiddenCalls()));
    }

    void printJson(std::ostream& out, const Row& row) const {
        JsonLine line;
        line.add("function", row.name).add("id", row.id);
        if (m_options.byThread) {
            if (isUnknown(FieldMeaning::Context, row.thread))
                line.addUnknown("thread");
            else
                line.add("thread", row.thread);
            line.add("process", row.process);
        }
        line.add("calls", row.calls);
        const std::pair<const char*, std::uint64_t> times[] = {{"total_ns", row.total}, {"self_ns", row.self},
                                                               {"min_ns", row.least},   {"p50_ns", row.median},
                                                               {"p99_ns", row.p99},     {"max_ns", row.most}};
        for (const auto& [name, value] : times) {
            if (hasClock())
                line.add(name, value);
            else
                line.addUnknown(name);
        }
        out << line.text();
    }

    void printCsv(std::ostream& out, const std::vector<Row>& rows) const {
        const char* unit = hasClock() ? "ns" : "ticks";
        qvx::print(out, "function,id,{}calls,total_{},self_{},min_{},p50_{},p99_{},max_{}\n",
                   m_options.byThread ? "thread,process," : "", unit, unit, unit, unit, unit, unit);
        for (const Row& row : rows) {
            const std::string place =
                m_options.byThread ? threadText(row.thread) + "," + csvText(row.process) + "," : "";
            qvx::print(out, "{},{},{}{},{},{},{},{},{},{}\n", csvText(row.name), row.id, place, row.calls, row.total,
                       row.self, row.least, row.median, row.p99, row.most);
        }
    }

    static std::string csvText(const std::string& text) {
        if (text.find_first_of(",\"\r\n") == std::string::npos)
            return text;
        std::string quoted = "\"";
        for (const char c : text)
            quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
        return quoted + "\"";
    }

    StatsOptions& m_options;
    CTraceNames m_names;
    CallTimes m_times;
};

ExitCode stats(StatsOptions& options) {
    options.output.check(options.files);
    std::ostream& out = options.output.target().open();
    Statistics statistics(options);
    const ExitCode exitCode = statistics.read();
    statistics.print(out);
    options.output.target().commit();
    return exitCode;
}

} // namespace

void addStats(Program& program) {
    auto options = std::make_shared<StatsOptions>();
    Verb verb = program.add("stats", "Tell what the functions of traces took");
    verb.option("FILES", options->files, "Trace files; - for standard input").required();
    verb.flag("--by-thread", options->byThread, "Tell the threads of each file apart");
    verb.choice("--sort", options->sort,
                {{"self", &Row::self},
                 {"total", &Row::total},
                 {"calls", &Row::calls},
                 {"min", &Row::least},
                 {"median", &Row::median},
                 {"p99", &Row::p99},
                 {"max", &Row::most},
                 {"name", nullptr}},
                "self (default), total, calls, min, median, p99, max, name", "COLUMN");
    verb.choice("--format", options->format,
                {{"text", StatsFormat::Text}, {"json", StatsFormat::JSON}, {"csv", StatsFormat::CSV}},
                "text (default), json: a function a line, csv");
    verb.option("--limit", options->limit, "(text) Show the first N functions (40)");
    options->output.addOptions(verb);
    verb.footer("Example: qvx stats traces/*.qvx\n"
                "total is the time in a function and what it called, self in nothing that it called.");
    verb.runs([options] { return stats(*options); });
}

} // namespace qvx

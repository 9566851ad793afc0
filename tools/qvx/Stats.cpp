#include "Stats.h"

#include "Arguments.h"
#include "Print.h"
#include "Story.h"
#include "TimeText.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/analysis/CallTimes.h"
#include "quorvex/analysis/CoreTimes.h"
#include "quorvex/analysis/CounterType.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/packets/PacketKinds.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bit>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

using Column = Listing::Column;

/// Reads the traces and makes listings of what they tell.
class Statistics {
public:
    Statistics(const StatsOptions& options, Selection& selection, std::vector<std::string> files,
               const HasRead& hasRead)
        : m_options(options), m_selection(selection), m_files(std::move(files)), m_hasRead(hasRead) {}

    /// Tells of one topic; the exit code of what is told about damage.
    ExitCode tell(std::ostream& out) {
        switch (m_options.topic) {
        case Topic::Functions:
            m_options.before.empty() ? tellFunctions(out) : tellChanges(out);
            break;
        case Topic::Threads:
            tellThreads(out);
            break;
        case Topic::Processes:
        case Topic::Cores:
        case Topic::Interrupts:
            tellCores(out);
            break;
        case Topic::Counters:
            tellCounters(out);
            break;
        case Topic::Bytes:
            tellBytes(out);
            break;
        }
        return m_exitCode;
    }

private:
    /// Calls `read(input, number)` for each file and tells of its damage.
    template <class Read> void readAll(const std::vector<std::string>& files, Read read) {
        for (std::size_t file = 0; file < files.size(); ++file) {
            TraceInput input(files[file]);
            read(input, static_cast<std::uint32_t>(file));
            if (const ExitCode damage = m_hasRead(input); damage != Done)
                m_exitCode = damage;
        }
    }
    /// The same packet by packet, for those that are selected, or define something.
    template <class Look> void lookAtAll(Look look) {
        readAll(m_files, [&](TraceInput& input, std::uint32_t file) {
            while (input.advance()) {
                const CTraceCursor& packet = input.cursor();
                if (m_selection.takes(file, packet))
                    look(file, packet);
            }
        });
    }
    static TickWindow windowOf(const Selection& selection) { return {selection.from(), selection.to()}; }

    /// Reads traces for which that selection has begun.
    void read(CallTimes& times, CTraceNames& names, const std::vector<std::string>& files, Selection& selection) {
        const bool isPart = selection.asksPlace();
        readAll(files, [&](TraceInput& input, std::uint32_t file) {
            if (!isPart)
                times.read(input, names, file);
            else
                times.read(input, names, file,
                           [&](const CTraceCursor& packet) { return selection.takesPlaceOf(file, packet); });
        });
    }

    void write(std::ostream& out, Listing& listing, const char* sort) const {
        constexpr const char* kTopics[] = {"functions",  "threads",  "processes", "cores",
                                           "interrupts", "counters", "bytes"};
        listing.sortBy(m_options.sort.empty() ? sort : m_options.sort.c_str());
        if (isForPeople() && listing.size() == 0) {
            if (m_selection.isAsked())
                qvx::tell("nothing is selected");
            else
                qvx::print(out, "no {} in these traces\n", kTopics[std::size_t(m_options.topic)]);
            return;
        }
        const bool isCut = m_options.format == ListingFormat::Text && m_selection.limit() == ~std::uint64_t{0};
        listing.write(out, m_options.format, isCut ? m_options.rows : m_selection.limit());
    }
    bool isForPeople() const { return m_options.format == ListingFormat::Text; }

    /// Who is told the names of threads: people where there are some.
    static Column::For namesOfThreads(const CTraceNames& names) {
        return names.threads().empty() ? Column::Programs : Column::All;
    }
    Cell nameCell(const CTraceNames& names, const CallTimes::Key& key) const {
        std::string name =
            isForPeople() ? names.threadTitle(key.thread, key.process) : names.threadName(key.thread, key.process);
        return name.empty() ? Cell() : Cell(std::move(name));
    }
    static Cell threadCell(std::uint32_t number) {
        return isUnknown(FieldMeaning::Context, number) ? Cell() : Cell(number);
    }
    static std::uint64_t shareOf(std::uint64_t part, std::uint64_t whole) {
        return whole == 0
                   ? 0
                   : static_cast<std::uint64_t>(1e4 * static_cast<double>(part) / static_cast<double>(whole) + .5);
    }
    /// Adds what is told of durations to a row; of none, nothing is known.
    static void addDurations(std::vector<Cell>& row, const Durations& its) {
        for (const std::uint64_t value : {its.least(), its.percentile(50), its.percentile(99), its.most()})
            row.push_back(its.count() > 0 ? Cell(value) : Cell());
    }

    std::string functionName(const CTraceNames& names, std::uint64_t number) const {
        if (m_options.nameOf && names.name(TextSort::Function, number).empty()) {
            if (std::string name = m_options.nameOf(names.idOf(TextSort::Function, number)); !name.empty())
                return name;
        }
        return names.nameOrId(TextSort::Function, number);
    }

    void tellFunctions(std::ostream& out) {
        CTraceNames names;
        CallTimes times(m_options.byThread, windowOf(m_selection));
        read(times, names, m_files, m_selection);
        const bool hasClock = times.withoutClock() == 0;
        std::vector<Column> columns{{"function", CellLook::Text}, {"id", CellLook::Number, Column::Programs}};
        if (m_options.byThread)
            columns.insert(columns.end(), {{"thread", CellLook::Number},
                                           {"process", CellLook::Text, Column::Programs},
                                           {"thread_name", CellLook::Text, namesOfThreads(names), "thread name"}});
        columns.insert(columns.end(), {{"calls", CellLook::Number},
                                       {"total", CellLook::Time},
                                       {"self", CellLook::Time},
                                       {"share", CellLook::Share, Column::People, "%"},
                                       {"min", CellLook::Time},
                                       {"p50", CellLook::Time, Column::All, "median"},
                                       {"p99", CellLook::Time},
                                       {"max", CellLook::Time}});
        Listing listing(std::move(columns), hasClock);
        std::uint64_t all = 0, unfinished = 0;
        std::vector<std::pair<const CallTimes::Times::value_type*, std::string>> taken; // with their names
        for (const auto& entry : times.times()) {
            std::string name = functionName(names, entry.first.function);
            if (entry.second.calls == 0 || !m_selection.takesName(name))
                continue;
            all += entry.second.self;
            unfinished += entry.second.unfinished;
            taken.emplace_back(&entry, std::move(name));
        }
        for (const auto& [entry, name] : taken) {
            const auto& [key, its] = *entry;
            std::vector<Cell> row{name, names.idOf(TextSort::Function, key.function)};
            if (m_options.byThread)
                row.insert(row.end(), {threadCell(key.thread), m_files[key.process], nameCell(names, key)});
            row.insert(row.end(), {its.calls, its.total, its.self, shareOf(its.self, all)});
            addDurations(row, its.durations);
            listing.add(std::move(row));
        }
        if (isForPeople() && listing.size() > 0)
            tellSummary(out, times, all);
        write(out, listing, "self");
        if (isForPeople())
            tellOddities(out, times, unfinished);
    }

    static void tellSummary(std::ostream& out, const CallTimes& times, std::uint64_t all) {
        const bool hasClock = times.withoutClock() == 0;
        const auto time = [hasClock](std::uint64_t value) {
            return hasClock ? durationText(value) : std::to_string(value);
        };
        qvx::print(out, "{} in functions, {} from the first call to the last{}\n", time(all), time(times.span()),
                   hasClock ? "" : "; in ticks, because not all traces tell how many are a second");
        if (times.clocksDiffer())
            qvx::print(out, "A trace has clocks of several frequencies; its times are by the first.\n");
    }
    static void tellOddities(std::ostream& out, const CallTimes& times, std::uint64_t unfinished) {
        if (unfinished > 0)
            qvx::print(out, "{} call{} had not ended when the trace did.\n", unfinished, plural(unfinished));
        if (const std::uint64_t stray = times.strayLeaves(); stray > 0)
            qvx::print(out, "{} leave{} of what had not been entered.\n", stray, plural(stray));
        if (const std::uint64_t hidden = times.hiddenCalls(); hidden > 0)
            qvx::print(out, "{} call{} too deep to be told apart.\n", hidden, plural(hidden));
    }

    void tellChanges(std::ostream& out) {
        struct Run {
            std::uint64_t calls = 0, total = 0, self = 0;
        };
        std::map<std::string, std::pair<Run, Run>> functions; // then and now
        bool hasClock = true;
        const auto add = [&](const std::vector<std::string>& files, Selection& selection,
                             Run std::pair<Run, Run>::*side) {
            CTraceNames names;
            CallTimes times(false, windowOf(selection));
            read(times, names, files, selection);
            hasClock = hasClock && times.withoutClock() == 0;
            for (const auto& [key, its] : times.times()) {
                const std::string name = names.nameOrId(TextSort::Function, key.function);
                if (its.calls == 0 || !selection.takesName(name))
                    continue;
                Run& run = functions[name].*side;
                run.calls += its.calls;
                run.total += its.total;
                run.self += its.self;
            }
        };
        // Each run has a start of its own, from which times are told.
        const std::vector<std::string> before = Inputs::filesOf(m_options.before);
        Selection selection(m_selection);
        selection.beginWithTicks(before);
        add(before, selection, &std::pair<Run, Run>::first);
        add(m_files, m_selection, &std::pair<Run, Run>::second);
        Listing listing({{"function", CellLook::Text},
                         {"calls_before", CellLook::Number, Column::All, "calls before"},
                         {"calls", CellLook::Number},
                         {"total_before", CellLook::Time, Column::All, "total before"},
                         {"total", CellLook::Time},
                         {"self_before", CellLook::Time, Column::All, "self before"},
                         {"self", CellLook::Time},
                         {"change", CellLook::Change},
                         {"amount", CellLook::Time, Column::Nobody}},
                        hasClock);
        for (const auto& [name, runs] : functions) {
            const auto& [then, now] = runs;
            const std::uint64_t amount = now.self > then.self ? now.self - then.self : then.self - now.self;
            listing.add({name, then.calls, now.calls, then.total, now.total, then.self, now.self, now.self - then.self,
                         amount});
        }
        write(out, listing, "amount");
    }

    void tellThreads(std::ostream& out) {
        struct Sum {
            std::uint64_t calls = 0, busy = 0;
            Cell name{};
        };
        CTraceNames names;
        CallTimes times(true, windowOf(m_selection));
        read(times, names, m_files, m_selection);
        std::map<std::pair<std::uint32_t, std::uint32_t>, Sum> threads;
        for (const auto& [key, its] : times.times()) {
            Sum& sum = threads[{key.process, key.thread}];
            sum.calls += its.calls;
            sum.busy += its.self;
            sum.name = nameCell(names, key);
        }
        Listing listing({{"thread", CellLook::Number},
                         {"process", CellLook::Text, Column::All, "file"},
                         {"calls", CellLook::Number},
                         {"busy", CellLook::Time, Column::All, "in functions"},
                         {"share", CellLook::Share, Column::People, "%"},
                         {"thread_name", CellLook::Text, namesOfThreads(names), "thread name"}},
                        times.withoutClock() == 0);
        for (const auto& [key, sum] : threads) {
            if (sum.calls == 0)
                continue;
            listing.add({threadCell(key.second), m_files[key.first], sum.calls, sum.busy,
                         shareOf(sum.busy, times.span()), sum.name});
        }
        write(out, listing, "busy");
    }

    void tellCores(std::ostream& out) {
        CTraceNames names;
        CoreTimes times(windowOf(m_selection));
        readAll(m_files, [&](TraceInput& input, std::uint32_t file) {
            while (input.advance())
                times.look(input.cursor(), names, file, m_selection.takesPlaceOf(file, input.cursor()));
            times.finish();
        });
        if (m_options.topic == Topic::Cores)
            tellCores(out, times);
        else
            tellRuns(out, times, names);
    }
    void tellCores(std::ostream& out, const CoreTimes& times) {
        std::map<std::uint32_t, std::array<std::uint64_t, 2>> cores; // in processes and in interrupts
        for (const auto& [key, its] : times.times())
            cores[key.core][key.sort == TextSort::None] += its.running;
        Listing listing({{"core", CellLook::Number},
                         {"processes", CellLook::Time, Column::All, "in processes"},
                         {"interrupts", CellLook::Time, Column::All, "in interrupts"},
                         {"busy", CellLook::Time},
                         {"share", CellLook::Share, Column::People, "%"}},
                        times.hasClock());
        for (const auto& [core, running] : cores)
            listing.add({threadCell(core), running[0], running[1], running[0] + running[1],
                         shareOf(running[0] + running[1], times.span())});
        write(out, listing, "busy");
    }
    void tellRuns(std::ostream& out, const CoreTimes& times, const CTraceNames& names) {
        const bool isProcess = m_options.topic == Topic::Processes;
        Listing listing({{isProcess ? "process" : "interrupt", CellLook::Text},
                         {"id", CellLook::Number, Column::Programs},
                         {"core", CellLook::Number},
                         {"entered", CellLook::Number},
                         {"total", CellLook::Time},
                         {"running", CellLook::Time},
                         {"share", CellLook::Share, Column::People, "%"},
                         {"min", CellLook::Time},
                         {"p50", CellLook::Time, Column::All, "median"},
                         {"p99", CellLook::Time},
                         {"max", CellLook::Time}},
                        times.hasClock());
        for (const auto& [key, its] : times.times()) {
            if ((key.sort == TextSort::Process) != isProcess)
                continue;
            const std::string name = isProcess ? names.nameOrId(key.sort, key.number) : std::to_string(key.number);
            if (!m_selection.takesName(name))
                continue;
            std::vector<Cell> row{name,
                                  isProcess ? names.idOf(key.sort, key.number) : key.number,
                                  threadCell(key.core),
                                  its.entered,
                                  its.total,
                                  its.running,
                                  shareOf(its.running, times.span())};
            addDurations(row, its.durations);
            listing.add(std::move(row));
        }
        write(out, listing, "running");
    }

    /// The least and the greatest of numbers, and their sum.
    template <class Number> struct Range {
        Number least = std::numeric_limits<Number>::max(), most = std::numeric_limits<Number>::lowest();
        double sum = 0;

        void add(Number number) {
            least = std::min(least, number);
            most = std::max(most, number);
            sum += static_cast<double>(number);
        }
        /// Adds least, mean and greatest to a row.
        void addTo(std::vector<Cell>& row, std::uint64_t count, CounterType type) const {
            for (const Number number : {least, static_cast<Number>(sum / static_cast<double>(count)), most})
                row.emplace_back(std::bit_cast<std::uint64_t>(number), type);
        }
    };
    void tellCounters(std::ostream& out) {
        // What values are is known when all of them are.
        struct Values {
            CounterSort sort{};
            std::uint64_t count = 0, first = 0, last = 0;
            Range<std::uint64_t> whole{};
            Range<std::int64_t> negative{};
            Range<double> real{};
        };
        CTraceNames names;
        std::map<std::uint64_t, Values> counters;
        readAll(m_files, [&](TraceInput& input, std::uint32_t file) {
            while (input.advance()) {
                const CTraceCursor& packet = input.cursor();
                const KindFacts& facts = factsOf(packet.TraceCode());
                const bool isDefinition = facts.role == Role::Definition;
                const bool isTaken = m_selection.takes(file, packet);
                if (!isDefinition && (!isTaken || !facts.isCounterValue))
                    continue;
                const PacketPointer object(packet.packet());
                if (isDefinition) {
                    names.note(*object, file);
                    continue;
                }
                const auto counted = counterValueOf(*object);
                if (!counted)
                    continue;
                const auto [id, value, isTyped] = *counted;
                Values& its = counters[names.numberOf(TextSort::Counter, id, file)];
                if (isTyped)
                    its.sort.note(value);
                its.first = its.count++ == 0 ? value : its.first;
                its.last = value;
                its.whole.add(value);
                its.negative.add(static_cast<std::int64_t>(value));
                its.real.add(std::bit_cast<double>(value));
            }
        });
        Listing listing({{"counter", CellLook::Text},
                         {"id", CellLook::Number, Column::Programs},
                         {"values", CellLook::Number},
                         {"min", CellLook::Number},
                         {"mean", CellLook::Number},
                         {"max", CellLook::Number},
                         {"first", CellLook::Number},
                         {"last", CellLook::Number}},
                        true);
        for (const auto& [number, its] : counters) {
            const CounterType type = its.sort.type();
            std::vector<Cell> row{names.nameOrId(TextSort::Counter, number), names.idOf(TextSort::Counter, number),
                                  its.count};
            type == CounterType::Double   ? its.real.addTo(row, its.count, type)
            : type == CounterType::Signed ? its.negative.addTo(row, its.count, type)
                                          : its.whole.addTo(row, its.count, type);
            for (const std::uint64_t value : {its.first, its.last})
                row.emplace_back(value, type);
            listing.add(std::move(row));
        }
        write(out, listing, "values");
    }

    void tellBytes(std::ostream& out) {
        struct Kind {
            std::uint64_t packets = 0, bytes = 0;
        };
        std::array<Kind, 256> kinds{};
        std::uint64_t all = 0;
        lookAtAll([&](std::uint32_t, const CTraceCursor& packet) {
            Kind& kind = kinds[static_cast<std::uint8_t>(packet.TraceCode())];
            ++kind.packets;
            kind.bytes += packet.end() - packet.offset();
            all += packet.end() - packet.offset();
        });
        Listing listing({{"kind", CellLook::Text},
                         {"packets", CellLook::Number},
                         {"bytes", CellLook::Number},
                         {"share", CellLook::Share, Column::People, "%"}},
                        true);
        for (unsigned code = 0; code < kinds.size(); ++code) {
            if (kinds[code].packets > 0)
                listing.add({std::string(CTCodeInfo::TCodeToName(tagTCode(code))), kinds[code].packets,
                             kinds[code].bytes, shareOf(kinds[code].bytes, all)});
        }
        write(out, listing, "bytes");
    }

    const StatsOptions& m_options;
    Selection& m_selection;
    std::vector<std::string> m_files;
    const HasRead& m_hasRead;
    ExitCode m_exitCode = Done;
};

ExitCode stats(StatsOptions& options) {
    const std::vector<std::string> files = options.inputs.files();
    std::vector<std::string> all = files;
    for (const std::string& file : Inputs::filesOf(options.before))
        all.push_back(file);
    if (std::ranges::count(all, "-") > 1)
        throw Misuse("--diff", "only one of the traces can be standard input");
    options.output.checkForPeople(all);
    std::ostream& out = options.output.target().open();
    const ExitCode exitCode =
        tellStats(out, options, files, [](const TraceInput& input) { return input.reportDamage(); });
    options.output.target().commit();
    return exitCode;
}

} // namespace

ExitCode tellStats(std::ostream& out, const StatsOptions& options, const std::vector<std::string>& files,
                   const HasRead& hasRead) {
    Selection selection(options.selection);
    const bool isByPacket = options.topic == Topic::Counters || options.topic == Topic::Bytes;
    isByPacket ? selection.begin(files) : selection.beginWithTicks(files);
    return Statistics(options, selection, files, hasRead).tell(out);
}

void StatsOptions::addTo(Verb& verb) {
    verb.choice(
        "--of", topic,
        {{"functions", Topic::Functions},
         {"threads", Topic::Threads},
         {"processes", Topic::Processes},
         {"cores", Topic::Cores},
         {"interrupts", Topic::Interrupts},
         {"counters", Topic::Counters},
         {"bytes", Topic::Bytes}},
        "functions (default), threads, processes, cores, interrupts, counters, or bytes: what the file is made of",
        "WHAT");
    verb.choice("--by", byThread, {{"function", false}, {"thread", true}},
                "(functions) function (default), or thread: tell those of each thread apart", "WHAT");
    verb.option("--sort", sort, "Sort by this column, as total, calls, p99, function", "COLUMN");
    selection.addTo(verb, Selection::Time | Selection::Place | Selection::Name | Selection::Limit);
}

void StatsOptions::check() const {
    if (topic != Topic::Functions && byThread)
        throw Misuse("--by", "goes with --of functions");
    if (selection.asksName() && (topic == Topic::Threads || topic == Topic::Cores))
        throw Misuse("--name", "goes with what has names: not with --of threads, cores");
}

void addStats(Program& program) {
    auto options = std::make_shared<StatsOptions>();
    Verb verb = program.add("stats", "Tell what the functions, processes, interrupts and counters of traces did");
    options->inputs.addTo(verb);
    options->addTo(verb);
    verb.option("--diff", options->before, "(functions) Compare with the traces of another run", "BEFORE");
    addFormatOption(verb, options->format);
    options->output.addOptionsForPeople(verb);
    verb.footer(
        "Examples: qvx stats traces\n"
        "          qvx stats traces --by thread --name '*lock*' --sort total\n"
        "          qvx stats new.qvx --diff old.qvx\n"
        "total is the time in a function and what it called, self in nothing that it called; % of all self that is\n"
        "selected. p50 (the median) and p99 are exact to a 64th; without a call that ended, they are not known.\n"
        "A call counts if it was entered on the cores and in the processes that are selected; what it took is as\n"
        "in the whole trace, wherever it was left.\n"
        "Text shows 40 rows, if --limit does not say otherwise.");
    verb.runs([options] {
        if (options->topic != Topic::Functions && !options->before.empty())
            throw Misuse("--diff", "goes with --of functions");
        if (options->byThread && !options->before.empty())
            throw Misuse("--diff", "does not tell threads apart, as --by thread would");
        options->check();
        return stats(*options);
    });
}

} // namespace qvx

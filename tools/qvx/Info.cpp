#include "Arguments.h"
#include "Inputs.h"
#include "Json.h"
#include "Output.h"
#include "Print.h"
#include "Selection.h"
#include "TimeText.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/analysis/RecordedFact.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/platform/LittleEndian.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/PageFormat.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

/// What is to be learned from packets of a kind.
enum class Lesson : std::uint8_t {
    Any,     ///< all that there may be
    Happens, ///< when and where it happened: its context is one of cores, and absolute
    Enters,  ///< that, and which function was entered
};

/// What is to be learned from packets, by their codes.
const std::array<Lesson, 256> kLessons = [] {
    std::array<Lesson, 256> lessons{};
    for (unsigned code = 0; code < lessons.size(); ++code) {
        const KindFacts& facts = factsOf(tagTCode(code));
        const bool isUsual = facts.context == ContextSort::Core && !facts.isRelative &&
                             facts.sync == ContextSort::None && facts.role == Role::Happening;
        lessons[code] = code == FunctionEnter ? Lesson::Enters : isUsual ? Lesson::Happens : Lesson::Any;
    }
    return lessons;
}();

enum class Layout : std::uint8_t { Plain, Paged, Either };

/// What one pass tells over a trace, or over a part of it.
class Summary {
public:
    /// Of a part, before which anything may stand.
    Summary();
    /// Of a whole trace.
    static Summary ofTrace();

    void add(const CTraceCursor& packet) {
        const auto code = static_cast<std::uint8_t>(packet.TraceCode());
        ++m_kinds[code];
        notePage(packet);
        const Lesson lesson = kLessons[code];
        if (lesson == Lesson::Any) {
            addAny(packet);
            return;
        }
        const auto tick = loadLittleEndian<std::uint64_t>(packet.payload());
        if (tick >= m_lastTick && tick <= kLastTick) // as nearly always
            m_tick = m_lastTick = tick;
        else
            addTick(checkedTick(tick));
        addPlace(packet);
        if (lesson == Lesson::Enters)
            addEntered(packet);
    }
    /// Takes note of a packet that does not count: clock and pages are those of the trace.
    void pass(const CTraceCursor& packet) {
        notePage(packet);
        if (packet.TraceCode() == Message)
            noteMessage(packet.text());
        if (packet.TraceCode() == Timestamp)
            noteClock(packet);
    }
    void join(Summary&& next);
    /// Has `names` learn what the file with that number tells of threads.
    void tellNames(CTraceNames& names, unsigned file) const {
        for (const std::string& text : m_facts)
            names.noteMessage(text, file);
    }
    void print(std::ostream& out, const TraceInput& input, const CTraceNames& names, unsigned file) const;
    /// The same for programs.
    std::string json(const TraceInput& input, const CTraceNames& names, unsigned file) const;

private:
    struct Function {
        std::optional<std::string> name;
        std::uint64_t entered = 0;
    };
    static constexpr std::uint64_t kLastTick = kUnknown64 - 0x100;
    static_assert(checkedTick(kLastTick) != kUnknown64 && checkedTick(kLastTick + 1) == kUnknown64);

    void notePage(const CTraceCursor& packet) {
        if (packet.end() > m_pageEnd)
            addPage(packet);
    }
    void noteClock(const CTraceCursor& packet) {
        m_clocksDiffer = !m_clock.note(*PacketPointer(packet.packet())) || m_clocksDiffer;
    }
    void addAny(const CTraceCursor& packet);
    void addPage(const CTraceCursor& packet);
    void addTick(std::uint64_t tick);
    void addOldTick(std::uint64_t tick);
    void addPlace(const CTraceCursor& packet) {
        // Core and thread, as they stand behind the tick.
        const auto place = loadLittleEndian<std::uint64_t>(packet.payload() + sizeof(std::uint64_t));
        if (place != m_place)
            addNewPlace(packet, place);
    }
    void addNewPlace(const CTraceCursor& packet, std::uint64_t place);
    void addEntered(const CTraceCursor& packet) {
        // The last field of either form.
        const auto id = loadLittleEndian<std::uint32_t>(packet.payload() + packet.Length() - sizeof(std::uint32_t));
        auto& [recent, entered] = m_recent[id % m_recent.size()];
        if (recent != id) {
            entered = &m_functions[id].entered;
            recent = id;
        }
        ++*entered;
    }
    void noteMessage(std::string_view text);
    std::string duration() const;
    Layout layout(std::uint64_t size) const;
    std::string layoutText(std::uint64_t size) const;

    std::array<std::uint64_t, 256> m_kinds{};
    std::uint64_t m_tick = kUnknown64; ///< of the last packet that has one
    std::uint64_t m_firstTick = kUnknown64;
    std::uint64_t m_lastTick = kUnknown64;
    std::uint64_t m_firstOldTick = kUnknown64; ///< of the definitions before m_tick was known, the first
    std::uint64_t m_lastOldTick = 0;           ///< and the greatest
    TimeBase m_clock;
    bool m_clocksDiffer = false;
    bool m_crossesPage = false;
    std::uint64_t m_pageEnd = 0; ///< of the page in which the last packet ends
    std::set<std::uint32_t> m_cores;
    std::set<std::uint32_t> m_threads;
    std::unordered_map<std::uint32_t, Function> m_functions;
    std::vector<std::string> m_facts;   ///< messages that tell of threads and programs
    std::uint64_t m_place = kUnknown64; ///< of the last packet; of a place that is not known, there is nothing to learn
    std::array<std::uint64_t, 64> m_places; ///< those that were the last one lately
    /// The counts of those that were entered last, by the low byte of their numbers.
    std::array<std::pair<std::uint32_t, std::uint64_t*>, 256> m_recent{};
};

Summary::Summary() {
    m_places.fill(m_place);
    for (std::uint32_t i = 0; i < m_recent.size(); ++i)
        m_recent[i].first = i + 1; // which belongs elsewhere
}

Summary Summary::ofTrace() {
    Summary summary;
    summary.m_tick = 0;
    return summary;
}

void Summary::addPage(const CTraceCursor& packet) {
    m_crossesPage = m_crossesPage || pages::crossesEnd(packet.offset(), packet.end());
    m_pageEnd = packet.end() + pages::room(pages::offsetIn(packet.end()));
}

void Summary::addTick(std::uint64_t tick) {
    if (tick == kUnknown64)
        return;
    m_tick = tick;
    m_lastTick = m_firstTick == kUnknown64 ? tick : std::max(m_lastTick, tick);
    m_firstTick = std::min(m_firstTick, tick);
}

void Summary::addOldTick(std::uint64_t tick) {
    if (tick == kUnknown64)
        return;
    if (m_tick == kUnknown64) {
        m_firstOldTick = m_firstOldTick == kUnknown64 ? tick : m_firstOldTick;
        m_lastOldTick = std::max(m_lastOldTick, tick);
    } else if (tick >= m_tick) { // what is older means no time
        addTick(tick);
    }
}

void Summary::addNewPlace(const CTraceCursor& packet, std::uint64_t place) {
    m_place = place;
    std::uint64_t& recent = m_places[static_cast<std::size_t>(place ^ place >> 32) % m_places.size()];
    if (recent == place)
        return;
    recent = place;
    const auto context = packet.contextOf<CCoreContext>();
    if (!isUnknown(FieldMeaning::Context, context->hwCtx))
        m_cores.insert(context->hwCtx);
    if (!isUnknown(FieldMeaning::Context, context->swCtx))
        m_threads.insert(context->swCtx);
}

void Summary::addAny(const CTraceCursor& packet) {
    const tagTCode code = packet.TraceCode();
    const KindFacts& facts = factsOf(code);
    // A sync packet repeats the time of another, and what relative packets are relative to has been told before, or is
    // not known.
    if (facts.role == Role::Definition)
        addOldTick(facts.sync == ContextSort::None ? packet.tick() : kUnknown64);
    else if (facts.sync == ContextSort::None)
        addTick(packet.tick());
    if (facts.context == ContextSort::Core && !facts.isRelative)
        addPlace(packet);
    if (code == RelFunctionEnter) {
        addEntered(packet);
    } else if (code == Timestamp) {
        noteClock(packet);
    } else if (code == Message) {
        noteMessage(packet.text());
    } else if (const auto definition = packet.as<CFunctionDefine>()) {
        m_functions[definition->FuncId()].name = packet.text();
    }
}

void Summary::noteMessage(std::string_view text) {
    if (const RecordedFact fact(text); fact.isName() || fact.word() == "command")
        m_facts.emplace_back(text);
}

void Summary::join(Summary&& next) {
    for (std::size_t code = 0; code < m_kinds.size(); ++code)
        m_kinds[code] += next.m_kinds[code];
    // Of old ticks in a row, those count that none before is greater than. The greatest of them comes last, and the
    // first can only be the trace's first if there is none before.
    if (m_firstTick == kUnknown64)
        addOldTick(next.m_firstOldTick);
    addOldTick(next.m_firstOldTick == kUnknown64 ? kUnknown64 : next.m_lastOldTick);
    if (next.m_firstTick != kUnknown64) {
        addTick(next.m_firstTick);
        addTick(next.m_lastTick);
        m_tick = next.m_tick;
    }
    m_clocksDiffer =
        m_clocksDiffer || next.m_clocksDiffer ||
        (m_clock.frequency() != 0 && next.m_clock.frequency() != 0 && m_clock.frequency() != next.m_clock.frequency());
    if (m_clock.frequency() == 0)
        m_clock = next.m_clock;
    m_crossesPage = m_crossesPage || next.m_crossesPage;
    m_cores.merge(next.m_cores);
    m_threads.merge(next.m_threads);
    std::ranges::move(next.m_facts, std::back_inserter(m_facts));
    for (auto& [id, function] : next.m_functions) {
        Function& own = m_functions[id];
        own.entered += function.entered;
        if (function.name)
            own.name = std::move(function.name);
    }
}

/// What a trace is that has more than one page, or so few bytes that it could be either.
Layout Summary::layout(std::uint64_t size) const {
    return size <= kPageSize ? Layout::Either : m_crossesPage ? Layout::Plain : Layout::Paged;
}

std::string Summary::layoutText(std::uint64_t size) const {
    switch (layout(size)) {
    case Layout::Plain:
        return "plain";
    case Layout::Paged:
        return fmt::format("paged, {} pages of 256 KiB", (size + kPageSize - 1) / kPageSize);
    case Layout::Either:
        break;
    }
    return "plain or paged (one page reads the same either way)";
}

std::string Summary::duration() const {
    const std::uint64_t ticks = m_lastTick - m_firstTick;
    const std::uint64_t frequency = m_clock.frequency();
    if (frequency == 0)
        return fmt::format("{} ticks", ticks);
    return fmt::format("{} s ({} ticks at {} a second{})", secondsText(TimeBase::nanosecondsOf(ticks, frequency)),
                       ticks, frequency, m_clocksDiffer ? "; not all clocks of the trace are like that" : "");
}

std::string list(const std::set<std::uint32_t>& numbers) {
    return numbers.empty() ? "none" : fmt::format("{}", fmt::join(numbers, ", "));
}

/// What messages tell of the programs in a trace.
struct Programs {
    std::map<std::uint64_t, std::string> titles;                 ///< by process
    std::map<std::uint64_t, std::string> paths, commands, names; ///< likewise

    explicit Programs(const std::vector<std::string>& facts) {
        for (const std::string& text : facts) {
            const RecordedFact fact(text);
            const std::uint64_t pid = fact.number("pid");
            if (fact.word() == "process")
                titles[pid] = paths[pid] = fact.text("program");
            else if (fact.word() == "command")
                titles[pid] = commands[pid] = fact.text("arguments");
            else if (fact.word() == "name")
                names[pid] = fact.text("name");
        }
        for (const auto& [pid, name] : names)
            titles[pid] = name;
    }
};

std::string damageOf(const TraceInput& input) {
    const TraceDamage& damage = input.report().damage;
    const char* s = plural(damage.places);
    if (damage.places == 0)
        return "none";
    if (const TraceTextReader::Error* error = input.tableError())
        return fmt::format("{} row{}, the first in line {}", damage.places, s, error->line);
    return fmt::format("{} byte{} in {} place{}, the first at offset {}", damage.bytes, plural(damage.bytes),
                       damage.places, s, damage.first);
}

void Summary::print(std::ostream& out, const TraceInput& input, const CTraceNames& names, unsigned file) const {
    const auto line = [&out](std::string_view label, const std::string& text) {
        qvx::print(out, "{:<11}{}\n", label, text);
    };
    line("File:", shown(input.name()));
    line("Layout:", layoutText(input.size()));
    line("Size:", fmt::format("{} byte{}", input.size(), plural(input.size())));
    if (m_firstTick == kUnknown64) {
        line("Ticks:", "none");
    } else {
        line("Ticks:", fmt::format("{} to {}", m_firstTick, m_lastTick));
        line("Duration:", duration());
    }
    line("Cores:", list(m_cores));
    const Programs programs(m_facts);
    std::vector<std::string> threads;
    for (const std::uint32_t thread : m_threads) {
        const std::string title = names.threadTitle(thread, file);
        threads.push_back(std::to_string(thread) + (title.empty() ? "" : " (" + shown(title) + ")"));
    }
    line("Threads:", threads.empty() ? "none" : fmt::format("{}", fmt::join(threads, ", ")));
    for (const auto& [pid, title] : programs.titles)
        line("Program:", fmt::format("{} in process {}", shown(title), pid));
    line("Damage:", damageOf(input));
    line("End:", input.ending());
    line("Packets:", fmt::format("{}", std::accumulate(m_kinds.begin(), m_kinds.end(), std::uint64_t{0})));
    for (unsigned code = 0; code < m_kinds.size(); ++code) {
        if (m_kinds[code] > 0)
            qvx::print(out, "{:>14}  {}\n", m_kinds[code], CTCodeInfo::TCodeToName(tagTCode(code)));
    }
    std::map functions(m_functions.begin(), m_functions.end());
    functions.erase(CFunctionEnterPayload::kNoFunction);
    if (functions.empty())
        return;
    qvx::print(out, "Functions: (id, times entered, name)\n");
    for (const auto& [id, function] : functions)
        qvx::print(out, "    0x{:08x} {:>10}  {}\n", id, function.entered,
                   function.name.value_or("").empty() ? "(no name)" : shown(*function.name));
}

std::string Summary::json(const TraceInput& input, const CTraceNames& names, unsigned file) const {
    constexpr const char* kLayouts[] = {"plain", "paged", "either"};
    JsonLine kinds;
    std::uint64_t packets = 0;
    for (unsigned code = 0; code < m_kinds.size(); ++code) {
        packets += m_kinds[code];
        if (m_kinds[code] > 0)
            kinds.add(CTCodeInfo::TCodeToName(tagTCode(code)), m_kinds[code]);
    }
    const std::uint64_t frequency = m_clock.frequency();
    const auto known = [](JsonLine& line, const char* name, std::uint64_t value, bool isKnown) {
        isKnown ? line.add(name, value) : line.addUnknown(name);
    };
    JsonLine line;
    line.add("file", input.name()).add("layout", kLayouts[std::size_t(layout(input.size()))]);
    line.add("bytes", input.size()).add("packets", packets).add("kinds", kinds);
    const bool hasTicks = m_firstTick != kUnknown64;
    known(line, "first_tick", m_firstTick, hasTicks);
    known(line, "last_tick", m_lastTick, hasTicks);
    known(line, "frequency", frequency, frequency != 0);
    known(line, "duration_ns", TimeBase::nanosecondsOf(m_lastTick - m_firstTick, frequency),
          hasTicks && frequency != 0);
    line.add("cores", std::vector<std::uint64_t>(m_cores.begin(), m_cores.end()));
    line.add("threads", std::vector<std::uint64_t>(m_threads.begin(), m_threads.end()));
    const Programs programs(m_facts);
    JsonLine threads, paths, commands, processes;
    for (const std::uint32_t thread : m_threads) {
        if (const std::string& name = names.threadName(thread, file); !name.empty())
            threads.add(std::to_string(thread), name);
    }
    for (const auto& [pid, path] : programs.paths)
        paths.add(std::to_string(pid), path);
    for (const auto& [pid, command] : programs.commands)
        commands.add(std::to_string(pid), command);
    for (const auto& [pid, name] : programs.names)
        processes.add(std::to_string(pid), name);
    line.add("thread_names", threads).add("process_names", processes);
    line.add("programs", paths).add("commands", commands);
    line.addTruth("whole", !input.report().isLossy());
    const TraceDamage& its = input.report().damage;
    JsonLine damage;
    damage.add("places", its.places).add("bytes", its.bytes);
    known(damage, "first", its.first, its.places > 0);
    return line.add("damage", damage).text();
}

enum class InfoFormat : std::uint8_t { Text, JSON };

struct InfoOptions {
    Inputs inputs;
    InfoFormat format = InfoFormat::Text;
    Selection selection;
    Output output;
};

void read(TraceInput& input, std::size_t file, Selection& selection, Summary& summary) {
    if (selection.takesAll()) {
        input.walkInParts(summary, [](Summary& part, const CTraceCursor& packet) { part.add(packet); });
        return;
    }
    const auto look = [&](Summary& part, const CTraceCursor& packet) {
        selection.takes(file, packet) ? part.add(packet) : part.pass(packet);
    };
    if (selection.isOfPackets()) {
        input.walkInParts(summary, look);
        return;
    }
    while (input.advance())
        look(summary, input.cursor());
}

ExitCode info(InfoOptions& options) {
    const std::vector<std::string> files = options.inputs.files();
    options.output.checkForPeople(files);
    options.selection.begin(files);
    std::ostream& out = options.output.target().open();
    ExitCode exitCode = Done;
    CTraceNames names; // of threads, which another file may have told
    for (std::size_t file = 0; file < files.size(); ++file) {
        TraceInput input(files[file]);
        Summary summary = Summary::ofTrace();
        read(input, file, options.selection, summary);
        const auto number = static_cast<unsigned>(file);
        summary.tellNames(names, number);
        if (options.format == InfoFormat::JSON) {
            out << summary.json(input, names, number);
        } else {
            out << (file > 0 ? "\n" : "");
            summary.print(out, input, names, number);
        }
        if (const ExitCode damage = input.reportDamage(); damage != Done)
            exitCode = damage;
    }
    options.output.target().commit();
    return exitCode;
}

} // namespace

void addInfo(Program& program) {
    auto options = std::make_shared<InfoOptions>();
    Verb verb = program.add("info", "Tell what is in a trace");
    options->inputs.addTo(verb);
    verb.choice("--format", options->format, {{"text", InfoFormat::Text}, {"json", InfoFormat::JSON}},
                "text (default), json: an object a trace");
    options->selection.addTo(verb, Selection::OfTrace);
    options->output.addOptionsForPeople(verb);
    verb.footer(
        "Example: qvx info thread_4711.qvx\n"
        "Times of --from and --to count from the first tick of all files. Layout, size, clock, damage and end are\n"
        "those of the trace, whatever is selected.");
    verb.runs([options] { return info(*options); });
}

} // namespace qvx

#include "Arguments.h"
#include "Inputs.h"
#include "Output.h"
#include "ReportPage.h"
#include "Story.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/analysis/CallWalk.h"
#include "quorvex/analysis/CounterType.h"
#include "quorvex/analysis/RecordedFact.h"
#include "quorvex/analysis/TraceSpan.h"
#include "quorvex/format/Digits.h"
#include "quorvex/packets/PacketKinds.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <concepts>
#include <deque>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

constexpr std::uint64_t kFormat = 1; ///< of the data, which the page knows too

struct ReportOptions {
    Inputs inputs;
    std::string title;
    Output output;
};

/// An interval, with what it is within counted. What is inside of it stands behind it.
struct Span {
    std::uint64_t from;
    std::uint64_t to;
    std::uint32_t name;
    std::uint32_t depth;
    bool isOpen; ///< its end is not told
};
struct Mark {
    std::uint64_t at;
    std::uint32_t name;
    std::uint32_t text;
};
struct Value {
    std::uint64_t at;
    std::uint64_t bits; ///< of a signed number or a double
};

/// The order of tracks on the page.
enum class Rank : std::uint8_t { Marks, Cores, Processes, Interrupts, Calls, States, Signals, Curves };

/// Something that is shown over time: has one of the three.
struct Track {
    Rank rank;
    const char* sort;
    const char* table; ///< of the names
    std::string title;
    std::uint32_t place = ~0U; ///< thread or core
    std::vector<Span> spans{};
    std::vector<Mark> marks{};
    std::vector<Value> values{};
    CounterSort counter{}; ///< of a counter's values, which stand there by their bits
    bool hasReals = false; ///< other values are doubles

    bool isReal() const { return hasReals || counter.type() == CounterType::Double; }
};

/// A table of names, in which numbers stand in the order of their first use.
class NameTable {
public:
    std::uint32_t indexOf(std::uint64_t number) {
        return m_indices.findOrMake(number, [&] {
            m_numbers.push_back(number);
            return static_cast<std::uint32_t>(m_numbers.size() - 1);
        });
    }
    const std::vector<std::uint64_t>& numbers() const { return m_numbers; }

private:
    Directory<std::uint64_t, std::uint32_t> m_indices;
    std::vector<std::uint64_t> m_numbers;
};

/// The same of texts.
class TextTable {
public:
    explicit TextTable(std::uint32_t first = 0) : m_first(first) {}
    std::uint32_t indexOf(std::string_view text) {
        const auto at = m_indices.find(text);
        if (at != m_indices.end())
            return at->second;
        m_texts.emplace_back(text);
        const auto index = static_cast<std::uint32_t>(m_texts.size() - 1) + m_first;
        m_indices.emplace(text, index);
        return index;
    }
    const std::deque<std::string>& texts() const { return m_texts; }

private:
    std::uint32_t m_first;
    std::deque<std::string> m_texts;
    std::map<std::string, std::uint32_t, std::less<>> m_indices;
};

/// All that is on the page, of all traces.
class Report {
public:
    explicit Report(std::vector<std::string> files) : m_files(std::move(files)) {}

    /// The tick that others are told from, and the clock of the page.
    void begin(const TraceSpan& span) { m_span = span; }
    /// The same, where that is not known before.
    void look(const CTraceCursor& packet) {
        if (m_span.first == kUnknown64 || m_span.frequency == 0)
            m_span.look(packet);
    }
    std::uint64_t first() const { return m_span.first == kUnknown64 ? 0 : m_span.first; }

    CTraceNames& names() { return m_names; }
    std::uint32_t functionOf(std::uint64_t number) { return m_functions.indexOf(number); }
    std::uint32_t textOf(std::string_view text) { return text.empty() ? 0 : m_texts.indexOf(text); }
    TextTable& tableOf(const std::string& table) { return m_tables[table]; }
    /// Where a function is defined: a file and a line.
    void place(std::uint32_t function, std::string text) { m_places[function] = std::move(text); }
    /// A packet that the page does not show.
    void addUnshown(tagTCode code) { ++m_unshown[code]; }
    void note(std::string text) { m_notes.push_back(std::move(text)); }
    /// Adds what a trace has shown, in its ticks.
    void add(Track&& track, std::uint32_t file, std::uint64_t frequency);
    void write(std::ostream& out, const std::string& title, const std::vector<std::string>& given);

private:
    struct Written {
        Rank rank;
        JsonLine line;
        std::vector<ReportColumn> columns;
    };

    std::int64_t distance(std::uint64_t from, std::uint64_t to) const { return static_cast<std::int64_t>(to - from); }
    std::vector<ReportColumn> columnsOf(const std::vector<Span>& spans) const;
    std::vector<ReportColumn> columnsOf(const std::vector<Mark>& marks) const;
    std::vector<ReportColumn> columnsOf(const std::vector<Value>& values, bool isReal) const;

    std::vector<std::string> m_files;
    TraceSpan m_span;
    CTraceNames m_names;
    NameTable m_functions;
    std::map<std::uint32_t, std::string> m_places; ///< of functions
    TextTable m_texts{1};
    std::map<std::string, TextTable> m_tables; ///< of names that are known at once
    std::map<tagTCode, std::uint64_t> m_unshown;
    std::vector<std::string> m_notes;
    std::vector<Written> m_tracks;
};

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

std::vector<ReportColumn> Report::columnsOf(const std::vector<Value>& values, bool isReal) const {
    std::vector<ReportColumn> columns(2);
    std::uint64_t last = first(), before = 0;
    for (const Value& value : values) {
        columns[0].addSigned(distance(std::exchange(last, value.at), value.at));
        if (isReal)
            columns[1].addReal(std::bit_cast<double>(value.bits));
        else
            columns[1].addSigned(distance(std::exchange(before, value.bits), value.bits));
    }
    return columns;
}

void Report::add(Track&& track, std::uint32_t file, std::uint64_t frequency) {
    const bool isSpans = !track.spans.empty(), isMarks = !track.marks.empty();
    // Their ticks may go back where a trace is damaged; what begins together stays in its order.
    std::ranges::stable_sort(track.marks, {}, &Mark::at);
    std::ranges::stable_sort(track.values, {}, &Value::at);
    JsonLine line;
    line.add("record", std::string_view("track"))
        .add("sort", track.sort)
        .add("form", isSpans          ? "spans"
                     : isMarks        ? "marks"
                     : track.isReal() ? "reals"
                                      : "numbers")
        .add("table", track.table)
        .add("title", track.title)
        .addSigned("file", file == ~0U ? -1 : std::int64_t{file});
    if (isUnknown(FieldMeaning::Context, track.place))
        line.addUnknown("place");
    else
        line.add("place", track.place);
    line.add("frequency", frequency)
        .add("count", isSpans   ? track.spans.size()
                      : isMarks ? track.marks.size()
                                : track.values.size());
    m_tracks.push_back({track.rank, std::move(line),
                        isSpans   ? columnsOf(track.spans)
                        : isMarks ? columnsOf(track.marks)
                                  : columnsOf(track.values, track.isReal())});
}

void Report::write(std::ostream& out, const std::string& title, const std::vector<std::string>& given) {
    std::ranges::stable_sort(m_tracks, {}, &Written::rank);
    ReportPage page;
    const auto record = [](const char* what) {
        JsonLine line;
        return line.add("record", std::string_view(what));
    };
    page.add(record("report")
                 .add("format", kFormat)
                 .add("title", title)
                 .add("version", QVX_VERSION)
                 .add("base", first())
                 .add("frequency", m_span.frequency));
    for (const std::string& file : m_files)
        page.add(record("file").add("name", file));
    for (const std::string& name : given)
        page.add(record("given").add("name", name));
    for (const std::uint64_t number : m_functions.numbers()) {
        JsonLine line = record("name");
        line.add("table", std::string_view("function"))
            .add("name", m_names.nameOrId(TextSort::Function, number))
            .add("id", m_names.idOf(TextSort::Function, number));
        if (const auto place = m_places.find(m_functions.indexOf(number)); place != m_places.end())
            line.add("place", place->second);
        page.add(line);
    }
    const auto addTexts = [&](const std::string& table, const TextTable& its) {
        for (const std::string& text : its.texts())
            page.add(record("name").add("table", table).add("name", text));
    };
    addTexts("text", m_texts);
    for (const auto& [table, its] : m_tables)
        addTexts(table, its);
    for (const auto& [code, count] : m_unshown)
        page.add(record("unshown").add("what", CTCodeInfo::TCodeToName(code)).add("count", count));
    for (const std::string& text : m_notes)
        page.add(record("note").add("text", text));
    for (const Written& track : m_tracks)
        page.addTrack(track.line, track.columns);
    page.write(out);
}

/// The calls of a thread while they are read.
struct CallsOfThread {
    Track* track = nullptr;
    struct Function {
        std::uint32_t index = 0;
        std::uint64_t names = ~std::uint64_t{0}; ///< which names it is the index by
    };
    Directory<std::uint32_t, Function> functions;
};
struct CallMark {
    Track* track;
    std::size_t span;
};

/// Reads one trace, and puts what it tells into tracks.
class Reading : public CallWalk<Reading, CallMark, CallsOfThread> {
public:
    Reading(Report& report, CallSummary& summary, std::uint32_t file)
        : CallWalk(summary, TickWindow(), report.names(), file),
          m_report(report),
          m_file(file),
          m_tick(report.first()) {}

    void read(TraceInput& input) {
        while (input.advance())
            take(input.cursor());
        finish();
        for (auto& [core, run] : m_cores)
            endRun(core, run);
        showRuns();
        for (auto& [key, nested] : m_nested) {
            while (!nested.open.empty())
                close(nested, true);
        }
        for (auto& [key, state] : m_states)
            closeState(*state);
        for (Track& track : m_tracks) {
            if (track.rank == Rank::Calls && !isUnknown(FieldMeaning::Context, track.place))
                track.title = names().threadText(track.place, m_file);
            m_report.add(std::move(track), m_file, clock().frequency());
        }
    }

    // What the walk calls.
    CallMark enter(Thread& thread, std::uint32_t id) {
        CallsOfThread& own = thread.own;
        if (!own.track) {
            own.track = &m_tracks.emplace_back(Track{Rank::Calls, "function", "function",
                                                     isUnknown(FieldMeaning::Context, thread.number)
                                                         ? fmt::format("core {}, thread not known", m_place.hwCtx)
                                                         : std::string(), // which is known in the end
                                                     thread.number});
        }
        CallsOfThread::Function& function = own.functions[id];
        if (function.names != namesGiven())
            function = {m_report.functionOf(names().numberOf(TextSort::Function, id, process())), namesGiven()};
        own.track->spans.push_back(
            {thread.tick, thread.tick, function.index, static_cast<std::uint32_t>(thread.calls.size()), true});
        return {own.track, own.track->spans.size() - 1};
    }
    void leave(const CallMark&) {}
    void count(const CallMark& mark, const CallTime& time) {
        Span& span = mark.track->spans[mark.span];
        span.to = span.from + time.ticks;
        span.isOpen = !time.isLeft;
    }

private:
    using Place = CCoreContext::Values;
    /// What is entered in each other on a core.
    struct Nested {
        Track* track = nullptr;
        CallStack<std::pair<std::uint64_t, std::size_t>> open{0x10000}; ///< numbers and spans
    };
    /// Which thread was on a core, and when it was seen there first and last.
    struct Run {
        std::uint32_t thread;
        std::uint64_t from;
        std::uint64_t to;
    };

    Track& make(Track&& track) { return m_tracks.emplace_back(std::move(track)); }
    Track& trackOf(Rank rank, const char* sort, const char* table, const std::string& title) {
        Track*& track = m_byTitle[{sort, title}];
        if (!track)
            track = &make({rank, sort, table, title});
        return *track;
    }

    void take(const CTraceCursor& packet) {
        m_report.look(packet);
        const tagTCode code = packet.TraceCode();
        const KindFacts& facts = factsOf(code);
        if (facts.role == Role::Happening) {
            if (const std::uint64_t tick = packet.tick(); tick != kUnknown64)
                m_tick = tick;
            if (facts.context == ContextSort::Core && code != TraceBroken) {
                m_place = *packet.contextOf<CCoreContext>();
                seen();
            }
        }
        look(packet);
        if (facts.role == Role::Definition)
            define(packet);
        if (facts.role != Role::Happening || (facts.step != Step::None && facts.entered == TextSort::Function))
            return;
        if (facts.step != Step::None)
            move(facts, enteredIn(packet));
        else
            show(packet);
    }

    /// The thread of the packet is on its core.
    void seen() {
        if (isUnknown(FieldMeaning::Context, m_place.hwCtx) || isUnknown(FieldMeaning::Context, m_place.swCtx))
            return;
        if (m_lastRun && m_lastCore == m_place.hwCtx && m_lastRun->thread == m_place.swCtx) {
            m_lastRun->to = m_tick;
            return;
        }
        // A thread is on one core at a time.
        for (auto it = m_cores.begin(); it != m_cores.end();) {
            const bool isIt = it->second.thread == m_place.swCtx && it->first != m_place.hwCtx;
            if (isIt)
                endRun(it->first, it->second);
            it = isIt ? m_cores.erase(it) : std::next(it);
        }
        const auto [at, isNew] = m_cores.try_emplace(m_place.hwCtx, Run{m_place.swCtx, m_tick, m_tick});
        if (!isNew && at->second.thread != m_place.swCtx) {
            at->second.to = std::max(at->second.to, m_tick);
            endRun(at->first, at->second);
            at->second = {m_place.swCtx, m_tick, m_tick};
        }
        at->second.to = m_tick;
        m_lastCore = m_place.hwCtx;
        m_lastRun = &at->second;
    }
    void endRun(std::uint32_t core, const Run& run) {
        m_runs[core].push_back({run.from, std::max(run.from, run.to), run.thread, 0, false});
    }
    /// Shows which threads were on which core, where several threads tell it. A trace of one thread tells where that
    /// began.
    void showRuns() {
        std::set<std::uint32_t> threads;
        for (const auto& [core, runs] : m_runs) {
            for (const Span& run : runs)
                threads.insert(run.name);
        }
        for (auto& [core, runs] : m_runs) {
            if (threads.size() < 2)
                return;
            for (Span& run : runs)
                run.name = m_report.tableOf("thread").indexOf(names().threadText(run.name, m_file));
            make({Rank::Cores, "thread", "thread", fmt::format("core {}: threads", core), core, std::move(runs)});
        }
    }

    /// A process or an interrupt is entered or left.
    void move(const KindFacts& facts, std::uint32_t id) {
        const bool isProcess = facts.entered == TextSort::Process;
        Nested& nested = m_nested[{m_place.hwCtx, isProcess}];
        const char* const sort = isProcess ? "process" : "interrupt";
        if (!nested.track)
            nested.track = &make({isProcess ? Rank::Processes : Rank::Interrupts, sort, sort,
                                  fmt::format("core {}: {}", m_place.hwCtx, isProcess ? "processes" : "interrupts"),
                                  m_place.hwCtx});
        const std::uint64_t number = isProcess ? names().numberOf(TextSort::Process, id, m_file) : id;
        if (facts.step == Step::Enter) {
            const std::string name =
                isProcess ? names().nameOrId(TextSort::Process, number) : fmt::format("interrupt {}", id);
            nested.open.enter([&] {
                nested.track->spans.push_back({m_tick, m_tick, m_report.tableOf(sort).indexOf(name),
                                               static_cast<std::uint32_t>(nested.open.size()), true});
                return std::pair(number, nested.track->spans.size() - 1);
            });
            return;
        }
        const auto left = nested.open.leave([&](const auto& open) { return open.first == number; });
        for (std::size_t i = left.value_or(0); i > 0; --i)
            close(nested, i > 1);
    }
    void close(Nested& nested, bool isOpen) const {
        Span& span = nested.track->spans[nested.open.back().second];
        span.to = std::max(span.from, m_tick);
        span.isOpen = isOpen;
        nested.open.pop();
    }

    /// What happened besides.
    void show(const CTraceCursor& packet) {
        const PacketPointer object = absoluteAt(packet);
        const bool isShown = visitKind(
            *object, [this](const auto& kind) requires requires { this->tell(kind); } { tell(kind); });
        // A reader hands an empty string out by itself where it ends a definition: it says nothing.
        if (!isShown && !(packet.TraceCode() == CharString && packet.text().empty()))
            m_report.addUnshown(absoluteKind(packet.TraceCode()));
    }
    void mark(const char* title, const std::string& name, std::string_view text) {
        trackOf(Rank::Marks, "mark", "mark", title)
            .marks.push_back({m_tick, m_report.tableOf("mark").indexOf(name), m_report.textOf(text)});
    }
    void tell(const CMessage& packet) {
        const std::string_view text = wholeTextOf(packet);
        const RecordedFact fact(text);
        if (fact.word() == "function") {
            m_report.place(m_report.functionOf(names().numberOf(TextSort::Function, fact.number("id"), m_file)),
                           fmt::format("{}:{}", fact.text("file"), fact.value("line")));
            return; // it is told with the function
        }
        if (fact.isName())
            return; // likewise with threads
        mark("messages", "Message", text);
    }
    /// For that kind alone: it could be made of the context of any other.
    template <std::same_as<CTraceBroken> Gap> void tell(const Gap&) {
        mark("gaps", "TraceBroken", "what happened before is not in the trace");
    }
    void tell(const CEvent& packet) {
        const CData& data = packet.EvtData();
        mark("events", names().nameOrId(TextSort::Event, names().numberOf(TextSort::Event, packet.EvtId(), m_file)),
             data.Length() > 0 ? hexNumber(data.data(), data.Length()) : std::string());
    }
    void tell(const CCounterValue& packet) { count(packet, ""); }
    void tell(const CCounterValueDim1& packet) { count(packet, fmt::format("[{}]", packet.CntrIdx1().u64)); }
    void tell(const CCounterValueDim2& packet) {
        count(packet, fmt::format("[{}][{}]", packet.CntrIdx1().u64, packet.CntrIdx2().u64));
    }
    void tell(const CCounterValueDimN& packet) {
        std::string indices;
        for (unsigned i = 0; i < packet.CntrDim(); ++i)
            indices += fmt::format("[{}]", packet.CntrIdx()[i].u64);
        count(packet, indices);
    }
    void count(const CCounterValueBase& packet, const std::string& indices) {
        const std::uint64_t number = names().numberOf(TextSort::Counter, packet.CntrId(), m_file);
        const TCounter_t& value = packet.CntrVal();
        Track& track = trackOf(Rank::Curves, "counter", "counter",
                               "counter " + names().nameOrId(TextSort::Counter, number) + indices);
        track.counter.note(value.u64);
        track.values.push_back({m_tick, value.u64});
    }
    /// Adds a value to a curve; one of doubles has no other values.
    void add(Track& track, std::optional<double> real, std::int64_t number) const {
        if (real && !track.hasReals) {
            for (Value& value : track.values)
                value.bits = std::bit_cast<std::uint64_t>(static_cast<double>(static_cast<std::int64_t>(value.bits)));
            track.hasReals = true;
        }
        track.values.push_back({m_tick, track.hasReals
                                            ? std::bit_cast<std::uint64_t>(real.value_or(static_cast<double>(number)))
                                            : static_cast<std::uint64_t>(number)});
    }
    void tell(const CVariableRead& packet) { access(packet, "read"); }
    void tell(const CVariableWrite& packet) { access(packet, "written"); }
    template <class Access> void access(const Access& packet, const char* how) {
        const std::uint64_t number = names().numberOf(TextSort::Variable, packet.VarId(), m_file);
        const std::string name = names().nameOrId(TextSort::Variable, number);
        const auto type = m_types.find(packet.VarId());
        const std::string text =
            packet.VarLen() == 0
                ? ""
                : typedText(type == m_types.end()
                                ? std::string_view()
                                : names().name(TextSort::Type, names().numberOf(TextSort::Type, type->second, m_file)),
                            {reinterpret_cast<const char*>(packet.VarData().data()), packet.VarLen()});
        std::int64_t number64 = 0;
        double real = 0;
        const char* const end = text.data() + text.size();
        const auto is = [end](const std::from_chars_result& result) {
            return result.ec == std::errc() && result.ptr == end;
        };
        const std::string title = "variable " + name;
        if (text == "true" || text == "false")
            add(trackOf(Rank::Curves, "variable", "counter", title), std::nullopt, text == "true");
        else if (is(std::from_chars(text.data(), end, number64)))
            add(trackOf(Rank::Curves, "variable", "counter", title), std::nullopt, number64);
        else if (is(std::from_chars(text.data(), end, real)))
            add(trackOf(Rank::Curves, "variable", "counter", title), real, 0);
        else
            mark("variables", name, fmt::format("{} {}", how, text));
    }
    void tell(const CInitialState& packet) {
        enterState(packet.StateMachine(), packet.StateMachineInstance(), packet.State());
    }
    void tell(const CTransition& packet) {
        const auto target = m_targets.find({packet.StateMachine(), packet.TransitionId()});
        enterState(packet.StateMachine(), packet.StateMachineInstance(),
                   target == m_targets.end() ? std::nullopt : std::optional(target->second));
    }
    void enterState(std::uint32_t machine, std::uint32_t instance, std::optional<std::uint32_t> state) {
        const auto nameOf = [&](TextSort sort, std::uint32_t id) {
            return names().nameOrId(sort, names().numberOf(sort, CTraceNames::pair(machine, id), m_file));
        };
        Track*& track = m_states[{machine, instance}];
        if (!track)
            track = &make({Rank::States, "state", "state",
                           fmt::format("state machine {}: {}",
                                       names().nameOrId(TextSort::StateMachine,
                                                        names().numberOf(TextSort::StateMachine, machine, m_file)),
                                       nameOf(TextSort::StateMachineInstance, instance))});
        follow(*track, m_report.tableOf("state").indexOf(state ? nameOf(TextSort::State, *state) : "not known"));
    }
    /// What was shown last ends, and something else begins.
    void follow(Track& track, std::uint32_t name) const {
        closeState(track);
        track.spans.push_back({m_tick, m_tick, name, 0, true});
    }
    void closeState(Track& track) const {
        if (track.spans.empty())
            return;
        track.spans.back().to = std::max(track.spans.back().from, m_tick);
        track.spans.back().isOpen = false;
    }
    void tell(const CSignal& packet) {
        const auto defined = m_signals.find({packet.HWCtx(), packet.Master()});
        const auto states = [&](const CSignalMask* lines) {
            const CSignalMask& value = packet.SignalValue();
            const CSignalMask& valid = packet.SignalMask();
            std::string text; // the last line first, as numbers are written
            for (unsigned i = 0; i < (lines ? lines->bits() : value.bits()); ++i) {
                if (lines && !lines->test(i))
                    continue;
                const bool isValid = i < value.bits() && i < valid.bits() && valid.test(i);
                text.insert(text.begin(), !isValid ? 'X' : value.test(i) ? '1' : '0');
            }
            return text;
        };
        const auto put = [&](const std::string& title, const std::string& text) {
            if (text.empty())
                return;
            Track& track = trackOf(Rank::Signals, "signal", "signal", title);
            const std::uint32_t name = m_report.tableOf("signal").indexOf(text);
            if (track.spans.empty())
                m_states[{~0U, static_cast<std::uint32_t>(m_states.size())}] = &track;
            if (track.spans.empty() || track.spans.back().name != name)
                follow(track, name);
        };
        if (defined == m_signals.end() || defined->second.empty()) {
            put(fmt::format("lines of {}, master {}", packet.HWCtx(), packet.Master()), states(nullptr));
            return;
        }
        for (const auto& [id, lines] : defined->second)
            put("signal " + names().nameOrId(TextSort::Signal, names().numberOf(TextSort::Signal, id, m_file)),
                states(&lines));
    }

    /// What definitions tell besides names.
    void define(const CTraceCursor& packet) {
        const PacketPointer object = absoluteAt(packet);
        if (const auto* variable = packetAs<CVariableDefine>(*object))
            m_types[variable->VarId()] = variable->TypeId();
        else if (const auto* signal = packetAs<CSignalDefine>(*object))
            m_signals[{signal->HWCtx(), signal->Master()}].insert_or_assign(signal->SignalId(), signal->SignalMask());
        else if (const auto* transition = packetAs<CTransitionDefine>(*object))
            m_targets[{transition->StateMachine(), transition->CTransitionDefinePayload::Transition()}] =
                transition->TargetState();
    }

    using Pair = std::pair<std::uint32_t, std::uint32_t>;

    Report& m_report;
    std::uint32_t m_file;
    std::uint64_t m_tick; ///< the last one
    Place m_place{};
    std::deque<Track> m_tracks; ///< which stay where they are
    std::map<std::uint32_t, Run> m_cores;
    std::map<std::uint32_t, std::vector<Span>> m_runs; ///< of threads, by core
    std::uint32_t m_lastCore = 0;
    Run* m_lastRun = nullptr;                                  ///< that of the packet before
    std::map<std::pair<std::uint32_t, bool>, Nested> m_nested; ///< by core, processes and interrupts
    std::map<Pair, Track*> m_states;                           ///< of which the last span is open
    std::map<std::pair<std::string_view, std::string>, Track*> m_byTitle;
    std::map<std::uint32_t, std::uint32_t> m_types; ///< of variables
    std::map<Pair, std::uint32_t> m_targets;        ///< of transitions
    std::map<Pair, std::map<std::uint32_t, CSignalMask>> m_signals;
};

ExitCode report(ReportOptions& options) {
    const std::vector<std::string> files = options.inputs.files();
    options.output.check(files);
    Report report(files);
    TraceSpan span;
    for (const std::string& file : files) {
        if (file == "-") // which is read once only: what comes first in it begins
            continue;
        TraceInput input(file);
        span.add(TraceSpan::beginningOf(input, span.frequency == 0));
    }
    report.begin(span);
    std::ostream& out = options.output.target().open();
    ExitCode exitCode = Done;
    CallSummary calls;
    for (std::uint32_t file = 0; file < files.size(); ++file) {
        TraceInput input(files[file]);
        Reading(report, calls, file).read(input);
        if (const ExitCode damage = input.reportDamage(); damage != Done) {
            exitCode = damage;
            report.note(files[file] + ": something is damaged or missing (qvx info tells what)");
        }
    }
    if (calls.strayLeaves() > 0)
        report.note(
            fmt::format("{} leave{} of what had not been entered", calls.strayLeaves(), plural(calls.strayLeaves())));
    if (calls.hiddenCalls() > 0)
        report.note(
            fmt::format("{} call{} too deep to be told apart", calls.hiddenCalls(), plural(calls.hiddenCalls())));
    if (calls.clocksDiffer())
        report.note("a trace has clocks of several frequencies; its times are by the first");
    const std::vector<std::string>& given = options.inputs.given();
    report.write(out,
                 !options.title.empty() ? options.title
                 : given.size() == 1    ? given.front()
                                        : fmt::format("{} and {} more", given.front(), given.size() - 1),
                 given);
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

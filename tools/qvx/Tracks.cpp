#include "Tracks.h"

#include "Story.h"
#include "TraceInput.h"
#include "quorvex/analysis/CallWalk.h"
#include "quorvex/analysis/RecordedFact.h"
#include "quorvex/format/Digits.h"
#include "quorvex/packets/PacketKinds.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <concepts>
#include <memory>
#include <new>
#include <set>
#include <utility>

namespace qvx {

using namespace Quorvex;

namespace {

constexpr std::uint64_t kFormat = 1; ///< of the data, which the page knows too

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
    std::uint64_t from;
    std::uint32_t name;
    std::uint32_t depth;
};

} // namespace

/// Reads one trace, and puts what it tells into tracks.
class Tracks::Reading : public CallWalk<Reading, CallMark, CallsOfThread> {
public:
    Reading(Tracks& all, CallSummary& summary, std::uint32_t file)
        : CallWalk(summary, TickWindow(), all.m_names, file), m_all(all), m_file(file), m_tick(all.first()) {}

    void read(TraceInput& input) {
        struct All {
            void join(All&&) {}
        } all;
        input.walkInParts(all, [this](All&, const CTraceCursor& packet) { take(packet); }, {.threads = 1});
        finish();
        for (auto& [core, run] : m_cores)
            endRun(core, run);
        for (auto& [key, nested] : m_nested) {
            while (!nested.open.empty())
                close(nested, true);
        }
        for (Track& track : m_tracks) {
            // A trace of one thread tells where that began, and not on which core it was since.
            if (track.rank == Rank::Cores && m_runners.size() < 2)
                continue;
            closeLast(track);
            if (track.rank == Rank::Calls && !isUnknown(FieldMeaning::Context, track.place))
                track.title = names().threadText(track.place, m_file);
            m_all.finish(std::move(track), m_file, clock().frequency());
        }
        for (const auto& [thread, index] : m_runners)
            m_all.m_tables["thread"].show(index, names().threadText(thread, m_file));
    }

    // What the walk calls.
    CallMark enter(Thread& thread, std::uint32_t id) {
        CallsOfThread& own = thread.own;
        if (!own.track)
            own.track = &callsOf(thread);
        CallsOfThread::Function& function = own.functions[id];
        if (function.names != namesGiven())
            function = {nameOf(id), namesGiven()};
        return {own.track, thread.tick, function.index, static_cast<std::uint32_t>(thread.calls.size())};
    }
    void leave(const CallMark&) {}
    std::uint64_t timeOf(std::uint64_t ticks) const { return ticks; } // tracks tell when calls begin and end
    void count(const CallMark& mark, const CallTime& time) {
        put(*mark.track, {mark.from, mark.from + time.ticks, mark.name, mark.depth, !time.isLeft});
    }

private:
    using Place = CCoreContext::Values;
    /// What enters or leaves a function, as the walk asks for it.
    struct Move {
        const Place& place;
        std::uint32_t function;

        std::uint64_t Tick() const { return place.tick; }
        std::uint32_t HWCtx() const { return place.hwCtx; }
        std::uint32_t SWCtx() const { return place.swCtx; }
        std::uint32_t TgtFuncId() const { return function; }
    };
    /// What is entered in each other on a core.
    struct Nested {
        Track* track = nullptr;
        CallStack<std::pair<std::uint64_t, Span>> open{0x10000}; ///< by number
    };
    /// Which thread was on a core, and when it was seen there first and last.
    struct Run {
        std::uint32_t thread;
        std::uint64_t from;
        std::uint64_t to;
    };

    Track& make(Track&& track) {
        track.number = m_all.m_tracks++;
        return m_tracks.emplace_back(std::move(track));
    }
    void put(Track& track, const Span& span) const { put(track, track.spans, span); }
    template <class What> void put(Track& track, std::vector<What>& those, const What& what) const {
        those.push_back(what);
        if (those.size() == m_all.m_batch) [[unlikely]]
            m_all.take(track);
    }
    [[gnu::noinline]] Track& callsOf(const Thread& thread) {
        return make({Rank::Calls, "function", "function",
                     isUnknown(FieldMeaning::Context, thread.number)
                         ? fmt::format("core {}, thread not known", m_place.hwCtx)
                         : std::string(), // which is known in the end
                     thread.number});
    }
    /// The index of the name that a function has now.
    [[gnu::noinline]] std::uint32_t nameOf(std::uint32_t id) {
        return m_all.m_functions.indexOf(names().numberOf(TextSort::Function, id, process()));
    }
    Track& trackOf(Rank rank, const char* sort, const char* table, const std::string& title) {
        Track*& track = m_byTitle[{sort, title}];
        if (!track)
            track = &make({rank, sort, table, title});
        return *track;
    }

    void take(const CTraceCursor& packet) {
        m_all.look(packet);
        const KindFacts& facts = factsOf(packet.TraceCode());
        if (facts.entered != TextSort::Function || facts.step == Step::None) {
            takeOther(packet, facts);
            return;
        }
        goTo(packet);
        if (facts.step == Step::Enter)
            CallWalk::enter(Move{m_place, enteredIn(packet)}, true);
        else
            CallWalk::leave(Move{m_place, enteredIn(packet)}, true);
    }
    [[gnu::noinline]] void takeOther(const CTraceCursor& packet, const KindFacts& facts) {
        if (facts.role != Role::Happening) {
            look(packet);
            if (facts.role == Role::Definition)
                define(packet);
            return;
        }
        if (facts.context == ContextSort::Core && packet.TraceCode() != TraceBroken)
            goTo(packet);
        else if (const std::uint64_t tick = packet.tick(); tick != kUnknown64)
            m_tick = tick;
        if (facts.step != Step::None) {
            move(facts, enteredIn(packet));
            return;
        }
        look(packet); // a message may name a thread
        show(packet);
    }
    /// Goes to the time and the place of a packet that is of a core.
    void goTo(const CTraceCursor& packet) {
        m_place = *packet.contextOf<CCoreContext>();
        if (const std::uint64_t tick = checkedTick(m_place.tick); tick != kUnknown64)
            m_tick = tick;
        if (m_lastRun && m_lastCore == m_place.hwCtx && m_lastRun->thread == m_place.swCtx)
            m_lastRun->to = m_tick;
        else
            seen();
    }

    /// The thread of the packet is on its core.
    [[gnu::noinline]] void seen() {
        if (isUnknown(FieldMeaning::Context, m_place.hwCtx) || isUnknown(FieldMeaning::Context, m_place.swCtx))
            return;
        if (const auto run = m_cores.find(m_place.hwCtx); run != m_cores.end() && run->second.thread == m_place.swCtx) {
            run->second.to = m_tick;
            m_lastCore = m_place.hwCtx;
            m_lastRun = &run->second;
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
        if (!isNew) {
            at->second.to = std::max(at->second.to, m_tick);
            endRun(at->first, at->second);
            at->second = {m_place.swCtx, m_tick, m_tick};
        }
        m_lastCore = m_place.hwCtx;
        m_lastRun = &at->second;
    }
    void endRun(std::uint32_t core, const Run& run) {
        Track*& track = m_runs[core];
        if (!track)
            track = &make({Rank::Cores, "thread", "thread", fmt::format("core {}: threads", core), core});
        const std::uint32_t name = m_all.m_tables["thread"].indexOf(std::to_string(run.thread));
        m_runners.emplace(run.thread, name);
        put(*track, {run.from, std::max(run.from, run.to), name, 0, false});
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
                return std::pair(number, Span{m_tick, m_tick, m_all.m_tables[sort].indexOf(name),
                                              static_cast<std::uint32_t>(nested.open.size()), true});
            });
            return;
        }
        const auto left = nested.open.leave([&](const auto& open) { return open.first == number; });
        for (std::size_t i = left.value_or(0); i > 0; --i)
            close(nested, i > 1);
    }
    void close(Nested& nested, bool isOpen) const {
        Span span = nested.open.back().second;
        span.to = std::max(span.from, m_tick);
        span.isOpen = isOpen;
        nested.open.pop();
        put(*nested.track, span);
    }

    /// What happened besides.
    void show(const CTraceCursor& packet) {
        const PacketPointer object = absoluteAt(packet);
        const bool isShown = visitKind(
            *object, [this](const auto& kind) requires requires { this->tell(kind); } { tell(kind); });
        // A reader hands an empty string out by itself where it ends a definition: it says nothing.
        if (!isShown && !(packet.TraceCode() == CharString && packet.text().empty()))
            ++m_all.m_unshown[absoluteKind(packet.TraceCode())];
    }
    void mark(const char* title, const std::string& name, std::string_view text) {
        Track& track = trackOf(Rank::Marks, "mark", "mark", title);
        put(track, track.marks, {m_tick, m_all.m_tables["mark"].indexOf(name), text.empty() ? 0 : m_all.keep(text)});
    }
    void tell(const CMessage& packet) {
        const std::string_view text = wholeTextOf(packet);
        const RecordedFact fact(text);
        if (fact.word() == "function") {
            m_all.m_places[m_all.m_functions.indexOf(names().numberOf(TextSort::Function, fact.number("id"), m_file))] =
                fmt::format("{}:{}", fact.text("file"), fact.value("line"));
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
        track.isCounter = true;
        track.counter.note(value.u64);
        put(track, track.values, {m_tick, value.u64});
    }
    /// Adds a value of a variable to its curve.
    void add(Track& track, double number) const {
        constexpr double kExact = 1LL << 53;
        track.hasReals = track.hasReals || !(std::abs(number) <= kExact) || number != std::trunc(number);
        put(track, track.values, {m_tick, std::bit_cast<std::uint64_t>(number)});
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
        double value = text == "true" ? 1 : 0;
        const char* const end = text.data() + text.size();
        const std::from_chars_result result = std::from_chars(text.data(), end, value);
        if (text == "true" || text == "false" || (result.ec == std::errc() && result.ptr == end))
            add(trackOf(Rank::Curves, "variable", "counter", "variable " + name), value);
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
        follow(*track, m_all.m_tables["state"].indexOf(state ? nameOf(TextSort::State, *state) : "not known"));
    }
    /// What was shown last ends, and something else begins.
    void follow(Track& track, std::uint32_t name) const {
        closeLast(track);
        track.last = Span{m_tick, m_tick, name, 0, false};
    }
    void closeLast(Track& track) const {
        if (!track.last)
            return;
        track.last->to = std::max(track.last->from, m_tick);
        put(track, *track.last);
        track.last.reset();
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
            const std::uint32_t name = m_all.m_tables["signal"].indexOf(text);
            if (!track.last || track.last->name != name)
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

    Tracks& m_all;
    std::uint32_t m_file;
    std::uint64_t m_tick; ///< the last one
    Place m_place{};
    std::deque<Track> m_tracks; ///< which stay where they are
    std::map<std::uint32_t, Run> m_cores;
    std::map<std::uint32_t, Track*> m_runs;           ///< of threads, by core
    std::map<std::uint32_t, std::uint32_t> m_runners; ///< the threads, and the indices of their names
    std::uint32_t m_lastCore = 0;
    Run* m_lastRun = nullptr;                                  ///< that of the packet before
    std::map<std::pair<std::uint32_t, bool>, Nested> m_nested; ///< by core, processes and interrupts
    std::map<Pair, Track*> m_states;
    std::map<std::pair<std::string_view, std::string>, Track*> m_byTitle;
    std::map<std::uint32_t, std::uint32_t> m_types; ///< of variables
    std::map<Pair, std::uint32_t> m_targets;        ///< of transitions
    std::map<Pair, std::map<std::uint32_t, CSignalMask>> m_signals;
};

ExitCode Tracks::read() {
    for (const std::string& file : m_files) {
        if (file == "-") // which is read once only: what comes first in it begins
            continue;
        TraceInput input(file);
        m_span.add(TraceSpan::beginningOf(input, m_span.frequency == 0));
    }
    ExitCode exitCode = Done;
    CallSummary calls;
    for (std::uint32_t file = 0; file < m_files.size(); ++file) {
        TraceInput input(m_files[file]);
        Reading(*this, calls, file).read(input);
        if (const ExitCode damage = input.reportDamage(); damage != Done) {
            exitCode = damage;
            m_notes.push_back(m_files[file] + ": something is damaged or missing (qvx info tells what)");
        }
    }
    if (const std::uint64_t count = calls.strayLeaves(); count > 0)
        m_notes.push_back(fmt::format("{} leave{} of what had not been entered", count, plural(count)));
    if (const std::uint64_t count = calls.hiddenCalls(); count > 0)
        m_notes.push_back(fmt::format("{} call{} too deep to be told apart", count, plural(count)));
    if (calls.clocksDiffer())
        m_notes.push_back("a trace has clocks of several frequencies; its times are by the first");
    return exitCode;
}

JsonLine Tracks::lineOf(const Track& track, std::uint32_t file, std::uint64_t frequency, std::uint64_t count) {
    JsonLine line = record("track");
    line.add("sort", track.sort)
        .add("form", track.rank == Rank::Marks    ? "marks"
                     : track.rank != Rank::Curves ? "spans"
                     : track.isReal()             ? "reals"
                                                  : "numbers")
        .add("table", track.table)
        .add("title", track.title)
        .addSigned("file", file == ~0U ? -1 : std::int64_t{file});
    if (isUnknown(FieldMeaning::Context, track.place))
        line.addUnknown("place");
    else
        line.add("place", track.place);
    return line.add("frequency", frequency).add("count", count);
}

JsonLine Tracks::title(const std::string& title, const std::vector<std::string>& given) const {
    return record("report")
        .add("format", kFormat)
        .add("title", !title.empty()      ? title
                      : given.size() == 1 ? given.front()
                                          : fmt::format("{} and {} more", given.front(), given.size() - 1))
        .add("version", QVX_VERSION)
        .add("base", first())
        .add("frequency", m_span.frequency);
}

std::string Tracks::lines(const std::vector<std::string>& given) {
    std::string all;
    const auto add = [&all](const JsonLine& line) { all += line.text(); };
    for (const std::string& file : m_files)
        add(record("file").add("name", file));
    for (const std::string& name : given)
        add(record("given").add("name", name));
    for (const std::uint64_t number : m_functions.numbers()) {
        JsonLine line = record("name");
        line.add("table", std::string_view("function"))
            .add("name", m_names.nameOrId(TextSort::Function, number))
            .add("id", m_names.idOf(TextSort::Function, number));
        if (const auto place = m_places.find(m_functions.indexOf(number)); place != m_places.end())
            line.add("place", place->second);
        add(line);
    }
    for (const auto& [table, its] : m_tables) {
        for (const std::string& text : its.texts())
            add(record("name").add("table", table).add("name", text));
    }
    for (const auto& [code, count] : m_unshown)
        add(record("unshown").add("what", CTCodeInfo::TCodeToName(code)).add("count", count));
    for (const std::string& text : m_notes)
        add(record("note").add("text", text));
    return all;
}

} // namespace qvx

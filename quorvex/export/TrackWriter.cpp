#include "quorvex/export/TrackWriter.h"

#include "quorvex/analysis/CallStack.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/RecordedFact.h"
#include "quorvex/format/Digits.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <deque>
#include <initializer_list>
#include <map>
#include <optional>
#include <tuple>
#include <utility>

namespace Quorvex {

namespace {

constexpr std::size_t kDeepest = 4096;
constexpr std::size_t kTextSize = 0x10000;
constexpr std::size_t kReadAtOnce = 0x10000;
/// What is noted of a track by itself before it goes to the body.
constexpr std::size_t kBlockSize = 0x1000;
constexpr std::uint32_t kNone = ~std::uint32_t{0};

constexpr char kMissing[] = "leaves that are missing";
constexpr char kStray[] = "leaves of what had not been entered";
constexpr char kTooDeep[] = "functions, processes and interrupts nested deeper than 4096";
constexpr char kNoValue[] = "values of no bytes";
constexpr char kNoTransition[] = "state transitions that are not defined";

constexpr std::initializer_list<TextSort> kNamesOfSlices{TextSort::Function, TextSort::Process, TextSort::StateMachine,
                                                         TextSort::StateMachineInstance, TextSort::State};
constexpr std::initializer_list<TextSort> kAllNames{
    TextSort::Function, TextSort::Process,  TextSort::StateMachine, TextSort::StateMachineInstance,
    TextSort::State,    TextSort::Variable, TextSort::Counter,      TextSort::CounterUnit,
    TextSort::Event,    TextSort::Signal};

/// What is noted of a packet, in the body. Where it has more, behind it stands how many bytes, then these: a name that
/// is its own, then its fields; or its value.
struct Note {
    std::uint64_t time; ///< in ticks
    std::uint32_t track;
    std::uint32_t label; ///< of a value, the track of the thread that tells it
    std::uint8_t what;   ///< type, form of a value, whether an end is supplied, and whether there is more

    static constexpr std::size_t kSize = 17; ///< in the body
    static constexpr std::uint8_t kIsSupplied = 0x40;
    static constexpr std::uint8_t kHasMore = 0x80;

    static std::uint8_t of(CTrackWriter::Type type, CTrackWriter::Form form, bool isSupplied, bool hasMore) {
        return static_cast<std::uint8_t>(unsigned(type) | unsigned(form) << 2 | (isSupplied ? kIsSupplied : 0U) |
                                         (hasMore ? kHasMore : 0U));
    }
    CTrackWriter::Type type() const { return CTrackWriter::Type(what & 3); }
    CTrackWriter::Form form() const { return CTrackWriter::Form(what >> 2 & 7); }
    bool isSupplied() const { return (what & kIsSupplied) != 0; }
};
static_assert(offsetof(Note, what) == Note::kSize - 1);

template <class T> void appendRaw(std::string& to, const T& value) {
    to.append(reinterpret_cast<const char*>(&value), sizeof value);
}
template <class T> T takeRaw(std::string_view& from) {
    T value;
    std::memcpy(&value, from.data(), sizeof value);
    from.remove_prefix(sizeof value);
    return value;
}
std::string_view takeText(std::string_view& from) {
    const auto size = takeRaw<std::uint32_t>(from);
    const std::string_view text = from.substr(0, size);
    from.remove_prefix(size);
    return text;
}
void appendText(std::string& to, std::string_view text) {
    appendRaw(to, static_cast<std::uint32_t>(text.size()));
    to += text;
}

/// By what a track of values is found.
struct ValueKey {
    CTrackWriter::Sort sort;
    unsigned dimensions = 0;
    std::uint64_t number = 0;
    std::uint64_t indices[2] = {};

    bool operator==(const ValueKey&) const = default;
    std::uint64_t hash() const {
        std::uint64_t hash = number << 8 | std::uint64_t(sort) << 4 | dimensions;
        for (const std::uint64_t index : indices)
            hash = (hash ^ index) * 0xD6E8FEB86659FD93;
        return hash;
    }
};

/// What gives a slice or an instant its name.
struct LabelKey {
    enum class Of : std::uint8_t { Name, Interrupt, Thread, Kind } of;
    TextSort sort = TextSort::None; ///< of a Name
    std::uint64_t number;

    bool operator==(const LabelKey&) const = default;
    std::uint64_t hash() const { return number << 16 ^ number >> 48 ^ std::uint64_t(of) << 8 ^ std::uint64_t(sort); }
};

/// By the type of a counter.
constexpr CTrackWriter::Form kForms[] = {CTrackWriter::Form::Unsigned, CTrackWriter::Form::Signed,
                                         CTrackWriter::Form::Real};

/// The word before the identifier of what has no name.
constexpr std::pair<TextSort, const char*> kWords[] = {
    {TextSort::Process, "process "},   {TextSort::Event, "event "},
    {TextSort::Signal, "signal "},     {TextSort::Counter, "counter "},
    {TextSort::State, "state "},       {TextSort::StateMachine, "machine "},
    {TextSort::Variable, "variable "}, {TextSort::StateMachineInstance, "instance "},
};

/// The states of lines as text, the highest line first; x: not valid.
std::string linesText(const CSignal& packet, const CSignalMask* lines, std::optional<std::uint64_t>& number) {
    const CSignalMask& value = packet.SignalValue();
    const CSignalMask& valid = packet.SignalMask();
    std::string text;
    number = 0;
    for (unsigned i = lines ? lines->bits() : value.bits(); i-- > 0;) {
        if (lines && !lines->test(i))
            continue;
        const bool isValid = i < value.bits() && i < valid.bits() && valid.test(i);
        text += !isValid ? 'x' : value.test(i) ? '1' : '0';
        number = number && isValid ? std::optional(*number << 1 | unsigned{value.test(i)}) : std::nullopt;
    }
    if (text.size() > 64)
        number.reset();
    return text;
}

} // namespace

/// What is entered where, and which tracks there are. Every change of it is noted.
class CTrackWriter::Model {
public:
    explicit Model(CTrackWriter& writer) : m_writer(writer) {}

    bool show(const CPacket& packet, std::uint64_t time) {
        m_time = time;
        bool isShown = false;
        const bool hasCase = visitKind(
            packet, [&](const auto& kind) requires requires { this->take(kind); } { isShown = take(kind); });
        return hasCase ? isShown : takeOther(packet);
    }

    /// No more is told of the threads whose last packet was of a process. Their calls are ended when a thread of that
    /// number runs again, or with all others: so what is noted does not depend on how many files a trace is in.
    void endOf(unsigned process) {
        for (auto& [key, thread] : m_threads)
            thread.hasEnded = thread.hasEnded || thread.of == process;
        m_calls = nullptr;
    }
    void end(std::uint64_t time) {
        m_time = time;
        // In the order of the tracks, and of the cores.
        std::map<std::uint32_t, std::pair<Stack*, std::uint64_t>> stacks;
        std::map<std::uint32_t, Core*> cores;
        std::map<std::uint32_t, State*> states;
        for (auto& [key, thread] : m_threads) {
            for (Stack& calls : thread.calls)
                stacks[calls.track] = {&calls, thread.last};
        }
        for (auto& [number, core] : m_cores) {
            for (Stack* stack : {&core.processes, &core.interrupts})
                stacks[stack->track] = {stack, core.last};
            cores[number] = &core;
        }
        for (auto& [key, state] : m_states)
            states[state.track] = &state;
        for (const auto& [track, its] : stacks)
            endAll(*its.first, its.second, true);
        for (const auto& [number, core] : cores)
            endRun(*core);
        for (const auto& [track, state] : states)
            endState(*state, true);
        for (NamedTrack& track : m_tracks)
            flush(track);
        nameAll();
    }

    /// Tells the writer of all that has been noted.
    bool tell() {
        if (!m_writer.m_wishes.byTrack) {
            const bool isRead = tellOf(0, m_writer.out_size());
            for (auto& [track, text] : m_open)
                endText(track, text, m_writer.duration(), true);
            return isRead;
        }
        for (std::uint32_t track = 0; track < m_tracks.size(); ++track) {
            m_writer.startTrack(track);
            for (const auto& [from, size] : m_tracks[track].blocks) {
                if (!tellOf(from, size))
                    return false;
            }
            m_writer.endTrack(track);
        }
        return true;
    }

    std::vector<Track> tracks;           ///< in the end
    std::vector<std::string> labels;     ///< likewise
    std::vector<std::string> groups{""}; ///< likewise

private:
    struct NamedTrack {
        Track track;
        TextSort sort = TextSort::None; ///< of what gives the name
        std::uint64_t id = 0;           ///< its number
        std::uint64_t owner = 0;        ///< of a state machine
        std::string suffix = {};
        bool hasText = false;                                             ///< among its values
        std::string block = {};                                           ///< notes that are not in the body
        std::vector<std::pair<std::uint64_t, std::uint32_t>> blocks = {}; ///< those that are: where, and bytes
    };
    /// What is entered on a track, by labels.
    struct Stack {
        Sort sort;
        std::uint32_t number;          ///< of the thread or core
        bool isGrouped = false;        ///< its track stands with those of its process
        std::uint32_t process = kNone; ///< of functions: the label of the process in which they are called
        std::uint32_t track = kNone;   ///< none: nothing is on it yet
        CallStack<std::uint32_t> entered{kDeepest};
    };
    struct Core;
    struct Thread {
        std::uint32_t number;    ///< of one that is not known, that of its core
        std::uint32_t label;     ///< on cores; none where it is not known
        std::deque<Stack> calls; ///< by processes
        std::uint64_t last = 0;  ///< time
        unsigned of = 0;         ///< the process that its last packet was of
        bool hasEnded = false;   ///< no more is told of it; what is open is still to be ended
        Core* core = nullptr;    ///< where it runs
    };
    struct Core {
        std::uint32_t number;
        std::uint32_t track = kNone; ///< of its threads
        Thread* thread = nullptr;    ///< that runs, since then
        std::uint64_t since = 0;
        std::uint64_t last = 0; ///< time
        Stack processes{Sort::CoreProcesses, number}, interrupts{Sort::CoreInterrupts, number};
    };
    struct State {
        std::uint64_t number, machine;
        std::uint32_t track = kNone; ///< none: nothing is on it yet
        std::uint32_t label = kNone; ///< none: not known
    };
    struct DefinedSignal {
        std::uint32_t id;
        CSignalMask lines;
    };
    bool take(const CFunctionEnter& packet) {
        Stack& calls = run(packet);
        const std::uint32_t id = packet.TgtFuncId();
        enter(calls, id == CFunctionEnter::kNoFunction ? labelOf({LabelKey::Of::Name, TextSort::Function, id})
                                                       : functionOf(m_writer.numberOf(TextSort::Function, id)));
        return true;
    }
    bool take(const CFunctionLeave& packet) {
        Stack& calls = run(packet);
        const std::uint32_t id = packet.TgtFuncId();
        if (id == CFunctionEnter::kNoFunction && !calls.entered.empty())
            return leave(calls, calls.entered.back()) || lostLeave();
        const std::uint32_t label = functionOf(m_writer.numberOf(TextSort::Function, id));
        // It may have been entered when another process, or none, was.
        return leave(calls, label) ||
               std::ranges::any_of(m_thread->calls, [&](Stack& others) { return leave(others, label); }) || lostLeave();
    }
    bool take(const CProcessEnter& packet) { return step(packet, packet.ProcId(), true); }
    bool take(const CProcessLeave& packet) { return step(packet, packet.ProcId(), false); }
    bool take(const CHWExceptionEnter& packet) {
        enter(interruptsOf(packet), labelOf({LabelKey::Of::Interrupt, {}, packet.ExceptionId()}));
        return true;
    }
    bool take(const CHWExceptionLeave& packet) {
        return leave(interruptsOf(packet), labelOf({LabelKey::Of::Interrupt, {}, packet.ExceptionId()})) || lostLeave();
    }
    bool take(const CCounterValue& packet) { return count(packet, nullptr, 0); }
    bool take(const CCounterValueDim1& packet) {
        const TCounterIdx_t indices[] = {packet.CntrIdx1()};
        return count(packet, indices, 1);
    }
    bool take(const CCounterValueDim2& packet) {
        const TCounterIdx_t indices[] = {packet.CntrIdx1(), packet.CntrIdx2()};
        return count(packet, indices, 2);
    }
    bool take(const CCounterValueDimN& packet) { return count(packet, packet.CntrIdx(), packet.CntrDim()); }
    bool take(const CCounterValueVar& packet) {
        run(packet);
        if (!m_writer.m_wishes.values)
            return false;
        const TVarCounter_t& index = packet.CntrIdx();
        const std::string suffix =
            index.Length() > 0 ? "[" + decimalNumber(index.data(), index.Length()) + "]" : std::string();
        const ValueKey key{Sort::Counter, 0, m_writer.numberOf(TextSort::Counter, packet.CntrId())};
        return value(trackOf(key, TextSort::Counter, suffix), packet.CntrVal().data(), packet.CntrVal().Length());
    }
    bool take(const CVariableRead& packet) { return access(packet); }
    bool take(const CVariableWrite& packet) { return access(packet); }
    bool take(const CEvent& packet) {
        Stack& calls = run(packet);
        if (!m_writer.m_wishes.instants)
            return false;
        const std::uint32_t number = m_writer.numberOf(TextSort::Event, packet.EvtId());
        return instant(trackOf(calls), labelOf({LabelKey::Of::Name, TextSort::Event, number}), packet, true);
    }
    bool take(const CMessage& packet) {
        const std::string_view text = wholeTextOf(packet);
        if (!m_writer.m_wishes.instants || RecordedFact(text).isName())
            return false;
        const std::uint32_t track = trackOf({Sort::Messages}, TextSort::None, "messages");
        return instant(track, text.empty() ? labelOf({LabelKey::Of::Kind, {}, Message}) : kNoLabel, packet, true);
    }
    bool take(const CSignalDefine& packet) {
        auto& defined = m_signals[{packet.HWCtx(), packet.Master()}];
        const std::uint32_t number = m_writer.numberOf(TextSort::Signal, packet.SignalId());
        std::erase_if(defined, [&](const DefinedSignal& one) { return one.id == number; });
        defined.push_back({number, packet.SignalMask()});
        return true;
    }
    bool take(const CSignalUndefine& packet) {
        const std::uint32_t number = m_writer.numberOf(TextSort::Signal, packet.SignalId());
        std::erase_if(m_signals[{packet.HWCtx(), packet.Master()}],
                      [&](const DefinedSignal& one) { return one.id == number; });
        return true;
    }
    bool take(const CSignal& packet) {
        if (!m_writer.m_wishes.values)
            return false;
        const auto show = [&](std::uint32_t track, const CSignalMask* lines) {
            std::optional<std::uint64_t> number;
            const std::string text = linesText(packet, lines, number);
            if (!text.empty() && number)
                valueNote(track, *number);
            else if (!text.empty())
                valueNote(track, text);
        };
        const auto defined = m_signals.find({packet.HWCtx(), packet.Master()});
        if (defined == m_signals.end() || defined->second.empty())
            show(trackOf({Sort::Signal, 2, 0, {packet.HWCtx(), packet.Master()}}, TextSort::None,
                         "lines " + std::to_string(packet.HWCtx()) + "." + std::to_string(packet.Master())),
                 nullptr);
        else
            for (const DefinedSignal& one : defined->second)
                show(trackOf({Sort::Signal, 0, one.id}, TextSort::Signal, ""), &one.lines);
        return true;
    }
    bool take(const CTransitionDefine& packet) {
        m_targets[m_writer.numberOf(TextSort::Transition, packet.StateMachine(),
                                    packet.CTransitionDefinePayload::Transition())] = packet.TargetState();
        return true;
    }
    bool take(const CInitialState& packet) {
        goTo(stateOf(packet.StateMachine(), packet.StateMachineInstance()), packet.StateMachine(), packet.State(),
             packet);
        return true;
    }
    bool take(const CTransition& packet) {
        const auto target =
            m_targets.find(m_writer.numberOf(TextSort::Transition, packet.StateMachine(), packet.TransitionId()));
        State& state = stateOf(packet.StateMachine(), packet.StateMachineInstance());
        if (target != m_targets.end()) {
            goTo(state, packet.StateMachine(), target->second, packet);
        } else {
            m_writer.lose(kNoTransition);
            endState(state);
        }
        return true;
    }

    /// A packet without a case of its own.
    bool takeOther(const CPacket& packet) {
        const tagTCode code = packet.TraceCode();
        if (factsOf(code).role != Role::Happening)
            return false;
        if (code == CharString && wholeTextOf(packet).empty())
            return true;
        const auto* core = contextOf<CCoreContext>(packet);
        if (core && code != TraceBroken) // which tells what ran before it
            run(*core);
        if (!m_writer.m_wishes.instants)
            return false;
        if (code == CharString)
            return instant(trackOf({Sort::Messages}, TextSort::None, "messages"), kNoLabel, packet, true);
        const bool isBus = contextOf<CBusContext>(packet) != nullptr;
        const std::uint32_t track = core ? trackOf(callsOf(*core))
                                         : trackOf({Sort::Other, 0, isBus}, TextSort::None, isBus ? "buses" : "system");
        return instant(track, labelOf({LabelKey::Of::Kind, {}, code}), packet, core != nullptr);
    }

    // What runs where.

    /// The calls of the thread that a packet of that context tells to run.
    Stack& run(const CCoreContext& context) {
        if (!m_calls || m_swCtx != context.SWCtx() || m_hwCtx != context.HWCtx()) {
            m_swCtx = context.SWCtx();
            m_hwCtx = context.HWCtx();
            m_core = &coreOf(m_hwCtx);
            m_thread = &threadOf(m_swCtx, m_hwCtx);
            if (std::exchange(m_thread->hasEnded, false)) {
                for (Stack& calls : m_thread->calls)
                    endAll(calls, m_thread->last, false);
            }
            m_calls = &callsOf(*m_thread, m_core->processes.entered);
            if (m_core->thread != m_thread) {
                endRun(*m_core);
                if (m_thread->core)
                    endRun(*m_thread->core);
                m_core->thread = m_thread;
                m_core->since = m_time;
                m_thread->core = m_core;
            }
        }
        m_core->last = m_thread->last = m_time;
        m_thread->of = m_writer.process();
        return *m_calls;
    }
    void endRun(Core& core) {
        if (!core.thread)
            return;
        // Only of cores and threads that are known it is told.
        if (core.thread->label != kNone && !isUnknown(FieldMeaning::Context, core.number)) {
            if (core.track == kNone)
                core.track = addTrack({.sort = Sort::CoreThreads, .group = 0, .number = core.number});
            note(Type::Begin, core.track, core.thread->label, core.since);
            note(Type::End, core.track, core.thread->label, core.last);
        }
        core.thread->core = nullptr;
        core.thread = nullptr;
    }
    Core& coreOf(std::uint32_t number) {
        return m_cores.findOrMake(number, [number] { return Core{.number = number}; });
    }
    Thread& threadOf(std::uint32_t number, std::uint32_t core) {
        // Of a thread that is not known, what runs on a core is taken for one.
        const bool isKnown = !isUnknown(FieldMeaning::Context, number);
        return m_threads.findOrMake(isKnown ? number : std::uint64_t{1} << 32 | core, [&] {
            return Thread{.number = isKnown ? number : core,
                          .label = isKnown ? labelOf({LabelKey::Of::Thread, {}, number}) : kNone,
                          .calls = {}};
        });
    }
    /// The calls that a packet of that context belongs to, which may not run there now.
    Stack& callsOf(const CCoreContext& context) {
        return callsOf(threadOf(context.SWCtx(), context.HWCtx()), coreOf(context.HWCtx()).processes.entered);
    }
    Stack& callsOf(Thread& thread, const CallStack<std::uint32_t>& processes) {
        const std::uint32_t process = processes.empty() ? kNone : processes.back();
        const auto known = std::ranges::find(thread.calls, process, &Stack::process);
        if (known != thread.calls.end())
            return *known;
        return thread.calls.emplace_back(Stack{
            .sort = Sort::Thread, .number = thread.number, .isGrouped = thread.label != kNone, .process = process});
    }

    // What is entered.

    bool step(const CCoreContext& context, std::uint32_t id, bool isEntered) {
        run(context);
        Stack& stack = m_core->processes;
        const std::uint32_t label =
            labelOf({LabelKey::Of::Name, TextSort::Process, m_writer.numberOf(TextSort::Process, id)});
        m_calls = nullptr;
        if (isEntered)
            enter(stack, label);
        return isEntered || leave(stack, label) || lostLeave();
    }
    Stack& interruptsOf(const CCoreContext& context) {
        run(context);
        return m_core->interrupts;
    }
    void enter(Stack& stack, std::uint32_t label) {
        if (stack.entered.enter([label] { return label; }))
            note(Type::Begin, trackOf(stack), label, m_time);
        else
            m_writer.lose(kTooDeep);
    }
    /// False where it was not entered.
    bool leave(Stack& stack, std::uint32_t label) {
        const auto left = stack.entered.leave([label](std::uint32_t entered) { return entered == label; });
        for (std::size_t count = left.value_or(0); count > 0; --count) {
            if (count > 1)
                m_writer.lose(kMissing);
            note(Type::End, stack.track, stack.entered.back(), m_time, count > 1);
            stack.entered.pop();
        }
        return left.has_value();
    }
    bool lostLeave() {
        m_writer.lose(kStray);
        return true;
    }
    void endAll(Stack& stack, std::uint64_t time, bool isSupplied) {
        for (; !stack.entered.empty(); stack.entered.pop())
            note(Type::End, stack.track, stack.entered.back(), time, isSupplied);
    }

    State& stateOf(std::uint32_t machine, std::uint32_t instance) {
        const std::uint64_t number = m_writer.numberOf(TextSort::StateMachineInstance, machine, instance);
        return m_states.findOrMake(number, [&] {
            return State{number, m_writer.numberOf(TextSort::StateMachine, machine)};
        });
    }
    void goTo(State& state, std::uint32_t machine, std::uint32_t target, const CPacket& packet) {
        endState(state);
        if (state.track == kNone)
            state.track = addTrack({.sort = Sort::States, .group = 0, .number = 0}, TextSort::StateMachineInstance,
                                   state.number, state.machine);
        state.label =
            labelOf({LabelKey::Of::Name, TextSort::State, m_writer.numberOf(TextSort::State, machine, target)});
        m_more.clear();
        addFields(packet, true);
        note(Type::Begin, state.track, state.label, m_time);
    }
    void endState(State& state, bool isSupplied = false) {
        if (state.label != kNone)
            note(Type::End, state.track, state.label, m_time, isSupplied);
        state.label = kNone;
    }

    // Values.

    bool count(const CCounterValueBase& packet, const TCounterIdx_t* indices, unsigned dimensions) {
        run(packet);
        if (!m_writer.m_wishes.values)
            return false;
        ValueKey key{Sort::Counter, dimensions, m_writer.numberOf(TextSort::Counter, packet.CntrId())};
        const auto suffix = [&] {
            std::string text;
            for (unsigned i = 0; i < dimensions; ++i)
                text += "[" + std::to_string(indices[i].u64) + "]";
            return text;
        };
        const bool isCommon = dimensions <= std::size(key.indices);
        for (unsigned i = 0; isCommon && i < dimensions; ++i)
            key.indices[i] = indices[i].u64;
        const std::uint32_t track =
            isCommon ? m_known.findOrMake(key, [&] { return trackOf(key, TextSort::Counter, suffix()); })
                     : trackOf(key, TextSort::Counter, suffix());
        const std::uint64_t number = packet.CntrVal().u64;
        m_writer.counterSort(static_cast<std::uint32_t>(key.number)).note(number);
        valueNote(track, number);
        return true;
    }
    template <class Access> bool access(const Access& packet) {
        run(packet);
        if (!m_writer.m_wishes.values)
            return false;
        const std::uint64_t number = m_writer.numberOf(TextSort::Variable, packet.VarId());
        const ValueKey key{Sort::Variable, 0, number};
        return value(m_known.findOrMake(key, [&] { return trackOf(key, TextSort::Variable, ""); }),
                     packet.VarData().data(), packet.VarLen());
    }
    /// A value whose lowest byte comes first.
    bool value(std::uint32_t track, const std::uint8_t* bytes, unsigned count) {
        std::uint64_t number = 0;
        for (unsigned i = 0; i < count && i < sizeof number; ++i)
            number |= std::uint64_t{bytes[i]} << 8 * i;
        if (count == 0)
            m_writer.lose(kNoValue);
        else if (count <= sizeof number)
            valueNote(track, number);
        else
            valueNote(track, hexNumber(bytes, count));
        return true;
    }
    void valueNote(std::uint32_t track, std::uint64_t number) {
        m_more.clear();
        appendRaw(m_more, number);
        note(Type::Value, track, teller(track), m_time, false, Form::Unsigned);
    }
    void valueNote(std::uint32_t track, std::string_view text) {
        m_tracks[track].hasText = true;
        m_more = text;
        note(Type::Value, track, teller(track), m_time, false, Form::Text);
    }
    /// Which thread tells a value of that track, by its track.
    std::uint32_t teller(std::uint32_t track) {
        return m_tracks[track].track.sort == Sort::Signal ? kNoTrack : trackOf(*m_calls);
    }

    // Instants.

    bool instant(std::uint32_t track, std::uint32_t label, const CPacket& packet, bool isPlaced) {
        m_more.clear();
        if (label == kNoLabel)
            appendText(m_more, wholeTextOf(packet));
        addFields(packet, isPlaced);
        note(Type::Instant, track, label, m_time);
        return true;
    }
    /// All but what the packet is about, and when; with `isPlaced` also where.
    void addFields(const CPacket& packet, bool isPlaced) {
        eachNumber(packet, [&](const NumberField& field) {
            const Reference* reference = field.meaning == FieldMeaning::Id ? referenceOf(field.name) : nullptr;
            const bool isSubject = reference && reference->isSubject && reference->sort != TextSort::Transition;
            const bool isSaid = isSubject || field.meaning == FieldMeaning::Tick ||
                                (isPlaced && field.meaning == FieldMeaning::Context);
            if (isSaid || !field.isKnown)
                return;
            const std::string_view name = field.name;
            m_more += static_cast<char>(name.size());
            m_more += name;
            const FieldLook look = factsOf(field.meaning).look;
            const bool isBytes = field.meaning == FieldMeaning::Bytes || field.bytes.size() > sizeof field.value;
            if (isBytes || look == FieldLook::Hexadecimal || look == FieldLook::Address) {
                m_more += static_cast<char>(Form::Text);
                char digits[2 + 16];
                const bool isLong = look == FieldLook::Address;
                const char* const end = isLong ? putHexValue(digits, field.value)
                                               : putHexValue(digits, static_cast<std::uint32_t>(field.value));
                const std::string_view hex(digits, static_cast<std::size_t>(end - digits));
                appendText(m_more, isBytes ? hexNumber(field.bytes) : std::string(hex));
            } else {
                m_more += static_cast<char>(field.isSigned ? Form::Signed : Form::Unsigned);
                appendRaw(m_more, field.value);
            }
        });
    }

    // Tracks and labels.

    std::uint32_t addTrack(Track track, TextSort sort = TextSort::None, std::uint64_t id = 0, std::uint64_t owner = 0,
                           std::string suffix = {}) {
        m_tracks.push_back({std::move(track), sort, id, owner, std::move(suffix)});
        return static_cast<std::uint32_t>(m_tracks.size() - 1);
    }
    std::uint32_t trackOf(Stack& stack) {
        if (stack.track == kNone) {
            const std::uint32_t group = !stack.isGrouped ? 0 : m_groups.findOrMake(stack.process, [&] {
                m_groupLabels.push_back(stack.process);
                return static_cast<std::uint32_t>(m_groupLabels.size());
            });
            stack.track = addTrack({.sort = stack.sort, .group = group, .number = stack.number});
        }
        return stack.track;
    }
    /// A track that belongs to no core or thread.
    std::uint32_t trackOf(ValueKey key, TextSort sort, std::string suffix) {
        const auto [at, isNew] =
            m_byName.try_emplace({key.sort, key.number, suffix}, static_cast<std::uint32_t>(m_tracks.size()));
        if (isNew)
            addTrack({.sort = key.sort, .group = 0, .number = 0}, sort, key.number, 0, std::move(suffix));
        return at->second;
    }
    std::uint32_t labelOf(LabelKey key) {
        return m_labelsOf.findOrMake(key, [&] {
            m_labels.push_back(key);
            return static_cast<std::uint32_t>(m_labels.size() - 1);
        });
    }
    [[gnu::always_inline]] std::uint32_t functionOf(std::uint32_t number) {
        return m_functions.findOrMake(number, [&] {
            return labelOf({LabelKey::Of::Name, TextSort::Function, number});
        });
    }

    std::string nameOf(TextSort sort, std::uint64_t number) const {
        const CTraceNames& names = m_writer.names();
        if (const std::string& name = names.name(sort, number); !name.empty())
            return name;
        const auto* word = std::ranges::find(kWords, sort, &std::pair<TextSort, const char*>::first);
        char digits[2 + 16];
        const auto id = static_cast<std::uint32_t>(names.idOf(sort, number));
        return (word == std::end(kWords) ? std::string() : word->second) + std::string(digits, putHexValue(digits, id));
    }
    std::string textOf(const LabelKey& label) const {
        switch (label.of) {
        case LabelKey::Of::Name:
            return label.sort == TextSort::Function && label.number == CFunctionEnter::kNoFunction
                       ? "(no function)"
                       : nameOf(label.sort, label.number);
        case LabelKey::Of::Interrupt:
            return "interrupt " + std::to_string(label.number);
        case LabelKey::Of::Thread:
            return m_writer.names().threadText(static_cast<std::uint32_t>(label.number));
        default:
            return CTCodeInfo::TCodeToName(tagTCode(label.number));
        }
    }
    std::string nameOfGroup(std::uint32_t group) const {
        const std::uint32_t process = m_groupLabels[group - 1];
        return process == kNone ? "no process" : textOf(m_labels[process]);
    }
    std::string nameOf(const NamedTrack& of) const {
        const std::string core = "core " + std::to_string(of.track.number);
        switch (of.track.sort) {
        case Sort::Thread:
            return (of.track.group == 0 ? core + " without a thread" : m_writer.names().threadText(of.track.number)) +
                   (of.track.group > 1 ? " in " + nameOfGroup(of.track.group) : "");
        case Sort::CoreThreads:
            return core;
        case Sort::CoreProcesses:
            return core + " processes";
        case Sort::CoreInterrupts:
            return core + " interrupts";
        case Sort::States:
            return nameOf(TextSort::StateMachine, of.owner) + " " + nameOf(of.sort, of.id);
        default:
            return (of.sort == TextSort::None ? std::string() : nameOf(of.sort, of.id)) + of.suffix;
        }
    }
    void nameAll() {
        for (NamedTrack& its : m_tracks) {
            its.track.name = nameOf(its);
            const auto number = static_cast<std::uint32_t>(its.id);
            if (its.track.sort == Sort::Counter) {
                its.track.unit = m_writer.counterUnit(number);
                its.track.form = kForms[unsigned(m_writer.counterSort(number).type())];
            } else if (its.track.sort == Sort::Variable || its.track.sort == Sort::Signal) {
                its.track.form = Form::Unsigned;
            }
            if (its.hasText)
                its.track.form = Form::Text;
            tracks.push_back(its.track);
        }
        for (const LabelKey& label : m_labels)
            labels.push_back(textOf(label));
        for (const std::uint32_t process : m_groupLabels)
            groups.push_back(process == kNone ? m_writer.options().inputs : labels[process]);
    }

    // Notes.

    [[gnu::flatten]] void note(Type type, std::uint32_t track, std::uint32_t label, std::uint64_t time,
                               bool isSupplied = false, Form form = Form::None) {
        const bool hasMore = type == Type::Value || type == Type::Instant || !m_more.empty();
        const Note note{time, track, label, Note::of(type, form, isSupplied, hasMore)};
        const auto more = static_cast<std::uint32_t>(m_more.size());
        const auto put = [&](char* to) {
            std::memcpy(to, &note, Note::kSize);
            if (hasMore) {
                std::memcpy(to + Note::kSize, &more, sizeof more);
                std::memcpy(to + Note::kSize + sizeof more, m_more.data(), more);
            }
        };
        const std::size_t size = Note::kSize + (hasMore ? sizeof more + more : 0);
        if (!m_writer.m_wishes.byTrack) {
            char* const to = m_writer.bodyRoom(size);
            put(to);
            m_writer.bodyEnds(to + size);
        } else {
            NamedTrack& its = m_tracks[track];
            its.block.resize(its.block.size() + size);
            put(its.block.data() + its.block.size() - size);
            if (its.block.size() >= kBlockSize)
                flush(its);
        }
        if (hasMore)
            m_more.clear();
    }
    void flush(NamedTrack& track) {
        if (track.block.empty())
            return;
        track.blocks.emplace_back(m_writer.out_size(), static_cast<std::uint32_t>(track.block.size()));
        char* const to = m_writer.bodyRoom(track.block.size());
        std::memcpy(to, track.block.data(), track.block.size());
        m_writer.bodyEnds(to + track.block.size());
        track.block.clear();
    }

    bool tellOf(std::uint64_t from, std::uint64_t size) {
        std::size_t kept = 0; // of a note that has been read in part
        while (size > 0) {
            const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(size, kReadAtOnce));
            m_read.resize(std::max(m_read.size(), kept + count));
            if (!m_writer.readBody(from, m_read.data() + kept, count))
                return false;
            from += count;
            size -= count;
            std::string_view notes(m_read.data(), kept + count);
            while (notes.size() >= Note::kSize) {
                Note note;
                std::memcpy(&note, notes.data(), Note::kSize);
                std::size_t whole = Note::kSize;
                std::string_view more;
                if (note.what & Note::kHasMore) {
                    std::string_view rest = notes.substr(whole);
                    if (rest.size() < sizeof(std::uint32_t))
                        break;
                    const auto moreSize = takeRaw<std::uint32_t>(rest);
                    if (rest.size() < moreSize)
                        break;
                    more = rest.substr(0, moreSize);
                    whole += sizeof moreSize + moreSize;
                }
                tell(note, more);
                notes.remove_prefix(whole);
            }
            kept = notes.size();
            std::memmove(m_read.data(), notes.data(), kept);
        }
        return true;
    }
    void tell(const Note& note, std::string_view more) {
        Fact fact{.type = note.type(),
                  .track = note.track,
                  .label = note.label,
                  .name = {},
                  .time = m_writer.nanoseconds(note.time),
                  .more = more,
                  .isSupplied = note.isSupplied()};
        if (fact.type == Type::Value)
            return tellValue(note, fact);
        fact.name = note.label == kNoLabel ? takeText(fact.more) : std::string_view(labels[note.label]);
        m_writer.write(fact);
    }
    void tellValue(const Note& note, Fact& fact) {
        const Form form = tracks[note.track].form;
        fact.teller = std::exchange(fact.label, kNoLabel);
        std::string_view more = std::exchange(fact.more, {});
        if (note.form() == Form::Text) {
            fact.value = {"value", Form::Text, 0, more};
        } else {
            const auto number = takeRaw<std::uint64_t>(more);
            fact.value = {"value", form, number};
            if (form == Form::Text)
                fact.value.text = {m_digits, putDecimal(m_digits, number)};
        }
        if (form != Form::Text || !m_writer.m_wishes.textsAsSlices)
            return m_writer.write(fact);
        std::string& open = m_open[note.track];
        endText(note.track, open, fact.time);
        open = fact.value.text;
        fact.type = Type::Begin;
        fact.name = open;
        m_writer.write(fact);
    }
    /// Ends what is shown of a value that is a text.
    void endText(std::uint32_t track, std::string& open, std::uint64_t time, bool isSupplied = false) {
        if (!open.empty())
            m_writer.write({.type = Type::End,
                            .track = track,
                            .label = kNoLabel,
                            .name = open,
                            .time = time,
                            .isSupplied = isSupplied});
        open.clear();
    }
    CTrackWriter& m_writer;
    std::uint64_t m_time = 0;
    // Where the last packet was that tells it; null: nowhere yet.
    Core* m_core = nullptr;
    Thread* m_thread = nullptr;
    Stack* m_calls = nullptr;
    std::uint32_t m_hwCtx = 0, m_swCtx = 0;
    std::vector<NamedTrack> m_tracks;
    std::vector<LabelKey> m_labels;
    Directory<LabelKey, std::uint32_t> m_labelsOf;
    Directory<std::uint32_t, std::uint32_t> m_functions; ///< those of m_labels that are looked up most often
    Directory<std::uint32_t, Core> m_cores;
    Directory<std::uint64_t, Thread> m_threads;
    Directory<std::uint32_t, std::uint32_t> m_groups; ///< by the labels of processes
    std::vector<std::uint32_t> m_groupLabels;         ///< those of the groups from 1 on
    Directory<std::uint64_t, State> m_states;
    Directory<ValueKey, std::uint32_t> m_known; ///< those of m_byName that are looked up often
    std::map<std::tuple<Sort, std::uint64_t, std::string>, std::uint32_t> m_byName;
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::vector<DefinedSignal>> m_signals; ///< by core and master
    std::map<std::uint64_t, std::uint32_t> m_targets;                                        ///< of transitions
    std::map<std::uint32_t, std::string> m_open; ///< texts that are shown as slices, by tracks
    std::string m_more;                          ///< of the next note
    std::vector<char> m_read;                    ///< kept for its memory
    char m_digits[kMostDigits];
};

CTrackWriter::CTrackWriter(std::ostream& out, ViewerOptions options, Wishes wishes)
    : CViewerWriter(out, wishes.values ? kAllNames : kNamesOfSlices, std::move(options)),
      m_wishes(wishes),
      m_model(platform::makeOwned<Model>(*this)) {}

CTrackWriter::~CTrackWriter() = default;

const std::vector<CTrackWriter::Track>& CTrackWriter::tracks() const {
    return m_model->tracks;
}

const std::vector<std::string>& CTrackWriter::labels() const {
    return m_model->labels;
}

const std::vector<std::string>& CTrackWriter::groups() const {
    return m_model->groups;
}

bool CTrackWriter::show(const CPacket& packet, std::uint64_t time) {
    return m_model->show(packet, time);
}

void CTrackWriter::endOf(unsigned process, std::uint64_t) {
    m_model->endOf(process);
}

void CTrackWriter::end(std::uint64_t time) {
    m_model->end(time);
    m_duration = nanoseconds(time);
}

bool CTrackWriter::writeFile() {
    startFile();
    if (!m_model->tell())
        return false;
    endFile();
    makeTextRoom(0);
    return m_isWritten;
}

std::uint64_t CTrackWriter::nanoseconds(std::uint64_t ticks) {
    const std::uint64_t clock = frequency();
    return clock == kUnitsPerSecond || clock == 0 ? ticks : unitsOf(ticks, kUnitsPerSecond);
}

void CTrackWriter::makeTextRoom(std::size_t most) {
    const auto size = static_cast<std::size_t>(m_textEnd - m_text.data());
    m_isWritten = m_isWritten && (size == 0 || writeOut({m_text.data(), size}));
    if (most > m_text.size() || m_text.empty())
        m_text.resize(std::max(kTextSize, most));
    m_textEnd = m_text.data();
    m_textLimit = m_textEnd + m_text.size();
}

void CTrackWriter::add(std::string_view text) {
    char* const to = room(text.size());
    std::copy(text.begin(), text.end(), to);
    ends(to + text.size());
}

CTrackWriter::Field CTrackWriter::nextField(std::string_view& rest) {
    Field field;
    const auto size = static_cast<unsigned char>(rest[0]);
    field.name = rest.substr(1, size);
    field.form = static_cast<Form>(rest[1U + size]);
    rest.remove_prefix(2U + size);
    if (field.form == Form::Text)
        field.text = takeText(rest);
    else
        field.number = takeRaw<std::uint64_t>(rest);
    return field;
}

} // namespace Quorvex

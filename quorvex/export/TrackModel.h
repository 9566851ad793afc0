#pragma once

#include "quorvex/analysis/CallStack.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/RecordedFact.h"
#include "quorvex/export/CounterCell.h"
#include "quorvex/export/TrackNames.h"
#include "quorvex/export/TrackNotes.h"
#include "quorvex/export/TrackWriter.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quorvex {

/// What is entered where, and which values there are. Every change of it is noted.
class CTrackWriter::Model {
public:
    Model(CTrackWriter& writer, Names& names, Notes& notes) : m_writer(writer), m_names(names), m_notes(notes) {}

    /// Shows a packet; false when there is no case for it.
    bool show(const CPacket& packet, std::uint64_t time);
    /// No more is told of the threads whose last packet was of a process. Their calls are ended when a thread of that
    /// number runs again, or with all others: so what is noted does not depend on how many files a trace is in.
    void endOf(unsigned process);
    /// Ends what is open, in the order of the tracks, and of the cores.
    void end(std::uint64_t time);

private:
    using LabelKey = Names::LabelKey;

    static constexpr std::size_t kDeepest = 4096;
    static constexpr std::uint32_t kNone = Names::kNone;

    static constexpr char kMissing[] = "leaves that are missing";
    static constexpr char kStray[] = "leaves of what had not been entered";
    static constexpr char kTooDeep[] = "functions, processes and interrupts nested deeper than 4096";
    static constexpr char kNoValue[] = "values of no bytes";
    static constexpr char kNoTransition[] = "state transitions that are not defined";

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
        enter(calls, id == CFunctionEnter::kNoFunction ? m_names.labelOf(TextSort::Function, id)
                                                       : m_names.functionOf(m_writer.numberOf(TextSort::Function, id)));
        return true;
    }
    bool take(const CFunctionLeave& packet) {
        Stack& calls = run(packet);
        const std::uint32_t id = packet.TgtFuncId();
        if (id == CFunctionEnter::kNoFunction && !calls.entered.empty())
            return leave(calls, calls.entered.back()) || lostLeave();
        const std::uint32_t label = m_names.functionOf(m_writer.numberOf(TextSort::Function, id));
        // It may have been entered when another process, or none, was.
        return leave(calls, label) ||
               std::ranges::any_of(m_thread->calls, [&](Stack& others) { return leave(others, label); }) || lostLeave();
    }
    bool take(const CProcessEnter& packet) { return step(packet, packet.ProcId(), true); }
    bool take(const CProcessLeave& packet) { return step(packet, packet.ProcId(), false); }
    bool take(const CHWExceptionEnter& packet) {
        enter(interruptsOf(packet), interrupt(packet.ExceptionId()));
        return true;
    }
    bool take(const CHWExceptionLeave& packet) {
        return leave(interruptsOf(packet), interrupt(packet.ExceptionId())) || lostLeave();
    }
    bool take(const CounterPacket auto& packet) { return count(packet, CounterCell(packet)); }
    bool take(const CCounterValueVar& packet) {
        run(packet);
        if (!m_writer.m_wishes.values)
            return false;
        return value(m_names.trackOf(Sort::Counter, TextSort::Counter,
                                     m_writer.numberOf(TextSort::Counter, packet.CntrId()),
                                     CounterCell::textOf(packet, "[", "]")),
                     packet.CntrVal().data(), packet.CntrVal().Length());
    }
    bool take(const CVariableRead& packet) { return access(packet); }
    bool take(const CVariableWrite& packet) { return access(packet); }
    bool take(const CEvent& packet) {
        Stack& calls = run(packet);
        if (!m_writer.m_wishes.instants)
            return false;
        const std::uint32_t number = m_writer.numberOf(TextSort::Event, packet.EvtId());
        return instant(trackOf(calls), m_names.labelOf(TextSort::Event, number), packet, true);
    }
    bool take(const CMessage& packet) {
        const std::string_view text = wholeTextOf(packet);
        if (!m_writer.m_wishes.instants || RecordedFact(text).isName())
            return false;
        return instant(messages(), text.empty() ? kind(Message) : kNoLabel, packet, true);
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
    bool take(const CSignal& packet);
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
    bool take(const CTransition& packet);

    /// A packet without a case of its own.
    bool takeOther(const CPacket& packet);

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
    void endRun(Core& core);
    Core& coreOf(std::uint32_t number);
    Thread& threadOf(std::uint32_t number, std::uint32_t core);
    /// The calls that a packet of that context belongs to, which may not run there now.
    Stack& callsOf(const CCoreContext& context) {
        return callsOf(threadOf(context.SWCtx(), context.HWCtx()), coreOf(context.HWCtx()).processes.entered);
    }
    Stack& callsOf(Thread& thread, const CallStack<std::uint32_t>& processes);

    // What is entered.

    bool step(const CCoreContext& context, std::uint32_t id, bool isEntered);
    Stack& interruptsOf(const CCoreContext& context) {
        run(context);
        return m_core->interrupts;
    }
    void enter(Stack& stack, std::uint32_t label) {
        if (stack.entered.enter([label] { return label; }))
            m_notes.slice(Type::Begin, trackOf(stack), label, m_time);
        else
            m_writer.lose(kTooDeep);
    }
    /// False where it was not entered.
    bool leave(Stack& stack, std::uint32_t label) {
        const auto left = stack.entered.leave([label](std::uint32_t entered) { return entered == label; });
        for (std::size_t count = left.value_or(0); count > 0; --count) {
            if (count > 1)
                m_writer.lose(kMissing);
            m_notes.slice(Type::End, stack.track, stack.entered.back(), m_time, count > 1);
            stack.entered.pop();
        }
        return left.has_value();
    }
    bool lostLeave() {
        m_writer.lose(kStray);
        return true;
    }
    void endAll(Stack& stack, std::uint64_t time, bool isSupplied);

    State& stateOf(std::uint32_t machine, std::uint32_t instance);
    void goTo(State& state, std::uint32_t machine, std::uint32_t target, const CPacket& packet);
    void endState(State& state, bool isSupplied = false) {
        if (state.label != kNone)
            m_notes.slice(Type::End, state.track, state.label, m_time, isSupplied);
        state.label = kNone;
    }

    // Values.

    bool count(const CCounterValueBase& packet, const CounterCell& cell);
    template <class Access> bool access(const Access& packet) {
        run(packet);
        if (!m_writer.m_wishes.values)
            return false;
        const ValueKey key{.sort = std::uint8_t(Sort::Variable),
                           .number = m_writer.numberOf(TextSort::Variable, packet.VarId())};
        return value(m_names.trackOf(key, TextSort::Variable, [] { return std::string(); }), packet.VarData().data(),
                     packet.VarLen());
    }
    /// A value whose lowest byte comes first.
    bool value(std::uint32_t track, const std::uint8_t* bytes, unsigned count);
    void valueNote(std::uint32_t track, std::uint64_t number) { m_notes.value(track, teller(track), m_time, number); }
    void valueNote(std::uint32_t track, std::string_view text) {
        m_names.hasText(track);
        m_notes.value(track, teller(track), m_time, text);
    }
    /// Which thread tells a value of that track, by its track.
    std::uint32_t teller(std::uint32_t track) {
        return m_names.sortOf(track) == Sort::Signal ? kNoTrack : trackOf(*m_calls);
    }

    // Instants.

    bool instant(std::uint32_t track, std::uint32_t label, const CPacket& packet, bool isPlaced);
    /// All but what the packet is about, and when; with `isPlaced` also where.
    void addFields(const CPacket& packet, bool isPlaced);
    std::uint32_t trackOf(Stack& stack) {
        if (stack.track == kNone)
            stack.track =
                m_names.addTrack(stack.sort, stack.number, stack.isGrouped ? m_names.groupOf(stack.process) : 0);
        return stack.track;
    }
    std::uint32_t messages() { return m_names.trackOf(Sort::Messages, TextSort::None, 0, "messages"); }
    std::uint32_t interrupt(std::uint32_t number) { return m_names.labelOf({LabelKey::Of::Interrupt, {}, number}); }
    std::uint32_t kind(tagTCode code) { return m_names.labelOf({LabelKey::Of::Kind, {}, code}); }

    CTrackWriter& m_writer;
    Names& m_names;
    Notes& m_notes;
    std::uint64_t m_time = 0;
    // Where the last packet was that tells it; null: nowhere yet.
    Core* m_core = nullptr;
    Thread* m_thread = nullptr;
    Stack* m_calls = nullptr;
    std::uint32_t m_hwCtx = 0, m_swCtx = 0;
    Directory<std::uint32_t, Core> m_cores;
    Directory<std::uint64_t, Thread> m_threads;
    Directory<std::uint64_t, State> m_states;
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::vector<DefinedSignal>> m_signals; ///< by core and master
    std::map<std::uint64_t, std::uint32_t> m_targets;                                        ///< of transitions
};

} // namespace Quorvex

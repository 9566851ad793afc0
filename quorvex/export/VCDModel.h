#pragma once

#include "quorvex/analysis/CallStack.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/export/CounterCell.h"
#include "quorvex/export/VCDBody.h"
#include "quorvex/export/VCDWire.h"
#include "quorvex/export/VCDWriter.h"
#include "quorvex/packets/PacketKinds.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace Quorvex {

/// What runs where, and which values there are: what packets say, as changes of variables.
class CVCDWriter::Model {
public:
    Model(CVCDWriter& writer, Body& body) : m_writer(writer), m_body(body) {}

    /// Shows a packet; false when there is no case for it.
    bool show(const CPacket& packet, std::uint64_t time);
    /// What runs in a process ends.
    void endOf(unsigned process);

private:
    /// Deeper nesting is counted, but it is not remembered what is entered there.
    static constexpr std::size_t kDeepest = 4096;
    /// Changes to depths up to that are kept as text.
    static constexpr std::size_t kCommonDepths = 64;

    using Area = vcd::Area;
    using Declaration = vcd::Declaration;
    using NumberLine = vcd::NumberLine;
    using Type = vcd::Type;
    using Wire = vcd::Wire;

    static ValueKey keyOf(Area area, std::uint64_t number, std::uint8_t form = 0) {
        return {.sort = static_cast<std::uint8_t>(area), .form = form, .number = number};
    }
    struct Entered {
        NumberLine current; ///< that it is the innermost
        std::uint32_t id;
        unsigned count = 0;
        Wire* variable = nullptr; ///< its bit
    };
    using Stack = CallStack<Entered*>;
    /// What shows a stack, or one of several.
    struct View {
        Wire* current = nullptr;
        Wire* depth = nullptr;
        std::vector<NumberLine> depths = {}; ///< the changes to the first depths
        Directory<std::uint32_t, Entered> entered = {};
    };
    struct Core {
        std::optional<std::uint32_t> thread;
        Wire* threadVariable = nullptr;
        Wire* address = nullptr;
        Wire* target = nullptr;
        Wire* executed = nullptr;
        View processView;
        Stack processes{kDeepest};
        View exceptionView;
        Stack exceptions{kDeepest};
    };
    struct Thread {
        ThreadInputs inputs;
        std::optional<std::uint32_t> core;
        Wire* coreVariable = nullptr;
        View view;
        std::map<std::optional<std::uint32_t>, Stack> stacks; ///< by the process that is entered, if one is
        Stack* stack = nullptr;                               ///< that is shown
    };
    struct DefinedSignal {
        std::uint32_t id;
        CSignalMask lines;
        Wire* variable = nullptr;
    };

    void take(const CFunctionEnter& packet) {
        if (packet.TgtFuncIdIsValid())
            return showFunction(packet, packet.TgtFuncId(), true);
        runs(packet);
        m_writer.lose(kNoFunction);
    }
    void take(const CFunctionLeave& packet) { showFunction(packet, packet.TgtFuncId(), false); }
    void take(const CProcessEnter& packet) { showProcess(packet, packet.ProcId(), true); }
    void take(const CProcessLeave& packet) { showProcess(packet, packet.ProcId(), false); }
    void take(const CHWExceptionEnter& packet) { showException(packet, packet.ExceptionId(), true); }
    void take(const CHWExceptionLeave& packet) { showException(packet, packet.ExceptionId(), false); }
    void take(const CounterPacket auto& packet) { showCounter(packet, CounterCell(packet)); }
    void take(const CCounterValueVar& packet) {
        const TVarCounter_t& value = packet.CntrVal();
        runs(packet);
        Declaration declaration{.area = Area::Counters,
                                .isWide = true,
                                .label = "counter_",
                                .sort = TextSort::Counter,
                                .id = m_writer.numberOf(TextSort::Counter, packet.CntrId()),
                                .suffix = CounterCell::textOf(packet, "_", "")};
        if (value.Length() > 0)
            m_body.changeBits(m_body.declare(std::move(declaration)), value.data(), value.Length());
        else
            m_writer.lose("counter values without a byte");
    }
    void take(const CEvent& packet) {
        runs(packet);
        const std::uint32_t number = m_writer.numberOf(TextSort::Event, packet.EvtId());
        const auto event = [number](Type type, const char* suffix) {
            return Declaration{.area = Area::Events,
                               .type = type,
                               .label = "event_",
                               .sort = TextSort::Event,
                               .id = number,
                               .suffix = suffix};
        };
        m_body.pulse(m_body.known(keyOf(Area::Events, number), [&] { return event(Type::Bit, ""); }));
        const unsigned bytes = packet.EvtData().Length();
        if (bytes > 0)
            m_body.changeBits(
                m_body.known(keyOf(Area::Events, number, 1), [&] { return event(Type::Vector, "_data"); }),
                packet.EvtData().data(), bytes);
    }
    // Packets of any kind would convert to those that are made of a context alone.
    void take(const std::same_as<CExecInsn> auto& packet) { showInstruction(packet, true); }
    void take(const std::same_as<CNonExecInsn> auto& packet) { showInstruction(packet, false); }
    void take(const CBranchBase& packet) {
        Core& core = showInstruction(packet, true);
        if (!core.target)
            core.target = declareOn(packet.HWCtx(), "branch_target", Meaning::Address);
        m_body.changeNumber(core.target, packet.BranchTargetAddress());
    }
    void take(const std::same_as<CTraceBroken> auto& packet) { showGap(packet); }
    void take(const CVariableRead& packet) { showVariable(packet); }
    void take(const CVariableWrite& packet) { showVariable(packet); }
    void take(const CSignalDefine& packet) {
        auto& defined = m_signals[{packet.HWCtx(), packet.Master()}];
        const std::uint32_t number = m_writer.numberOf(TextSort::Signal, packet.SignalId());
        std::erase_if(defined, [&](const DefinedSignal& one) { return one.id == number; });
        defined.push_back({number, packet.SignalMask()});
    }
    void take(const CSignalUndefine& packet) {
        const std::uint32_t number = m_writer.numberOf(TextSort::Signal, packet.SignalId());
        std::erase_if(m_signals[{packet.HWCtx(), packet.Master()}],
                      [&](const DefinedSignal& one) { return one.id == number; });
    }
    void take(const CSignal& packet);
    void take(const CTransitionDefine& packet) {
        m_targets[m_writer.numberOf(TextSort::Transition, packet.StateMachine(),
                                    packet.CTransitionDefinePayload::Transition())] = packet.TargetState();
    }
    void take(const CInitialState& packet) {
        showState(packet.StateMachine(), packet.StateMachineInstance(), packet.State());
    }
    void take(const CTransition& packet) {
        const auto target =
            m_targets.find(m_writer.numberOf(TextSort::Transition, packet.StateMachine(), packet.TransitionId()));
        showState(packet.StateMachine(), packet.StateMachineInstance(),
                  target == m_targets.end() ? std::nullopt : std::optional(target->second));
    }

    void showFunction(const CCoreContext& context, std::uint32_t id, bool isEntered);
    void showProcess(const CCoreContext& context, std::uint32_t id, bool isEntered);
    void showException(const CCoreContext& context, std::uint32_t id, bool isEntered);
    void showCounter(const CCounterValueBase& packet, const CounterCell& cell);
    template <class Access> void showVariable(const Access& packet);
    void showState(std::uint32_t machine, std::uint32_t instance, std::optional<std::uint32_t> state);
    Core& showInstruction(const CCoreContext& context, bool isExecuted);
    void showGap(const CCoreContext& context);

    /// The packet tells that its thread runs on its core.
    struct Place {
        std::uint32_t coreNumber;
        std::uint32_t threadNumber;
        unsigned process;
        Core* core; ///< null: nowhere yet
        Thread* thread;
    };
    [[gnu::always_inline]] const Place& runs(const CCoreContext& context) {
        if (!m_place.core || m_place.coreNumber != context.HWCtx() || m_place.threadNumber != context.SWCtx() ||
            m_place.process != m_writer.process())
            goTo(context.HWCtx(), context.SWCtx());
        return m_place;
    }
    void goTo(std::uint32_t coreNumber, std::uint32_t threadNumber);
    Thread& thread(std::uint32_t number);
    Core& core(std::uint32_t number);
    /// A variable of a core that is there once something has been entered.
    Wire* declareOn(std::uint32_t core, std::string_view name, Meaning meaning) {
        return m_body.declare({.area = Area::Cores, .owner = core, .meaning = meaning, .label = name});
    }
    /// Enter and leave; `bit` declares the variable of one id.
    template <class Bit> void enter(View& view, Stack& stack, std::uint32_t id, Bit bit);
    void leave(View& view, Stack& stack, std::uint32_t id);
    void changeDepth(View& view, const Stack& stack) {
        const std::uint64_t depth = stack.depth();
        if (depth < view.depths.size())
            return m_body.change(view.depth, view.depths[static_cast<std::size_t>(depth)]);
        m_body.changeNumber(view.depth, depth);
        if (depth < kCommonDepths) {
            while (view.depths.size() <= depth)
                view.depths.emplace_back(view.depth, static_cast<std::uint32_t>(view.depths.size()));
        }
    }
    /// Shows what is innermost, and how many are entered.
    void showTop(View& view, const Stack& stack);
    /// Shows that a thread is on no core. Null for none.
    void stop(Thread* thread);
    /// Leaves all that is entered in a thread, at a known time or not.
    void forget(Thread& thread, bool isKnown);

    CVCDWriter& m_writer;
    Body& m_body;
    Place m_place = {}; ///< where the last packet was that tells it
    Directory<std::uint32_t, Thread> m_threads;
    Directory<std::uint32_t, Core> m_cores;
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::vector<DefinedSignal>> m_signals; ///< by core and master
    std::map<std::uint64_t, std::uint32_t> m_targets;                                        ///< of transitions
};

} // namespace Quorvex

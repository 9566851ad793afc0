#include "quorvex/export/TraceNames.h"

#include "quorvex/packets/PacketKinds.h"

namespace Quorvex {

bool CTraceNames::note(const CPacket& packet) {
    bool isSame = true;
    visitKind(packet, [this, &isSame](const auto& kind) {
        const auto give = [this, &isSame](Sort sort, std::uint64_t id, const CCharStringSequence& name) {
            if (name.empty())
                return;
            const auto [at, isNew] = m_names.try_emplace({sort, id}, name.view());
            isSame = isNew || at->second == name.view();
            if (!isSame)
                at->second = name.view();
        };
        if constexpr (requires { kind.FuncDef(); })
            give(Sort::Function, kind.FuncId(), kind.FuncDef());
        else if constexpr (requires { kind.ProcDef(); })
            give(Sort::Process, kind.ProcId(), kind.ProcDef());
        else if constexpr (requires { kind.VarDef(); })
            give(Sort::Variable, kind.VarId(), kind.VarDef());
        else if constexpr (requires { kind.CntrDef(); })
            give(kind.kCode == CounterDefineUnit || kind.kCode == RelCounterDefineUnit ? Sort::CounterUnit
                                                                                       : Sort::Counter,
                 kind.CntrId(), kind.CntrDef());
        else if constexpr (requires { kind.EvtDef(); })
            give(Sort::Event, kind.EvtId(), kind.EvtDef());
        else if constexpr (requires { kind.SignalDef(); })
            give(Sort::Signal, kind.SignalId(), kind.SignalDef());
        else if constexpr (requires { kind.StateMachineDefinition(); })
            give(Sort::StateMachine, kind.StateMachine(), kind.StateMachineDefinition());
        else if constexpr (requires { kind.InstanceDefinition(); })
            give(Sort::Instance, pair(kind.StateMachine(), kind.StateMachineInstance()), kind.InstanceDefinition());
        else if constexpr (requires { kind.StateDefinition(); })
            give(Sort::State, pair(kind.StateMachine(), kind.State()), kind.StateDefinition());
        else if constexpr (requires { kind.TransitionDefinition(); })
            give(Sort::Transition, pair(kind.StateMachine(), kind.Transition()), kind.TransitionDefinition());
    });
    return isSame;
}

const std::string& CTraceNames::name(Sort sort, std::uint64_t id) const {
    static const std::string kNone;
    const auto at = m_names.find({sort, id});
    return at == m_names.end() ? kNone : at->second;
}

} // namespace Quorvex

#pragma once

/// State machines: their definition, and what each instance does.
///
///     StateMachineDefine           StateMachine:4, then the definition
///     StateMachineInstanceDefine   StateMachine:4 | StateMachineInstance:4, then the name
///     StateDefine                  StateMachine:4 | State:4, then the name
///     TransitionDefine             StateMachine:4 | SourceState:4 | TargetState:4 | Transition:4, then the name
///     StateMachineUndefine         StateMachine:4
///     InitialState                 StateMachine:4 | StateMachineInstance:4 | State:4 | HWCtx:4 | Tick:8
///     Transition                   StateMachine:4 | StateMachineInstance:4 | Transition:4 | HWCtx:4 | Tick:8 |
///                                  0 to 64 bytes of data

#include "quorvex/format/Data.h"
#include "quorvex/packets/PacketProtocol.h"

namespace Quorvex {

#include "quorvex/packets/KindMacros.def"

QUORVEX_PAYLOAD(CStateMachineInstanceDefinePayload)
QUORVEX_PAYLOAD(CStateDefinePayload)
QUORVEX_PAYLOAD(CTransitionDefinePayload)
QUORVEX_PAYLOAD(CInitialStatePayload)
QUORVEX_PAYLOAD(CTransitionPayload, 20)

QUORVEX_ID_PAYLOAD(CStateMachineIdentifier, StateMachine)
QUORVEX_NAME_PAYLOAD(CStateMachineDefinePayload, StateMachineDefinition)

class QUORVEX_API CStateMachineInstanceDefinePayload : public PayloadOperations<CStateMachineInstanceDefinePayload> {
    QUORVEX_FIELD(std::uint32_t, StateMachineInstance, 0)
    QUORVEX_DEFINITION(InstanceDefinition)

public:
    CStateMachineInstanceDefinePayload() = default;
    CStateMachineInstanceDefinePayload(std::uint32_t instance, const CCharStringSequence& name)
        : m_StateMachineInstance(instance), m_InstanceDefinition(name) {}

    static constexpr std::uint8_t Len() { return 4; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Id, "StateMachineInstance", self.m_StateMachineInstance);
    }
};

class QUORVEX_API CStateDefinePayload : public PayloadOperations<CStateDefinePayload> {
    QUORVEX_FIELD(std::uint32_t, State, 0)
    QUORVEX_DEFINITION(StateDefinition)

public:
    CStateDefinePayload() = default;
    CStateDefinePayload(std::uint32_t state, const CCharStringSequence& name)
        : m_State(state), m_StateDefinition(name) {}

    static constexpr std::uint8_t Len() { return 4; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Id, "State", self.m_State);
    }
};

class QUORVEX_API CTransitionDefinePayload : public PayloadOperations<CTransitionDefinePayload> {
    QUORVEX_FIELD(std::uint32_t, SourceState, 0)
    QUORVEX_FIELD(std::uint32_t, TargetState, 0)
    QUORVEX_FIELD(std::uint32_t, Transition, 0)
    QUORVEX_DEFINITION(TransitionDefinition)

public:
    CTransitionDefinePayload() = default;
    CTransitionDefinePayload(std::uint32_t source, std::uint32_t target, std::uint32_t transition,
                             const CCharStringSequence& name)
        : m_SourceState(source), m_TargetState(target), m_Transition(transition), m_TransitionDefinition(name) {}

    static constexpr std::uint8_t Len() { return 12; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Id, "SourceState", self.m_SourceState);
        visit(FieldMeaning::Id, "TargetState", self.m_TargetState);
        visit(FieldMeaning::Id, "Transition", self.m_Transition);
    }
};

class QUORVEX_API CInitialStatePayload : public PayloadOperations<CInitialStatePayload> {
    QUORVEX_FIELD(std::uint32_t, StateMachineInstance, 0)
    QUORVEX_FIELD(std::uint32_t, State, 0)
    QUORVEX_FIELD(std::uint32_t, HWCtx, 0)
    QUORVEX_FIELD(std::uint64_t, Tick, kUnknown64)

public:
    CInitialStatePayload() = default;
    CInitialStatePayload(std::uint32_t instance, std::uint32_t state, std::uint32_t hwCtx, std::uint64_t tick)
        : m_StateMachineInstance(instance), m_State(state), m_HWCtx(hwCtx), m_Tick(tick) {}

    static constexpr std::uint8_t Len() { return 20; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Id, "StateMachineInstance", self.m_StateMachineInstance);
        visit(FieldMeaning::Id, "State", self.m_State);
        visit(FieldMeaning::Context, "HWCtx", self.m_HWCtx);
        visit(FieldMeaning::Tick, "Tick", self.m_Tick);
    }
};

class QUORVEX_API CTransitionPayload : public PayloadOperations<CTransitionPayload, 20> {
    QUORVEX_FIELD(std::uint32_t, StateMachineInstance, 0)
    QUORVEX_FIELD(std::uint32_t, TransitionId, 0)
    QUORVEX_FIELD(std::uint32_t, HWCtx, 0)
    QUORVEX_FIELD(std::uint64_t, Tick, kUnknown64)

public:
    static constexpr bool kTakesRest = true;

    CTransitionPayload() = default;
    CTransitionPayload(std::uint32_t instance, std::uint32_t transition, std::uint32_t hwCtx, std::uint64_t tick,
                       const CData& data = CData())
        : m_StateMachineInstance(instance), m_TransitionId(transition), m_HWCtx(hwCtx), m_Tick(tick), m_data(data) {}

    const CData& EventData() const { return m_data; }
    CData& EventData() { return m_data; }
    void EventData(const CData& data) {
        m_data = data;
        SetPacketHeaderLength();
    }

    static constexpr std::uint8_t Len() { return 20; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Id, "StateMachineInstance", self.m_StateMachineInstance);
        visit(FieldMeaning::Id, "Transition", self.m_TransitionId);
        visit(FieldMeaning::Context, "HWCtx", self.m_HWCtx);
        visit(FieldMeaning::Tick, "Tick", self.m_Tick);
        visit(FieldMeaning::Bytes, "Data", self.m_data);
    }

private:
    CData m_data;

    QUORVEX_RESIZABLE
};

// Defined with the texts of their failures, and compiled, in StateMachinePackets.cpp.
extern QUORVEX_TEMPLATE_API const ReadRules kStateMachineBaseRules, kStateMachineDefineRules,
    kStateMachineInstanceDefineRules, kStateDefineRules, kTransitionDefineRules, kInitialStateRules, kTransitionRules;

QUORVEX_EXTERN_TEMPLATE(PacketOf<kStateMachineBaseRules, PlainPacket, CStateMachineIdentifier>)
class QUORVEX_API CStateMachineBase : public PacketOf<kStateMachineBaseRules, PlainPacket, CStateMachineIdentifier> {
    QUORVEX_BASE(CStateMachineBase)

public:
    CStateMachineBase(tagTCode code, std::uint32_t machine);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kStateMachineDefineRules, CStateMachineBase, CStateMachineDefinePayload>)
class QUORVEX_API CStateMachineDefine
    : public PacketOf<kStateMachineDefineRules, CStateMachineBase, CStateMachineDefinePayload> {
    QUORVEX_KIND(StateMachineDefine, PacketOf)

public:
    CStateMachineDefine(std::uint32_t machine, const CCharStringSequence& definition);
};

QUORVEX_EXTERN_TEMPLATE(
    PacketOf<kStateMachineInstanceDefineRules, CStateMachineBase, CStateMachineInstanceDefinePayload>)
class QUORVEX_API CStateMachineInstanceDefine
    : public PacketOf<kStateMachineInstanceDefineRules, CStateMachineBase, CStateMachineInstanceDefinePayload> {
    QUORVEX_KIND(StateMachineInstanceDefine, PacketOf)

public:
    CStateMachineInstanceDefine(std::uint32_t machine, std::uint32_t instance, const CCharStringSequence& name);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kStateDefineRules, CStateMachineBase, CStateDefinePayload>)
class QUORVEX_API CStateDefine : public PacketOf<kStateDefineRules, CStateMachineBase, CStateDefinePayload> {
    QUORVEX_KIND(StateDefine, PacketOf)

public:
    CStateDefine(std::uint32_t machine, std::uint32_t state, const CCharStringSequence& name);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kTransitionDefineRules, CStateMachineBase, CTransitionDefinePayload>)
class QUORVEX_API CTransitionDefine
    : public PacketOf<kTransitionDefineRules, CStateMachineBase, CTransitionDefinePayload> {
    QUORVEX_KIND(TransitionDefine, PacketOf)

public:
    CTransitionDefine(std::uint32_t machine, std::uint32_t source, std::uint32_t target, std::uint32_t transition,
                      const CCharStringSequence& name);
};

class QUORVEX_API CStateMachineUndefine : public CStateMachineBase {
    QUORVEX_KIND(StateMachineUndefine, CStateMachineBase)

public:
    CStateMachineUndefine(std::uint32_t machine);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kInitialStateRules, CStateMachineBase, CInitialStatePayload>)
class QUORVEX_API CInitialState : public PacketOf<kInitialStateRules, CStateMachineBase, CInitialStatePayload> {
    QUORVEX_KIND(InitialState, PacketOf)

public:
    CInitialState(std::uint32_t machine, std::uint32_t instance, std::uint32_t state, std::uint32_t hwCtx,
                  std::uint64_t tick);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kTransitionRules, CStateMachineBase, CTransitionPayload>)
class QUORVEX_API CTransition : public PacketOf<kTransitionRules, CStateMachineBase, CTransitionPayload> {
    QUORVEX_KIND(Transition, PacketOf)

public:
    CTransition(std::uint32_t machine, std::uint32_t instance, std::uint32_t transition, std::uint32_t hwCtx,
                std::uint64_t tick, const CData& data = CData());
};

#include "quorvex/packets/KindMacros.def"

} // namespace Quorvex

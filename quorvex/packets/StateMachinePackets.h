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
#include "quorvex/packets/CommonPayloads.h"

namespace Quorvex {

QUORVEX_ID_PAYLOAD(CStateMachineIdentifier, StateMachine)
QUORVEX_NAME_PAYLOAD(CStateMachineDefinePayload, StateMachineDefinition)

class QUORVEX_API CStateMachineInstanceDefinePayload : public PayloadOperations<CStateMachineInstanceDefinePayload> {
    QUORVEX_FIELD(std::uint32_t, StateMachineInstance, 0)
    QUORVEX_DEFINITION(InstanceDefinition)

public:
    using Forms = FormList<Form<std::uint32_t, const CCharStringSequence&>>;

    CStateMachineInstanceDefinePayload() = default;
    CStateMachineInstanceDefinePayload(std::uint32_t instance, const CCharStringSequence& name)
        : m_StateMachineInstance(instance), m_InstanceDefinition(name) {}

    static constexpr std::uint8_t Len() { return 4; }
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Id, "StateMachineInstance", self.m_StateMachineInstance);
    }
};

class QUORVEX_API CStateDefinePayload : public PayloadOperations<CStateDefinePayload> {
    QUORVEX_FIELD(std::uint32_t, State, 0)
    QUORVEX_DEFINITION(StateDefinition)

public:
    using Forms = FormList<Form<std::uint32_t, const CCharStringSequence&>>;

    CStateDefinePayload() = default;
    CStateDefinePayload(std::uint32_t state, const CCharStringSequence& name)
        : m_State(state), m_StateDefinition(name) {}

    static constexpr std::uint8_t Len() { return 4; }
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Id, "State", self.m_State);
    }
};

class QUORVEX_API CTransitionDefinePayload : public PayloadOperations<CTransitionDefinePayload> {
    QUORVEX_FIELD(std::uint32_t, SourceState, 0)
    QUORVEX_FIELD(std::uint32_t, TargetState, 0)
    QUORVEX_FIELD(std::uint32_t, Transition, 0)
    QUORVEX_DEFINITION(TransitionDefinition)

public:
    using Forms = FormList<Form<std::uint32_t, std::uint32_t, std::uint32_t, const CCharStringSequence&>>;

    CTransitionDefinePayload() = default;
    CTransitionDefinePayload(std::uint32_t source, std::uint32_t target, std::uint32_t transition,
                             const CCharStringSequence& name)
        : m_SourceState(source), m_TargetState(target), m_Transition(transition), m_TransitionDefinition(name) {}

    static constexpr std::uint8_t Len() { return 12; }
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
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
    using Forms = FormList<Form<std::uint32_t, std::uint32_t, std::uint32_t, std::uint64_t>>;

    CInitialStatePayload() = default;
    CInitialStatePayload(std::uint32_t instance, std::uint32_t state, std::uint32_t hwCtx, std::uint64_t tick)
        : m_StateMachineInstance(instance), m_State(state), m_HWCtx(hwCtx), m_Tick(tick) {}

    static constexpr std::uint8_t Len() { return 20; }
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
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
    using Forms = FormList<Form<std::uint32_t, std::uint32_t, std::uint32_t, std::uint64_t>,
                           Form<std::uint32_t, std::uint32_t, std::uint32_t, std::uint64_t, const CData&>>;
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
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
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

inline constexpr const char* kStateMachinePacketText = "CStateMachineBase: Read-In constructor could not packet data!";
inline constexpr ReadRules kStateMachineBaseRules{
    .header = kStateMachinePacketText, .size = kStateMachinePacketText, .payload = kStateMachinePacketText};

#define QUORVEX_STATE_RULES(Class, ...)                                                                                \
    {                                                                                                                  \
        .header = kStateMachinePacketText __VA_OPT__(, ) __VA_ARGS__,                                                  \
        .payload = Class ": Read-In constructor could not read valid state machine definition string.",                \
        .text = Class ": Read-In constructor could not read valid state machine definition string."                    \
    }
inline constexpr ReadRules kStateMachineDefineRules = QUORVEX_STATE_RULES("CStateMachineDefine");
inline constexpr ReadRules kStateMachineInstanceDefineRules = QUORVEX_STATE_RULES("CStateMachineInstanceDefine");
inline constexpr ReadRules kStateDefineRules = QUORVEX_STATE_RULES("CStateDefine");
inline constexpr ReadRules kTransitionDefineRules = QUORVEX_STATE_RULES("CTransitionDefine");
inline constexpr ReadRules kInitialStateRules = QUORVEX_STATE_RULES("CInitialState");
inline constexpr ReadRules kTransitionRules = QUORVEX_STATE_RULES(
    "CTransition", .tooShort = "Transition payload length in header is less than fixed payload size.");
#undef QUORVEX_STATE_RULES

QUORVEX_BASE(CStateMachineBase, kStateMachineBaseRules, PlainPacket, CStateMachineIdentifier)

QUORVEX_KIND(StateMachineDefine, PacketOf<kStateMachineDefineRules, CStateMachineBase, CStateMachineDefinePayload>)
QUORVEX_KIND(StateMachineInstanceDefine,
             PacketOf<kStateMachineInstanceDefineRules, CStateMachineBase, CStateMachineInstanceDefinePayload>)
QUORVEX_KIND(StateDefine, PacketOf<kStateDefineRules, CStateMachineBase, CStateDefinePayload>)
QUORVEX_KIND(TransitionDefine, PacketOf<kTransitionDefineRules, CStateMachineBase, CTransitionDefinePayload>)
QUORVEX_KIND(StateMachineUndefine, CStateMachineBase)
QUORVEX_KIND(InitialState, PacketOf<kInitialStateRules, CStateMachineBase, CInitialStatePayload>)
QUORVEX_KIND(Transition, PacketOf<kTransitionRules, CStateMachineBase, CTransitionPayload>)

} // namespace Quorvex

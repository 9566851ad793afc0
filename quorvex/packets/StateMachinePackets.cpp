#include "quorvex/packets/StateMachinePackets.h"

#include "quorvex/packets/PacketImplementation.h"

namespace Quorvex {

constexpr const char* kStateMachinePacketText = "CStateMachineBase: Read-In constructor could not packet data!";
constexpr ReadRules kStateMachineBaseRules{
    .header = kStateMachinePacketText, .size = kStateMachinePacketText, .payload = kStateMachinePacketText};

#define QUORVEX_STATE_RULES(Class, ...)                                                                                \
    {                                                                                                                  \
        .header = kStateMachinePacketText __VA_OPT__(, ) __VA_ARGS__,                                                  \
        .payload = Class ": Read-In constructor could not read valid state machine definition string.",                \
        .text = Class ": Read-In constructor could not read valid state machine definition string."                    \
    }
constexpr ReadRules kStateMachineDefineRules = QUORVEX_STATE_RULES("CStateMachineDefine");
constexpr ReadRules kStateMachineInstanceDefineRules = QUORVEX_STATE_RULES("CStateMachineInstanceDefine");
constexpr ReadRules kStateDefineRules = QUORVEX_STATE_RULES("CStateDefine");
constexpr ReadRules kTransitionDefineRules = QUORVEX_STATE_RULES("CTransitionDefine");
constexpr ReadRules kInitialStateRules = QUORVEX_STATE_RULES("CInitialState");
constexpr ReadRules kTransitionRules = QUORVEX_STATE_RULES(
    "CTransition", .tooShort = "Transition payload length in header is less than fixed payload size.");
#undef QUORVEX_STATE_RULES

CStateMachineBase::CStateMachineBase(tagTCode code, std::uint32_t machine) : PacketOf({}, code, machine) {}

CStateMachineDefine::CStateMachineDefine(std::uint32_t machine, const CCharStringSequence& definition)
    : PacketOf({}, kCode, definition) {
    StateMachine(machine);
}

CStateMachineInstanceDefine::CStateMachineInstanceDefine(std::uint32_t machine, std::uint32_t instance,
                                                         const CCharStringSequence& name)
    : PacketOf({}, kCode, instance, name) {
    StateMachine(machine);
}

CStateDefine::CStateDefine(std::uint32_t machine, std::uint32_t state, const CCharStringSequence& name)
    : PacketOf({}, kCode, state, name) {
    StateMachine(machine);
}

CTransitionDefine::CTransitionDefine(std::uint32_t machine, std::uint32_t source, std::uint32_t target,
                                     std::uint32_t transition, const CCharStringSequence& name)
    : PacketOf({}, kCode, source, target, transition, name) {
    StateMachine(machine);
}

CStateMachineUndefine::CStateMachineUndefine(std::uint32_t machine) : CStateMachineBase({}, kCode, machine) {}

CInitialState::CInitialState(std::uint32_t machine, std::uint32_t instance, std::uint32_t state, std::uint32_t hwCtx,
                             std::uint64_t tick)
    : PacketOf({}, kCode, instance, state, hwCtx, tick) {
    StateMachine(machine);
}

CTransition::CTransition(std::uint32_t machine, std::uint32_t instance, std::uint32_t transition, std::uint32_t hwCtx,
                         std::uint64_t tick, const CData& data)
    : PacketOf({}, kCode, instance, transition, hwCtx, tick, data) {
    StateMachine(machine);
}

template class PayloadOperations<CStateMachineIdentifier>;
template class PayloadOperations<CStateMachineDefinePayload>;
template class PayloadOperations<CStateMachineInstanceDefinePayload>;
template class PayloadOperations<CStateDefinePayload>;
template class PayloadOperations<CTransitionDefinePayload>;
template class PayloadOperations<CInitialStatePayload>;
template class PayloadOperations<CTransitionPayload, 20>;

template class PacketOf<kStateMachineBaseRules, PlainPacket, CStateMachineIdentifier>;
template class PacketOf<kStateMachineDefineRules, CStateMachineBase, CStateMachineDefinePayload>;
template class PacketOf<kStateMachineInstanceDefineRules, CStateMachineBase, CStateMachineInstanceDefinePayload>;
template class PacketOf<kStateDefineRules, CStateMachineBase, CStateDefinePayload>;
template class PacketOf<kTransitionDefineRules, CStateMachineBase, CTransitionDefinePayload>;
template class PacketOf<kInitialStateRules, CStateMachineBase, CInitialStatePayload>;
template class PacketOf<kTransitionRules, CStateMachineBase, CTransitionPayload>;

QUORVEX_COMPILE_BASE(CStateMachineBase)

QUORVEX_COMPILE_KIND(StateMachineDefine)
QUORVEX_COMPILE_KIND(StateMachineInstanceDefine)
QUORVEX_COMPILE_KIND(StateDefine)
QUORVEX_COMPILE_KIND(TransitionDefine)
QUORVEX_COMPILE_KIND(StateMachineUndefine)
QUORVEX_COMPILE_KIND(InitialState)
QUORVEX_COMPILE_KIND(Transition)

} // namespace Quorvex

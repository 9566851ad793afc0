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

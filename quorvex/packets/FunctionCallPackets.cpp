// The software objects that recorded programs tell of without end, their calls. They are compiled for speed, the others
// (SoftwareObjectPackets.cpp) for size.

#include "quorvex/packets/PacketImplementation.h"
#include "quorvex/packets/SoftwareObjectPackets.h"

namespace Quorvex {

bool CFunctionEnterPayload::SrcFuncIdIsValid() const {
    return m_SrcFuncId < kNoFunction;
}

bool CFunctionEnterPayload::TgtFuncIdIsValid() const {
    return m_TgtFuncId < kNoFunction;
}

void CFunctionEnterPayload::SrcFuncId(std::uint32_t id) {
    m_SrcFuncId = id;
    m_form2 = SrcFuncIdIsValid();
    SetPacketHeaderLength();
}

std::uint32_t CFunctionEnterPayload::SrcFuncId() const {
    return m_SrcFuncId;
}

void CFunctionEnterPayload::TgtFuncId(std::uint32_t id) {
    m_TgtFuncId = id;
}

std::uint32_t CFunctionEnterPayload::TgtFuncId() const {
    return m_TgtFuncId;
}

// The texts are those of CFunctionBase and CRelFunctionBase.
#define QUORVEX_CALL_RULES(Class, Packet)                                                                              \
    {                                                                                                                  \
        .header = Class ": Read-In constructor invalid header data supplied!",                                         \
        .size = Class ": Read-In constructor " Packet,                                                                 \
        .context = Class ": Read-In constructor could not read context data!",                                         \
        .payload = Class ": Read-In constructor could not read function id!", .logged = true                           \
    }

constexpr ReadRules kFunctionEnterRules = QUORVEX_CALL_RULES("CFunctionBase", "could not packet data!");
constexpr ReadRules kRelFunctionEnterRules = QUORVEX_CALL_RULES("CRelFunctionBase", "could not read packet data!");

#undef QUORVEX_CALL_RULES

CRelFunctionEnter::CRelFunctionEnter(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t function)
    : FunctionAccess({relTick, relIp}, kCode, function) {}
CRelFunctionEnter::CRelFunctionEnter(const CRelCoreContext& context, std::uint32_t function)
    : FunctionAccess(context.values(), kCode, function) {}
CRelFunctionEnter::CRelFunctionEnter(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t source,
                                     std::uint32_t target)
    : FunctionAccess({relTick, relIp}, kCode, source, target) {}
CRelFunctionEnter::CRelFunctionEnter(const CRelCoreContext& context, std::uint32_t source, std::uint32_t target)
    : FunctionAccess(context.values(), kCode, source, target) {}

CRelFunctionLeave::CRelFunctionLeave(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t function)
    : FunctionAccess({relTick, relIp}, kCode, function) {}
CRelFunctionLeave::CRelFunctionLeave(const CRelCoreContext& context, std::uint32_t function)
    : FunctionAccess(context.values(), kCode, function) {}
CRelFunctionLeave::CRelFunctionLeave(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t source,
                                     std::uint32_t target)
    : FunctionAccess({relTick, relIp}, kCode, source, target) {}
CRelFunctionLeave::CRelFunctionLeave(const CRelCoreContext& context, std::uint32_t source, std::uint32_t target)
    : FunctionAccess(context.values(), kCode, source, target) {}

template class PayloadOperations<CFunctionEnterPayload>;

template class PacketOf<kFunctionEnterRules, CorePacket, CFunctionEnterPayload>;
template class PacketOf<kRelFunctionEnterRules, RelCorePacket, CFunctionEnterPayload>;

QUORVEX_COMPILE_PAIR(FunctionEnter)
QUORVEX_COMPILE_PAIR(FunctionLeave)

} // namespace Quorvex

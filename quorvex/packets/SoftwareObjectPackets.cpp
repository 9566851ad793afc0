#include "quorvex/packets/SoftwareObjectPackets.h"

#include "quorvex/packets/PacketImplementation.h"

namespace Quorvex {

void CVariableAccBasePayload::onWriteException(const char*) {
    logError("CVariableAccBasePayload::write: Catched exception while writing payload!");
}

#define QUORVEX_OBJECT_RULES(Class, Id, Packet)                                                                        \
    {                                                                                                                  \
        .header = Class ": Read-In constructor invalid header data supplied!",                                         \
        .size = Class ": Read-In constructor " Packet,                                                                 \
        .context = Class ": Read-In constructor could not read context data!",                                         \
        .payload = Class ": Read-In constructor could not read " Id "!"                                                \
    }
#define QUORVEX_DEFINE_RULES(Class, Object, Packet)                                                                    \
    {                                                                                                                  \
        .header = Class ": Read-In Constructor called with invalid header data", .payload = Packet,                    \
        .text = Class ": Read-In constructor could not read valid " Object " definition string."                       \
    }
#define QUORVEX_ABS_PACKET "could not packet data!"
#define QUORVEX_REL_PACKET "could not read packet data!"

// "funcion" and the "function definition" of processes are the texts that tools know.
constexpr ReadRules kFunctionBaseRules = QUORVEX_OBJECT_RULES("CFunctionBase", "function id", QUORVEX_ABS_PACKET);
constexpr ReadRules kRelFunctionBaseRules = QUORVEX_OBJECT_RULES("CRelFunctionBase", "function id", QUORVEX_REL_PACKET);
constexpr ReadRules kProcessBaseRules = QUORVEX_OBJECT_RULES("CProcessBase", "funcion id", QUORVEX_ABS_PACKET);
constexpr ReadRules kRelProcessBaseRules = QUORVEX_OBJECT_RULES("CRelProcessBase", "funcion id", QUORVEX_REL_PACKET);
constexpr ReadRules kTypeBaseRules = QUORVEX_OBJECT_RULES("CTypeBase", "type id", QUORVEX_ABS_PACKET);
constexpr ReadRules kRelTypeBaseRules = QUORVEX_OBJECT_RULES("CRelTypeBase", "type id", QUORVEX_REL_PACKET);
constexpr ReadRules kVariableBaseRules = QUORVEX_OBJECT_RULES("CVariableBase", "var id", QUORVEX_ABS_PACKET);
constexpr ReadRules kRelVariableBaseRules = QUORVEX_OBJECT_RULES("CRelVariableBase", "var id", QUORVEX_REL_PACKET);
constexpr ReadRules kVariableAccBaseRules = QUORVEX_OBJECT_RULES("CVariableAccBase", "var id", QUORVEX_ABS_PACKET);
constexpr ReadRules kRelVariableAccBaseRules =
    QUORVEX_OBJECT_RULES("CRelVariableAccBase", "var id", QUORVEX_REL_PACKET);

constexpr ReadRules kVariableDataRules{.header = kVariableAccBaseRules.header, .payload = kVariableAccBaseRules.size};
constexpr ReadRules kRelVariableDataRules{.header = kRelVariableAccBaseRules.header,
                                          .payload = kRelVariableAccBaseRules.size};

constexpr ReadRules kFunctionDefineRules = QUORVEX_DEFINE_RULES("CFunctionDefine", "function", kFunctionBaseRules.size);
constexpr ReadRules kRelFunctionDefineRules =
    QUORVEX_DEFINE_RULES("CRelFunctionDefine", "function", kRelFunctionBaseRules.size);
constexpr ReadRules kProcessDefineRules = QUORVEX_DEFINE_RULES("CProcessDefine", "function", kProcessBaseRules.size);
constexpr ReadRules kRelProcessDefineRules =
    QUORVEX_DEFINE_RULES("CRelProcessDefine", "function", kRelProcessBaseRules.size);
constexpr ReadRules kTypeDefineRules = QUORVEX_DEFINE_RULES("CTypeDefine", "type", kTypeBaseRules.size);
constexpr ReadRules kRelTypeDefineRules = QUORVEX_DEFINE_RULES("CRelTypeDefine", "type", kRelTypeBaseRules.size);
constexpr ReadRules kVariableDefineRules = QUORVEX_DEFINE_RULES("CVariableDefine", "variable", kVariableBaseRules.size);
constexpr ReadRules kRelVariableDefineRules =
    QUORVEX_DEFINE_RULES("CRelVariableDefine", "variable", kRelVariableBaseRules.size);

#undef QUORVEX_OBJECT_RULES
#undef QUORVEX_DEFINE_RULES
#undef QUORVEX_ABS_PACKET
#undef QUORVEX_REL_PACKET

CFunctionBase::CFunctionBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx,
                             std::uint64_t ip, std::uint32_t id)
    : PacketOf({tick, hwCtx, swCtx, ip}, code, id) {}
CFunctionBase::CFunctionBase(tagTCode code, const CCoreContext& context, std::uint32_t id)
    : PacketOf(context.values(), code, id) {}

CProcessBase::CProcessBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx,
                           std::uint64_t ip, std::uint32_t id)
    : PacketOf({tick, hwCtx, swCtx, ip}, code, id) {}
CProcessBase::CProcessBase(tagTCode code, const CCoreContext& context, std::uint32_t id)
    : PacketOf(context.values(), code, id) {}

CTypeBase::CTypeBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                     std::uint32_t id)
    : PacketOf({tick, hwCtx, swCtx, ip}, code, id) {}
CTypeBase::CTypeBase(tagTCode code, const CCoreContext& context, std::uint32_t id)
    : PacketOf(context.values(), code, id) {}

CVariableBase::CVariableBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx,
                             std::uint64_t ip, std::uint32_t id)
    : PacketOf({tick, hwCtx, swCtx, ip}, code, id) {}
CVariableBase::CVariableBase(tagTCode code, const CCoreContext& context, std::uint32_t id)
    : PacketOf(context.values(), code, id) {}

CVariableAccBase::CVariableAccBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx,
                                   std::uint64_t ip, std::uint32_t id, const CData& data)
    : PacketOf({tick, hwCtx, swCtx, ip}, code, data) {
    VarId(id);
}
CVariableAccBase::CVariableAccBase(tagTCode code, const CCoreContext& context, std::uint32_t id, const CData& data)
    : PacketOf(context.values(), code, data) {
    VarId(id);
}

CFunctionDefine::CFunctionDefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                                 std::uint32_t id, const CCharStringSequence& name)
    : PacketOf({tick, hwCtx, swCtx, ip}, kCode, name) {
    FuncId(id);
}
CFunctionDefine::CFunctionDefine(const CCoreContext& context, std::uint32_t id, const CCharStringSequence& name)
    : PacketOf(context.values(), kCode, name) {
    FuncId(id);
}

CFunctionUndefine::CFunctionUndefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                                     std::uint32_t id)
    : CFunctionBase({tick, hwCtx, swCtx, ip}, kCode, id) {}
CFunctionUndefine::CFunctionUndefine(const CCoreContext& context, std::uint32_t id)
    : CFunctionBase(context.values(), kCode, id) {}

CProcessDefine::CProcessDefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                               std::uint32_t id, const CCharStringSequence& name)
    : PacketOf({tick, hwCtx, swCtx, ip}, kCode, name) {
    ProcId(id);
}
CProcessDefine::CProcessDefine(const CCoreContext& context, std::uint32_t id, const CCharStringSequence& name)
    : PacketOf(context.values(), kCode, name) {
    ProcId(id);
}

CProcessUndefine::CProcessUndefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                                   std::uint32_t id)
    : CProcessBase({tick, hwCtx, swCtx, ip}, kCode, id) {}
CProcessUndefine::CProcessUndefine(const CCoreContext& context, std::uint32_t id)
    : CProcessBase(context.values(), kCode, id) {}

CProcessEnter::CProcessEnter(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                             std::uint32_t id)
    : CProcessBase({tick, hwCtx, swCtx, ip}, kCode, id) {}
CProcessEnter::CProcessEnter(const CCoreContext& context, std::uint32_t id)
    : CProcessBase(context.values(), kCode, id) {}

CProcessLeave::CProcessLeave(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                             std::uint32_t id)
    : CProcessBase({tick, hwCtx, swCtx, ip}, kCode, id) {}
CProcessLeave::CProcessLeave(const CCoreContext& context, std::uint32_t id)
    : CProcessBase(context.values(), kCode, id) {}

CTypeDefine::CTypeDefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                         std::uint32_t id, std::uint8_t size, const CCharStringSequence& name)
    : PacketOf({tick, hwCtx, swCtx, ip}, kCode, size, name) {
    TypeId(id);
}
CTypeDefine::CTypeDefine(const CCoreContext& context, std::uint32_t id, std::uint8_t size,
                         const CCharStringSequence& name)
    : PacketOf(context.values(), kCode, size, name) {
    TypeId(id);
}

CTypeUndefine::CTypeUndefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                             std::uint32_t id)
    : CTypeBase({tick, hwCtx, swCtx, ip}, kCode, id) {}
CTypeUndefine::CTypeUndefine(const CCoreContext& context, std::uint32_t id) : CTypeBase(context.values(), kCode, id) {}

CVariableDefine::CVariableDefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                                 std::uint32_t id, std::uint32_t type, const CCharStringSequence& name)
    : PacketOf({tick, hwCtx, swCtx, ip}, kCode, type, name) {
    VarId(id);
}
CVariableDefine::CVariableDefine(const CCoreContext& context, std::uint32_t id, std::uint32_t type,
                                 const CCharStringSequence& name)
    : PacketOf(context.values(), kCode, type, name) {
    VarId(id);
}

CVariableUndefine::CVariableUndefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                                     std::uint32_t id)
    : CVariableBase({tick, hwCtx, swCtx, ip}, kCode, id) {}
CVariableUndefine::CVariableUndefine(const CCoreContext& context, std::uint32_t id)
    : CVariableBase(context.values(), kCode, id) {}

CVariableRead::CVariableRead(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                             std::uint32_t id, const CData& data)
    : CVariableAccBase({tick, hwCtx, swCtx, ip}, kCode, data) {
    VarId(id);
}
CVariableRead::CVariableRead(const CCoreContext& context, std::uint32_t id, const CData& data)
    : CVariableAccBase(context.values(), kCode, data) {
    VarId(id);
}

CVariableWrite::CVariableWrite(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                               std::uint32_t id, const CData& data)
    : CVariableAccBase({tick, hwCtx, swCtx, ip}, kCode, data) {
    VarId(id);
}
CVariableWrite::CVariableWrite(const CCoreContext& context, std::uint32_t id, const CData& data)
    : CVariableAccBase(context.values(), kCode, data) {
    VarId(id);
}

CRelFunctionBase::CRelFunctionBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id)
    : PacketOf({relTick, relIp}, code, id) {}
CRelFunctionBase::CRelFunctionBase(tagTCode code, const CRelCoreContext& context, std::uint32_t id)
    : PacketOf(context.values(), code, id) {}

CRelProcessBase::CRelProcessBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id)
    : PacketOf({relTick, relIp}, code, id) {}
CRelProcessBase::CRelProcessBase(tagTCode code, const CRelCoreContext& context, std::uint32_t id)
    : PacketOf(context.values(), code, id) {}

CRelTypeBase::CRelTypeBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id)
    : PacketOf({relTick, relIp}, code, id) {}
CRelTypeBase::CRelTypeBase(tagTCode code, const CRelCoreContext& context, std::uint32_t id)
    : PacketOf(context.values(), code, id) {}

CRelVariableBase::CRelVariableBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id)
    : PacketOf({relTick, relIp}, code, id) {}
CRelVariableBase::CRelVariableBase(tagTCode code, const CRelCoreContext& context, std::uint32_t id)
    : PacketOf(context.values(), code, id) {}

CRelVariableAccBase::CRelVariableAccBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id,
                                         const CData& data)
    : PacketOf({relTick, relIp}, code, data) {
    VarId(id);
}
CRelVariableAccBase::CRelVariableAccBase(tagTCode code, const CRelCoreContext& context, std::uint32_t id,
                                         const CData& data)
    : PacketOf(context.values(), code, data) {
    VarId(id);
}

CRelFunctionDefine::CRelFunctionDefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id,
                                       const CCharStringSequence& name)
    : PacketOf({relTick, relIp}, kCode, name) {
    FuncId(id);
}
CRelFunctionDefine::CRelFunctionDefine(const CRelCoreContext& context, std::uint32_t id,
                                       const CCharStringSequence& name)
    : PacketOf(context.values(), kCode, name) {
    FuncId(id);
}

CRelFunctionUndefine::CRelFunctionUndefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id)
    : CRelFunctionBase({relTick, relIp}, kCode, id) {}
CRelFunctionUndefine::CRelFunctionUndefine(const CRelCoreContext& context, std::uint32_t id)
    : CRelFunctionBase(context.values(), kCode, id) {}

CRelProcessDefine::CRelProcessDefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id,
                                     const CCharStringSequence& name)
    : PacketOf({relTick, relIp}, kCode, name) {
    ProcId(id);
}
CRelProcessDefine::CRelProcessDefine(const CRelCoreContext& context, std::uint32_t id, const CCharStringSequence& name)
    : PacketOf(context.values(), kCode, name) {
    ProcId(id);
}

CRelProcessUndefine::CRelProcessUndefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id)
    : CRelProcessBase({relTick, relIp}, kCode, id) {}
CRelProcessUndefine::CRelProcessUndefine(const CRelCoreContext& context, std::uint32_t id)
    : CRelProcessBase(context.values(), kCode, id) {}

CRelProcessEnter::CRelProcessEnter(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id)
    : CRelProcessBase({relTick, relIp}, kCode, id) {}
CRelProcessEnter::CRelProcessEnter(const CRelCoreContext& context, std::uint32_t id)
    : CRelProcessBase(context.values(), kCode, id) {}

CRelProcessLeave::CRelProcessLeave(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id)
    : CRelProcessBase({relTick, relIp}, kCode, id) {}
CRelProcessLeave::CRelProcessLeave(const CRelCoreContext& context, std::uint32_t id)
    : CRelProcessBase(context.values(), kCode, id) {}

CRelTypeDefine::CRelTypeDefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, std::uint8_t size,
                               const CCharStringSequence& name)
    : PacketOf({relTick, relIp}, kCode, size, name) {
    TypeId(id);
}
CRelTypeDefine::CRelTypeDefine(const CRelCoreContext& context, std::uint32_t id, std::uint8_t size,
                               const CCharStringSequence& name)
    : PacketOf(context.values(), kCode, size, name) {
    TypeId(id);
}

CRelTypeUndefine::CRelTypeUndefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id)
    : CRelTypeBase({relTick, relIp}, kCode, id) {}
CRelTypeUndefine::CRelTypeUndefine(const CRelCoreContext& context, std::uint32_t id)
    : CRelTypeBase(context.values(), kCode, id) {}

CRelVariableDefine::CRelVariableDefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, std::uint32_t type,
                                       const CCharStringSequence& name)
    : PacketOf({relTick, relIp}, kCode, type, name) {
    VarId(id);
}
CRelVariableDefine::CRelVariableDefine(const CRelCoreContext& context, std::uint32_t id, std::uint32_t type,
                                       const CCharStringSequence& name)
    : PacketOf(context.values(), kCode, type, name) {
    VarId(id);
}

CRelVariableUndefine::CRelVariableUndefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id)
    : CRelVariableBase({relTick, relIp}, kCode, id) {}
CRelVariableUndefine::CRelVariableUndefine(const CRelCoreContext& context, std::uint32_t id)
    : CRelVariableBase(context.values(), kCode, id) {}

CRelVariableRead::CRelVariableRead(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, const CData& data)
    : CRelVariableAccBase({relTick, relIp}, kCode, data) {
    VarId(id);
}
CRelVariableRead::CRelVariableRead(const CRelCoreContext& context, std::uint32_t id, const CData& data)
    : CRelVariableAccBase(context.values(), kCode, data) {
    VarId(id);
}

CRelVariableWrite::CRelVariableWrite(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, const CData& data)
    : CRelVariableAccBase({relTick, relIp}, kCode, data) {
    VarId(id);
}
CRelVariableWrite::CRelVariableWrite(const CRelCoreContext& context, std::uint32_t id, const CData& data)
    : CRelVariableAccBase(context.values(), kCode, data) {
    VarId(id);
}

template class PayloadOperations<CFunctionIdentifier>;
template class PayloadOperations<CProcessBasePayload>;
template class PayloadOperations<CTypeBasePayload>;
template class PayloadOperations<CVariableBasePayload>;
template class PayloadOperations<CFunctionDefinePayload>;
template class PayloadOperations<CProcessDefinePayload>;
template class PayloadOperations<CTypeDefinePayload>;
template class PayloadOperations<CVariableDefinePayload>;
template class PayloadOperations<CVariableAccBasePayload>;

template class PacketOf<kFunctionBaseRules, CorePacket, CFunctionIdentifier>;
template class PacketOf<kProcessBaseRules, CorePacket, CProcessBasePayload>;
template class PacketOf<kTypeBaseRules, CorePacket, CTypeBasePayload>;
template class PacketOf<kVariableBaseRules, CorePacket, CVariableBasePayload>;
template class PacketOf<kVariableAccBaseRules, CorePacket, CVariableBasePayload>;
template class PacketOf<kVariableDataRules, PacketOf<kVariableAccBaseRules, CorePacket, CVariableBasePayload>,
                        CVariableAccBasePayload>;
template class PacketOf<kFunctionDefineRules, CFunctionBase, CFunctionDefinePayload>;
template class PacketOf<kProcessDefineRules, CProcessBase, CProcessDefinePayload>;
template class PacketOf<kTypeDefineRules, CTypeBase, CTypeDefinePayload>;
template class PacketOf<kVariableDefineRules, CVariableBase, CVariableDefinePayload>;
template class PacketOf<kRelFunctionBaseRules, RelCorePacket, CFunctionIdentifier>;
template class PacketOf<kRelProcessBaseRules, RelCorePacket, CProcessBasePayload>;
template class PacketOf<kRelTypeBaseRules, RelCorePacket, CTypeBasePayload>;
template class PacketOf<kRelVariableBaseRules, RelCorePacket, CVariableBasePayload>;
template class PacketOf<kRelVariableAccBaseRules, RelCorePacket, CVariableBasePayload>;
template class PacketOf<kRelVariableDataRules, PacketOf<kRelVariableAccBaseRules, RelCorePacket, CVariableBasePayload>,
                        CVariableAccBasePayload>;
template class PacketOf<kRelFunctionDefineRules, CRelFunctionBase, CFunctionDefinePayload>;
template class PacketOf<kRelProcessDefineRules, CRelProcessBase, CProcessDefinePayload>;
template class PacketOf<kRelTypeDefineRules, CRelTypeBase, CTypeDefinePayload>;
template class PacketOf<kRelVariableDefineRules, CRelVariableBase, CVariableDefinePayload>;

QUORVEX_COMPILE_BASE(CFunctionBase)
QUORVEX_COMPILE_BASE(CProcessBase)
QUORVEX_COMPILE_BASE(CTypeBase)
QUORVEX_COMPILE_BASE(CVariableBase)
QUORVEX_COMPILE_BASE(CVariableAccBase)
QUORVEX_COMPILE_BASE(CRelFunctionBase)
QUORVEX_COMPILE_BASE(CRelProcessBase)
QUORVEX_COMPILE_BASE(CRelTypeBase)
QUORVEX_COMPILE_BASE(CRelVariableBase)
QUORVEX_COMPILE_BASE(CRelVariableAccBase)

QUORVEX_COMPILE_PAIR(FunctionDefine)
QUORVEX_COMPILE_PAIR(FunctionUndefine)
QUORVEX_COMPILE_PAIR(ProcessDefine)
QUORVEX_COMPILE_PAIR(ProcessUndefine)
QUORVEX_COMPILE_PAIR(ProcessEnter)
QUORVEX_COMPILE_PAIR(ProcessLeave)
QUORVEX_COMPILE_PAIR(TypeDefine)
QUORVEX_COMPILE_PAIR(TypeUndefine)
QUORVEX_COMPILE_PAIR(VariableDefine)
QUORVEX_COMPILE_PAIR(VariableUndefine)
QUORVEX_COMPILE_PAIR(VariableRead)
QUORVEX_COMPILE_PAIR(VariableWrite)

} // namespace Quorvex

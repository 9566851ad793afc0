#include "quorvex/packets/SoftwareObjectPackets.h"

#include "quorvex/packets/PacketImplementation.h"

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

constexpr ReadRules kFunctionEnterRules{.header = kFunctionBaseRules.header,
                                        .size = kFunctionBaseRules.size,
                                        .context = kFunctionBaseRules.context,
                                        .payload = kFunctionBaseRules.payload,
                                        .logged = true};
constexpr ReadRules kRelFunctionEnterRules{.header = kRelFunctionBaseRules.header,
                                           .size = kRelFunctionBaseRules.size,
                                           .context = kRelFunctionBaseRules.context,
                                           .payload = kRelFunctionBaseRules.payload,
                                           .logged = true};

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

template class PayloadOperations<CFunctionIdentifier>;
template class PayloadOperations<CProcessBasePayload>;
template class PayloadOperations<CTypeBasePayload>;
template class PayloadOperations<CVariableBasePayload>;
template class PayloadOperations<CFunctionDefinePayload>;
template class PayloadOperations<CProcessDefinePayload>;
template class PayloadOperations<CTypeDefinePayload>;
template class PayloadOperations<CVariableDefinePayload>;
template class PayloadOperations<CFunctionEnterPayload>;
template class PayloadOperations<CVariableAccBasePayload>;

template class PacketOf<kFunctionBaseRules, CorePacket, CFunctionIdentifier>;
template class PacketOf<kProcessBaseRules, CorePacket, CProcessBasePayload>;
template class PacketOf<kTypeBaseRules, CorePacket, CTypeBasePayload>;
template class PacketOf<kVariableBaseRules, CorePacket, CVariableBasePayload>;
template class PacketOf<kVariableAccBaseRules, CorePacket, CVariableBasePayload>;
template class PacketOf<kVariableDataRules, PacketOf<kVariableAccBaseRules, CorePacket, CVariableBasePayload>,
                        CVariableAccBasePayload>;
template class PacketOf<kFunctionEnterRules, CorePacket, CFunctionEnterPayload>;
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
template class PacketOf<kRelFunctionEnterRules, RelCorePacket, CFunctionEnterPayload>;
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
QUORVEX_COMPILE_PAIR(FunctionEnter)
QUORVEX_COMPILE_PAIR(FunctionLeave)
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

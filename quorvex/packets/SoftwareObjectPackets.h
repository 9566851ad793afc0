#pragma once

/// Functions, processes, types and variables of the software that runs on the target.
///
///     FunctionDefine, ProcessDefine                context | id:4, then the name
///     TypeDefine                                   context | TypeId:4 | VarSize:1, then the name
///     VariableDefine                               context | VarId:4 | TypeId:4, then the name
///     FunctionEnter, FunctionLeave                 context | FuncId:4, or context | SrcFuncId:4 | TgtFuncId:4
///     VariableRead, VariableWrite                  context | VarId:4 | 0 to 64 bytes of data
///     ProcessEnter, ProcessLeave, all Undefine     context | id:4
///
/// The context is the core context in the absolute kinds and the relative core context in the relative ones. A name
/// follows its packet as CharString packets, is not counted in the header's length, and is not written when empty.
/// A header whose code or length is not that of the kind is refused.

#include "quorvex/format/Data.h"
#include "quorvex/packets/PacketProtocol.h"

namespace Quorvex {

#include "quorvex/packets/KindMacros.def"

QUORVEX_PAYLOAD(CTypeDefinePayload)
QUORVEX_PAYLOAD(CVariableDefinePayload)
QUORVEX_PAYLOAD(CFunctionEnterPayload)
QUORVEX_PAYLOAD(CVariableAccBasePayload)

QUORVEX_ID_PAYLOAD(CFunctionIdentifier, FuncId)
QUORVEX_ID_PAYLOAD(CProcessBasePayload, ProcId)
QUORVEX_ID_PAYLOAD(CTypeBasePayload, TypeId)
QUORVEX_ID_PAYLOAD(CVariableBasePayload, VarId)
QUORVEX_NAME_PAYLOAD(CFunctionDefinePayload, FuncDef)
QUORVEX_NAME_PAYLOAD(CProcessDefinePayload, ProcDef)

/// Name and size in bytes of a type.
class QUORVEX_API CTypeDefinePayload : public PayloadOperations<CTypeDefinePayload> {
    QUORVEX_FIELD(std::uint8_t, VarSize, 0)
    QUORVEX_DEFINITION(TypeDef)

public:
    CTypeDefinePayload() = default;
    CTypeDefinePayload(std::uint8_t size, const CCharStringSequence& name) : m_VarSize(size), m_TypeDef(name) {}

    static constexpr std::uint8_t Len() { return 1; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Count, "VarSize", self.m_VarSize);
    }
};

/// Name and type of a variable.
class QUORVEX_API CVariableDefinePayload : public PayloadOperations<CVariableDefinePayload> {
    QUORVEX_FIELD(std::uint32_t, TypeId, 0)
    QUORVEX_DEFINITION(VarDef)

public:
    CVariableDefinePayload() = default;
    CVariableDefinePayload(std::uint32_t type, const CCharStringSequence& name) : m_TypeId(type), m_VarDef(name) {}

    static constexpr std::uint8_t Len() { return 4; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Id, "TypeId", self.m_TypeId);
    }
};

/// The function that is entered or left (the target), and the one that control came from (the source) where it is
/// known. All ones is no function. A payload with a valid source is in form 2, any other in form 1.
class QUORVEX_API CFunctionEnterPayload : public PayloadOperations<CFunctionEnterPayload> {
public:
    static constexpr std::uint32_t kNoFunction = 0xFFFFFFFF;
    /// Bytes of TgtFuncId alone, and of SrcFuncId and TgtFuncId.
    enum Lengths : std::uint8_t { Len_Form1 = 4, Len_Form2 = 8 };

    CFunctionEnterPayload() = default;
    explicit CFunctionEnterPayload(std::uint32_t target) : m_TgtFuncId(target) {}
    CFunctionEnterPayload(std::uint32_t source, std::uint32_t target)
        : m_SrcFuncId(source), m_TgtFuncId(target), m_form2(source < kNoFunction) {}

    virtual bool SrcFuncIdIsValid() const;
    virtual bool TgtFuncIdIsValid() const;
    virtual void SrcFuncId(std::uint32_t id);
    virtual std::uint32_t SrcFuncId() const;
    virtual void TgtFuncId(std::uint32_t id);
    virtual std::uint32_t TgtFuncId() const;

    static constexpr std::uint8_t Len() { return Len_Form1; }
    static constexpr bool fits(unsigned size) { return size == Len_Form1 || size == Len_Form2; }
    bool shape(unsigned size) {
        m_form2 = size == Len_Form2;
        m_SrcFuncId = kNoFunction;
        return fits(size);
    }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        if (self.m_form2)
            visit(FieldMeaning::Id, "SrcFuncId", self.m_SrcFuncId);
        visit(FieldMeaning::Id, self.m_form2 ? "TgtFuncId" : "FuncId", self.m_TgtFuncId);
    }

private:
    std::uint32_t m_SrcFuncId = kNoFunction;
    std::uint32_t m_TgtFuncId = kNoFunction;
    bool m_form2 = false;

    QUORVEX_RESIZABLE
};

/// The value that a variable had when it was read or written.
class QUORVEX_API CVariableAccBasePayload : public PayloadOperations<CVariableAccBasePayload> {
public:
    static constexpr bool kTakesRest = true;

    CVariableAccBasePayload() = default;
    explicit CVariableAccBasePayload(const CData& data) : m_VarData(data) {}

    const CData& VarData() const { return m_VarData; }
    CData& VarData() { return m_VarData; }
    void VarData(const CData& data) {
        m_VarData = data;
        SetPacketHeaderLength();
    }
    unsigned VarLen() const { return m_VarData.Length(); }

    static constexpr std::uint8_t Len() { return 0; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Bytes, "Data", self.m_VarData);
    }
    static void onWriteException(const char*);

private:
    CData m_VarData;

    QUORVEX_RESIZABLE
};

// Defined with the texts of their failures, and compiled, in SoftwareObjectPackets.cpp.
extern QUORVEX_TEMPLATE_API const ReadRules kFunctionBaseRules, kRelFunctionBaseRules, kProcessBaseRules,
    kRelProcessBaseRules, kTypeBaseRules, kRelTypeBaseRules, kVariableBaseRules, kRelVariableBaseRules,
    kVariableAccBaseRules, kRelVariableAccBaseRules, kVariableDataRules, kRelVariableDataRules, kFunctionEnterRules,
    kRelFunctionEnterRules, kFunctionDefineRules, kRelFunctionDefineRules, kProcessDefineRules, kRelProcessDefineRules,
    kTypeDefineRules, kRelTypeDefineRules, kVariableDefineRules, kRelVariableDefineRules;

QUORVEX_EXTERN_TEMPLATE(PacketOf<kFunctionBaseRules, CorePacket, CFunctionIdentifier>)
class QUORVEX_API CFunctionBase : public PacketOf<kFunctionBaseRules, CorePacket, CFunctionIdentifier> {
    QUORVEX_BASE(CFunctionBase)

public:
    CFunctionBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                  std::uint32_t id);
    CFunctionBase(tagTCode code, const CCoreContext& context, std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kProcessBaseRules, CorePacket, CProcessBasePayload>)
class QUORVEX_API CProcessBase : public PacketOf<kProcessBaseRules, CorePacket, CProcessBasePayload> {
    QUORVEX_BASE(CProcessBase)

public:
    CProcessBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                 std::uint32_t id);
    CProcessBase(tagTCode code, const CCoreContext& context, std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kTypeBaseRules, CorePacket, CTypeBasePayload>)
class QUORVEX_API CTypeBase : public PacketOf<kTypeBaseRules, CorePacket, CTypeBasePayload> {
    QUORVEX_BASE(CTypeBase)

public:
    CTypeBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
              std::uint32_t id);
    CTypeBase(tagTCode code, const CCoreContext& context, std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kVariableBaseRules, CorePacket, CVariableBasePayload>)
class QUORVEX_API CVariableBase : public PacketOf<kVariableBaseRules, CorePacket, CVariableBasePayload> {
    QUORVEX_BASE(CVariableBase)

public:
    CVariableBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                  std::uint32_t id);
    CVariableBase(tagTCode code, const CCoreContext& context, std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kVariableAccBaseRules, CorePacket, CVariableBasePayload>)
QUORVEX_EXTERN_TEMPLATE(PacketOf<kVariableDataRules, PacketOf<kVariableAccBaseRules, CorePacket, CVariableBasePayload>,
                                 CVariableAccBasePayload>)
class QUORVEX_API CVariableAccBase
    : public PacketOf<kVariableDataRules, PacketOf<kVariableAccBaseRules, CorePacket, CVariableBasePayload>,
                      CVariableAccBasePayload> {
    QUORVEX_BASE(CVariableAccBase)

public:
    CVariableAccBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                     std::uint32_t id, const CData& data = CData());
    CVariableAccBase(tagTCode code, const CCoreContext& context, std::uint32_t id, const CData& data = CData());
};

/// An entry or exit, whose header tells which of the two forms it has.
template <const ReadRules& Rules, class Base>
class QUORVEX_TEMPLATE_API FunctionAccess : public PacketOf<Rules, Base, CFunctionEnterPayload> {
public:
    /// Bytes behind the context.
    std::uint8_t PayloadLength() const {
        return static_cast<std::uint8_t>(CPacketHeader::Length() - Base::Context::Len());
    }

protected:
    using PacketOf<Rules, Base, CFunctionEnterPayload>::PacketOf;

    void SetLength() { this->SetPacketHeaderLength(); } ///< brings the header's length in line
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kFunctionEnterRules, CorePacket, CFunctionEnterPayload>)
QUORVEX_EXTERN_TEMPLATE(PacketOf<kFunctionDefineRules, CFunctionBase, CFunctionDefinePayload>)
class QUORVEX_API CFunctionDefine : public PacketOf<kFunctionDefineRules, CFunctionBase, CFunctionDefinePayload> {
    QUORVEX_KIND(FunctionDefine, PacketOf)

public:
    CFunctionDefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id,
                    const CCharStringSequence& name);
    CFunctionDefine(const CCoreContext& context, std::uint32_t id, const CCharStringSequence& name);
};

class QUORVEX_API CFunctionUndefine : public CFunctionBase {
    QUORVEX_KIND(FunctionUndefine, CFunctionBase)

public:
    CFunctionUndefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id);
    CFunctionUndefine(const CCoreContext& context, std::uint32_t id);
};

class QUORVEX_API CFunctionEnter : public FunctionAccess<kFunctionEnterRules, CorePacket> {
    QUORVEX_KIND(FunctionEnter, FunctionAccess)

public:
    CFunctionEnter(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                   std::uint32_t function)
        : FunctionAccess({tick, hwCtx, swCtx, ip}, kCode, function) {}
    CFunctionEnter(const CCoreContext& context, std::uint32_t function)
        : FunctionAccess(context.values(), kCode, function) {}
    CFunctionEnter(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t source,
                   std::uint32_t target)
        : FunctionAccess({tick, hwCtx, swCtx, ip}, kCode, source, target) {}
    CFunctionEnter(const CCoreContext& context, std::uint32_t source, std::uint32_t target)
        : FunctionAccess(context.values(), kCode, source, target) {}
};

class QUORVEX_API CFunctionLeave : public FunctionAccess<kFunctionEnterRules, CorePacket> {
    QUORVEX_KIND(FunctionLeave, FunctionAccess)

public:
    CFunctionLeave(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                   std::uint32_t function)
        : FunctionAccess({tick, hwCtx, swCtx, ip}, kCode, function) {}
    CFunctionLeave(const CCoreContext& context, std::uint32_t function)
        : FunctionAccess(context.values(), kCode, function) {}
    CFunctionLeave(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t source,
                   std::uint32_t target)
        : FunctionAccess({tick, hwCtx, swCtx, ip}, kCode, source, target) {}
    CFunctionLeave(const CCoreContext& context, std::uint32_t source, std::uint32_t target)
        : FunctionAccess(context.values(), kCode, source, target) {}
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kProcessDefineRules, CProcessBase, CProcessDefinePayload>)
class QUORVEX_API CProcessDefine : public PacketOf<kProcessDefineRules, CProcessBase, CProcessDefinePayload> {
    QUORVEX_KIND(ProcessDefine, PacketOf)

public:
    CProcessDefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id,
                   const CCharStringSequence& name);
    CProcessDefine(const CCoreContext& context, std::uint32_t id, const CCharStringSequence& name);
};

class QUORVEX_API CProcessUndefine : public CProcessBase {
    QUORVEX_KIND(ProcessUndefine, CProcessBase)

public:
    CProcessUndefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id);
    CProcessUndefine(const CCoreContext& context, std::uint32_t id);
};

class QUORVEX_API CProcessEnter : public CProcessBase {
    QUORVEX_KIND(ProcessEnter, CProcessBase)

public:
    CProcessEnter(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id);
    CProcessEnter(const CCoreContext& context, std::uint32_t id);
};

class QUORVEX_API CProcessLeave : public CProcessBase {
    QUORVEX_KIND(ProcessLeave, CProcessBase)

public:
    CProcessLeave(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id);
    CProcessLeave(const CCoreContext& context, std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kTypeDefineRules, CTypeBase, CTypeDefinePayload>)
class QUORVEX_API CTypeDefine : public PacketOf<kTypeDefineRules, CTypeBase, CTypeDefinePayload> {
    QUORVEX_KIND(TypeDefine, PacketOf)

public:
    CTypeDefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id,
                std::uint8_t size, const CCharStringSequence& name);
    CTypeDefine(const CCoreContext& context, std::uint32_t id, std::uint8_t size, const CCharStringSequence& name);
};

class QUORVEX_API CTypeUndefine : public CTypeBase {
    QUORVEX_KIND(TypeUndefine, CTypeBase)

public:
    CTypeUndefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id);
    CTypeUndefine(const CCoreContext& context, std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kVariableDefineRules, CVariableBase, CVariableDefinePayload>)
class QUORVEX_API CVariableDefine : public PacketOf<kVariableDefineRules, CVariableBase, CVariableDefinePayload> {
    QUORVEX_KIND(VariableDefine, PacketOf)

public:
    CVariableDefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id,
                    std::uint32_t type, const CCharStringSequence& name);
    CVariableDefine(const CCoreContext& context, std::uint32_t id, std::uint32_t type, const CCharStringSequence& name);
};

class QUORVEX_API CVariableUndefine : public CVariableBase {
    QUORVEX_KIND(VariableUndefine, CVariableBase)

public:
    CVariableUndefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id);
    CVariableUndefine(const CCoreContext& context, std::uint32_t id);
};

class QUORVEX_API CVariableRead : public CVariableAccBase {
    QUORVEX_KIND(VariableRead, CVariableAccBase)

public:
    CVariableRead(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id,
                  const CData& data = CData());
    CVariableRead(const CCoreContext& context, std::uint32_t id, const CData& data = CData());
};

class QUORVEX_API CVariableWrite : public CVariableAccBase {
    QUORVEX_KIND(VariableWrite, CVariableAccBase)

public:
    CVariableWrite(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id,
                   const CData& data = CData());
    CVariableWrite(const CCoreContext& context, std::uint32_t id, const CData& data = CData());
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelFunctionBaseRules, RelCorePacket, CFunctionIdentifier>)
class QUORVEX_API CRelFunctionBase : public PacketOf<kRelFunctionBaseRules, RelCorePacket, CFunctionIdentifier> {
    QUORVEX_BASE(CRelFunctionBase)

public:
    CRelFunctionBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id);
    CRelFunctionBase(tagTCode code, const CRelCoreContext& context, std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelProcessBaseRules, RelCorePacket, CProcessBasePayload>)
class QUORVEX_API CRelProcessBase : public PacketOf<kRelProcessBaseRules, RelCorePacket, CProcessBasePayload> {
    QUORVEX_BASE(CRelProcessBase)

public:
    CRelProcessBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id);
    CRelProcessBase(tagTCode code, const CRelCoreContext& context, std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelTypeBaseRules, RelCorePacket, CTypeBasePayload>)
class QUORVEX_API CRelTypeBase : public PacketOf<kRelTypeBaseRules, RelCorePacket, CTypeBasePayload> {
    QUORVEX_BASE(CRelTypeBase)

public:
    CRelTypeBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id);
    CRelTypeBase(tagTCode code, const CRelCoreContext& context, std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelVariableBaseRules, RelCorePacket, CVariableBasePayload>)
class QUORVEX_API CRelVariableBase : public PacketOf<kRelVariableBaseRules, RelCorePacket, CVariableBasePayload> {
    QUORVEX_BASE(CRelVariableBase)

public:
    CRelVariableBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id);
    CRelVariableBase(tagTCode code, const CRelCoreContext& context, std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelVariableAccBaseRules, RelCorePacket, CVariableBasePayload>)
QUORVEX_EXTERN_TEMPLATE(
    PacketOf<kRelVariableDataRules, PacketOf<kRelVariableAccBaseRules, RelCorePacket, CVariableBasePayload>,
             CVariableAccBasePayload>)
class QUORVEX_API CRelVariableAccBase
    : public PacketOf<kRelVariableDataRules, PacketOf<kRelVariableAccBaseRules, RelCorePacket, CVariableBasePayload>,
                      CVariableAccBasePayload> {
    QUORVEX_BASE(CRelVariableAccBase)

public:
    CRelVariableAccBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id,
                        const CData& data = CData());
    CRelVariableAccBase(tagTCode code, const CRelCoreContext& context, std::uint32_t id, const CData& data = CData());
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelFunctionEnterRules, RelCorePacket, CFunctionEnterPayload>)
QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelFunctionDefineRules, CRelFunctionBase, CFunctionDefinePayload>)
class QUORVEX_API CRelFunctionDefine
    : public PacketOf<kRelFunctionDefineRules, CRelFunctionBase, CFunctionDefinePayload> {
    QUORVEX_KIND(RelFunctionDefine, PacketOf)

public:
    CRelFunctionDefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, const CCharStringSequence& name);
    CRelFunctionDefine(const CRelCoreContext& context, std::uint32_t id, const CCharStringSequence& name);
};

class QUORVEX_API CRelFunctionUndefine : public CRelFunctionBase {
    QUORVEX_KIND(RelFunctionUndefine, CRelFunctionBase)

public:
    CRelFunctionUndefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id);
    CRelFunctionUndefine(const CRelCoreContext& context, std::uint32_t id);
};

class QUORVEX_API CRelFunctionEnter : public FunctionAccess<kRelFunctionEnterRules, RelCorePacket> {
    QUORVEX_KIND(RelFunctionEnter, FunctionAccess)

public:
    CRelFunctionEnter(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t function);
    CRelFunctionEnter(const CRelCoreContext& context, std::uint32_t function);
    CRelFunctionEnter(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t source, std::uint32_t target);
    CRelFunctionEnter(const CRelCoreContext& context, std::uint32_t source, std::uint32_t target);
};

class QUORVEX_API CRelFunctionLeave : public FunctionAccess<kRelFunctionEnterRules, RelCorePacket> {
    QUORVEX_KIND(RelFunctionLeave, FunctionAccess)

public:
    CRelFunctionLeave(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t function);
    CRelFunctionLeave(const CRelCoreContext& context, std::uint32_t function);
    CRelFunctionLeave(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t source, std::uint32_t target);
    CRelFunctionLeave(const CRelCoreContext& context, std::uint32_t source, std::uint32_t target);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelProcessDefineRules, CRelProcessBase, CProcessDefinePayload>)
class QUORVEX_API CRelProcessDefine : public PacketOf<kRelProcessDefineRules, CRelProcessBase, CProcessDefinePayload> {
    QUORVEX_KIND(RelProcessDefine, PacketOf)

public:
    CRelProcessDefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, const CCharStringSequence& name);
    CRelProcessDefine(const CRelCoreContext& context, std::uint32_t id, const CCharStringSequence& name);
};

class QUORVEX_API CRelProcessUndefine : public CRelProcessBase {
    QUORVEX_KIND(RelProcessUndefine, CRelProcessBase)

public:
    CRelProcessUndefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id);
    CRelProcessUndefine(const CRelCoreContext& context, std::uint32_t id);
};

class QUORVEX_API CRelProcessEnter : public CRelProcessBase {
    QUORVEX_KIND(RelProcessEnter, CRelProcessBase)

public:
    CRelProcessEnter(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id);
    CRelProcessEnter(const CRelCoreContext& context, std::uint32_t id);
};

class QUORVEX_API CRelProcessLeave : public CRelProcessBase {
    QUORVEX_KIND(RelProcessLeave, CRelProcessBase)

public:
    CRelProcessLeave(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id);
    CRelProcessLeave(const CRelCoreContext& context, std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelTypeDefineRules, CRelTypeBase, CTypeDefinePayload>)
class QUORVEX_API CRelTypeDefine : public PacketOf<kRelTypeDefineRules, CRelTypeBase, CTypeDefinePayload> {
    QUORVEX_KIND(RelTypeDefine, PacketOf)

public:
    CRelTypeDefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, std::uint8_t size,
                   const CCharStringSequence& name);
    CRelTypeDefine(const CRelCoreContext& context, std::uint32_t id, std::uint8_t size,
                   const CCharStringSequence& name);
};

class QUORVEX_API CRelTypeUndefine : public CRelTypeBase {
    QUORVEX_KIND(RelTypeUndefine, CRelTypeBase)

public:
    CRelTypeUndefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id);
    CRelTypeUndefine(const CRelCoreContext& context, std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelVariableDefineRules, CRelVariableBase, CVariableDefinePayload>)
class QUORVEX_API CRelVariableDefine
    : public PacketOf<kRelVariableDefineRules, CRelVariableBase, CVariableDefinePayload> {
    QUORVEX_KIND(RelVariableDefine, PacketOf)

public:
    CRelVariableDefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, std::uint32_t type,
                       const CCharStringSequence& name);
    CRelVariableDefine(const CRelCoreContext& context, std::uint32_t id, std::uint32_t type,
                       const CCharStringSequence& name);
};

class QUORVEX_API CRelVariableUndefine : public CRelVariableBase {
    QUORVEX_KIND(RelVariableUndefine, CRelVariableBase)

public:
    CRelVariableUndefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id);
    CRelVariableUndefine(const CRelCoreContext& context, std::uint32_t id);
};

class QUORVEX_API CRelVariableRead : public CRelVariableAccBase {
    QUORVEX_KIND(RelVariableRead, CRelVariableAccBase)

public:
    CRelVariableRead(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, const CData& data = CData());
    CRelVariableRead(const CRelCoreContext& context, std::uint32_t id, const CData& data = CData());
};

class QUORVEX_API CRelVariableWrite : public CRelVariableAccBase {
    QUORVEX_KIND(RelVariableWrite, CRelVariableAccBase)

public:
    CRelVariableWrite(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, const CData& data = CData());
    CRelVariableWrite(const CRelCoreContext& context, std::uint32_t id, const CData& data = CData());
};

#include "quorvex/packets/KindMacros.def"

} // namespace Quorvex

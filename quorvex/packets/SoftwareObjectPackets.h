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
#include "quorvex/packets/CommonPayloads.h"
#include "quorvex/packets/PacketProtocol.h"

namespace Quorvex {

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
    using Forms = FormList<Form<std::uint8_t, const CCharStringSequence&>>;

    CTypeDefinePayload() = default;
    CTypeDefinePayload(std::uint8_t size, const CCharStringSequence& name) : m_VarSize(size), m_TypeDef(name) {}

    static constexpr std::uint8_t Len() { return 1; }
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Count, "VarSize", self.m_VarSize);
    }
};

/// Name and type of a variable.
class QUORVEX_API CVariableDefinePayload : public PayloadOperations<CVariableDefinePayload> {
    QUORVEX_FIELD(std::uint32_t, TypeId, 0)
    QUORVEX_DEFINITION(VarDef)

public:
    using Forms = FormList<Form<std::uint32_t, const CCharStringSequence&>>;

    CVariableDefinePayload() = default;
    CVariableDefinePayload(std::uint32_t type, const CCharStringSequence& name) : m_TypeId(type), m_VarDef(name) {}

    static constexpr std::uint8_t Len() { return 4; }
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Id, "TypeId", self.m_TypeId);
    }
};

/// The function that is entered or left (the target), and the one that control came from (the source) where it is
/// known. All ones is no function. A payload with a valid source is in form 2, any other in form 1.
class QUORVEX_API CFunctionEnterPayload : public PayloadOperations<CFunctionEnterPayload> {
public:
    using Forms = FormList<Form<std::uint32_t>, Form<std::uint32_t, std::uint32_t>>;
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
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
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
    using Forms = FormList<Form<>, Form<const CData&>>;
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
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Bytes, "Data", self.m_VarData);
    }
    static void onWriteException(const char*) {
        logError("CVariableAccBasePayload::write: Catched exception while writing payload!");
    }

private:
    CData m_VarData;

    QUORVEX_RESIZABLE
};

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
inline constexpr ReadRules kFunctionBaseRules =
    QUORVEX_OBJECT_RULES("CFunctionBase", "function id", QUORVEX_ABS_PACKET);
inline constexpr ReadRules kRelFunctionBaseRules =
    QUORVEX_OBJECT_RULES("CRelFunctionBase", "function id", QUORVEX_REL_PACKET);
inline constexpr ReadRules kProcessBaseRules = QUORVEX_OBJECT_RULES("CProcessBase", "funcion id", QUORVEX_ABS_PACKET);
inline constexpr ReadRules kRelProcessBaseRules =
    QUORVEX_OBJECT_RULES("CRelProcessBase", "funcion id", QUORVEX_REL_PACKET);
inline constexpr ReadRules kTypeBaseRules = QUORVEX_OBJECT_RULES("CTypeBase", "type id", QUORVEX_ABS_PACKET);
inline constexpr ReadRules kRelTypeBaseRules = QUORVEX_OBJECT_RULES("CRelTypeBase", "type id", QUORVEX_REL_PACKET);
inline constexpr ReadRules kVariableBaseRules = QUORVEX_OBJECT_RULES("CVariableBase", "var id", QUORVEX_ABS_PACKET);
inline constexpr ReadRules kRelVariableBaseRules =
    QUORVEX_OBJECT_RULES("CRelVariableBase", "var id", QUORVEX_REL_PACKET);
inline constexpr ReadRules kVariableAccBaseRules =
    QUORVEX_OBJECT_RULES("CVariableAccBase", "var id", QUORVEX_ABS_PACKET);
inline constexpr ReadRules kRelVariableAccBaseRules =
    QUORVEX_OBJECT_RULES("CRelVariableAccBase", "var id", QUORVEX_REL_PACKET);

inline constexpr ReadRules kVariableDataRules{.header = kVariableAccBaseRules.header,
                                              .payload = kVariableAccBaseRules.size};
inline constexpr ReadRules kRelVariableDataRules{.header = kRelVariableAccBaseRules.header,
                                                 .payload = kRelVariableAccBaseRules.size};

inline constexpr ReadRules kFunctionEnterRules{.header = kFunctionBaseRules.header,
                                               .size = kFunctionBaseRules.size,
                                               .context = kFunctionBaseRules.context,
                                               .payload = kFunctionBaseRules.payload,
                                               .logged = true};
inline constexpr ReadRules kRelFunctionEnterRules{.header = kRelFunctionBaseRules.header,
                                                  .size = kRelFunctionBaseRules.size,
                                                  .context = kRelFunctionBaseRules.context,
                                                  .payload = kRelFunctionBaseRules.payload,
                                                  .logged = true};

inline constexpr ReadRules kFunctionDefineRules =
    QUORVEX_DEFINE_RULES("CFunctionDefine", "function", kFunctionBaseRules.size);
inline constexpr ReadRules kRelFunctionDefineRules =
    QUORVEX_DEFINE_RULES("CRelFunctionDefine", "function", kRelFunctionBaseRules.size);
inline constexpr ReadRules kProcessDefineRules =
    QUORVEX_DEFINE_RULES("CProcessDefine", "function", kProcessBaseRules.size);
inline constexpr ReadRules kRelProcessDefineRules =
    QUORVEX_DEFINE_RULES("CRelProcessDefine", "function", kRelProcessBaseRules.size);
inline constexpr ReadRules kTypeDefineRules = QUORVEX_DEFINE_RULES("CTypeDefine", "type", kTypeBaseRules.size);
inline constexpr ReadRules kRelTypeDefineRules = QUORVEX_DEFINE_RULES("CRelTypeDefine", "type", kRelTypeBaseRules.size);
inline constexpr ReadRules kVariableDefineRules =
    QUORVEX_DEFINE_RULES("CVariableDefine", "variable", kVariableBaseRules.size);
inline constexpr ReadRules kRelVariableDefineRules =
    QUORVEX_DEFINE_RULES("CRelVariableDefine", "variable", kRelVariableBaseRules.size);

#undef QUORVEX_OBJECT_RULES
#undef QUORVEX_DEFINE_RULES
#undef QUORVEX_ABS_PACKET
#undef QUORVEX_REL_PACKET

QUORVEX_BASE(CFunctionBase, kFunctionBaseRules, CorePacket, CFunctionIdentifier)
QUORVEX_BASE(CRelFunctionBase, kRelFunctionBaseRules, RelCorePacket, CFunctionIdentifier)
QUORVEX_BASE(CProcessBase, kProcessBaseRules, CorePacket, CProcessBasePayload)
QUORVEX_BASE(CRelProcessBase, kRelProcessBaseRules, RelCorePacket, CProcessBasePayload)
QUORVEX_BASE(CTypeBase, kTypeBaseRules, CorePacket, CTypeBasePayload)
QUORVEX_BASE(CRelTypeBase, kRelTypeBaseRules, RelCorePacket, CTypeBasePayload)
QUORVEX_BASE(CVariableBase, kVariableBaseRules, CorePacket, CVariableBasePayload)
QUORVEX_BASE(CRelVariableBase, kRelVariableBaseRules, RelCorePacket, CVariableBasePayload)
QUORVEX_BASE(CVariableAccBase, kVariableDataRules, PacketOf<kVariableAccBaseRules, CorePacket, CVariableBasePayload>,
             CVariableAccBasePayload)
QUORVEX_BASE(CRelVariableAccBase, kRelVariableDataRules,
             PacketOf<kRelVariableAccBaseRules, RelCorePacket, CVariableBasePayload>, CVariableAccBasePayload)

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

    void SetLength() { this->SetPacketHeaderLength(); }
};

QUORVEX_KIND(FunctionDefine, PacketOf<kFunctionDefineRules, CFunctionBase, CFunctionDefinePayload>)
QUORVEX_KIND(FunctionUndefine, CFunctionBase)
QUORVEX_KIND(FunctionEnter, FunctionAccess<kFunctionEnterRules, CorePacket>)
QUORVEX_KIND(FunctionLeave, FunctionAccess<kFunctionEnterRules, CorePacket>)
QUORVEX_KIND(ProcessDefine, PacketOf<kProcessDefineRules, CProcessBase, CProcessDefinePayload>)
QUORVEX_KIND(ProcessUndefine, CProcessBase)
QUORVEX_KIND(ProcessEnter, CProcessBase)
QUORVEX_KIND(ProcessLeave, CProcessBase)
QUORVEX_KIND(TypeDefine, PacketOf<kTypeDefineRules, CTypeBase, CTypeDefinePayload>)
QUORVEX_KIND(TypeUndefine, CTypeBase)
QUORVEX_KIND(VariableDefine, PacketOf<kVariableDefineRules, CVariableBase, CVariableDefinePayload>)
QUORVEX_KIND(VariableUndefine, CVariableBase)
QUORVEX_KIND(VariableRead, CVariableAccBase)
QUORVEX_KIND(VariableWrite, CVariableAccBase)

QUORVEX_KIND(RelFunctionDefine, PacketOf<kRelFunctionDefineRules, CRelFunctionBase, CFunctionDefinePayload>)
QUORVEX_KIND(RelFunctionUndefine, CRelFunctionBase)
QUORVEX_KIND(RelFunctionEnter, FunctionAccess<kRelFunctionEnterRules, RelCorePacket>)
QUORVEX_KIND(RelFunctionLeave, FunctionAccess<kRelFunctionEnterRules, RelCorePacket>)
QUORVEX_KIND(RelProcessDefine, PacketOf<kRelProcessDefineRules, CRelProcessBase, CProcessDefinePayload>)
QUORVEX_KIND(RelProcessUndefine, CRelProcessBase)
QUORVEX_KIND(RelProcessEnter, CRelProcessBase)
QUORVEX_KIND(RelProcessLeave, CRelProcessBase)
QUORVEX_KIND(RelTypeDefine, PacketOf<kRelTypeDefineRules, CRelTypeBase, CTypeDefinePayload>)
QUORVEX_KIND(RelTypeUndefine, CRelTypeBase)
QUORVEX_KIND(RelVariableDefine, PacketOf<kRelVariableDefineRules, CRelVariableBase, CVariableDefinePayload>)
QUORVEX_KIND(RelVariableUndefine, CRelVariableBase)
QUORVEX_KIND(RelVariableRead, CRelVariableAccBase)
QUORVEX_KIND(RelVariableWrite, CRelVariableAccBase)

} // namespace Quorvex

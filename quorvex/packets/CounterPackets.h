#pragma once

/// Counters and their values.
///
///     CounterDefine, CounterDefineUnit   context | CntrId:4 | Dim:1, then the definition
///     CounterUndefine                    context | CntrId:4
///     CounterValue                       context | CntrId:4 | Value:8
///     CounterValueDim1                   context | CntrId:4 | Value:8 | Idx1:8
///     CounterValueDim2                   context | CntrId:4 | Value:8 | Idx1:8 | Idx2:8
///     CounterValueDimN                   context | CntrId:4 | Value:8 | 0 to 27 indices of 8 bytes
///     CounterValueVar                    context | CntrId:4 | value | index, both of the same 0 to 113 bytes
///
/// The context is the core context in the absolute kinds and the relative core context in the relative ones. How many
/// indices or bytes there are follows from the header's length. Whether a value is an integer or a double is not told.

#include "quorvex/format/Counter.h"
#include "quorvex/format/VarCounter.h"
#include "quorvex/packets/PacketProtocol.h"

#include <array>

namespace Quorvex {

#include "quorvex/packets/KindMacros.def"

QUORVEX_PAYLOAD(CCounterDefineBasePayload)
QUORVEX_PAYLOAD(CCounterValueBasePayload)
QUORVEX_PAYLOAD(CCounterIndexDim1)
QUORVEX_PAYLOAD(CCounterIndexDim2)
QUORVEX_PAYLOAD(CCounterIndexDimN)
QUORVEX_PAYLOAD(CCounterValueVarPayload)

namespace detail {
/// Counter words travel as the eight bytes they are.
template <class Word> struct CounterWordCodec {
    static constexpr unsigned kFixed = sizeof(std::uint64_t);
    static unsigned size(const Word&) { return sizeof(std::uint64_t); }
    static int decode(Word& value, const char* from, unsigned size) {
        return FieldCodec<std::uint64_t>::decode(value.u64, from, size);
    }
    static void encode(const Word& value, char* to) { storeLittleEndian(to, value.u64); }
};
} // namespace detail

template <> struct FieldCodec<TCounter_t> : detail::CounterWordCodec<TCounter_t> {};
template <> struct FieldCodec<TCounterIdx_t> : detail::CounterWordCodec<TCounterIdx_t> {};

QUORVEX_ID_PAYLOAD(CCounterBasePayload, CntrId)

/// The number of dimensions, and what the counter counts (or its unit). Other writers count that text in the header's
/// length: such packets are read, and written as ours.
class QUORVEX_API CCounterDefineBasePayload : public PayloadOperations<CCounterDefineBasePayload> {
    QUORVEX_FIELD(std::uint8_t, CntrDim, 0)
    QUORVEX_DEFINITION(CntrDef)

public:
    CCounterDefineBasePayload() = default;
    explicit CCounterDefineBasePayload(std::uint8_t dimensions, const CCharStringSequence& name = CCharStringSequence())
        : m_CntrDim(dimensions), m_CntrDef(name) {}

    static constexpr bool kCutTextIsNone = true;
    static constexpr bool kTextMayCount = true;
    static constexpr std::uint8_t Len() { return 1; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Count, "Dim", self.m_CntrDim);
    }
};

class QUORVEX_API CCounterValueBasePayload : public PayloadOperations<CCounterValueBasePayload> {
    QUORVEX_FIELD(TCounter_t, CntrVal, TCounter_t())

public:
    CCounterValueBasePayload() = default;
    explicit CCounterValueBasePayload(TCounter_t value) : m_CntrVal(value) {}

    static constexpr std::uint8_t Len() { return 8; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Number, "Value", self.m_CntrVal);
    }
};

class QUORVEX_API CCounterIndexDim1 : public PayloadOperations<CCounterIndexDim1> {
    QUORVEX_FIELD(TCounterIdx_t, CntrIdx1, TCounterIdx_t())

public:
    CCounterIndexDim1() = default;
    explicit CCounterIndexDim1(TCounterIdx_t index) : m_CntrIdx1(index) {}

    static constexpr std::uint8_t Len() { return 8; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Number, "Idx1", self.m_CntrIdx1);
    }
};

class QUORVEX_API CCounterIndexDim2 : public PayloadOperations<CCounterIndexDim2> {
    QUORVEX_FIELD(TCounterIdx_t, CntrIdx1, TCounterIdx_t())
    QUORVEX_FIELD(TCounterIdx_t, CntrIdx2, TCounterIdx_t())

public:
    CCounterIndexDim2() = default;
    CCounterIndexDim2(TCounterIdx_t index1, TCounterIdx_t index2) : m_CntrIdx1(index1), m_CntrIdx2(index2) {}

    static constexpr std::uint8_t Len() { return 16; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Number, "Idx1", self.m_CntrIdx1);
        visit(FieldMeaning::Number, "Idx2", self.m_CntrIdx2);
    }
};

/// Up to 27 indices. More throw std::out_of_range, as does access beyond the count.
class QUORVEX_API CCounterIndexDimN : public PayloadOperations<CCounterIndexDimN> {
public:
    static constexpr unsigned kMaxDim = 27;

    CCounterIndexDimN() = default;
    CCounterIndexDimN(std::uint8_t dimensions, const TCounterIdx_t* indices) { CntrIdx(dimensions, indices); }

    std::uint8_t CntrDim() const { return m_dimensions; }
    /// The array of 27; those beyond the count are 0.
    const TCounterIdx_t* CntrIdx() const { return m_indices.data(); }
    const TCounterIdx_t& CntrIdx(std::uint8_t index) const;
    TCounterIdx_t& CntrIdx(std::uint8_t index);
    /// Replaces all indices.
    void CntrIdx(std::uint8_t dimensions, const TCounterIdx_t* indices);

    static constexpr std::uint8_t Len() { return 0; }
    static constexpr unsigned Len(std::uint8_t dimensions) { return 8U * dimensions; }
    static constexpr unsigned Dim2Byte(std::uint8_t dimensions) { return Len(dimensions); }
    /// Throws std::out_of_range for more than 27.
    static unsigned Byte2Dim(unsigned bytes);

    static constexpr bool fits(unsigned size) { return size % 8 == 0 && size / 8 <= kMaxDim; }
    bool shape(unsigned size) {
        m_dimensions = static_cast<std::uint8_t>(size / 8);
        return fits(size);
    }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        for (unsigned i = 0; i < self.m_dimensions; ++i)
            visit(FieldMeaning::Number, "Idx", self.m_indices[i]);
    }

private:
    void checkIndex(std::uint8_t index) const;

    std::array<TCounterIdx_t, kMaxDim> m_indices{};
    std::uint8_t m_dimensions = 0;

    QUORVEX_RESIZABLE
};

/// A value and an index of the same width, up to 113 bytes each. Others can be held, but not written: no packet could
/// tell them. A packet that holds them has a StreamSize() of 0.
class QUORVEX_API CCounterValueVarPayload : public PayloadOperations<CCounterValueVarPayload> {
public:
    static constexpr unsigned kMaxSize = 113;
    static constexpr bool kTakesRest = true;

    CCounterValueVarPayload() = default;
    CCounterValueVarPayload(const TVarCounter_t& value, const TVarCounter_t& index) : m_value(value), m_index(index) {}

    const TVarCounter_t& CntrVal() const { return m_value; }
    void CntrVal(const TVarCounter_t& value) {
        m_value = value;
        SetPacketHeaderLength();
    }
    const TVarCounter_t& CntrIdx() const { return m_index; }
    void CntrIdx(const TVarCounter_t& index) {
        m_index = index;
        SetPacketHeaderLength();
    }

    static constexpr std::uint8_t Len() { return 0; }
    static constexpr unsigned Len(std::uint8_t size) { return 2U * size; }
    static constexpr unsigned Size2Len(std::uint8_t size) { return Len(size); }
    /// Throws the runtime CQVXException for an odd length.
    static unsigned Len2Size(std::uint8_t length);

    bool writable() const { return m_value.Length() == m_index.Length() && m_value.Length() <= kMaxSize; }
    /// Throws what Len2Size throws; so does the Read-In constructor from memory.
    bool decode(const char* from, unsigned size);
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Number, "Value", self.m_value);
        visit(FieldMeaning::Number, "Idx1", self.m_index);
    }

private:
    TVarCounter_t m_value;
    TVarCounter_t m_index;

    QUORVEX_RESIZABLE
};

/// Written as it is; read by the payload, which knows the width.
template <> struct FieldCodec<TVarCounter_t> {
    static constexpr unsigned kFixed = 0;
    static unsigned size(const TVarCounter_t& value) { return value.Length(); }
    static void encode(const TVarCounter_t& value, char* to) {
        if (value.Length() > 0)
            std::memcpy(to, value.data(), value.Length());
    }
};

// Defined with the texts of their failures, and compiled, in CounterPackets.cpp.
extern QUORVEX_TEMPLATE_API const ReadRules kCounterBaseRules, kRelCounterBaseRules, kCounterDefineBaseRules,
    kRelCounterDefineBaseRules, kCounterValueBaseRules, kRelCounterValueBaseRules, kCounterValueDim1Rules,
    kCounterValueDim2Rules, kRelCounterValueDim1Rules, kRelCounterValueDim2Rules, kCounterValueDimNRules,
    kRelCounterValueDimNRules, kCounterValueVarRules, kRelCounterValueVarRules;

QUORVEX_EXTERN_TEMPLATE(PacketOf<kCounterBaseRules, CorePacket, CCounterBasePayload>)
class QUORVEX_API CCounterBase : public PacketOf<kCounterBaseRules, CorePacket, CCounterBasePayload> {
    QUORVEX_BASE(CCounterBase)

public:
    CCounterBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                 std::uint32_t id);
    CCounterBase(tagTCode code, const CCoreContext& context, std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kCounterDefineBaseRules, CCounterBase, CCounterDefineBasePayload>)
class QUORVEX_API CCounterDefineBase
    : public PacketOf<kCounterDefineBaseRules, CCounterBase, CCounterDefineBasePayload> {
    QUORVEX_BASE(CCounterDefineBase)

public:
    CCounterDefineBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                       std::uint32_t id, std::uint8_t dimensions,
                       const CCharStringSequence& name = CCharStringSequence());
    CCounterDefineBase(tagTCode code, const CCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                       const CCharStringSequence& name = CCharStringSequence());
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kCounterValueBaseRules, CCounterBase, CCounterValueBasePayload>)
class QUORVEX_API CCounterValueBase : public PacketOf<kCounterValueBaseRules, CCounterBase, CCounterValueBasePayload> {
    QUORVEX_BASE(CCounterValueBase)

public:
    CCounterValueBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                      std::uint32_t id, TCounter_t value);
    CCounterValueBase(tagTCode code, const CCoreContext& context, std::uint32_t id, TCounter_t value);
};

class QUORVEX_API CCounterDefine : public CCounterDefineBase {
    QUORVEX_KIND(CounterDefine, CCounterDefineBase)

public:
    CCounterDefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id,
                   std::uint8_t dimensions, const CCharStringSequence& name = CCharStringSequence());
    CCounterDefine(const CCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                   const CCharStringSequence& name = CCharStringSequence());
};

class QUORVEX_API CCounterDefineUnit : public CCounterDefineBase {
    QUORVEX_KIND(CounterDefineUnit, CCounterDefineBase)

public:
    CCounterDefineUnit(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id,
                       std::uint8_t dimensions, const CCharStringSequence& name = CCharStringSequence());
    CCounterDefineUnit(const CCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                       const CCharStringSequence& name = CCharStringSequence());
};

class QUORVEX_API CCounterUndefine : public CCounterBase {
    QUORVEX_KIND(CounterUndefine, CCounterBase)

public:
    CCounterUndefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id);
    CCounterUndefine(const CCoreContext& context, std::uint32_t id);
};

class QUORVEX_API CCounterValue : public CCounterValueBase {
    QUORVEX_KIND(CounterValue, CCounterValueBase)

public:
    CCounterValue(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id,
                  TCounter_t value);
    CCounterValue(const CCoreContext& context, std::uint32_t id, TCounter_t value);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kCounterValueDim1Rules, CCounterValueBase, CCounterIndexDim1>)
class QUORVEX_API CCounterValueDim1 : public PacketOf<kCounterValueDim1Rules, CCounterValueBase, CCounterIndexDim1> {
    QUORVEX_KIND(CounterValueDim1, PacketOf)

public:
    CCounterValueDim1(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id,
                      TCounter_t value, TCounterIdx_t index);
    CCounterValueDim1(const CCoreContext& context, std::uint32_t id, TCounter_t value, TCounterIdx_t index);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kCounterValueDim2Rules, CCounterValueBase, CCounterIndexDim2>)
class QUORVEX_API CCounterValueDim2 : public PacketOf<kCounterValueDim2Rules, CCounterValueBase, CCounterIndexDim2> {
    QUORVEX_KIND(CounterValueDim2, PacketOf)

public:
    CCounterValueDim2(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id,
                      TCounter_t value, TCounterIdx_t index1, TCounterIdx_t index2);
    CCounterValueDim2(const CCoreContext& context, std::uint32_t id, TCounter_t value, TCounterIdx_t index1,
                      TCounterIdx_t index2);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kCounterValueDimNRules, CCounterValueBase, CCounterIndexDimN>)
class QUORVEX_API CCounterValueDimN : public PacketOf<kCounterValueDimNRules, CCounterValueBase, CCounterIndexDimN> {
    QUORVEX_KIND(CounterValueDimN, PacketOf)

public:
    CCounterValueDimN(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id,
                      TCounter_t value, const CCounterIndexDimN& indices);
    CCounterValueDimN(const CCoreContext& context, std::uint32_t id, TCounter_t value,
                      const CCounterIndexDimN& indices);

    /// Replaces the variable part, which resizes the packet.
    CCounterValueDimN& operator=(const CCounterIndexDimN& payload) {
        CCounterIndexDimN::operator=(payload);
        SetPacketHeaderLength();
        return *this;
    }
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kCounterValueVarRules, CCounterBase, CCounterValueVarPayload>)
class QUORVEX_API CCounterValueVar : public PacketOf<kCounterValueVarRules, CCounterBase, CCounterValueVarPayload> {
    QUORVEX_KIND(CounterValueVar, PacketOf)

public:
    CCounterValueVar(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id,
                     const CCounterValueVarPayload& counter);
    CCounterValueVar(const CCoreContext& context, std::uint32_t id, const CCounterValueVarPayload& counter);

    /// Replaces the variable part, which resizes the packet.
    CCounterValueVar& operator=(const CCounterValueVarPayload& payload) {
        CCounterValueVarPayload::operator=(payload);
        SetPacketHeaderLength();
        return *this;
    }
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelCounterBaseRules, RelCorePacket, CCounterBasePayload>)
class QUORVEX_API CRelCounterBase : public PacketOf<kRelCounterBaseRules, RelCorePacket, CCounterBasePayload> {
    QUORVEX_BASE(CRelCounterBase)

public:
    CRelCounterBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id);
    CRelCounterBase(tagTCode code, const CRelCoreContext& context, std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelCounterDefineBaseRules, CRelCounterBase, CCounterDefineBasePayload>)
class QUORVEX_API CRelCounterDefineBase
    : public PacketOf<kRelCounterDefineBaseRules, CRelCounterBase, CCounterDefineBasePayload> {
    QUORVEX_BASE(CRelCounterDefineBase)

public:
    CRelCounterDefineBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id,
                          std::uint8_t dimensions, const CCharStringSequence& name = CCharStringSequence());
    CRelCounterDefineBase(tagTCode code, const CRelCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                          const CCharStringSequence& name = CCharStringSequence());
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelCounterValueBaseRules, CRelCounterBase, CCounterValueBasePayload>)
class QUORVEX_API CRelCounterValueBase
    : public PacketOf<kRelCounterValueBaseRules, CRelCounterBase, CCounterValueBasePayload> {
    QUORVEX_BASE(CRelCounterValueBase)

public:
    CRelCounterValueBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, TCounter_t value);
    CRelCounterValueBase(tagTCode code, const CRelCoreContext& context, std::uint32_t id, TCounter_t value);
};

class QUORVEX_API CRelCounterDefine : public CRelCounterDefineBase {
    QUORVEX_KIND(RelCounterDefine, CRelCounterDefineBase)

public:
    CRelCounterDefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, std::uint8_t dimensions,
                      const CCharStringSequence& name = CCharStringSequence());
    CRelCounterDefine(const CRelCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                      const CCharStringSequence& name = CCharStringSequence());
};

class QUORVEX_API CRelCounterDefineUnit : public CRelCounterDefineBase {
    QUORVEX_KIND(RelCounterDefineUnit, CRelCounterDefineBase)

public:
    CRelCounterDefineUnit(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, std::uint8_t dimensions,
                          const CCharStringSequence& name = CCharStringSequence());
    CRelCounterDefineUnit(const CRelCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                          const CCharStringSequence& name = CCharStringSequence());
};

class QUORVEX_API CRelCounterUndefine : public CRelCounterBase {
    QUORVEX_KIND(RelCounterUndefine, CRelCounterBase)

public:
    CRelCounterUndefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id);
    CRelCounterUndefine(const CRelCoreContext& context, std::uint32_t id);
};

class QUORVEX_API CRelCounterValue : public CRelCounterValueBase {
    QUORVEX_KIND(RelCounterValue, CRelCounterValueBase)

public:
    CRelCounterValue(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, TCounter_t value);
    CRelCounterValue(const CRelCoreContext& context, std::uint32_t id, TCounter_t value);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelCounterValueDim1Rules, CRelCounterValueBase, CCounterIndexDim1>)
class QUORVEX_API CRelCounterValueDim1
    : public PacketOf<kRelCounterValueDim1Rules, CRelCounterValueBase, CCounterIndexDim1> {
    QUORVEX_KIND(RelCounterValueDim1, PacketOf)

public:
    CRelCounterValueDim1(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, TCounter_t value,
                         TCounterIdx_t index);
    CRelCounterValueDim1(const CRelCoreContext& context, std::uint32_t id, TCounter_t value, TCounterIdx_t index);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelCounterValueDim2Rules, CRelCounterValueBase, CCounterIndexDim2>)
class QUORVEX_API CRelCounterValueDim2
    : public PacketOf<kRelCounterValueDim2Rules, CRelCounterValueBase, CCounterIndexDim2> {
    QUORVEX_KIND(RelCounterValueDim2, PacketOf)

public:
    CRelCounterValueDim2(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, TCounter_t value,
                         TCounterIdx_t index1, TCounterIdx_t index2);
    CRelCounterValueDim2(const CRelCoreContext& context, std::uint32_t id, TCounter_t value, TCounterIdx_t index1,
                         TCounterIdx_t index2);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelCounterValueDimNRules, CRelCounterValueBase, CCounterIndexDimN>)
class QUORVEX_API CRelCounterValueDimN
    : public PacketOf<kRelCounterValueDimNRules, CRelCounterValueBase, CCounterIndexDimN> {
    QUORVEX_KIND(RelCounterValueDimN, PacketOf)

public:
    CRelCounterValueDimN(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, TCounter_t value,
                         const CCounterIndexDimN& indices);
    CRelCounterValueDimN(const CRelCoreContext& context, std::uint32_t id, TCounter_t value,
                         const CCounterIndexDimN& indices);

    /// Replaces the variable part, which resizes the packet.
    CRelCounterValueDimN& operator=(const CCounterIndexDimN& payload) {
        CCounterIndexDimN::operator=(payload);
        SetPacketHeaderLength();
        return *this;
    }
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelCounterValueVarRules, CRelCounterBase, CCounterValueVarPayload>)
class QUORVEX_API CRelCounterValueVar
    : public PacketOf<kRelCounterValueVarRules, CRelCounterBase, CCounterValueVarPayload> {
    QUORVEX_KIND(RelCounterValueVar, PacketOf)

public:
    CRelCounterValueVar(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id,
                        const CCounterValueVarPayload& counter);
    CRelCounterValueVar(const CRelCoreContext& context, std::uint32_t id, const CCounterValueVarPayload& counter);

    /// Replaces the variable part, which resizes the packet.
    CRelCounterValueVar& operator=(const CCounterValueVarPayload& payload) {
        CCounterValueVarPayload::operator=(payload);
        SetPacketHeaderLength();
        return *this;
    }
};

#include "quorvex/packets/KindMacros.def"

} // namespace Quorvex

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
#include "quorvex/packets/CommonPayloads.h"

#include <array>

namespace Quorvex {

namespace detail {
/// Counter words travel as the eight bytes they are.
template <class Word> struct CounterWordCodec {
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
    using Forms = FormList<Form<std::uint8_t>, Form<std::uint8_t, const CCharStringSequence&>>;

    CCounterDefineBasePayload() = default;
    explicit CCounterDefineBasePayload(std::uint8_t dimensions, const CCharStringSequence& name = CCharStringSequence())
        : m_CntrDim(dimensions), m_CntrDef(name) {}

    static constexpr bool kCutTextIsNone = true;
    static constexpr bool kTextMayCount = true;
    static constexpr std::uint8_t Len() { return 1; }
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Count, "Dim", self.m_CntrDim);
    }
};

class QUORVEX_API CCounterValueBasePayload : public PayloadOperations<CCounterValueBasePayload> {
    QUORVEX_FIELD(TCounter_t, CntrVal, TCounter_t())

public:
    using Forms = FormList<Form<TCounter_t>>;

    CCounterValueBasePayload() = default;
    explicit CCounterValueBasePayload(TCounter_t value) : m_CntrVal(value) {}

    static constexpr std::uint8_t Len() { return 8; }
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Number, "Value", self.m_CntrVal);
    }
};

class QUORVEX_API CCounterIndexDim1 : public PayloadOperations<CCounterIndexDim1> {
    QUORVEX_FIELD(TCounterIdx_t, CntrIdx1, TCounterIdx_t())

public:
    using Forms = FormList<Form<TCounterIdx_t>>;

    CCounterIndexDim1() = default;
    explicit CCounterIndexDim1(TCounterIdx_t index) : m_CntrIdx1(index) {}

    static constexpr std::uint8_t Len() { return 8; }
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Number, "Idx1", self.m_CntrIdx1);
    }
};

class QUORVEX_API CCounterIndexDim2 : public PayloadOperations<CCounterIndexDim2> {
    QUORVEX_FIELD(TCounterIdx_t, CntrIdx1, TCounterIdx_t())
    QUORVEX_FIELD(TCounterIdx_t, CntrIdx2, TCounterIdx_t())

public:
    using Forms = FormList<Form<TCounterIdx_t, TCounterIdx_t>>;

    CCounterIndexDim2() = default;
    CCounterIndexDim2(TCounterIdx_t index1, TCounterIdx_t index2) : m_CntrIdx1(index1), m_CntrIdx2(index2) {}

    static constexpr std::uint8_t Len() { return 16; }
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Number, "Idx1", self.m_CntrIdx1);
        visit(FieldMeaning::Number, "Idx2", self.m_CntrIdx2);
    }
};

/// Up to 27 indices. More throw std::out_of_range, as does access beyond the count.
class QUORVEX_API CCounterIndexDimN : public PayloadOperations<CCounterIndexDimN> {
public:
    using Forms = FormList<Form<const CCounterIndexDimN&>>;
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
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
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
    using Forms = FormList<Form<const CCounterValueVarPayload&>>;
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
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
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
    static unsigned size(const TVarCounter_t& value) { return value.Length(); }
    static void encode(const TVarCounter_t& value, char* to) {
        if (value.Length() > 0)
            std::memcpy(to, value.data(), value.Length());
    }
};

#define QUORVEX_COUNTER_BASE_RULES(Class)                                                                              \
    {                                                                                                                  \
        .header = Class ": Read-In constructor invalid header data supplied!",                                         \
        .size = Class ": Read-In constructor invalid buffer size supplied!",                                           \
        .context = Class ": Read-In constructor could not read context data!",                                         \
        .payload = Class ": Read-In constructor could not read counter id!"                                            \
    }
/// In memory, a definition that is cut counts as none; a stream has no way back, there it is a failure.
#define QUORVEX_COUNTER_DEFINE_RULES(Class, Text)                                                                      \
    {                                                                                                                  \
        .header = Class ": Read-In constructor invalid header data supplied!",                                         \
        .payload = Class ": Read-In constructor could not read counter dimension and definition!",                     \
        .text = Class ": Read-In constructor could not read " Text "!"                                                 \
    }
#define QUORVEX_COUNTER_CALLED(Class) Class ": Read-In Constructor called with invalid header data"
#define QUORVEX_COUNTER_COULD_NOT(Class, What) Class ": Read-In Constructor could not read " What

inline constexpr ReadRules kCounterBaseRules = QUORVEX_COUNTER_BASE_RULES("CCounterBase");
inline constexpr ReadRules kRelCounterBaseRules = QUORVEX_COUNTER_BASE_RULES("CRelCounterBase");
inline constexpr ReadRules kCounterDefineBaseRules =
    QUORVEX_COUNTER_DEFINE_RULES("CCounterDefineBase", "subsequent counter definition");
inline constexpr ReadRules kRelCounterDefineBaseRules =
    QUORVEX_COUNTER_DEFINE_RULES("CRelCounterDefineBase", "counter dimension and definition");
inline constexpr ReadRules kCounterValueBaseRules{
    .header = QUORVEX_COUNTER_CALLED("CCounterValueBase"),
    .payload = {QUORVEX_COUNTER_COULD_NOT("CCounterValueBase", "counter value."),
                "CCounterValueBase: Read-In Constructor copuld not read from buffer."}};
inline constexpr ReadRules kRelCounterValueBaseRules{
    .header = {QUORVEX_COUNTER_CALLED("CRelCounterValueBase"), QUORVEX_COUNTER_CALLED("CRelCounterValueBase") "."},
    .basis = QUORVEX_COUNTER_COULD_NOT("CRelCounterValueBase", "basic data."),
    .payload = QUORVEX_COUNTER_COULD_NOT("CRelCounterValueBase", "counter value.")};
inline constexpr ReadRules kCounterValueDim1Rules{
    .header = QUORVEX_COUNTER_CALLED("CCounterValueDim1"),
    .basis = QUORVEX_COUNTER_COULD_NOT("CCounterValueDim1", "basic value."),
    .payload = QUORVEX_COUNTER_COULD_NOT("CCounterValueDim1", "counter index.")};
inline constexpr ReadRules kCounterValueDim2Rules{
    .header = QUORVEX_COUNTER_CALLED("CCounterValueDim2"),
    .basis = QUORVEX_COUNTER_COULD_NOT("CCounterValueDim2", "basic value."),
    .payload = QUORVEX_COUNTER_COULD_NOT("CCounterValueDim2", "counter index.")};
inline constexpr ReadRules kRelCounterValueDim1Rules{
    .header = QUORVEX_COUNTER_CALLED("CRelCounterValueDim1"),
    .basis = QUORVEX_COUNTER_COULD_NOT("CRelCounterValueDim1", "basic value."),
    .payload = QUORVEX_COUNTER_COULD_NOT("CRelCounterValueDim1", "counter index.")};
inline constexpr ReadRules kRelCounterValueDim2Rules{
    .header = QUORVEX_COUNTER_CALLED("CRelCounterValueDim2"),
    .basis = QUORVEX_COUNTER_COULD_NOT("CRelCounterValueDim2", "basic couner value."),
    .payload = QUORVEX_COUNTER_COULD_NOT("CRelCounterValueDim2", "counter index.")};
inline constexpr ReadRules kCounterValueDimNRules{
    .header = QUORVEX_COUNTER_CALLED("CCounterValueDimN"),
    .misfit = "CCounterValueDimN: Read-In Constructor read invalid counter index data.",
    .basis = QUORVEX_COUNTER_COULD_NOT("CCounterValueDimN", "basic value"),
    .payload = {QUORVEX_COUNTER_COULD_NOT("CCounterValueDimN", "counter index."),
                QUORVEX_COUNTER_COULD_NOT("CCounterValueDimN", "index value")}};
inline constexpr ReadRules kRelCounterValueDimNRules{
    .header = QUORVEX_COUNTER_CALLED("CRelCounterValueDimN"),
    .misfit = "CRelCounterValueDimN: Read-In Constructor read invalid counter index data.",
    .payload = QUORVEX_COUNTER_COULD_NOT("CRelCounterValueDimN", "counter index.")};
inline constexpr ReadRules kCounterValueVarRules{
    .header = QUORVEX_COUNTER_CALLED("CCounterValueVar"),
    .payload = QUORVEX_COUNTER_COULD_NOT("CCounterValueVar", "variable length counter data from stream")};
inline constexpr ReadRules kRelCounterValueVarRules{
    .header = QUORVEX_COUNTER_CALLED("CRelCounterValueVar"),
    .payload = QUORVEX_COUNTER_COULD_NOT("CRelCounterValueVar", "variable counter value and index from stream")};

#undef QUORVEX_COUNTER_BASE_RULES
#undef QUORVEX_COUNTER_DEFINE_RULES
#undef QUORVEX_COUNTER_CALLED
#undef QUORVEX_COUNTER_COULD_NOT

QUORVEX_BASE(CCounterBase, kCounterBaseRules, CorePacket, CCounterBasePayload)
QUORVEX_BASE(CRelCounterBase, kRelCounterBaseRules, RelCorePacket, CCounterBasePayload)
QUORVEX_BASE(CCounterDefineBase, kCounterDefineBaseRules, CCounterBase, CCounterDefineBasePayload)
QUORVEX_BASE(CRelCounterDefineBase, kRelCounterDefineBaseRules, CRelCounterBase, CCounterDefineBasePayload)
QUORVEX_BASE(CCounterValueBase, kCounterValueBaseRules, CCounterBase, CCounterValueBasePayload)
QUORVEX_BASE(CRelCounterValueBase, kRelCounterValueBaseRules, CRelCounterBase, CCounterValueBasePayload)

QUORVEX_KIND(CounterDefine, CCounterDefineBase)
QUORVEX_KIND(CounterDefineUnit, CCounterDefineBase)
QUORVEX_KIND(CounterUndefine, CCounterBase)
QUORVEX_KIND(CounterValue, CCounterValueBase)
QUORVEX_KIND(CounterValueDim1, PacketOf<kCounterValueDim1Rules, CCounterValueBase, CCounterIndexDim1>)
QUORVEX_KIND(CounterValueDim2, PacketOf<kCounterValueDim2Rules, CCounterValueBase, CCounterIndexDim2>)

QUORVEX_KIND(RelCounterDefine, CRelCounterDefineBase)
QUORVEX_KIND(RelCounterDefineUnit, CRelCounterDefineBase)
QUORVEX_KIND(RelCounterUndefine, CRelCounterBase)
QUORVEX_KIND(RelCounterValue, CRelCounterValueBase)
QUORVEX_KIND(RelCounterValueDim1, PacketOf<kRelCounterValueDim1Rules, CRelCounterValueBase, CCounterIndexDim1>)
QUORVEX_KIND(RelCounterValueDim2, PacketOf<kRelCounterValueDim2Rules, CRelCounterValueBase, CCounterIndexDim2>)

/// Kinds whose variable part can be assigned as a whole, which resizes the packet.
#define QUORVEX_RESIZING_KIND(Name, Rules, Base, Payload)                                                              \
    class QUORVEX_API C##Name : public Kind<Name, PacketOf<Rules, Base, Payload>> {                                    \
    public:                                                                                                            \
        using Constructors::Constructors;                                                                              \
        C##Name& operator=(const Payload& payload) {                                                                   \
            Payload::operator=(payload);                                                                               \
            SetPacketHeaderLength();                                                                                   \
            return *this;                                                                                              \
        }                                                                                                              \
    };

QUORVEX_RESIZING_KIND(CounterValueDimN, kCounterValueDimNRules, CCounterValueBase, CCounterIndexDimN)
QUORVEX_RESIZING_KIND(CounterValueVar, kCounterValueVarRules, CCounterBase, CCounterValueVarPayload)
QUORVEX_RESIZING_KIND(RelCounterValueDimN, kRelCounterValueDimNRules, CRelCounterValueBase, CCounterIndexDimN)
QUORVEX_RESIZING_KIND(RelCounterValueVar, kRelCounterValueVarRules, CRelCounterBase, CCounterValueVarPayload)
#undef QUORVEX_RESIZING_KIND

} // namespace Quorvex

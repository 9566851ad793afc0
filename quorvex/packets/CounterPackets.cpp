#include "quorvex/packets/CounterPackets.h"

#include "quorvex/packets/PacketImplementation.h"

#include <algorithm>
#include <stdexcept>

namespace Quorvex {

namespace {

constexpr char kTooMany[] =
    "CCounterIndexDimN: Requested counter dimension is larger than maximal allowed counter dimension.";

/// Numbers of an inline width are built from their value, so that they hold it and not a buffer.
TVarCounter_t makeCounter(const char* from, unsigned size) {
    switch (size) {
    case 0:
        return TVarCounter_t();
    case 1:
        return TVarCounter_t(loadLittleEndian<std::uint8_t>(from));
    case 2:
        return TVarCounter_t(loadLittleEndian<std::uint16_t>(from));
    case 4:
        return TVarCounter_t(loadLittleEndian<std::uint32_t>(from));
    case 8:
        return TVarCounter_t(loadLittleEndian<std::uint64_t>(from));
    default:
        return TVarCounter_t(reinterpret_cast<const std::uint8_t*>(from), static_cast<std::uint8_t>(size));
    }
}

} // namespace

void CCounterIndexDimN::checkIndex(std::uint8_t index) const {
    if (index >= m_dimensions)
        throw std::out_of_range("CCounterIndexDimN: Requested index is larger or equal to the counter dimension.");
}

const TCounterIdx_t& CCounterIndexDimN::CntrIdx(std::uint8_t index) const {
    checkIndex(index);
    return m_indices[index];
}

TCounterIdx_t& CCounterIndexDimN::CntrIdx(std::uint8_t index) {
    checkIndex(index);
    return m_indices[index];
}

void CCounterIndexDimN::CntrIdx(std::uint8_t dimensions, const TCounterIdx_t* indices) {
    if (dimensions > kMaxDim)
        throw std::out_of_range(kTooMany);
    // The indices may be this object's own.
    std::array<TCounterIdx_t, kMaxDim> fresh{};
    if (indices)
        std::copy_n(indices, dimensions, fresh.begin());
    m_indices = fresh;
    m_dimensions = dimensions;
    SetPacketHeaderLength();
}

unsigned CCounterIndexDimN::Byte2Dim(unsigned bytes) {
    if (bytes / 8 > kMaxDim)
        throw std::out_of_range(kTooMany);
    return bytes / 8;
}

unsigned CCounterValueVarPayload::Len2Size(std::uint8_t length) {
    if (length % 2 != 0)
        CQVXException::ThrowRuntime("Len2Size: supplied size must be multiples of two!");
    return length / 2U;
}

bool CCounterValueVarPayload::decode(const char* from, unsigned size) {
    const unsigned width = Len2Size(static_cast<std::uint8_t>(size));
    if (width > kMaxSize)
        return false;
    m_value = makeCounter(from, width);
    m_index = makeCounter(from + width, width);
    return true;
}

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

constexpr ReadRules kCounterBaseRules = QUORVEX_COUNTER_BASE_RULES("CCounterBase");
constexpr ReadRules kRelCounterBaseRules = QUORVEX_COUNTER_BASE_RULES("CRelCounterBase");
constexpr ReadRules kCounterDefineBaseRules =
    QUORVEX_COUNTER_DEFINE_RULES("CCounterDefineBase", "subsequent counter definition");
constexpr ReadRules kRelCounterDefineBaseRules =
    QUORVEX_COUNTER_DEFINE_RULES("CRelCounterDefineBase", "counter dimension and definition");
constexpr ReadRules kCounterValueBaseRules{
    .header = QUORVEX_COUNTER_CALLED("CCounterValueBase"),
    .payload = {QUORVEX_COUNTER_COULD_NOT("CCounterValueBase", "counter value."),
                "CCounterValueBase: Read-In Constructor copuld not read from buffer."}};
constexpr ReadRules kRelCounterValueBaseRules{
    .header = {QUORVEX_COUNTER_CALLED("CRelCounterValueBase"), QUORVEX_COUNTER_CALLED("CRelCounterValueBase") "."},
    .basis = QUORVEX_COUNTER_COULD_NOT("CRelCounterValueBase", "basic data."),
    .payload = QUORVEX_COUNTER_COULD_NOT("CRelCounterValueBase", "counter value.")};
constexpr ReadRules kCounterValueDim1Rules{.header = QUORVEX_COUNTER_CALLED("CCounterValueDim1"),
                                           .basis = QUORVEX_COUNTER_COULD_NOT("CCounterValueDim1", "basic value."),
                                           .payload = QUORVEX_COUNTER_COULD_NOT("CCounterValueDim1", "counter index.")};
constexpr ReadRules kCounterValueDim2Rules{.header = QUORVEX_COUNTER_CALLED("CCounterValueDim2"),
                                           .basis = QUORVEX_COUNTER_COULD_NOT("CCounterValueDim2", "basic value."),
                                           .payload = QUORVEX_COUNTER_COULD_NOT("CCounterValueDim2", "counter index.")};
constexpr ReadRules kRelCounterValueDim1Rules{
    .header = QUORVEX_COUNTER_CALLED("CRelCounterValueDim1"),
    .basis = QUORVEX_COUNTER_COULD_NOT("CRelCounterValueDim1", "basic value."),
    .payload = QUORVEX_COUNTER_COULD_NOT("CRelCounterValueDim1", "counter index.")};
constexpr ReadRules kRelCounterValueDim2Rules{
    .header = QUORVEX_COUNTER_CALLED("CRelCounterValueDim2"),
    .basis = QUORVEX_COUNTER_COULD_NOT("CRelCounterValueDim2", "basic couner value."),
    .payload = QUORVEX_COUNTER_COULD_NOT("CRelCounterValueDim2", "counter index.")};
constexpr ReadRules kCounterValueDimNRules{
    .header = QUORVEX_COUNTER_CALLED("CCounterValueDimN"),
    .misfit = "CCounterValueDimN: Read-In Constructor read invalid counter index data.",
    .basis = QUORVEX_COUNTER_COULD_NOT("CCounterValueDimN", "basic value"),
    .payload = {QUORVEX_COUNTER_COULD_NOT("CCounterValueDimN", "counter index."),
                QUORVEX_COUNTER_COULD_NOT("CCounterValueDimN", "index value")}};
constexpr ReadRules kRelCounterValueDimNRules{
    .header = QUORVEX_COUNTER_CALLED("CRelCounterValueDimN"),
    .misfit = "CRelCounterValueDimN: Read-In Constructor read invalid counter index data.",
    .payload = QUORVEX_COUNTER_COULD_NOT("CRelCounterValueDimN", "counter index.")};
constexpr ReadRules kCounterValueVarRules{
    .header = QUORVEX_COUNTER_CALLED("CCounterValueVar"),
    .payload = QUORVEX_COUNTER_COULD_NOT("CCounterValueVar", "variable length counter data from stream")};
constexpr ReadRules kRelCounterValueVarRules{
    .header = QUORVEX_COUNTER_CALLED("CRelCounterValueVar"),
    .payload = QUORVEX_COUNTER_COULD_NOT("CRelCounterValueVar", "variable counter value and index from stream")};

#undef QUORVEX_COUNTER_BASE_RULES
#undef QUORVEX_COUNTER_DEFINE_RULES
#undef QUORVEX_COUNTER_CALLED
#undef QUORVEX_COUNTER_COULD_NOT

CCounterBase::CCounterBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx,
                           std::uint64_t ip, std::uint32_t id)
    : PacketOf({tick, hwCtx, swCtx, ip}, code, id) {}
CCounterBase::CCounterBase(tagTCode code, const CCoreContext& context, std::uint32_t id)
    : PacketOf(context.values(), code, id) {}

CCounterDefineBase::CCounterDefineBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx,
                                       std::uint64_t ip, std::uint32_t id, std::uint8_t dimensions,
                                       const CCharStringSequence& name)
    : PacketOf({tick, hwCtx, swCtx, ip}, code, dimensions, name) {
    CntrId(id);
}
CCounterDefineBase::CCounterDefineBase(tagTCode code, const CCoreContext& context, std::uint32_t id,
                                       std::uint8_t dimensions, const CCharStringSequence& name)
    : PacketOf(context.values(), code, dimensions, name) {
    CntrId(id);
}

CCounterValueBase::CCounterValueBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx,
                                     std::uint64_t ip, std::uint32_t id, TCounter_t value)
    : PacketOf({tick, hwCtx, swCtx, ip}, code, value) {
    CntrId(id);
}
CCounterValueBase::CCounterValueBase(tagTCode code, const CCoreContext& context, std::uint32_t id, TCounter_t value)
    : PacketOf(context.values(), code, value) {
    CntrId(id);
}

CCounterDefine::CCounterDefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                               std::uint32_t id, std::uint8_t dimensions, const CCharStringSequence& name)
    : CCounterDefineBase({tick, hwCtx, swCtx, ip}, kCode, dimensions, name) {
    CntrId(id);
}
CCounterDefine::CCounterDefine(const CCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                               const CCharStringSequence& name)
    : CCounterDefineBase(context.values(), kCode, dimensions, name) {
    CntrId(id);
}

CCounterDefineUnit::CCounterDefineUnit(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                                       std::uint32_t id, std::uint8_t dimensions, const CCharStringSequence& name)
    : CCounterDefineBase({tick, hwCtx, swCtx, ip}, kCode, dimensions, name) {
    CntrId(id);
}
CCounterDefineUnit::CCounterDefineUnit(const CCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                                       const CCharStringSequence& name)
    : CCounterDefineBase(context.values(), kCode, dimensions, name) {
    CntrId(id);
}

CCounterUndefine::CCounterUndefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                                   std::uint32_t id)
    : CCounterBase({tick, hwCtx, swCtx, ip}, kCode, id) {}
CCounterUndefine::CCounterUndefine(const CCoreContext& context, std::uint32_t id)
    : CCounterBase(context.values(), kCode, id) {}

CCounterValue::CCounterValue(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                             std::uint32_t id, TCounter_t value)
    : CCounterValueBase({tick, hwCtx, swCtx, ip}, kCode, value) {
    CntrId(id);
}
CCounterValue::CCounterValue(const CCoreContext& context, std::uint32_t id, TCounter_t value)
    : CCounterValueBase(context.values(), kCode, value) {
    CntrId(id);
}

CCounterValueDim1::CCounterValueDim1(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                                     std::uint32_t id, TCounter_t value, TCounterIdx_t index)
    : PacketOf({tick, hwCtx, swCtx, ip}, kCode, index) {
    CntrId(id);
    CntrVal(value);
}
CCounterValueDim1::CCounterValueDim1(const CCoreContext& context, std::uint32_t id, TCounter_t value,
                                     TCounterIdx_t index)
    : PacketOf(context.values(), kCode, index) {
    CntrId(id);
    CntrVal(value);
}

CCounterValueDim2::CCounterValueDim2(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                                     std::uint32_t id, TCounter_t value, TCounterIdx_t index1, TCounterIdx_t index2)
    : PacketOf({tick, hwCtx, swCtx, ip}, kCode, index1, index2) {
    CntrId(id);
    CntrVal(value);
}
CCounterValueDim2::CCounterValueDim2(const CCoreContext& context, std::uint32_t id, TCounter_t value,
                                     TCounterIdx_t index1, TCounterIdx_t index2)
    : PacketOf(context.values(), kCode, index1, index2) {
    CntrId(id);
    CntrVal(value);
}

CCounterValueDimN::CCounterValueDimN(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                                     std::uint32_t id, TCounter_t value, const CCounterIndexDimN& indices)
    : PacketOf({tick, hwCtx, swCtx, ip}, kCode, indices) {
    CntrId(id);
    CntrVal(value);
}
CCounterValueDimN::CCounterValueDimN(const CCoreContext& context, std::uint32_t id, TCounter_t value,
                                     const CCounterIndexDimN& indices)
    : PacketOf(context.values(), kCode, indices) {
    CntrId(id);
    CntrVal(value);
}

CCounterValueVar::CCounterValueVar(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                                   std::uint32_t id, const CCounterValueVarPayload& counter)
    : PacketOf({tick, hwCtx, swCtx, ip}, kCode, counter) {
    CntrId(id);
}
CCounterValueVar::CCounterValueVar(const CCoreContext& context, std::uint32_t id,
                                   const CCounterValueVarPayload& counter)
    : PacketOf(context.values(), kCode, counter) {
    CntrId(id);
}

CRelCounterBase::CRelCounterBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id)
    : PacketOf({relTick, relIp}, code, id) {}
CRelCounterBase::CRelCounterBase(tagTCode code, const CRelCoreContext& context, std::uint32_t id)
    : PacketOf(context.values(), code, id) {}

CRelCounterDefineBase::CRelCounterDefineBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id,
                                             std::uint8_t dimensions, const CCharStringSequence& name)
    : PacketOf({relTick, relIp}, code, dimensions, name) {
    CntrId(id);
}
CRelCounterDefineBase::CRelCounterDefineBase(tagTCode code, const CRelCoreContext& context, std::uint32_t id,
                                             std::uint8_t dimensions, const CCharStringSequence& name)
    : PacketOf(context.values(), code, dimensions, name) {
    CntrId(id);
}

CRelCounterValueBase::CRelCounterValueBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id,
                                           TCounter_t value)
    : PacketOf({relTick, relIp}, code, value) {
    CntrId(id);
}
CRelCounterValueBase::CRelCounterValueBase(tagTCode code, const CRelCoreContext& context, std::uint32_t id,
                                           TCounter_t value)
    : PacketOf(context.values(), code, value) {
    CntrId(id);
}

CRelCounterDefine::CRelCounterDefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id,
                                     std::uint8_t dimensions, const CCharStringSequence& name)
    : CRelCounterDefineBase({relTick, relIp}, kCode, dimensions, name) {
    CntrId(id);
}
CRelCounterDefine::CRelCounterDefine(const CRelCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                                     const CCharStringSequence& name)
    : CRelCounterDefineBase(context.values(), kCode, dimensions, name) {
    CntrId(id);
}

CRelCounterDefineUnit::CRelCounterDefineUnit(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id,
                                             std::uint8_t dimensions, const CCharStringSequence& name)
    : CRelCounterDefineBase({relTick, relIp}, kCode, dimensions, name) {
    CntrId(id);
}
CRelCounterDefineUnit::CRelCounterDefineUnit(const CRelCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                                             const CCharStringSequence& name)
    : CRelCounterDefineBase(context.values(), kCode, dimensions, name) {
    CntrId(id);
}

CRelCounterUndefine::CRelCounterUndefine(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id)
    : CRelCounterBase({relTick, relIp}, kCode, id) {}
CRelCounterUndefine::CRelCounterUndefine(const CRelCoreContext& context, std::uint32_t id)
    : CRelCounterBase(context.values(), kCode, id) {}

CRelCounterValue::CRelCounterValue(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, TCounter_t value)
    : CRelCounterValueBase({relTick, relIp}, kCode, value) {
    CntrId(id);
}
CRelCounterValue::CRelCounterValue(const CRelCoreContext& context, std::uint32_t id, TCounter_t value)
    : CRelCounterValueBase(context.values(), kCode, value) {
    CntrId(id);
}

CRelCounterValueDim1::CRelCounterValueDim1(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, TCounter_t value,
                                           TCounterIdx_t index)
    : PacketOf({relTick, relIp}, kCode, index) {
    CntrId(id);
    CntrVal(value);
}
CRelCounterValueDim1::CRelCounterValueDim1(const CRelCoreContext& context, std::uint32_t id, TCounter_t value,
                                           TCounterIdx_t index)
    : PacketOf(context.values(), kCode, index) {
    CntrId(id);
    CntrVal(value);
}

CRelCounterValueDim2::CRelCounterValueDim2(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, TCounter_t value,
                                           TCounterIdx_t index1, TCounterIdx_t index2)
    : PacketOf({relTick, relIp}, kCode, index1, index2) {
    CntrId(id);
    CntrVal(value);
}
CRelCounterValueDim2::CRelCounterValueDim2(const CRelCoreContext& context, std::uint32_t id, TCounter_t value,
                                           TCounterIdx_t index1, TCounterIdx_t index2)
    : PacketOf(context.values(), kCode, index1, index2) {
    CntrId(id);
    CntrVal(value);
}

CRelCounterValueDimN::CRelCounterValueDimN(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id, TCounter_t value,
                                           const CCounterIndexDimN& indices)
    : PacketOf({relTick, relIp}, kCode, indices) {
    CntrId(id);
    CntrVal(value);
}
CRelCounterValueDimN::CRelCounterValueDimN(const CRelCoreContext& context, std::uint32_t id, TCounter_t value,
                                           const CCounterIndexDimN& indices)
    : PacketOf(context.values(), kCode, indices) {
    CntrId(id);
    CntrVal(value);
}

CRelCounterValueVar::CRelCounterValueVar(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t id,
                                         const CCounterValueVarPayload& counter)
    : PacketOf({relTick, relIp}, kCode, counter) {
    CntrId(id);
}
CRelCounterValueVar::CRelCounterValueVar(const CRelCoreContext& context, std::uint32_t id,
                                         const CCounterValueVarPayload& counter)
    : PacketOf(context.values(), kCode, counter) {
    CntrId(id);
}

template class PayloadOperations<CCounterBasePayload>;
template class PayloadOperations<CCounterDefineBasePayload>;
template class PayloadOperations<CCounterValueBasePayload>;
template class PayloadOperations<CCounterIndexDim1>;
template class PayloadOperations<CCounterIndexDim2>;
template class PayloadOperations<CCounterIndexDimN>;
template class PayloadOperations<CCounterValueVarPayload>;

template class PacketOf<kCounterBaseRules, CorePacket, CCounterBasePayload>;
template class PacketOf<kCounterDefineBaseRules, CCounterBase, CCounterDefineBasePayload>;
template class PacketOf<kCounterValueBaseRules, CCounterBase, CCounterValueBasePayload>;
template class PacketOf<kCounterValueDim1Rules, CCounterValueBase, CCounterIndexDim1>;
template class PacketOf<kCounterValueDim2Rules, CCounterValueBase, CCounterIndexDim2>;
template class PacketOf<kCounterValueDimNRules, CCounterValueBase, CCounterIndexDimN>;
template class PacketOf<kCounterValueVarRules, CCounterBase, CCounterValueVarPayload>;
template class PacketOf<kRelCounterBaseRules, RelCorePacket, CCounterBasePayload>;
template class PacketOf<kRelCounterDefineBaseRules, CRelCounterBase, CCounterDefineBasePayload>;
template class PacketOf<kRelCounterValueBaseRules, CRelCounterBase, CCounterValueBasePayload>;
template class PacketOf<kRelCounterValueDim1Rules, CRelCounterValueBase, CCounterIndexDim1>;
template class PacketOf<kRelCounterValueDim2Rules, CRelCounterValueBase, CCounterIndexDim2>;
template class PacketOf<kRelCounterValueDimNRules, CRelCounterValueBase, CCounterIndexDimN>;
template class PacketOf<kRelCounterValueVarRules, CRelCounterBase, CCounterValueVarPayload>;

QUORVEX_COMPILE_BASE(CCounterBase)
QUORVEX_COMPILE_BASE(CCounterDefineBase)
QUORVEX_COMPILE_BASE(CCounterValueBase)
QUORVEX_COMPILE_BASE(CRelCounterBase)
QUORVEX_COMPILE_BASE(CRelCounterDefineBase)
QUORVEX_COMPILE_BASE(CRelCounterValueBase)

QUORVEX_COMPILE_PAIR(CounterDefine)
QUORVEX_COMPILE_PAIR(CounterDefineUnit)
QUORVEX_COMPILE_PAIR(CounterUndefine)
QUORVEX_COMPILE_PAIR(CounterValueVar)
QUORVEX_COMPILE_PAIR(CounterValue)
QUORVEX_COMPILE_PAIR(CounterValueDim1)
QUORVEX_COMPILE_PAIR(CounterValueDim2)
QUORVEX_COMPILE_PAIR(CounterValueDimN)

} // namespace Quorvex

#include "quorvex/packets/TraceControlPackets.h"

#include "quorvex/packets/PacketImplementation.h"

namespace Quorvex {

bool CTraceEnabledPayload::decode(const char* from, unsigned size) {
    if (size != 0 && size != 4 && size != 12 && size != 16)
        return false;
    // What is missing at the end takes its default.
    char bytes[Len()];
    *this = CTraceEnabledPayload();
    encodePart(*this, bytes);
    if (size > 0)
        std::memcpy(bytes, from, size);
    fields::Decoder decoder{bytes, Len()};
    fields(*this, decoder);
    return decoder.good;
}

CTimestampPayload::FieldsValid CTimestampPayload::Len2FieldsValid(unsigned length) {
    switch (length) {
    case Len_TS:
        return TimestampValid;
    case Len_TS_HWCtx:
        return FieldsValid(TimestampValid | HWCtxValid);
    case Len_TS_Freq:
        return FieldsValid(TimestampValid | FrequencyValid);
    case Len_TS_HWCtx_Freq:
        return FieldsValid(TimestampValid | HWCtxValid | FrequencyValid);
    default:
        return None;
    }
}

constexpr ReadRules kTraceEnabledRules{.payload = "CTraceEnabled: Read-In constructor could no read payload data.",
                                       .least = 0};
/// Nothing can fail.
constexpr ReadRules kNoRules{};
constexpr ReadRules kTimestampRules{.payload = "CTimestamp: Read-In Constructor coud not read timestamp from stream"};
constexpr ReadRules kFillRules{.payload = "CFill: Read-In Constructor could not read valid Fill packet from stream."};
constexpr ReadRules kSyncRules{.size = "CSync: Read-In Constructor invalid buffer size supplied",
                               .context = {"CSync: Read-In Constructor could not read absolute context from stream",
                                           "CSync: Read-In Constructor could not read sync data from stream."}};

CTraceEnabled::CTraceEnabled(std::uint64_t frameLen, TraceExpansion expansion, bool exceptionFrames)
    : PacketOf({}, kCode, frameLen, expansion, exceptionFrames) {}
CTraceEnabled::CTraceEnabled(std::uint64_t frameLen, const SFrameConfig& config)
    : PacketOf({}, kCode, frameLen, config) {}

CFill::CFill(std::uint8_t count) : PacketOf({}, kCode, count) {}

CSync::CSync(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip)
    : PacketOf({tick, hwCtx, swCtx, ip}, kCode) {}
CSync::CSync(const CCoreContext& context) : PacketOf(context.values(), kCode) {}

CTimestamp::CTimestamp(std::uint64_t timestamp) : PacketOf({}, kCode, timestamp) {}
CTimestamp::CTimestamp(std::uint64_t timestamp, std::uint32_t hwCtx) : PacketOf({}, kCode, timestamp, hwCtx) {}
CTimestamp::CTimestamp(std::uint64_t timestamp, std::uint64_t frequency) : PacketOf({}, kCode, timestamp, frequency) {}
CTimestamp::CTimestamp(std::uint64_t timestamp, std::uint32_t hwCtx, std::uint64_t frequency)
    : PacketOf({}, kCode, timestamp, hwCtx, frequency) {}

template class PayloadOperations<CTraceEnabledPayload>;
template class PayloadOperations<CTimestampPayload>;
template class PayloadOperations<CFillPayload>;

template class PacketOf<kTraceEnabledRules, PlainPacket, CTraceEnabledPayload>;
template class PacketOf<kNoRules, PlainPacket>;
template class PacketOf<kFillRules, PlainPacket, CFillPayload>;
template class PacketOf<kSyncRules, CorePacket>;
template class PacketOf<kTimestampRules, PlainPacket, CTimestampPayload>;

QUORVEX_COMPILE_KIND(TraceEnabled)
QUORVEX_COMPILE_KIND(TraceDisabled)
QUORVEX_COMPILE_KIND(EndOfTrace)
QUORVEX_COMPILE_KIND(Fill)
QUORVEX_COMPILE_KIND(Sync)
QUORVEX_COMPILE_KIND(Timestamp)

} // namespace Quorvex

#include "quorvex/packets/TraceControlPackets.h"

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

} // namespace Quorvex

#include "quorvex/stream/TraceSourceBufferIStream.h"

namespace Quorvex {

CTraceSourceBufferIStream::CTraceSourceBufferIStream(const ATL::CComQIPtr<IStream>& stream)
    : CTraceSourceBufferCom("CTraceSourceBufferIStream"), m_stream(stream) {}

bool CTraceSourceBufferIStream::take(char* dst, unsigned count, unsigned& got) {
    ULONG taken = 0;
    const HRESULT result = m_stream->Read(dst, count, &taken);
    got = taken;
    return SUCCEEDED(result);
}

} // namespace Quorvex

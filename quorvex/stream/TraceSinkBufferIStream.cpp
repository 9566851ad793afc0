#include "quorvex/stream/TraceSinkBufferIStream.h"

#include "quorvex/format/Exception.h"

namespace Quorvex {

CTraceSinkBufferIStream::CTraceSinkBufferIStream(const ATL::CComQIPtr<IStream>& stream) : m_stream(stream) {}

bool CTraceSinkBufferIStream::write(const char* src, unsigned count, unsigned& written) {
    written = 0;
    if (!m_stream)
        return false;
    if (count == 0)
        return true;
    ULONG taken = 0;
    const HRESULT result = m_stream->Write(src, count, &taken);
    written = taken;
    CQVXException::ThrowFromHResult(result);
    return written != 0;
}

bool CTraceSinkBufferIStream::write(const char* src, unsigned count, std::uint64_t position, unsigned& written) {
    written = 0;
    std::uint64_t current = 0;
    return ((m_stream.tell(current) && current == position) || m_stream.seek(position)) && write(src, count, written);
}

bool CTraceSinkBufferIStream::eof() {
    std::uint64_t position = 0;
    std::uint64_t size = 0;
    return !m_stream.tell(position) || !m_stream.seekEnd(size) || !m_stream.seek(position) || position == size;
}

std::uint64_t CTraceSinkBufferIStream::tellp() {
    std::uint64_t position = 0;
    return m_stream.tell(position) ? position : 0;
}

} // namespace Quorvex

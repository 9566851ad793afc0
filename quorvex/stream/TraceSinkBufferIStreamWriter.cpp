#include "quorvex/stream/TraceSinkBufferIStreamWriter.h"

#include "quorvex/format/Exception.h"

namespace Quorvex {

CTraceSinkBufferIStreamWriter::CTraceSinkBufferIStreamWriter(IStreamWriter* writer) : m_writer(writer) {
    if (m_writer && FAILED(m_writer->Tell(&m_position)))
        m_position = 0;
}

bool CTraceSinkBufferIStreamWriter::write(const char* src, unsigned count, unsigned& written) {
    written = 0;
    if (bad() || !m_writer)
        return false;
    if (count == 0)
        return true;
    const HRESULT result = m_writer->Write(src, count, &written);
    if (result == S_OK)
        clear();
    else
        setstate(result == kDiskFullResult ? badbit : failbit);
    if (FAILED(result))
        CQVXException::ThrowHResult(result);
    m_position += written;
    return written != 0;
}

bool CTraceSinkBufferIStreamWriter::write(const char* src, unsigned count, std::uint64_t position, unsigned& written) {
    written = 0;
    return position == m_position && write(src, count, written);
}

} // namespace Quorvex

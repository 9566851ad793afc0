#include "quorvex/stream/TraceSourceBufferIStreamReader.h"

namespace Quorvex {

CTraceSourceBufferIStreamReader::CTraceSourceBufferIStreamReader(IStreamReader* reader)
    : CTraceSourceBufferCom("CTraceSourceBufferIStreamReader"), m_reader(reader) {}

bool CTraceSourceBufferIStreamReader::take(char* dst, unsigned count, unsigned& got) {
    return SUCCEEDED(m_reader->Read(dst, count, &got));
}

bool CTraceSourceBufferIStreamReader::tell(std::uint64_t& position) {
    return m_reader && SUCCEEDED(m_reader->Tell(&position));
}

bool CTraceSourceBufferIStreamReader::seek(std::uint64_t position) {
    return m_reader && SUCCEEDED(m_reader->Seek(static_cast<std::int64_t>(position), STREAM_SEEK_SET));
}

bool CTraceSourceBufferIStreamReader::seekEnd(std::uint64_t& size) {
    return m_reader && SUCCEEDED(m_reader->Seek(0, STREAM_SEEK_END)) && tell(size);
}

} // namespace Quorvex

#pragma once

#include "quorvex/stream/ComStream.h"
#include "quorvex/stream/TraceSourceBufferCom.h"

namespace Quorvex {

/// Bytes of a COM stream, to which the buffer holds a reference.
class QUORVEX_API CTraceSourceBufferIStream : public CTraceSourceBufferCom {
public:
    /// Null makes a buffer that is never good. Throws a CQVXException when the object does not give its IStream.
    explicit CTraceSourceBufferIStream(const ATL::CComQIPtr<IStream>& stream);

    bool good() override { return static_cast<bool>(m_stream); }

private:
    bool take(char* dst, unsigned count, unsigned& got) override;
    bool tell(std::uint64_t& position) override { return m_stream.tell(position); }
    bool seek(std::uint64_t position) override { return m_stream.seek(position); }
    bool seekEnd(std::uint64_t& size) override { return m_stream.seekEnd(size); }

    const detail::ComStream m_stream;
};

} // namespace Quorvex

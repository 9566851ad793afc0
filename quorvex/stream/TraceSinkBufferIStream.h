#pragma once

#include "quorvex/stream/ComStream.h"
#include "quorvex/stream/TraceSinkBuffer.h"

namespace Quorvex {

/// Bytes to a COM stream, to which the buffer holds a reference. A write for which the stream answers invalid pointer,
/// out of memory or disk full throws the CQVXException of that kind; after any other failure `written` is what the
/// stream says.
class QUORVEX_API CTraceSinkBufferIStream : public CTraceSinkBuffer {
public:
    /// Null makes a buffer that is never good. Throws a CQVXException when the object does not give its IStream.
    explicit CTraceSinkBufferIStream(const ATL::CComQIPtr<IStream>& stream);

    bool write(const char* src, unsigned count, std::uint64_t position, unsigned& written) override;
    bool write(const char* src, unsigned count, unsigned& written) override;
    /// Also true when position or size cannot be told.
    bool eof() override;
    bool good() override { return static_cast<bool>(m_stream); }
    void flush() override {}
    void clear() override {}
    std::uint64_t tellp() override; ///< 0 when it cannot be told

private:
    detail::ComStream m_stream;
};

} // namespace Quorvex

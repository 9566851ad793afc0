#pragma once

#include "quorvex/stream/IStreamWriter.h"
#include "quorvex/stream/TraceBufferState.h"
#include "quorvex/stream/TraceSinkBuffer.h"

namespace Quorvex {

/// Bytes to a host's writer, to which the buffer holds a reference. It cannot seek: a write goes to tellp() or fails.
///
/// A write that the writer fails throws the CQVXException of its result, which HResultFromException gives back. The
/// buffer is not good from any answer but S_OK until the next S_OK; after disk full nothing is offered to the writer
/// until clear() is called.
class QUORVEX_API CTraceSinkBufferIStreamWriter : public CTraceSinkBuffer, private CTraceBufferState {
public:
    /// Goes on where the writer stands. Null makes a buffer that is never good.
    explicit CTraceSinkBufferIStreamWriter(IStreamWriter* writer);

    bool write(const char* src, unsigned count, std::uint64_t position, unsigned& written) override;
    bool write(const char* src, unsigned count, unsigned& written) override;
    bool eof() override { return true; }
    bool good() override { return m_writer && CTraceBufferState::good(); }
    void flush() override {}
    void clear() override { CTraceBufferState::clear(); }
    std::uint64_t tellp() override { return m_position; }

private:
    ATL::CComPtr<IStreamWriter> m_writer;
    std::uint64_t m_position = 0;
};

} // namespace Quorvex

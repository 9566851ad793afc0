#pragma once

#include "quorvex/stream/TraceSinkBuffer.h"

#include <iosfwd>

namespace Quorvex {

/// Bytes to a standard output stream, which must outlive the buffer. What the stream throws is reported to the message
/// log and is a failed write.
class QUORVEX_API CTraceSinkBufferStream : public CTraceSinkBuffer {
public:
    explicit CTraceSinkBufferStream(std::ostream& stream) : m_stream(&stream) {}

    bool write(const char* src, unsigned count, std::uint64_t position, unsigned& written) override;
    bool write(const char* src, unsigned count, unsigned& written) override;
    bool eof() override;
    bool good() override;
    void flush() override;
    void clear() override;
    /// Bytes that this sink has written, wherever to: not the position of the stream.
    std::uint64_t tellp() override { return m_count; }

protected:
    std::uint64_t sink_tell();              ///< where the next byte goes
    bool sink_seek(std::uint64_t position); ///< goes on from that place
    /// The stream begins anew, or goes on behind `count` bytes that are already there.
    void restart(std::uint64_t count);

private:
    std::uint64_t m_count = 0;
    std::ostream* m_stream;
    bool m_sequential = true; ///< no write has gone elsewhere: the next one lands at m_count
};

} // namespace Quorvex

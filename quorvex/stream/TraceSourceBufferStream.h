#pragma once

#include "quorvex/platform/Owned.h"
#include "quorvex/stream/TraceSourceBuffer.h"

#include <cstdint>
#include <iosfwd>

namespace Quorvex {

/// Bytes of a standard input stream, which must outlive the buffer. Every operation holds the buffer's lock, so that a
/// second thread may ask for position and size while one reads.
class QUORVEX_API CTraceSourceBufferStream : public CTraceSourceBuffer {
public:
    explicit CTraceSourceBufferStream(std::istream& stream); ///< throws std::bad_alloc
    CTraceSourceBufferStream(const CTraceSourceBufferStream&) = delete;

    bool read(char* dst, unsigned count, std::uint64_t position, unsigned& got) override;
    bool read(char* dst, unsigned count, unsigned& got) override;
    bool eof() override;
    bool good() override;
    /// Goes back to where a read has failed, which may have moved on in the stream. Where the stream tells no places,
    /// what that read has taken is lost.
    void clear() override;
    std::uint64_t position() override { return tell(); }
    std::uint64_t size() override;
    void flush() override {}

protected:
    bool seek(std::uint64_t position); ///< goes on from that place
    std::uint64_t tell();              ///< where the next byte comes from

private:
    struct Lock;

    std::int64_t place(); ///< the same; -1 where the stream does not tell

    std::istream& m_stream;
    std::int64_t m_next = -1; ///< behind what the last read gave
    platform::Owned<Lock> m_lock;
};

} // namespace Quorvex

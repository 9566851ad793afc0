#pragma once

#include "quorvex/stream/TraceSourceBuffer.h"

#include <mutex>

namespace Quorvex {

/// What the sources over a host's stream do alike. Every operation holds the buffer's lock, so that a second thread may
/// ask for position and size while one reads; nobody else may move the stream meanwhile.
class QUORVEX_API CTraceSourceBufferCom : public CTraceSourceBuffer {
public:
    bool read(char* dst, unsigned count, std::uint64_t position, unsigned& got) override;
    bool read(char* dst, unsigned count, unsigned& got) override;
    /// Also true when position or size cannot be told.
    bool eof() override;
    void clear() override {}
    std::uint64_t position() override; ///< 0 when it cannot be told
    std::uint64_t size() override;     ///< 0 when it cannot be told
    void flush() override {}

protected:
    /// `name` is the class's own, a literal, for its messages.
    explicit CTraceSourceBufferCom(const char* name) : m_name(name) {}

private:
    // The steps on the stream, called under the lock; false when one fails, and without a stream. Bytes are only taken
    // while there is one.
    virtual bool take(char* dst, unsigned count, unsigned& got) = 0;
    virtual bool tell(std::uint64_t& position) = 0;
    virtual bool seek(std::uint64_t position) = 0;
    virtual bool seekEnd(std::uint64_t& size) = 0;

    bool measure(std::uint64_t& position, std::uint64_t& size);

    const char* m_name;
    std::recursive_mutex m_lock;
};

} // namespace Quorvex

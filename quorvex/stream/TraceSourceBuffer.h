#pragma once

#include "quorvex/platform/Export.h"

#include <cstdint>

namespace Quorvex {

/// Where readers take their bytes from. `got` is what was read; a read is true when that is not 0, and a request for
/// nothing succeeds at once.
class QUORVEX_API CTraceSourceBuffer {
public:
    virtual ~CTraceSourceBuffer() = default;
    /// Reads at `position`; false with nothing read when it cannot be reached.
    virtual bool read(char* dst, unsigned count, std::uint64_t position, unsigned& got) = 0;
    /// Reads up to `count` bytes at the current position.
    virtual bool read(char* dst, unsigned count, unsigned& got) = 0;
    virtual bool eof() = 0;
    virtual bool good() = 0;
    virtual void clear() = 0;
    virtual std::uint64_t position() = 0; ///< of the next byte
    virtual std::uint64_t size() = 0;
    virtual void flush() = 0;
};

} // namespace Quorvex

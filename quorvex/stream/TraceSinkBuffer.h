#pragma once

#include "quorvex/platform/Export.h"

#include <cstdint>

namespace Quorvex {

/// Where writers put their bytes. `written` is what was taken; a write is true when that is not 0, and a request for
/// nothing succeeds at once.
class QUORVEX_API CTraceSinkBuffer {
public:
    virtual ~CTraceSinkBuffer() = default;
    /// Writes at `position`; false with nothing written when it cannot be reached. With a count of 0 it only moves
    /// there.
    virtual bool write(const char* src, unsigned count, std::uint64_t position, unsigned& written) = 0;
    /// Writes at the current position.
    virtual bool write(const char* src, unsigned count, unsigned& written) = 0;
    virtual bool eof() = 0;
    virtual bool good() = 0;
    virtual void flush() = 0;
    virtual void clear() = 0;
    virtual std::uint64_t tellp() = 0;
};

} // namespace Quorvex

#pragma once

#include "quorvex/platform/Export.h"

#include <cstring>
#include <iosfwd>

namespace Quorvex {

/// Moves runs of raw bytes between memory, buffers and streams. What a stream throws passes through.
struct QUORVEX_API TraceStreamFormatter {
    /// Reads `count` bytes to `dst`; false for a null `dst` or when the stream is not good afterwards.
    static bool read(std::istream& in, unsigned count, unsigned char* dst);
    static bool write(std::ostream& out, unsigned count, const unsigned char* src);
    /// Copies `count` of the `available` bytes of `buffer` to `dst`; returns `count`, or 0 when there are fewer.
    static unsigned read(const char* buffer, unsigned available, unsigned count, unsigned char* dst) {
        if (!buffer || !dst || available < count)
            return 0;
        std::memcpy(dst, buffer, count);
        return count;
    }
    static unsigned write(char* buffer, unsigned available, unsigned count, const unsigned char* src) {
        if (!buffer || !src || available < count)
            return 0;
        std::memcpy(buffer, src, count);
        return count;
    }
};

} // namespace Quorvex

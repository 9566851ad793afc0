#pragma once

#include <cstdint>

namespace Quorvex {

/// What of a trace could not be read and was stepped over.
struct TraceDamage {
    std::uint64_t places = 0; ///< how many; of a table, rows
    std::uint64_t bytes = 0;  ///< in all of them; 0 for a table
    std::uint64_t first = 0;  ///< offset of the first place; of a table, in the binary form of the rows that were read
    std::uint64_t end = 0;    ///< behind the last place; 0 for a table

    /// Adds what stands behind all of this. Places without a gap between them are one.
    void join(const TraceDamage& next) {
        if (next.places == 0)
            return;
        if (places == 0)
            first = next.first;
        places += next.places - (places > 0 && next.first == end);
        bytes += next.bytes;
        end = next.end;
    }
};

} // namespace Quorvex

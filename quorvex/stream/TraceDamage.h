#pragma once

#include <cstdint>

namespace Quorvex {

/// What of a trace could not be read and was stepped over.
struct TraceDamage {
    std::uint64_t places = 0; ///< how many; of a table, rows
    std::uint64_t bytes = 0;  ///< in all of them; 0 for a table
    std::uint64_t first = 0;  ///< offset of the first place; of a table, in the binary form of the rows that were read
};

} // namespace Quorvex

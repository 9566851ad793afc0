#pragma once

#include <compare>
#include <cstdint>

namespace Quorvex::platform {

/// What tells a file from all others that there are at the moment, whatever names it has.
struct FileIdentity {
    std::uint64_t volume = 0; ///< the file system that it is on
    std::uint64_t index = 0;  ///< its number there
    auto operator<=>(const FileIdentity&) const = default;
};

} // namespace Quorvex::platform

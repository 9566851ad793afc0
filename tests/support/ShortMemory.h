#pragma once

#include <cstddef>

namespace Quorvex::test {

/// While it lives, the calling thread finds no memory once: for the allocation of that number, counted from 0 among
/// those of at least `size` bytes. One at a time.
class ShortMemory {
public:
    explicit ShortMemory(unsigned number, std::size_t size = 0);
    ShortMemory(const ShortMemory&) = delete;
    ShortMemory& operator=(const ShortMemory&) = delete;
    ~ShortMemory();

    bool came() const; ///< there was such an allocation
};

} // namespace Quorvex::test

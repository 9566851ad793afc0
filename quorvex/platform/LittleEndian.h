#pragma once

#include <bit>
#include <cstring>
#include <type_traits>

namespace Quorvex {

static_assert(std::endian::native == std::endian::little, "the wire order is taken for the machine's own order");

/// The value whose little-endian bytes stand at `from`; `from` needs no alignment.
template <class T> T loadLittleEndian(const char* from) {
    static_assert(std::is_trivially_copyable_v<T>);
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

/// Puts the bytes of `value` at `to`, lowest byte first; `to` needs no alignment.
template <class T> void storeLittleEndian(char* to, T value) {
    static_assert(std::is_trivially_copyable_v<T>);
    std::memcpy(to, &value, sizeof value);
}

} // namespace Quorvex

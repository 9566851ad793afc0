#pragma once

#include <cstdint>
#include <type_traits>

namespace Quorvex {

/// The standard unsigned integer that none of uint8_t to uint64_t is: `unsigned long long` where uint64_t is
/// `unsigned long`, and `unsigned long` elsewhere. What takes the integers of fixed width takes this one too, as that
/// of its size, so that a host may write either on every system.
using OtherUnsigned =
    std::conditional_t<std::is_same_v<std::uint64_t, unsigned long>, unsigned long long, unsigned long>;

} // namespace Quorvex

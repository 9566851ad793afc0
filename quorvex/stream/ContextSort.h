#pragma once

#include "quorvex/packets/PacketKinds.h"

#include <array>
#include <concepts>
#include <cstdint>

namespace Quorvex {

/// The three sorts of context that have an absolute and a relative form.
enum class ContextSort : std::uint8_t { None, Core, Bus, System };

namespace detail {
template <class Context>
inline constexpr ContextSort kSortOf = std::same_as<Context, CCoreContext>     ? ContextSort::Core
                                       : std::same_as<Context, CBusContext>    ? ContextSort::Bus
                                       : std::same_as<Context, CSystemContext> ? ContextSort::System
                                                                               : ContextSort::None;

inline constexpr std::array<ContextSort, 256> kAbsoluteSorts = [] {
    std::array<ContextSort, 256> sorts{};
#define QUORVEX_PACKET(name)
#define QUORVEX_ABSOLUTE_PACKET(name) sorts[name] = kSortOf<C##name::Context>;
#include "quorvex/packets/Packets.def"
    return sorts;
}();
} // namespace detail

/// The sort of context of a kind that has a relative form; None for all others.
constexpr ContextSort sortOfAbsolute(tagTCode code) {
    return code < detail::kAbsoluteSorts.size() ? detail::kAbsoluteSorts[code] : ContextSort::None;
}

/// The sort of context of a relative kind; None for all others.
constexpr ContextSort sortOfRelative(tagTCode code) {
    return sortOfAbsolute(tagTCode(code + 0x10));
}

/// The sort of context that a packet of that code restates; None when it is no sync packet.
constexpr ContextSort sortOfSync(tagTCode code) {
    return code == Sync         ? ContextSort::Core
           : code == BusSync    ? ContextSort::Bus
           : code == SystemSync ? ContextSort::System
                                : ContextSort::None;
}

} // namespace Quorvex

#pragma once

/// What the factory does with packets, by kind. PacketImplementation.h defines it, the source of each family compiles
/// it for its kinds.

#include "quorvex/format/Packet.h"

#include <iosfwd>

namespace Quorvex {

/// Each returns a new packet. `copy` returns null for a packet that is not of the kind.
template <class Packet> struct KindFunctions {
    /// A packet of the kind in its default state.
    static CPacket* create();
    static CPacket* read(const CPacketHeader& header, std::istream& in);
    static CPacket* read(const CPacketHeader& header, const char* buffer, unsigned size, unsigned& consumed);
    /// A copy of a packet of the kind.
    static CPacket* copy(const CPacket& packet);
};

/// Conversions between an absolute kind and its relative form; null where it cannot be done.
template <class Abs, class Rel> struct PairFunctions {
    /// The relative form after `last`; null if it cannot be told.
    static CPacket* toRelative(const CPacket& packet, const typename Abs::Context& last);
    /// The absolute form after `last`.
    static CPacket* toAbsolute(const CPacket& packet, const typename Abs::Context& last);
};

} // namespace Quorvex

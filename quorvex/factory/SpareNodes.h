#pragma once

/// The nodes of lists of packets, which threads keep as they keep packets (platform/FreeList.h).

#include "quorvex/format/Packet.h"

#include <list>

namespace Quorvex::detail {

/// The nodes that a thread keeps at most: as many as there can be packets in a block that a reader reads.
inline constexpr std::size_t kMostSpareNodes = 0x10000;

/// Inserts a packet, in a node that this thread has kept if it has one; where it stands. Throws std::bad_alloc.
std::list<CPacket*>::iterator insert(std::list<CPacket*>& packets, std::list<CPacket*>::const_iterator before,
                                     CPacket* packet);
inline void append(std::list<CPacket*>& packets, CPacket* packet) {
    insert(packets, packets.end(), packet);
}
/// Empties a list, not the packets, and keeps its nodes.
void clear(std::list<CPacket*>& packets);

} // namespace Quorvex::detail

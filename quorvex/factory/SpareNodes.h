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

/// Appends many packets to a list, in the nodes that this thread has kept, as far as they go. The list has them when
/// this is destroyed, and is not touched before.
class Appending {
public:
    explicit Appending(std::list<CPacket*>& packets);
    Appending(const Appending&) = delete;
    Appending& operator=(const Appending&) = delete;
    ~Appending();

    /// Makes sure that there is a node for the next packet. Throws std::bad_alloc.
    void reserve() {
        if (m_next == m_nodes.end())
            m_next = m_nodes.insert(m_next, nullptr);
    }
    void append(CPacket* packet) noexcept { ///< behind reserve()
        *m_next++ = packet;
        ++m_count;
    }
    std::size_t count() const { return m_count; } ///< how many so far

private:
    std::list<CPacket*>& m_packets;
    std::list<CPacket*> m_nodes; ///< those in use, then those that this thread had kept
    std::list<CPacket*>::iterator m_next;
    std::size_t m_count = 0;
};

} // namespace Quorvex::detail

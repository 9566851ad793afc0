#include "quorvex/factory/SpareNodes.h"

#include "quorvex/platform/FreeList.h"

namespace Quorvex::detail {

namespace {

using Nodes = platform::OfThread<std::list<CPacket*>>;

} // namespace

std::list<CPacket*>::iterator insert(std::list<CPacket*>& packets, std::list<CPacket*>::const_iterator before,
                                     CPacket* packet) {
    std::list<CPacket*>* const spare = Nodes::find();
    if (!spare || spare->empty())
        return packets.insert(before, packet);
    const auto node = spare->begin();
    *node = packet;
    packets.splice(before, *spare, node);
    return node;
}

void clear(std::list<CPacket*>& packets) {
    if (std::list<CPacket*>* const spare = Nodes::get()) {
        const std::size_t room = kMostSpareNodes - spare->size();
        if (packets.size() > room)
            packets.resize(room);
        spare->splice(spare->begin(), packets);
    }
    packets.clear();
}

Appending::Appending(std::list<CPacket*>& packets) : m_packets(packets) {
    // Out of reach of what is called meanwhile, which may keep nodes of its own.
    if (std::list<CPacket*>* const spare = Nodes::find())
        m_nodes.swap(*spare);
    m_next = m_nodes.begin();
}

Appending::~Appending() {
    // A list counts the nodes that it takes out of another one: take the shorter part. (Where it is the first one,
    // m_next is a node, which stays what it is when lists are swapped; their ends do not.)
    std::list<CPacket*> unused;
    if (m_count >= m_nodes.size() - m_count) {
        unused.splice(unused.end(), m_nodes, m_next, m_nodes.end());
    } else {
        unused.swap(m_nodes);
        m_nodes.splice(m_nodes.end(), unused, unused.begin(), m_next);
    }
    m_packets.splice(m_packets.end(), m_nodes);
    if (!unused.empty())
        clear(unused);
}

} // namespace Quorvex::detail

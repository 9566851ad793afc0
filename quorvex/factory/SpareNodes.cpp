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

} // namespace Quorvex::detail

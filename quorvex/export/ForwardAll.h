#pragma once

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/stream/TraceSink.h"

#include <list>

namespace Quorvex {

/// A sink's `forward` of a list, for sinks whose `put` writes what can never be taken back: what was written is
/// released, whatever becomes of the packets behind it, so that a retry writes nothing twice. True when the list ends
/// empty.
inline bool forwardEach(CTraceSink& sink, std::list<CPacket*>& packets) {
    std::list<CPacket*> written;
    while (!packets.empty() && (!packets.front() || sink.put(packets.front())))
        written.splice(written.end(), packets, packets.begin());
    if (!CPacketFactory::release(written))
        packets.splice(packets.begin(), written);
    return packets.empty();
}

/// The same, and a flush behind it.
inline bool forwardAll(CTraceSink& sink, std::list<CPacket*>& packets) {
    const bool isDone = forwardEach(sink, packets);
    sink.flush();
    return isDone;
}

} // namespace Quorvex

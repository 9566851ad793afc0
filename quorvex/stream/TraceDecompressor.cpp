#include "quorvex/stream/TraceDecompressor.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/KindFacts.h"

#include <iterator>
#include <utility>

namespace Quorvex {

namespace {

const char* failureOf(ContextSort sync) {
    return sync == ContextSort::Core ? "CTraceDecompressor::decompress(): Could not cast Sync packet to CCoreContext."
           : sync == ContextSort::Bus
               ? "CTraceDecompressor::decompress(): Could not cast BusSync packet to CBusContext."
               : "CTraceDecompressor::decompress(): Could not cast SystemSync packet to "
                 "CSystemContext.";
}

} // namespace

CTraceDecompressor::~CTraceDecompressor() {
    CPacketFactory::release(m_pending);
}

inline bool CTraceDecompressor::convert(CPacket*& packet) {
    const tagTCode code = packet->TraceCode();
    const KindFacts& kind = factsOf(code);
    CPacket* absolute = nullptr;
    if (kind.isRelative) {
        absolute = m_contexts.absolute(*packet, kind.context);
        if (!absolute) {
            logError("CTraceDecompressor::decompress(): Could not create decompressed packet!");
            return false;
        }
    } else if (kind.sync != ContextSort::None) {
        if (!m_contexts.note(*packet)) {
            logError(failureOf(kind.sync));
            return false;
        }
        if (!m_dropSync)
            return true;
    } else if (code != Fill || !m_dropFill) {
        return true;
    }
    delete std::exchange(packet, absolute);
    return true;
}

CPacket* CTraceDecompressor::get() {
    while (!m_pending.empty()) {
        CPacket* packet = m_pending.front();
        m_pending.pop_front();
        if (packet)
            return packet;
    }
    while (CPacket* packet = m_upstream.get()) {
        if (!convert(packet)) {
            CPacketFactory::releaseCPacket(&packet);
            return nullptr;
        }
        if (packet)
            return packet;
    }
    return nullptr;
}

bool CTraceDecompressor::get(std::list<CPacket*>& packets) {
    if (m_pending.empty()) {
        try {
            if (!m_upstream.get(m_pending))
                return false;
        } catch (...) {
            decompress(); // what has come before
            throw;
        }
        if (!decompress())
            return false;
    }
    packets.splice(packets.end(), m_pending);
    return true;
}

bool CTraceDecompressor::decompress() {
    std::list<CPacket*> dropped;
    for (auto at = m_pending.begin(); at != m_pending.end();) {
        const auto next = std::next(at);
        if (*at && !convert(*at)) {
            CPacketFactory::release(m_pending);
            return false;
        }
        if (!*at)
            dropped.splice(dropped.end(), m_pending, at);
        at = next;
    }
    if (!CPacketFactory::release(dropped)) // which keeps their nodes
        logError("CTraceDecompressor::decompress(): Leaking decompressed packets!");
    return true;
}

} // namespace Quorvex

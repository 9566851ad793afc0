#include "quorvex/stream/TraceDecompressor.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/KindFacts.h"

#include <iterator>

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

CPacket* CTraceDecompressor::get() {
    while (true) {
        while (!m_pending.empty()) {
            CPacket* packet = m_pending.front();
            m_pending.pop_front();
            if (packet)
                return packet;
        }
        CPacket* packet = m_upstream.get();
        if (!packet)
            return nullptr;
        if (!treats(packet->TraceCode()))
            return packet;
        m_pending.push_back(packet);
        if (!decompress()) {
            CPacketFactory::release(m_pending);
            return nullptr;
        }
    }
}

bool CTraceDecompressor::get(std::list<CPacket*>& packets) {
    if (!m_upstream.get(m_pending))
        return false;
    if (!decompress()) {
        CPacketFactory::release(m_pending);
        return false;
    }
    packets.splice(packets.end(), m_pending);
    return true;
}

bool CTraceDecompressor::treats(tagTCode code) const {
    return sortOfRelative(code) != ContextSort::None || sortOfSync(code) != ContextSort::None ||
           (code == Fill && m_dropFill);
}

bool CTraceDecompressor::decompress() {
    std::list<CPacket*> garbage;
    bool good = true;
    for (auto at = m_pending.begin(); good && at != m_pending.end();) {
        const auto next = std::next(at);
        CPacket* packet = *at;
        const tagTCode code = packet ? packet->TraceCode() : Invalid;
        if (sortOfRelative(code) != ContextSort::None) {
            CPacket* absolute = m_contexts.absolute(*packet);
            good = absolute != nullptr;
            if (good) {
                m_pending.insert(at, absolute);
                garbage.splice(garbage.end(), m_pending, at);
            } else {
                logError("CTraceDecompressor::decompress(): Could not create decompressed packet!");
            }
        } else if (const ContextSort sync = sortOfSync(code); sync != ContextSort::None) {
            good = m_contexts.note(*packet);
            if (!good)
                logError(failureOf(sync));
            else if (m_dropSync)
                garbage.splice(garbage.end(), m_pending, at);
        } else if (code == Fill && m_dropFill) {
            garbage.splice(garbage.end(), m_pending, at);
        }
        at = next;
    }
    if (!CPacketFactory::release(garbage))
        logError("CTraceDecompressor::decompress(): Leaking decompressed packets!");
    return good;
}

} // namespace Quorvex

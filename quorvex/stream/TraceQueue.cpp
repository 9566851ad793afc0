#include "quorvex/stream/TraceQueue.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/format/MessageQueue.h"

#include <mutex>
#include <string>

namespace Quorvex {

CTraceQueue::~CTraceQueue() {
    std::list<CPacket*> rest;
    if (m_packets.move_to(rest) && !CPacketFactory::release(rest))
        logError("~CTraceQueue(): CPacketFactory::release failed. Leaking" + std::to_string(rest.size()) + "packets.");
}

void CTraceQueue::clear() {
    m_good = true;
    m_eot = false;
}

tagTCode CTraceQueue::peek() {
    const std::lock_guard hold(m_packets); // nobody else may take and release the packet while it is asked
    if (m_packets.empty()) {
        m_good = false;
        return Sync;
    }
    const CPacket* packet = m_packets.front();
    return packet ? packet->TraceCode() : Sync;
}

CPacket* CTraceQueue::get() {
    CPacket* packet = m_packets.get();
    if (!packet)
        m_good = false;
    else if (packet->TraceCode() == EndOfTrace)
        m_eot = true;
    return packet;
}

// The entry is allocated before anything changes hands, and outside the lock.

bool CTraceQueue::put(CPacket* packet) {
    if (!packet) {
        logError("CTraceQueue: Bad pointer on input of put() function.");
        return false;
    }
    try {
        std::list<CPacket*> entry(1);
        entry.front() = CPacketFactory::duplicate(packet);
        if (entry.front())
            return m_packets.splice(entry);
    } catch (const std::exception& exception) {
        logException("CTraceQueue::put: Catched exception ", exception.what());
    }
    m_good = false;
    return false;
}

bool CTraceQueue::forward(CPacket*& packet) {
    if (!packet) {
        logError("CTraceQueue: Bad pointer on input of forward() function.");
        return false;
    }
    try {
        std::list<CPacket*> entry(1, packet);
        packet = nullptr;
        return m_packets.splice(entry);
    } catch (const std::exception& exception) {
        logException("CTraceQueue::forward: Catched exception ", exception.what());
        return false;
    }
}

} // namespace Quorvex

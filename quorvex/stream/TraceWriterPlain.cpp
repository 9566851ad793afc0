#include "quorvex/stream/TraceWriterPlain.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/KindFacts.h"

#include <cstring>
#include <iterator>

namespace Quorvex {

namespace {

/// A block that is filled less has room for every packet without a text behind it.
constexpr unsigned kRoomForAny = kBlockSize - (CPacketHeader::Len() + UINT8_MAX);

} // namespace

CTraceWriterPlain::~CTraceWriterPlain() = default;

void CTraceWriterPlain::check_initial_pos() {
    if (const std::uint64_t position = m_target.tellp())
        m_base = position;
}

bool CTraceWriterPlain::put(CPacket* packet) {
    // Most packets have no text behind them, and there is room for any of them.
    if (m_fill < kRoomForAny && packet && factsOf(packet->CPacketHeader::TraceCode()).standsAlone) [[likely]] {
        const unsigned written = packet->write(m_block + m_fill, kBlockSize - m_fill);
        m_fill += written;
        return written != 0;
    }
    return putMeasured(packet);
}

bool CTraceWriterPlain::putMeasured(CPacket* packet) {
    if (!packet)
        return false;
    const unsigned size = packet->StreamSize();
    if (size >= room()) {
        flush();
        if (size >= room())
            return false;
    }
    const unsigned written = packet->write(m_block + m_fill, room());
    m_fill += written;
    return written != 0;
}

bool CTraceWriterPlain::forward(CPacket*& packet) {
    return put(packet) && CPacketFactory::releaseCPacket(&packet);
}

bool CTraceWriterPlain::forward(std::list<CPacket*>& packets) {
    const std::uint64_t base = m_base;
    const unsigned fill = m_fill;
    for (auto at = packets.begin(); at != packets.end(); ++at) {
        if (!*at || put(*at))
            continue;
        if (m_base == base) {
            m_fill = fill; // nothing has left the block: take it all back
        } else {
            std::list<CPacket*> taken;
            taken.splice(taken.begin(), packets, packets.begin(), at);
            CPacketFactory::release(taken);
        }
        return false;
    }
    return CPacketFactory::release(packets);
}

void CTraceWriterPlain::flush() {
    unsigned written = 0;
    bool whole = false;
    try {
        whole = m_target.write(m_block, m_fill, written) && written >= m_fill;
    } catch (...) {
        // What the target took before it gave up must not be written again.
        dropWritten(written);
        throw;
    }
    if (!whole && written == 0) {
        logError("CTraceWriterPlain::flush(): Could not flush buffer to trace output.\n");
        return;
    }
    dropWritten(written);
    m_target.flush();
}

void CTraceWriterPlain::dropWritten(unsigned written) {
    const unsigned rest = written < m_fill ? m_fill - written : 0;
    std::memmove(m_block, m_block + (m_fill - rest), rest);
    m_base += written;
    m_fill = rest;
}

bool CTraceWriterPlain::seekp(std::uint64_t position) {
    if (position >= m_base && position - m_base <= m_fill) {
        m_fill = static_cast<unsigned>(position - m_base);
        return true;
    }
    unsigned written = 0;
    if (!m_target.write(m_block, 0, position, written))
        return false;
    m_base = position;
    m_fill = 0;
    return true;
}

} // namespace Quorvex

#include "quorvex/analysis/Unpaged.h"

#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/TraceControlPackets.h"
#include "quorvex/stream/PageFormat.h"

#include <utility>

namespace Quorvex {

namespace {

/// Makes a short trace-enabled packet one with all its fields.
void makeWhole(PacketPointer& packet) {
    const auto* enabled = packetAs<CTraceEnabled>(*packet);
    if (!enabled || enabled->Length() == CTraceEnabled::Len())
        return;
    auto* result = new CTraceEnabled(enabled->FrameLen(), enabled->FrameConfig());
    result->Version(enabled->Version());
    packet.reset(result);
}

} // namespace

Unpaged::~Unpaged() = default;

bool Unpaged::get(std::list<CPacket*>& packets) {
    CPacket* packet = get();
    if (packet)
        packets.push_back(packet);
    return packet != nullptr;
}

inline bool Unpaged::restates(const CPacket& packet) {
    if (sortOfSync(packet.TraceCode()) == ContextSort::None)
        return false;
    const bool isKnown = m_contexts.repeats(packet);
    return m_contexts.note(packet) && isKnown;
}

CPacket* Unpaged::get() {
    while (m_ahead.empty() || m_fillSize > 0) {
        PacketPointer packet = m_input.next();
        const std::uint64_t offset = m_input.offset();
        m_ended = !packet;
        if (packet && packet->TraceCode() == TraceEnabled)
            makeWhole(packet);
        if (pages::isBreak(offset)) {
            m_ahead.clear();
            m_fillSize = 0;
            m_atPageStart = true;
        }
        if (packet && packet->TraceCode() == Fill) {
            m_atPageStart = false;
            m_fillSize += packet->StreamSize();
            if (m_fillSize >= kPageSize)
                m_fillSize = 0; // more than a page has
        } else {
            if (packet && restates(*packet) && m_atPageStart)
                continue;
            m_atPageStart = false;
            m_fillSize = 0;
        }
        if (m_ahead.empty() && m_fillSize == 0)
            return packet ? handOut(packet, offset) : nullptr;
        if (packet)
            m_ahead.push_back({std::move(packet), offset});
    }
    CPacket* packet = handOut(m_ahead.front().packet, m_ahead.front().offset);
    m_ahead.pop_front();
    return packet;
}

CPacket* Unpaged::handOut(PacketPointer& packet, std::uint64_t offset) {
    m_lastOffset = offset;
    m_lastCode = packet->TraceCode();
    return packet.release();
}

} // namespace Quorvex

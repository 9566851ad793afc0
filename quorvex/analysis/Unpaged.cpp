#include "quorvex/analysis/Unpaged.h"

#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/PageFormat.h"

#include <type_traits>
#include <utility>

namespace Quorvex {

namespace {

/// The packet with a header that tells its true length, as all have that are no damage or a short trace-enabled packet.
PacketPointer regular(PacketPointer packet) {
    CPacket* result = nullptr;
    visitKind(*packet, [&result](const auto& kind) {
        using Kind = std::remove_cvref_t<decltype(kind)>;
        using Context = typename Kind::Context;
        auto* fresh = new Kind;
        static_cast<Context&>(*fresh) = static_cast<const Context&>(kind);
        fresh->copyPayload(kind);
        result = fresh;
    });
    return result ? PacketPointer(result) : std::move(packet);
}

} // namespace

Unpaged::~Unpaged() = default;

bool Unpaged::get(std::list<CPacket*>& packets) {
    CPacket* packet = get();
    if (packet)
        packets.push_back(packet);
    return packet != nullptr;
}

CPacket* Unpaged::get() {
    while (m_ahead.empty() || m_fillSize > 0) {
        PacketPointer packet = m_input.next();
        const std::uint64_t offset = m_input.offset();
        m_ended = !packet;
        if (packet && packet->StreamSize() != m_input.end() - offset)
            packet = regular(std::move(packet));
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
        if (packet)
            m_ahead.push_back({std::move(packet), offset});
        else if (m_ahead.empty())
            return nullptr;
    }
    CPacket* packet = m_ahead.front().packet.release();
    m_lastOffset = m_ahead.front().offset;
    m_ahead.pop_front();
    m_lastCode = packet->TraceCode();
    return packet;
}

bool Unpaged::restates(const CPacket& packet) {
    const bool isSync = sortOfSync(packet.TraceCode()) != ContextSort::None;
    const bool isKnown = isSync && m_contexts.repeats(packet);
    return isSync && m_contexts.note(packet) && isKnown;
}

} // namespace Quorvex

#include "quorvex/packets/PacketKinds.h"

namespace Quorvex {

namespace {

template <class Context, class Packet> const Context* contextAs(const CPacket& packet) {
    if constexpr (std::is_base_of_v<Context, Packet>)
        return packetAs<Packet>(packet);
    else
        return nullptr;
}

} // namespace

template <class Context> const Context* contextOf(const CPacket& packet) {
    switch (packet.TraceCode()) {
#define QUORVEX_PACKET(name)                                                                                           \
    case name:                                                                                                         \
        return contextAs<Context, C##name>(packet);
#include "quorvex/packets/Packets.def"
    default:
        return nullptr;
    }
}

const CCharStringSequence* textOf(const CPacket& packet) {
    const CCharStringSequence* text = nullptr;
    visitKind(packet, [&text](const auto& kind) { text = kind.text(); });
    return text;
}

template const CCoreContext* contextOf(const CPacket& packet);
template const CRelCoreContext* contextOf(const CPacket& packet);
template const CBusContext* contextOf(const CPacket& packet);
template const CRelBusContext* contextOf(const CPacket& packet);
template const CSystemContext* contextOf(const CPacket& packet);
template const CRelSystemContext* contextOf(const CPacket& packet);

} // namespace Quorvex

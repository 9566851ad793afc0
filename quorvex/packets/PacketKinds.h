#pragma once

#include "quorvex/packets/BusPackets.h"
#include "quorvex/packets/CounterPackets.h"
#include "quorvex/packets/DataPackets.h"
#include "quorvex/packets/EventPackets.h"
#include "quorvex/packets/InstructionPackets.h"
#include "quorvex/packets/MessagePackets.h"
#include "quorvex/packets/SoftwareObjectPackets.h"
#include "quorvex/packets/StateMachinePackets.h"
#include "quorvex/packets/StringPackets.h"
#include "quorvex/packets/TraceControlPackets.h"

#include <concepts>
#include <utility>

namespace Quorvex {

/// A kind that the protocol builds from parts, as all are but CharString.
template <class Packet>
concept MadeOfParts = requires {
    typename Packet::Context;
};

namespace protocol {
template <class Packet, class Visit> bool visitAs(const CPacket& packet, Visit&& visit) {
    if constexpr (MadeOfParts<Packet>) {
        if constexpr (std::invocable<Visit&, const Packet&>) {
            visit(static_cast<const Packet&>(packet));
            return true;
        }
    }
    return false;
}
} // namespace protocol

/// The packet's context of that sort, absolute or relative; null when it carries none.
template <class Context> const Context* contextOf(const CPacket& packet);
template <class Context> Context* contextOf(CPacket& packet) {
    return const_cast<Context*>(contextOf<Context>(std::as_const(packet)));
}

/// Calls `visit` with the packet as the class of its type code. False, without a call, for a code that has no class,
/// for CharString, and for a class that `visit` does not take.
template <class Visit> bool visitKind(const CPacket& packet, Visit&& visit) {
    switch (packet.TraceCode()) {
#define QUORVEX_PACKET(name)                                                                                           \
    case name:                                                                                                         \
        return protocol::visitAs<C##name>(packet, visit);
#include "quorvex/packets/Packets.def"
    default:
        return false;
    }
}

/// The text behind a packet; null for a kind that has none.
QUORVEX_API const CCharStringSequence* textOf(const CPacket& packet);

extern template QUORVEX_API const CCoreContext* contextOf(const CPacket& packet);
extern template QUORVEX_API const CRelCoreContext* contextOf(const CPacket& packet);
extern template QUORVEX_API const CBusContext* contextOf(const CPacket& packet);
extern template QUORVEX_API const CRelBusContext* contextOf(const CPacket& packet);
extern template QUORVEX_API const CSystemContext* contextOf(const CPacket& packet);
extern template QUORVEX_API const CRelSystemContext* contextOf(const CPacket& packet);

} // namespace Quorvex

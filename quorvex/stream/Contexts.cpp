#include "quorvex/stream/Contexts.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/packets/KindFacts.h"

namespace Quorvex {

namespace {

template <class Context> bool noteIn(Context& reference, const CPacket& packet) {
    const auto* context = contextOf<Context>(packet);
    if (context)
        reference = *context;
    return context != nullptr;
}

template <class Relative, class Context>
std::optional<Context> resolve(const CPacket& packet, const Context& reference) {
    if (const auto* context = contextOf<Context>(packet))
        return *context;
    if (const auto* relative = contextOf<Relative>(packet))
        return Relative::createAbsolute(reference, *relative);
    return std::nullopt;
}

/// The tick that a packet tells by itself.
std::uint64_t ownTick(const CPacket& packet) {
    if (const auto* core = contextOf<CCoreContext>(packet))
        return core->Tick();
    if (const auto* bus = contextOf<CBusContext>(packet))
        return bus->Tick();
    if (const auto* system = contextOf<CSystemContext>(packet))
        return system->Tick();
    if (const auto* timestamp = packetAs<CTimestamp>(packet))
        return timestamp->Timestamp();
    if (const auto* message = packetAs<CMessage>(packet))
        return message->Timestamp();
    if (const auto* state = packetAs<CInitialState>(packet))
        return state->Tick();
    if (const auto* transition = packetAs<CTransition>(packet))
        return transition->Tick();
    return kUnknown64;
}

template <class Context> std::uint64_t tickIn(const std::optional<Context>& context) {
    return context ? context->Tick() : kUnknown64;
}

} // namespace

bool CContexts::note(const CPacket& packet) {
    switch (sortOfSync(packet.TraceCode())) {
    case ContextSort::Core:
        return noteIn(m_core, packet);
    case ContextSort::Bus:
        return noteIn(m_bus, packet);
    case ContextSort::System:
        return noteIn(m_system, packet);
    case ContextSort::None:
        break;
    }
    return false;
}

std::optional<CCoreContext> CContexts::coreOf(const CPacket& packet) const {
    return resolve<CRelCoreContext>(packet, m_core);
}

std::optional<CBusContext> CContexts::busOf(const CPacket& packet) const {
    return resolve<CRelBusContext>(packet, m_bus);
}

std::optional<CSystemContext> CContexts::systemOf(const CPacket& packet) const {
    return resolve<CRelSystemContext>(packet, m_system);
}

std::uint64_t CContexts::tickOf(const CPacket& packet) const {
    std::uint64_t tick = kUnknown64;
    switch (sortOfRelative(packet.TraceCode())) {
    case ContextSort::Core:
        tick = tickIn(coreOf(packet));
        break;
    case ContextSort::Bus:
        tick = tickIn(busOf(packet));
        break;
    case ContextSort::System:
        tick = tickIn(systemOf(packet));
        break;
    case ContextSort::None:
        tick = ownTick(packet);
        break;
    }
    return tick >> 8 == kUnknown64 >> 8 ? kUnknown64 : tick;
}

CPacket* CContexts::absolute(CPacket& packet) const {
    switch (sortOfRelative(packet.TraceCode())) {
    case ContextSort::Core:
        return CPacketFactory::decompress(&packet, m_core);
    case ContextSort::Bus:
        return CPacketFactory::decompress(&packet, m_bus);
    case ContextSort::System:
        return CPacketFactory::decompress(&packet, m_system);
    case ContextSort::None:
        break;
    }
    return nullptr;
}

} // namespace Quorvex

#include "quorvex/stream/Contexts.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/packets/KindFacts.h"

#include <new>

namespace Quorvex {

namespace {

/// What goes with a context: its relative form, and the sync packet that tells it.
template <class Context> struct FormsOf;
template <> struct FormsOf<CCoreContext> {
    using Relative = CRelCoreContext;
    using Told = CSync;
};
template <> struct FormsOf<CBusContext> {
    using Relative = CRelBusContext;
    using Told = CBusSync;
};
template <> struct FormsOf<CSystemContext> {
    using Relative = CRelSystemContext;
    using Told = CSystemSync;
};

template <class Context> std::optional<Context> contextAfter(const CPacket& packet, const Context& reference) {
    using Relative = typename FormsOf<Context>::Relative;
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

} // namespace

template <class Self, class Use> auto CContexts::with(Self& self, ContextSort sort, Use&& use) {
    using Result = decltype(use(self.m_core));
    switch (sort) {
    case ContextSort::Core:
        return use(self.m_core);
    case ContextSort::Bus:
        return use(self.m_bus);
    case ContextSort::System:
        return use(self.m_system);
    case ContextSort::None:
        break;
    }
    return Result();
}

bool CContexts::note(const CPacket& packet) {
    return sortOfSync(packet.TraceCode()) != ContextSort::None && adopt(packet);
}

bool CContexts::note(tagTCode code, const char* payload, unsigned length) {
    return with(*this, sortOfSync(code), [=](auto& reference) {
        const bool told = reference.context.read(payload, length) != 0;
        reference.known = reference.known || told;
        return told;
    });
}

bool CContexts::adopt(const CPacket& packet) {
    return with(*this, sortOfFull(packet.TraceCode()), [&packet]<class Context>(Reference<Context>& reference) {
        const auto* context = contextOf<Context>(packet);
        if (context)
            reference = {*context, true};
        return context != nullptr;
    });
}

std::optional<CCoreContext> CContexts::coreOf(const CPacket& packet) const {
    return contextAfter(packet, m_core.context);
}

std::optional<CBusContext> CContexts::busOf(const CPacket& packet) const {
    return contextAfter(packet, m_bus.context);
}

std::optional<CSystemContext> CContexts::systemOf(const CPacket& packet) const {
    return contextAfter(packet, m_system.context);
}

template <class Context> typename Context::Values CContexts::resolveRelative(const char* payload) const {
    typename FormsOf<Context>::Relative relative;
    decodePart(relative, payload, relative.Len());
    return relative.createAbsolute(reference<Context>().context, relative).values();
}

template CCoreContext::Values CContexts::resolveRelative<CCoreContext>(const char*) const;
template CBusContext::Values CContexts::resolveRelative<CBusContext>(const char*) const;
template CSystemContext::Values CContexts::resolveRelative<CSystemContext>(const char*) const;

std::uint64_t CContexts::tickOf(const CPacket& packet) const {
    const ContextSort sort = sortOfRelative(packet.TraceCode());
    if (sort == ContextSort::None)
        return absoluteTickOf(packet);
    return checkedTick(with(*this, sort, [&packet](const auto& reference) {
        const auto context = contextAfter(packet, reference.context);
        return context ? context->Tick() : kUnknown64;
    }));
}

std::uint64_t absoluteTickOf(const CPacket& packet) {
    return checkedTick(ownTick(packet));
}

bool CContexts::repeats(const CPacket& packet) const {
    return with(*this, sortOfFull(packet.TraceCode()), [&packet]<class Context>(const Reference<Context>& reference) {
        const auto* context = contextOf<Context>(packet);
        return context && *context == reference.context;
    });
}

bool CContexts::hasSame(ContextSort sort, const CContexts& other) const {
    return with(*this, sort, [&other]<class Context>(const Reference<Context>& reference) {
        return reference.context == other.reference<Context>().context;
    });
}

bool CContexts::reaches(const CPacket& packet) const {
    return with(*this, sortOfFull(packet.TraceCode()), [&packet]<class Context>(const Reference<Context>& reference) {
        const auto* context = contextOf<Context>(packet);
        return context && FormsOf<Context>::Relative::testRelative(reference.context, *context);
    });
}

CPacket* CContexts::absolute(CPacket& packet, ContextSort sort) const {
    return with(*this, sort,
                [&packet](const auto& reference) { return CPacketFactory::decompress(&packet, reference.context); });
}

CPacket* CContexts::relative(CPacket& packet, ContextSort sort) const {
    return with(*this, sort,
                [&packet](const auto& reference) { return CPacketFactory::compress(&packet, reference.context); });
}

CPacket* CContexts::sync(ContextSort sort) const {
    return with(*this, sort, []<class Context>(const Reference<Context>& reference) -> CPacket* {
        return new (std::nothrow) typename FormsOf<Context>::Told(reference.context);
    });
}

unsigned CContexts::writeSync(ContextSort sort, char* to, unsigned room) const {
    return with(*this, sort, [=]<class Context>(const Reference<Context>& reference) {
        typename FormsOf<Context>::Told packet(reference.context);
        return packet.write(to, room);
    });
}

unsigned CContexts::syncSize() const {
    const auto size = []<class Context>(const Reference<Context>& reference) {
        return reference.known ? CPacketHeader::Len() + Context::Len() : 0U;
    };
    return size(m_core) + size(m_bus) + size(m_system);
}

} // namespace Quorvex

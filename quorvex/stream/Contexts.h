#pragma once

#include "quorvex/format/Context.h"
#include "quorvex/format/Packet.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/platform/Export.h"

#include <cstdint>
#include <optional>
#include <type_traits>

namespace Quorvex {

/// What the relative packets of a trace stand for. A relative packet is relative to the last Sync, BusSync or
/// SystemSync packet of its sort, and to nothing else: neither relative packets nor absolute ones of other kinds change
/// a reference. Before the first sync packet of a sort it is the unknown context: tick and address all ones, the rest
/// 0.
///
/// Where the tick of a reference is unknown, the low byte is changed like any other: 0xFFFFFFFFFFFFFFFF and a relative
/// tick of 0x01 make 0xFFFFFFFFFFFFFFFE. That is no time. A tick whose upper seven bytes are all ones comes about in no
/// other way, so whoever shows ticks takes all of these for unknown, as tickOf does.
///
/// Give every packet of a trace to note, in order, before asking about it. Whoever makes relative packets asks for the
/// relative form, and where there is none, adopts the packet's context and writes it as a sync packet. Absolute packets
/// of a sort are its sync packet and the kinds that have a relative form. Packets that are handed out are new objects,
/// owned by the caller. Used by one thread at a time.
class QUORVEX_API CContexts {
    /// The sort of an absolute context.
    template <class Context>
    static constexpr ContextSort kSortOf = std::is_same_v<Context, CCoreContext>  ? ContextSort::Core
                                           : std::is_same_v<Context, CBusContext> ? ContextSort::Bus
                                                                                  : ContextSort::System;

public:
    /// Takes note of a sync packet; false for a packet that is none.
    bool note(const CPacket& packet);
    /// The same of a packet that is given as its bytes.
    bool note(tagTCode code, const char* payload, unsigned length);
    /// Takes the context of an absolute packet of any sort, as if a sync packet told it; false for a packet of none.
    bool adopt(const CPacket& packet);
    /// Back to the unknown contexts, as at the start of a trace.
    void forget() { *this = CContexts(); }

    const CCoreContext& core() const { return m_core.context; }       ///< the last known one of cores
    const CBusContext& bus() const { return m_bus.context; }          ///< of buses
    const CSystemContext& system() const { return m_system.context; } ///< of the system
    /// Whether a context of that sort has been told.
    bool knows(ContextSort sort) const {
        return (sort == ContextSort::Core && m_core.known) || (sort == ContextSort::Bus && m_bus.known) ||
               (sort == ContextSort::System && m_system.known);
    }

    /// Whether the reference of a sort is the same as another one's; of what has not been told, the unknown one counts.
    bool hasSame(ContextSort sort, const CContexts& other) const;

    /// The absolute context of a packet that carries one of that sort, absolute or relative.
    std::optional<CCoreContext> coreOf(const CPacket& packet) const;
    /// The same for packets of buses.
    std::optional<CBusContext> busOf(const CPacket& packet) const;
    /// The same for packets of the system.
    std::optional<CSystemContext> systemOf(const CPacket& packet) const;
    /// The same of a packet that is given as its bytes, for the three absolute contexts.
    template <class Context> std::optional<typename Context::Values> resolve(tagTCode code, const char* payload) const {
        const KindFacts& facts = factsOf(code);
        if (facts.context != kSortOf<Context>)
            return std::nullopt;
        if (facts.isRelative)
            return resolveRelative<Context>(payload);
        Context context;
        decodePart(context, payload, Context::Len());
        return context.values();
    }
    /// The time of a packet: the tick of its context, or of a field of its own (timestamps, messages, states of state
    /// machines). kUnknown64 when it has none.
    std::uint64_t tickOf(const CPacket& packet) const;

    /// Whether an absolute packet of any sort has the reference for its context: as a sync packet it tells nothing new.
    bool repeats(const CPacket& packet) const;
    /// Whether the context of an absolute packet of any sort can be told by a change of the reference.
    bool reaches(const CPacket& packet) const;

    /// The absolute form of a relative packet. Null for every other packet.
    CPacket* absolute(CPacket& packet) const { return absolute(packet, sortOfRelative(packet.TraceCode())); }
    /// The relative form of an absolute packet. Null where there is none, and where the reference does not reach it.
    CPacket* relative(CPacket& packet) const { return relative(packet, sortOfAbsolute(packet.TraceCode())); }
    /// The absolute form, for those who know the sort of the packet: sortOfRelative of its code.
    CPacket* absolute(CPacket& packet, ContextSort sort) const;
    /// The relative form, for those who know the sort of the packet: sortOfAbsolute of its code.
    CPacket* relative(CPacket& packet, ContextSort sort) const;
    /// The sync packet that tells the reference of a sort, also an unknown one. Null when memory is short.
    CPacket* sync(ContextSort sort) const;
    /// The same as bytes: how many; 0 where there is no room for them.
    unsigned writeSync(ContextSort sort, char* to, unsigned room) const;
    /// Bytes of the sync packets of all sorts that are known.
    unsigned syncSize() const;

private:
    template <class Context> struct Reference {
        Context context;
        bool known = false;
    };

    template <class Context> typename Context::Values resolveRelative(const char* payload) const;
    template <class Context> const Reference<Context>& reference() const {
        if constexpr (std::is_same_v<Context, CCoreContext>)
            return m_core;
        else if constexpr (std::is_same_v<Context, CBusContext>)
            return m_bus;
        else
            return m_system;
    }
    /// Calls `use` with the reference of a sort; for none gives the value that is false.
    template <class Self, class Use> static auto with(Self& self, ContextSort sort, Use&& use);

    Reference<CCoreContext> m_core;
    Reference<CBusContext> m_bus;
    Reference<CSystemContext> m_system;
};

extern template QUORVEX_API CCoreContext::Values CContexts::resolveRelative<CCoreContext>(const char*) const;
extern template QUORVEX_API CBusContext::Values CContexts::resolveRelative<CBusContext>(const char*) const;
extern template QUORVEX_API CSystemContext::Values CContexts::resolveRelative<CSystemContext>(const char*) const;

/// A tick as it is to be taken: unknown, if its upper seven bytes are all ones.
constexpr std::uint64_t checkedTick(std::uint64_t tick) {
    return tick >> 8 == kUnknown64 >> 8 ? kUnknown64 : tick;
}

/// The time of a packet that is not relative: CContexts::tickOf, for those who have no references.
QUORVEX_API std::uint64_t absoluteTickOf(const CPacket& packet);

} // namespace Quorvex

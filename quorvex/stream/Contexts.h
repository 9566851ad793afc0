#pragma once

#include "quorvex/format/Context.h"
#include "quorvex/format/Packet.h"
#include "quorvex/platform/Export.h"

#include <cstdint>
#include <optional>

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
/// Give every packet of a trace to note, in order, before asking about it. Used by one thread at a time.
class QUORVEX_API CContexts {
public:
    /// Takes note of a sync packet; false for a packet that is none.
    bool note(const CPacket& packet);
    /// Back to the unknown contexts, as at the start of a trace.
    void forget() { *this = CContexts(); }

    const CCoreContext& core() const { return m_core; }
    const CBusContext& bus() const { return m_bus; }
    const CSystemContext& system() const { return m_system; }

    /// The absolute context of a packet that carries one of that sort, absolute or relative.
    std::optional<CCoreContext> coreOf(const CPacket& packet) const;
    std::optional<CBusContext> busOf(const CPacket& packet) const;
    std::optional<CSystemContext> systemOf(const CPacket& packet) const;
    /// The time of a packet: the tick of its context, or of a field of its own (timestamps, messages, states of state
    /// machines). kUnknown64 when it has none.
    std::uint64_t tickOf(const CPacket& packet) const;
    /// The absolute form of a relative packet: a new object, owned by the caller. Null for every other packet.
    CPacket* absolute(CPacket& packet) const;

private:
    CCoreContext m_core;
    CBusContext m_bus;
    CSystemContext m_system;
};

} // namespace Quorvex

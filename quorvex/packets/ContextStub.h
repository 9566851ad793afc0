#pragma once

#include "quorvex/format/Context.h"
#include "quorvex/format/Packet.h"
#include "quorvex/platform/Export.h"

namespace Quorvex {

/// A view of the context of any packet, by its type code. It never changes the packet, does not own it, and answers
/// "none" (all ones, or a default context) for what the packet does not carry; a null packet carries nothing.
class QUORVEX_API CContextStub {
public:
    CContextStub(CPacket* packet) : m_packet(packet) {}
    CContextStub& operator=(CPacket* packet) {
        m_packet = packet;
        return *this;
    }

    std::uint64_t Tick() const { return Tick(m_packet); }
    std::uint32_t HWCtx() const { return HWCtx(m_packet); }
    std::uint32_t SWCtx() const { return SWCtx(m_packet); }
    std::uint32_t Master() const { return Master(m_packet); }
    std::uint32_t Channel() const { return Channel(m_packet); }
    std::uint64_t CurrAddr() const { return CurrAddr(m_packet); }
    std::uint8_t RelTick() const { return RelTick(m_packet); }
    std::uint8_t RelCurrAddr() const { return RelCurrAddr(m_packet); }
    CCoreContext CoreCtx() const { return CoreCtx(m_packet); }
    CBusContext BusCtx() const { return BusCtx(m_packet); }
    CSystemContext SystemCtx() const { return SystemCtx(m_packet); }
    bool hasContext() const { return m_packet && hasContext(m_packet->TraceCode()); } ///< whether the packet has any
    bool hasCoreContext() const { return m_packet && hasCoreContext(m_packet->TraceCode()); }
    bool hasBusContext() const { return m_packet && hasBusContext(m_packet->TraceCode()); }
    bool hasSystemContext() const { return m_packet && hasSystemContext(m_packet->TraceCode()); }

    /// Single fields. Type and variable packets answer "none" here although hasCoreContext is true for them; CoreCtx
    /// gives their context.
    static std::uint64_t Tick(const CPacket* packet);
    static std::uint32_t HWCtx(const CPacket* packet);
    static std::uint32_t SWCtx(const CPacket* packet);
    static std::uint32_t Master(const CPacket* packet);
    static std::uint32_t Channel(const CPacket* packet);
    static std::uint64_t CurrAddr(const CPacket* packet);
    static std::uint8_t RelTick(const CPacket* packet);
    static std::uint8_t RelCurrAddr(const CPacket* packet);
    static CCoreContext CoreCtx(const CPacket* packet);
    static CBusContext BusCtx(const CPacket* packet);
    static CSystemContext SystemCtx(const CPacket* packet);
    static bool hasContext(tagTCode code); ///< whether packets of that kind have any
    static bool hasCoreContext(tagTCode code);
    static bool hasBusContext(tagTCode code);
    static bool hasSystemContext(tagTCode code);

private:
    CPacket* m_packet;
};

} // namespace Quorvex

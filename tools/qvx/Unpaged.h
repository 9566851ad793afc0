#pragma once

#include "TraceInput.h"
#include "quorvex/format/Context.h"
#include "quorvex/stream/TraceSource.h"

#include <deque>

namespace qvx {

/// The packets of a trace without those that only its layout in pages needed: padding up to a page's end, and the
/// contexts that the next page then restates.
class Unpaged : public Quorvex::CTraceSource {
public:
    /// The input must outlive this.
    explicit Unpaged(TraceInput& input) : m_input(input) {}

    bool good() override { return !m_ended; }
    bool eot() override { return m_ended; }
    void clear() override {}
    std::uint64_t size() override { return m_input.size(); }
    std::uint64_t position() override { return m_input.offset(); }
    Quorvex::tagTCode peek() override { return Quorvex::Invalid; } ///< not to be had
    bool get(std::list<Quorvex::CPacket*>& packets) override;
    Quorvex::CPacket* get() override;

    /// The code of the packet that get() gave last.
    Quorvex::tagTCode lastCode() const { return m_lastCode; }

private:
    /// Takes note of a packet's context if it is a sync packet; whether it repeats what was known.
    bool restates(const Quorvex::CPacket& packet);

    TraceInput& m_input;
    bool m_ended = false;
    Quorvex::tagTCode m_lastCode = Quorvex::Invalid;
    std::deque<PacketPointer> m_ahead; ///< Fill packets, and the packet that told that they are none of a page's
    std::uint64_t m_fillSize = 0;      ///< bytes of Fill packets in m_ahead that may turn out to be padding
    bool m_atPageStart = false;
    Quorvex::CCoreContext m_core;
    Quorvex::CBusContext m_bus;
    Quorvex::CSystemContext m_system;
};

} // namespace qvx

#pragma once

#include "quorvex/analysis/TraceFile.h"
#include "quorvex/platform/Export.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/TraceSource.h"

#include <cstdint>
#include <list>

namespace Quorvex {

/// The packets of a trace without those that only its layout in pages needed: padding up to a page's end, and the
/// contexts that the next page then restates. Who gets a packet owns it. Throws what TraceFile throws. Used by one
/// thread at a time.
class QUORVEX_API Unpaged : public CTraceSource {
public:
    /// The input must outlive this.
    explicit Unpaged(TraceFile& input) : m_input(input) {}
    virtual ~Unpaged();

    bool good() override { return !m_ended; }
    bool eot() override { return m_ended; }
    void clear() override {}
    std::uint64_t size() override { return m_input.size(); }
    std::uint64_t position() override { return m_input.offset(); }
    tagTCode peek() override { return Invalid; } ///< not to be had
    bool get(std::list<CPacket*>& packets) override;
    CPacket* get() override;

    /// The code of the packet that get() gave last.
    tagTCode lastCode() const { return m_lastCode; }
    /// Where it begins in the trace.
    std::uint64_t lastOffset() const { return m_lastOffset; }

private:
    struct Ahead {
        PacketPointer packet;
        std::uint64_t offset;
    };

    CPacket* handOut(PacketPointer& packet, std::uint64_t offset);
    /// Takes note of a packet's context if it is a sync packet; whether it repeats what was known.
    bool restates(const CPacket& packet);

    TraceFile& m_input;
    bool m_ended = false;
    tagTCode m_lastCode = Invalid;
    std::uint64_t m_lastOffset = 0;
    std::list<Ahead> m_ahead;     ///< Fill packets, and the packet that told that they are none of a page's
    std::uint64_t m_fillSize = 0; ///< bytes of Fill packets in m_ahead that may turn out to be padding
    bool m_atPageStart = false;
    CContexts m_contexts;
};

} // namespace Quorvex

#pragma once

#include "quorvex/platform/Export.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/TraceSink.h"

#include <list>
#include <optional>
#include <vector>

namespace Quorvex {

/// Turns absolute packets into relative ones on their way to another sink. Where a context cannot be told relative to
/// the last Sync, BusSync or SystemSync packet of its sort, such a packet with that context is put before the packet.
/// The first packet of each sort gets one in any case, also where its context is unknown: so what comes out means the
/// same behind another trace, whose sync packets would else be taken for its own. All other packets pass as they are.
///
/// The sink behind must outlive the compressor. Nothing waits between calls. A packet that cannot be converted, also
/// because memory is short, is given back, and nothing has changed. What the sink behind refuses once it has been
/// converted is lost, with a report; the next packet then begins with a sync packet of its own. The same holds where
/// the sink behind throws, which passes through.
class QUORVEX_API CTraceCompressor : public CTraceSinkEx {
public:
    explicit CTraceCompressor(CTraceSink& downstream) : m_downstream(downstream) {}
    CTraceCompressor(const CTraceCompressor&) = delete;
    CTraceCompressor& operator=(const CTraceCompressor&) = delete;
    virtual ~CTraceCompressor();

    bool good() override { return m_downstream.good(); }
    void clear() override { m_downstream.clear(); }
    bool put(CPacket* packet) override;
    bool forward(std::list<CPacket*>& packets) override;
    bool forward(CPacket*& packet) override;
    std::uint64_t out_size() override { return m_downstream.out_size(); }
    void flush() override { m_downstream.flush(); }
    /// The write position of the sink behind; of one that has none, out_size().
    std::uint64_t tellp() override;

private:
    /// A change of the pending packets that can be taken back.
    struct Change {
        std::list<CPacket*>::iterator at;
        CPacket* replaced; ///< null for a packet that was inserted
    };

    /// Converts the pending packets. False where that cannot be done: they are pending as they were.
    bool convert();
    /// Hands the pending packets over, which are converted and no longer the caller's.
    bool handOver();
    /// Gives up the pending packets, which were not taken.
    [[gnu::cold]] void lose();
    /// The relative form of a packet, if what the sink behind has been told is enough for one.
    CPacket* relative(CPacket& packet, ContextSort sort) const {
        return m_contexts.knows(sort) ? m_contexts.relative(packet, sort) : nullptr;
    }
    /// Converts one packet, or takes note of it.
    bool convert(std::list<CPacket*>::iterator at);
    void undo();
    /// Keeps the contexts as they are before the first of the pending packets changes them.
    void keepContexts() {
        if (!m_before)
            m_before = m_contexts;
    }

    CTraceSink& m_downstream;
    std::list<CPacket*> m_pending;
    CContexts m_contexts;              ///< what the sink behind has been told
    std::optional<CContexts> m_before; ///< before the pending packets, if those have changed it
    std::vector<Change> m_changes;     ///< a member only so that it keeps its memory
};

} // namespace Quorvex

#pragma once

#include "quorvex/platform/Export.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/TraceSource.h"

namespace Quorvex {

/// Turns the relative packets of another source into absolute ones, with the help of the sync packets among them; the
/// mirror of the compressor. CContexts tells what they are relative to, also before the first sync packet.
///
/// The source behind must outlive the decompressor. What it throws passes through; what it gave before comes with the
/// next call.
class QUORVEX_API CTraceDecompressor : public CTraceSource {
public:
    /// `dropFill` takes Fill packets out of the stream, `dropSync` takes Sync, BusSync and SystemSync packets out once
    /// their contexts have been noted.
    CTraceDecompressor(CTraceSource& upstream, bool dropFill, bool dropSync)
        : m_upstream(upstream), m_dropFill(dropFill), m_dropSync(dropSync) {}
    CTraceDecompressor(const CTraceDecompressor&) = delete;
    CTraceDecompressor& operator=(const CTraceDecompressor&) = delete;
    virtual ~CTraceDecompressor();

    bool good() override { return m_upstream.good(); }
    bool eot() override { return m_upstream.eot(); }
    void clear() override { m_upstream.clear(); }
    std::uint64_t size() override { return m_upstream.size(); }
    std::uint64_t position() override { return m_upstream.position(); }
    tagTCode peek() override { return m_upstream.peek(); }
    /// False, with the batch released, when a packet of it cannot be converted.
    bool get(std::list<CPacket*>& packets) override;
    CPacket* get() override;

private:
    /// Converts the pending packets, or releases them all.
    bool decompress();
    /// Converts one packet, which is null afterwards where it is dropped.
    bool convert(CPacket*& packet);

    CTraceSource& m_upstream;
    bool m_dropFill;
    bool m_dropSync;
    std::list<CPacket*> m_pending; ///< between calls only what came before the source threw, converted
    CContexts m_contexts;
};

} // namespace Quorvex

#pragma once

#include "quorvex/stream/TraceAutoBuffer.h"
#include "quorvex/stream/TraceSink.h"
#include "quorvex/stream/TraceSinkBuffer.h"

namespace Quorvex {

/// Writes a plain trace: packets back to back. Packets are serialised into a block, and full blocks go to the target,
/// which must outlive the writer. Nothing is flushed on destruction.
class QUORVEX_API CTraceWriterPlain : public CTraceSinkEx {
public:
    explicit CTraceWriterPlain(CTraceSinkBuffer& target) : m_target(target) { CTraceWriterPlain::check_initial_pos(); }
    virtual ~CTraceWriterPlain();

    bool good() override { return m_target.good(); }
    void clear() override { m_target.clear(); }
    /// False for null, and for a packet that does not fit a block or that the target refuses room for.
    bool put(CPacket* packet) override;
    /// Writes the packets and releases them. On false the list holds those that were not taken: all of them, unless
    /// some had already gone to the target. To forward the list again costs no packet and writes none twice.
    bool forward(std::list<CPacket*>& packets) override;
    bool forward(CPacket*& packet) override;
    std::uint64_t out_size() override { return m_fill; } ///< bytes not yet flushed
    void flush() override;
    std::uint64_t tellp() override { return m_base + m_fill; }
    /// Moves the write position: inside the block, what stood behind it is dropped; elsewhere, bytes not yet flushed
    /// are lost.
    bool seekp(std::uint64_t position);

protected:
    /// Goes on where the target stands; for owners that have just opened it.
    virtual void check_initial_pos();

private:
    /// The same as put, for a packet of any size.
    bool putMeasured(CPacket* packet);
    unsigned room() const { return kBlockSize - m_fill; }
    /// Takes the first bytes, which the target has, out of the block.
    void dropWritten(unsigned written);

    std::uint64_t m_base = 0;
    unsigned m_fill = 0;
    CTraceAutoBuffer m_block;
    CTraceSinkBuffer& m_target;
};

} // namespace Quorvex

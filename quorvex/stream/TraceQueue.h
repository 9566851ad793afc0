#pragma once

#include "quorvex/factory/PacketSequence.h"
#include "quorvex/platform/Atomic.h"
#include "quorvex/stream/TraceSink.h"
#include "quorvex/stream/TraceSource.h"

namespace Quorvex {

/// The hand-over point between two stages or two threads: what goes in as a sink comes out as a source, in the same
/// order. It owns the packets that it holds and releases them when it is destroyed.
///
/// All operations may be called from any thread, but with several consumers the flags tell of none in particular.
class QUORVEX_API CTraceQueue : public CTraceSource, public CTraceSink {
public:
    CTraceQueue() = default;
    // Two queues never own the same packet: merge() hands packets over.
    CTraceQueue(const CTraceQueue&) = delete;
    CTraceQueue& operator=(const CTraceQueue&) = delete;

    /// No longer, once a consumer found nothing or a packet could not be put, until clear().
    bool good() override { return m_good; }
    bool eot() override { return m_eot; } ///< set by get() of a single packet only
    void clear() override;
    std::uint64_t size() override { return m_packets.size(); }
    std::uint64_t position() override { return 0; }
    /// Sync when there is no packet: only good() tells.
    tagTCode peek() override;
    bool get(std::list<CPacket*>& packets) override { return m_packets.move_to(packets); }
    /// A null entry of a forwarded list counts as an empty queue.
    CPacket* get() override;

    /// Queues a copy. False, with nothing queued, for a packet that cannot be copied.
    bool put(CPacket* packet) override;
    bool forward(std::list<CPacket*>& packets) override { return m_packets.splice(packets); }
    bool forward(CPacket*& packet) override;
    std::uint64_t out_size() override { return m_packets.size(); } ///< packets in the queue
    void flush() override {}

    virtual ~CTraceQueue();
    /// Moves all packets of `other` to the back. Two queues may merge into each other at the same time.
    bool merge(CTraceQueue& other) { return m_packets.merge(other.m_packets); }

private:
    platform::Atomic<bool> m_good = true;
    platform::Atomic<bool> m_eot = false;
    CPacketSequence m_packets;
};

} // namespace Quorvex

#pragma once

#include "quorvex/analysis/TraceFile.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace Quorvex {

/// Looks at the packets of traces before there are objects of them.
class QUORVEX_API PacketFilter {
public:
    virtual ~PacketFilter();
    /// Whether somebody wants the packet, of the trace with that number. Called once for each that comes in question,
    /// in the order of that trace.
    virtual bool wants(std::size_t file, const CTraceCursor& packet) = 0;
};

/// Changes the packets of traces before they are in order.
class QUORVEX_API PacketChange {
public:
    virtual ~PacketChange();
    /// Changes a packet of the trace with that number, in the order of that trace. Ticks must rise where they rose.
    virtual void change(std::size_t file, CPacket& packet) = 0;
};

/// Several traces as one, in the order of ticks: packets are absolute, and what frames a trace or restates contexts is
/// left out. A packet whose tick is not known comes right behind the one before it in its trace. Ticks are compared as
/// they are: of traces whose clocks have different frequencies that is not the order of time.
///
/// Damage can make a tick that lies far ahead, behind which nothing else would have a place. The packets behind it
/// tell: where nearly all of the next eight that have a tick and define nothing, among 128 at most, go on from before
/// the jump, in a stretch that is short beside it, the tick is taken as unknown, with those that were relative to it.
/// Only packets of the same frame tell, so a last packet is believed. The tick of a definition that is older than the
/// packet before it is taken as unknown too.
///
/// Up to 64 files stay open while they are read. Of more, each is opened for a moment at a time, to take some packets
/// out of it: so thousands can be merged, with about half a million packets in memory, but at least 32 a file, and a
/// few kilobytes a file. While a tick is looked into, a file may have twice its share of packets. What cannot be gone
/// back in stays open. Used by one thread at a time.
class QUORVEX_API Merged {
public:
    Merged();
    Merged(const Merged&) = delete;
    Merged& operator=(const Merged&) = delete;
    ~Merged();

    /// Adds a trace. To be done before the first packet is read.
    void add(std::unique_ptr<TraceFile> trace);
    /// Has every packet changed before its place is decided, by the tick that it has then. To be said before the first
    /// packet is read; the change must outlive this.
    void changeBy(PacketChange& change) { m_change = &change; }
    /// Leaves a definition the tick that is older than the packet before it; only for its place it is unknown. To be
    /// said before the first packet is read.
    void keepOldTicks() { m_keepsOldTicks = true; }

    /// Takes the ticks of a trace whose clock starts again behind tick 2^32 - 1 on from there. Such a clock has ticks
    /// of 32 bits, and what falls by more than half of that, with packets behind it that go on there, shows it. To be
    /// said before the first packet is read.
    void extendTicks() { m_extendsTicks = true; }
    /// Leaves out what the filter does not want, before it is looked at in any other way. To be said before the first
    /// packet is read; the filter must outlive this.
    void filterBy(PacketFilter& filter) { m_filter = &filter; }

    /// The next packet; null at the end of all traces. Throws what TraceFile throws, when all packets before that have
    /// been handed out; the other traces can be gone on with then. Lack of memory is a std::bad_alloc.
    PacketPointer next();
    /// Which trace the packet that next() gave is of, in the order in which they were added.
    std::size_t file() const { return m_file; }
    /// Which trace had its last packet handed out before that one; kNone where none has ended there.
    std::size_t ended() const { return m_ended; }
    static constexpr std::size_t kNone = ~std::size_t{0}; ///< no trace
    /// Where it begins there.
    std::uint64_t offset() const { return m_offset; }
    /// Its tick, kUnknown64 where it has none.
    std::uint64_t tick() const { return m_tick; }

    std::size_t size() const { return m_sources.size(); } ///< traces
    /// One of them, for what it knows of itself.
    const TraceFile& trace(std::size_t file) const;
    /// How reading that trace went so far, wrong ticks included.
    TraceReport report(std::size_t file) const;

private:
    struct Source;
    /// A tick, and the number of a source.
    using Turn = std::pair<std::uint64_t, std::size_t>;

    /// Makes the first packets ready that have not been asked for.
    void begin();
    /// Makes the source's next packet ready, if it has one, and tells its place.
    bool prepare(std::size_t index, Turn& turn);
    /// The source's next packet, which is ready.
    PacketPointer take(std::size_t index);

    PacketFilter* m_filter = nullptr;
    std::vector<platform::Owned<Source>> m_sources;
    PacketChange* m_change = nullptr;
    bool m_keepsOldTicks = false;
    bool m_extendsTicks = false;
    /// The sources that have a packet, by its tick, then in the order of the files.
    std::vector<Turn> m_turns; ///< a heap, the next one first
    void enqueue(Turn turn);
    std::size_t m_begun = 0; ///< sources whose first packet has been asked for
    std::size_t m_file = kNone;
    std::size_t m_ended = kNone;
    std::uint64_t m_offset = 0;
    std::uint64_t m_tick = 0;
};

} // namespace Quorvex

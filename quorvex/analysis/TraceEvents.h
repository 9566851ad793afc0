#pragma once

#include "quorvex/platform/Export.h"
#include "quorvex/stream/TraceCursor.h"

#include <optional>
#include <string>
#include <string_view>

namespace Quorvex {

class TraceFile;

/// What a trace tells, packet by packet, whatever its form: plain or paged, absolute or relative, binary or a table.
///
/// An event is a packet in absolute form with its text. Left out is what only the form needs:
///   - Sync, BusSync and SystemSync packets: what they tell stands in the packets that are relative to them;
///   - Fill packets, whatever they are filled with;
///   - the empty CharString packet that keeps a text of its own from becoming the name of the definition before it;
///   - the frame length in TraceEnabled, which becomes unknown; one without all its fields gets them.
/// All other packets are events as they are, also those that frame a trace: TraceEnabled, TraceDisabled, EndOfTrace
/// and Timestamp tell when it was recorded, and by which clock. The frame that a program still records, or recorded
/// until it was killed, ends with a TraceDisabled of its own, as in what `qvx convert` makes of it.
///
/// The bytes of an event are those of a plain trace. One that a text may follow is followed by it as a run of
/// CharString packets that ends with one below 255 bytes, so by an empty one where there is no text. All events one
/// after the other are a trace again, that of the same events.
///
/// Damage is stepped over as TraceFile does. Used by one thread at a time. Memory does not grow with the trace, but
/// with the longest text.
class QUORVEX_API TraceEvents {
public:
    /// The trace must outlive this. Whoever takes packets out of it takes them from the events.
    explicit TraceEvents(TraceFile& trace);

    /// Goes to the next event; false at the end. Throws what TraceFile throws.
    bool next();
    /// Its bytes, until the next one is asked for.
    std::string_view bytes() const { return m_bytes; }
    /// The packet that it comes from, as it stands in the trace.
    const CTraceCursor& packet() const { return *m_packet; }

private:
    /// Makes an event of the packet; false where that is none.
    bool take();
    /// Puts the bytes of the event together where they are other than those of the packet.
    void make();
    bool endOpenFrame();

    TraceFile& m_trace;
    const CTraceCursor* m_packet = nullptr;
    std::string_view m_bytes;
    std::string m_own;                 ///< bytes that stand so nowhere in the trace
    bool m_isNameless = false;         ///< the event lacks a text that may follow it
    std::optional<CTraceCursor> m_end; ///< over the end of a frame that the trace lacks
};

} // namespace Quorvex

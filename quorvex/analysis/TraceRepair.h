#pragma once

#include "quorvex/analysis/TraceCheck.h"
#include "quorvex/format/TCodeInfo.h"
#include "quorvex/platform/Export.h"

#include <cstdint>
#include <limits>
#include <string>

namespace Quorvex {

class CTraceSinkBuffer;
class CTraceSourceBuffer;

/// One place of a trace that was repaired, or could not be.
struct RepairNote {
    std::uint64_t offset; ///< of the place, in the source
    std::uint64_t length; ///< its bytes there; 0 where only something was added
    tagTCode kind;        ///< of the packet that it is about; Invalid where there is none
    CheckRule rule;       ///< what of the format it is about
    bool isLoss;          ///< something of the trace is lost, or is not certain
    std::string text;     ///< what was found and what was done, in a sentence without a full stop
};

/// What is repaired, and how it is written.
struct RepairOptions {
    /// Where packets stand.
    enum class Layout : std::uint8_t {
        Kept,  ///< in pages if the source has them
        Plain, ///< back to back
        Paged, ///< in pages
    };
    Layout layout = Layout::Kept;                                 ///< of what is written
    std::uint64_t from = 0;                                       ///< where the trace begins in the source
    std::uint64_t to = std::numeric_limits<std::uint64_t>::max(); ///< behind its last byte; by default, the source's
    bool isWhole = false; ///< nothing is missing at its end but the end of its frame, as where a page file was joined
    std::string name;     ///< of the source, for what is thrown
};

/// How a repair went.
struct RepairReport {
    std::uint64_t size = 0;         ///< bytes of the trace, as it was
    std::uint64_t packets = 0;      ///< that were written, without padding and without those that were added
    std::uint64_t places = 0;       ///< of which bytes were left out, and frames that have less than they tell
    std::uint64_t lost = 0;         ///< those bytes, and what those frames lack
    std::uint64_t uncertain = 0;    ///< relative packets whose context is not known any more
    bool isLossy = false;           ///< there was a note of a loss
    bool isPaged = false;           ///< the trace was of pages
    bool isWritten = true;          ///< the sink took all; if not, the repair has ended early
    std::uint64_t writtenBytes = 0; ///< of the trace that was written
};

namespace detail {
QUORVEX_API RepairReport repairTrace(CTraceSourceBuffer& source, CTraceSinkBuffer& to, const RepairOptions& options,
                                     void (*take)(void* to, const RepairNote& note), void* taker);
} // namespace detail

/// Reads a trace that may be damaged anywhere, and writes a whole one with every packet that can be read. Calls
/// `take(note)` with each place that was repaired, in the order in which they are written.
///
/// **Reading.** As long as every packet has a length that its kind can have, packets are taken as they stand. Else all
/// ways to read the bytes from 16 packets before the place to 16 KiB behind it are compared, and the one that is worth
/// most is taken. A packet is worth 12 points if it tells a tick that is less than 2^40 ticks from the one before or
/// behind it, 2 points as CharString or Fill (0 with other bytes than 0x80), else 3; the first one behind bytes that
/// are stepped over, without such a tick, 1, and 0 as Fill or as a text that cannot be printed. It costs
/// - 26 points to step over bytes, however many;
/// - 24 to step over what a header announces, which no packet of its kind can have, and 17 over the beginning of a
///   packet with which the trace ends;
/// - 25 to take another length than the header announces, if a packet follows there, which is worth nothing then if its
///   own length cannot be; 10 to take a shorter one of a text that holds a byte 0, or of padding with other bytes;
/// - 23 to take the fields of a packet and leave out the bytes behind them.
///
/// So one wrong byte does no harm to the packets around it, and a few bytes that look like packets are not taken for
/// ones. In a trace of pages, a page's start is certain. A CharString or Fill packet that hides a sync packet is
/// damage, too. What cannot be seen is damage that leaves packets that follow one another: of another kind with the
/// same length, of data that ends with a packet further on, or with other values.
///
/// **Contexts.** Bytes that were stepped over may have told a context that packets behind are relative to, unless
/// they are packets whose headers tell that they do not; so may those that a packet has beyond the length that it
/// announces. So it is not known until the next sync packet. In a trace of pages, the next page may restate it; then it
/// is written as a sync packet before the first relative packet. Otherwise a sync packet of an unknown context is
/// written there, with all bits set: the packets keep what else they tell, and their time is unknown, never wrong. The
/// same goes for the start of a page that restates nothing.
///
/// **Frames and texts.** A frame that is open at the end or where the next one begins is closed; at the end of the
/// trace with an EndOfTrace packet. Where bytes are lost at the beginning or between frames, a frame is begun. The end
/// of one that has not begun is left out. Frames get their right lengths, if they told any or were mended. Texts that
/// break off end as docs/format.md says; of those that are too long for a page, the end is left out.
///
/// Packets, but for padding and restated contexts, are those of the source where that is whole; to repair what was
/// repaired changes nothing. The source is read once, from where it stands if it is all of it. The sink must be one
/// that can be written at positions. Memory does not grow with the trace. Throws a TraceError where reading fails.
template <class Take>
RepairReport repairTrace(CTraceSourceBuffer& source, CTraceSinkBuffer& to, const RepairOptions& options, Take take) {
    return detail::repairTrace(
        source, to, options, [](void* taker, const RepairNote& note) { (*static_cast<Take*>(taker))(note); }, &take);
}

} // namespace Quorvex

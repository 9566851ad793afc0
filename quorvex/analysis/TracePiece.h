#pragma once

#include "quorvex/platform/Export.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/OpenFrame.h"
#include "quorvex/stream/PageFormat.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Quorvex {

class CTraceCursor;
class CTraceSinkBuffer;
class CTraceSourceBuffer;
class TraceState;
struct TraceFrame;

/// Writes a trace that is made of packets of other traces, given as they stand there: a part of one, or several joined.
/// The packets keep their meaning: before a relative one whose reference is another one here than there, that is told
/// by a sync packet; a text of its own does not become the name of the packet that it comes to stand behind. Padding
/// and what pages restate is left out, and so is what stands behind the fields of a damaged packet. Frames get their
/// lengths where the target can be gone back in, and else keep them unknown. An EndOfTrace is only written by end().
///
/// In pages by the rules of PageFormat.h, or plain. Bytes go to the target, which must outlive this, in blocks. Where
/// an operation gives false, the target has refused bytes (good() is false then, too) or a packet with its text has no
/// room on a page, and has not been written. Used by one thread at a time.
class QUORVEX_API TracePiece {
public:
    /// On a target that is empty. So many bytes are collected before they are handed over.
    TracePiece(CTraceSinkBuffer& target, bool isPaged, std::size_t block = kPageSize);
    TracePiece(const TracePiece&) = delete;
    TracePiece& operator=(const TracePiece&) = delete;
    virtual ~TracePiece();

    bool good() const { return m_isGood; }                   ///< the target has taken all so far
    bool isPaged() const { return m_isPaged; }               ///< it is written in pages
    bool isInFrame() const { return m_isInFrame; }           ///< a frame has begun and not ended
    const CContexts& contexts() const { return m_contexts; } ///< what relative packets are relative to here
    std::uint64_t position() const { return m_handedOver + m_block.size(); } ///< bytes so far

    /// Begins a frame as that one, if it is open, with its length unknown.
    bool beginFrame(const TraceFrame& frame);
    bool put(const TraceState& state);   ///< its packets, and then its contexts by sync packets
    bool put(const CContexts& contexts); ///< those that are known, by sync packets
    /// A packet as the cursor shows it, unless it is left out.
    bool put(const CTraceCursor& packet);
    /// A packet, with its text, as its bytes.
    bool put(std::string_view packet);
    /// Whole pages of a paged trace, as they are: there are no frames in them, and their references are those of here.
    /// What is put behind them follows a page that restates `contexts`.
    bool copyPages(CTraceSourceBuffer& source, std::uint64_t from, std::uint64_t to, const CContexts& contexts);
    bool endFrame(); ///< with a TraceDisabled, if one has begun
    /// Ends what has been put: with the frame, if `endsFrame`, and an EndOfTrace if there was one to put, or the frame
    /// was ended. Hands all over.
    bool end(bool endsFrame = true);
    /// Hands over what was collected.
    bool flush();
    /// Goes on in pages or plain, which are the same as long as position() is within the first page.
    void layOut(bool isPaged) { m_isPaged = isPaged; }
    /// Collects that many bytes from here on.
    void collect(std::size_t block) { m_most = block; }

private:
    bool write(std::string_view packet);
    bool makeRoom(std::size_t size);
    void pad();
    bool writeSync(const CContexts& contexts, ContextSort sort);
    bool closeFrame();

    CTraceSinkBuffer& m_target;
    bool m_isPaged;
    bool m_isGood = true;
    bool m_isInFrame = false;
    bool m_isAtEnd = false;       ///< an EndOfTrace is to be written
    bool m_textMayFollow = false; ///< a text would be taken for that of the last packet
    std::size_t m_most;
    std::string m_block;
    std::uint64_t m_handedOver = 0;
    std::uint64_t m_pageStartEnd = kUnknown64; ///< behind what a page restates, as far as it was left out
    CContexts m_contexts;
    detail::OpenFrame m_frame;
    std::string m_packet; ///< that is put together
};

} // namespace Quorvex

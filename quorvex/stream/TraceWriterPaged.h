#pragma once

#include "quorvex/format/PacketHeader.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/OpenFrame.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/TraceAutoBuffer.h"
#include "quorvex/stream/TraceSink.h"
#include "quorvex/stream/TraceSinkBuffer.h"
#include "quorvex/stream/TraceSourceBuffer.h"

#include <cstring>
#include <optional>

namespace Quorvex {

/// Writes a paged trace by the rules of PageFormat.h. A define packet shares its page with its name, in raw copies too,
/// and that of state machines as well as all others: a page that began with a name would give it to no packet, or to a
/// wrong one.
///
/// The frame length of a trace-enabled packet is put in when its trace-disabled packet is written: the bytes from the
/// first of the one to the last of the other. Moving the write position about in between changes nothing about that,
/// unless the trace-enabled packet is lost by it: written over, or dropped before the target had it.
///
/// A target that takes but a part of a full page keeps that, and is offered the rest; the page stays where it is,
/// because later packets count on its end being at a multiple of its size. What flush() could not hand over as a whole
/// is offered again as a whole, at the same position.
///
/// The target must outlive the writer. Failures are reported to the message log; nothing is flushed on destruction.
class QUORVEX_API CTraceWriterPaged : public CTraceSinkEx {
public:
    /// On a target that already holds a trace the writer goes on inside the page where that ends.
    explicit CTraceWriterPaged(CTraceSinkBuffer& target);
    CTraceWriterPaged(const CTraceWriterPaged&) = delete;
    CTraceWriterPaged& operator=(const CTraceWriterPaged&) = delete;

    bool good() override { return m_target->good(); }
    void clear() override { m_target->clear(); }
    /// False for null and for a packet that cannot be written; one that no page can hold changes nothing. The frame
    /// length of a trace-enabled packet is set to unknown.
    bool put(CPacket* packet) override;
    /// Writes the packets and releases them. On false those that were written are released and gone from the list, the
    /// others stay: to forward the list again costs no packet and writes none twice.
    bool forward(std::list<CPacket*>& packets) override;
    /// Writes the packet and leaves it with the caller.
    bool forward(CPacket*& packet) override;
    /// 0 when the whole page has been handed to the target; any other value has no meaning.
    std::uint64_t out_size() override { return m_written - m_fill; }
    /// Hands the page over as far as it is filled; the page goes on being filled.
    void flush() override;
    std::uint64_t tellp() override { return m_base + m_fill; }

    virtual ~CTraceWriterPaged();
    /// Copies a whole plain or paged trace into pages without building packets. False, with a message, at a packet that
    /// is cut or fits no page, after every packet before it.
    virtual bool put(CTraceSourceBuffer& source);
    /// Moves the write position: inside the page, what stood behind it is dropped; elsewhere a page begins there, and
    /// what the target does not have yet is lost, so flush first.
    virtual bool seekp(std::uint64_t position);

protected:
    /// Hands the page over and begins the next one.
    virtual bool overflow_flush();
    /// Bytes at `data` that must share a page: a packet, with the texts that follow it.
    virtual unsigned CalcSizeOfPacket(CPacketHeader& header, char* data, unsigned available);
    /// Bytes of the packets of the text that begins at `data`.
    virtual unsigned CalcSizeOfString(char* data, unsigned available);
    /// Goes on where the target stands; for owners that have just opened it.
    virtual void check_initial_pos();

    /// A writer that keeps its page in other memory, which usePage() tells before anything is written.
    struct PageElsewhere {};
    CTraceWriterPaged(CTraceSinkBuffer& target, PageElsewhere) : m_page(nullptr), m_target(&target) {}
    /// Has the page kept in other memory: kPageSize bytes that the caller owns and that outlive the writer's work. What
    /// the page holds is not carried over.
    void usePage(char* page);
    std::uint64_t pageStart() const { return m_base; } ///< where the page begins in the target
    unsigned filled() const { return m_fill; }         ///< bytes in the page
    unsigned handedOver() const { return m_written; }  ///< bytes of the page that the target has

    unsigned remain() const { return pages::room(m_fill); } ///< bytes that still go into the page
    void reset() { std::memset(m_page, 0, kPageSize); }
    /// Pads the page to its end.
    bool fill();
    /// Makes room for `size` bytes on one page; `broke` is set when that took a new one.
    bool check_fill(unsigned size, bool& broke);
    bool insertSync(); ///< restates the contexts
    /// Takes note of a packet that is about to be written at the write position.
    bool process(CPacket* packet);
    /// The same for a packet whose bytes already stand there.
    bool process(CPacketHeader& header);
    /// Room for the bytes of a packet with those of its texts, to be filled and then written by commit(); null where
    /// put() would refuse a packet of that size.
    char* claim(unsigned size);
    void commit(unsigned size); ///< writes the packet whose bytes stand where claim() told
    /// The same for a packet that no text follows and the writer takes no note of: no frame, no context.
    char* claimPlain(unsigned size) { return m_fill <= kRoomForAny ? at(m_fill) : claim(size); }
    void commitPlain(unsigned size) { m_fill += size; } ///< writes it
    /// A page that is not filled any further has room for every packet without a text behind it.
    static constexpr unsigned kRoomForAny = kPageSize - (CPacketHeader::Len() + UINT8_MAX) - CPacketHeader::Len();
    static_assert(pages::fits(CPacketHeader::Len() + UINT8_MAX, kRoomForAny));
    /// Writes a packet that is given as its bytes, with those of its texts behind them. False as put().
    bool append(const char* packet, unsigned size);
    /// Tells the message log of a failure.
    virtual void report(const char* text);

    /// The trace-enabled packet that waits for its frame length.
    struct FrameOnPage : detail::OpenFrame {
        using detail::OpenFrame::OpenFrame;
        bool inPage = true; ///< it stands in the page; else the target has it
    };
    const FrameOnPage& openFrame() const { return m_frame; }        ///< whose length is not told yet
    void reopenFrame(const FrameOnPage& frame) { m_frame = frame; } ///< takes up a frame that was left open

private:
    char* at(unsigned offset) { return m_page + offset; }
    /// Puts a packet on the page; the texts are for the message log.
    bool write(CPacket* packet, const char* noRoom, const char* notChecked);
    /// The same for a packet that may not fit, or that the writer takes note of.
    bool writeNoted(CPacket* packet, const char* noRoom, const char* notChecked);
    bool breakPage();
    /// Offers the target what it does not have yet; false, with a report, when it does not take exactly that.
    bool handOver(const char* operation, unsigned& written);
    void closeFrame(unsigned sizeOfDisabled);
    /// Looks after the open frame when the page is cut back to that many bytes.
    void dropFrameBehind(unsigned fill);
    /// Reads up to that many bytes behind what the page holds; how many there were.
    unsigned takeIn(CTraceSourceBuffer& source, std::uint64_t position, unsigned count);
    /// Copies the packets of one read from a raw trace; the failure's text, or null.
    const char* copyChunk(CTraceSourceBuffer& source, std::uint64_t& position, std::uint64_t total);
    /// The sizes behind the virtual operations; `open` tells that a text may go on behind the available bytes.
    static unsigned sizeOfPacket(const CPacketHeader& header, const char* data, unsigned available, bool& open);
    static unsigned sizeOfString(const char* data, unsigned available, bool& open);

    std::uint64_t m_base = 0; ///< output position of the page's first byte
    unsigned m_fill = 0;      ///< bytes of the page in use
    unsigned m_written = 0;   ///< bytes of the page that the target has
    static_assert(CTraceAutoBuffer::size() >= kPageSize, "the page stands in a block");
    std::optional<CTraceAutoBuffer> m_ownPage;
    char* m_page;
    CTraceSinkBuffer* m_target;
    CContexts m_contexts;
    FrameOnPage m_frame;
};

} // namespace Quorvex

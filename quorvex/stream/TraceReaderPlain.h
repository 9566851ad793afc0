#pragma once

#include "quorvex/stream/TraceAutoBuffer.h"
#include "quorvex/stream/TraceSource.h"
#include "quorvex/stream/TraceSourceBuffer.h"

namespace Quorvex {

/// Reads a trace packet by packet, plain or paged: the fill and sync packets of pages are handed out like any other.
/// The source must outlive the reader. What is handed out does not depend on how the source portions its bytes.
///
/// A packet comes with the text that follows it. An empty CharString packet behind a packet that takes a text says
/// nothing and is handed out by itself, so that a trace that is read and written again keeps every byte. A text that
/// breaks off is the text so far; where the trace ends within a CharString packet, it is that packet that is cut, and
/// the one before comes with the text that is whole.
///
/// The reader always goes on behind the length that a packet's header tells, and the texts. Where that is more than the
/// kind has fields for, the fields come in a packet whose header tells their true length, so that it can be written
/// again; the rest is stepped over. Where a kind cannot have that length, the packet cannot be built: it is stepped
/// over, get() returns null and position() has moved on. When position() has not moved, nothing more can be read there:
/// the rest is cut, or begins with a packet of length 0 that cannot be built, which skip() passes. Lack of memory for a
/// packet throws what the packet factory throws; the reader has not moved then.
class QUORVEX_API CTraceReaderPlain : public CTraceSource {
public:
    explicit CTraceReaderPlain(CTraceSourceBuffer& source) : m_source(source) {}
    virtual ~CTraceReaderPlain();

    /// Not behind an end-of-trace packet, and the source is good. A source that has been read to its end is not, though
    /// packets may still be at hand: read until get() has none.
    bool good() override { return !m_eot && m_source.good(); }
    bool eot() override { return m_eot; }
    void clear() override;
    std::uint64_t size() override { return m_source.size(); }
    std::uint64_t position() override { return m_base + m_index; }
    tagTCode peek() override;
    /// Appends the packets of one block; true when the list then holds any, those that it held before included. Unknown
    /// codes are skipped. A packet of a known code that cannot be built ends the batch; get() or skip() passes it.
    bool get(std::list<CPacket*>& packets) override;
    CPacket* get() override;
    /// Steps over the next packet without building it; false when it is cut or there is none.
    bool skip();

protected:
    /// Bytes in the block that are not read yet.
    unsigned remain() const { return m_index < m_count ? m_count - m_index : 0; }
    /// Reads up to `count` bytes behind those that remain, or from that place instead of them.
    bool fill(unsigned count);
    bool fill(std::uint64_t position, unsigned count);
    bool seek(std::uint64_t position); ///< goes on from that place

private:
    class Overlong;
    static constexpr unsigned kOverlong = ~0U;

    /// An unread byte of the block.
    unsigned at(unsigned offset) const {
        const char* block = m_block;
        return static_cast<unsigned char>(block[m_index + offset]);
    }

    /// Tops the block up until it holds that many unread bytes; false when the source has no more.
    bool load(unsigned count);
    /// Makes sure that the next packet stands in the block whole, with the texts that follow it. False when it is cut,
    /// or the source fails. `size` gets the bytes to build it from, or kOverlong when it is larger than a block.
    bool loadPacket(unsigned& size);
    /// The same where the packet, or what its text is told by, does not stand there yet.
    bool loadWhole(unsigned& size);
    /// Makes sure that the CharString packet stands in the block that begins that far behind the next unread byte.
    /// `size` gets its bytes: 0 when there is none, or it is cut. False when the source fails.
    bool loadText(unsigned offset, unsigned& size);
    /// Builds the next packet out of that many bytes and moves behind it; null, and nothing moved, when it cannot be
    /// built. False, with nothing moved, when the source fails.
    bool build(unsigned size, CPacket*& packet);
    bool buildOverlong(CPacket*& packet);
    void getBatch(std::list<CPacket*>& packets);
    /// Moves behind a packet that could not be built; false where a length of 0 does not tell how far.
    bool stepOver();

    bool m_eot = false;
    std::uint64_t m_base = 0; ///< position in the source of the block's first byte
    unsigned m_count = 0;     ///< valid bytes in the block
    unsigned m_index = 0;
    CTraceAutoBuffer m_block;
    CTraceSourceBuffer& m_source;
};

} // namespace Quorvex

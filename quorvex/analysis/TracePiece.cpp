#include "quorvex/analysis/TracePiece.h"

#include "quorvex/analysis/TraceState.h"
#include "quorvex/packets/TraceControlPackets.h"
#include "quorvex/stream/TraceCursor.h"
#include "quorvex/stream/TraceSinkBuffer.h"
#include "quorvex/stream/TraceSourceBuffer.h"

#include <algorithm>
#include <memory>

namespace Quorvex {

namespace {

constexpr unsigned kCopied = 0x100000; ///< bytes at a time
constexpr std::string_view kNoText("\x7e\0", 2);
constexpr std::string_view kTraceDisabled("\x7a\0", 2);
constexpr std::string_view kEndOfTrace("\x7c\0", 2);

tagTCode codeOf(std::string_view packet) {
    return tagTCode(static_cast<unsigned char>(packet[0]));
}

unsigned lengthOf(std::string_view packet) {
    return static_cast<unsigned char>(packet[1]);
}

} // namespace

TracePiece::TracePiece(CTraceSinkBuffer& target, bool isPaged, std::size_t block)
    : m_target(target), m_isPaged(isPaged), m_most(block) {}

TracePiece::~TracePiece() = default;

bool TracePiece::flush() {
    std::size_t done = 0;
    unsigned written = 0;
    while (m_isGood && done < m_block.size()) {
        const auto count = static_cast<unsigned>(std::min<std::size_t>(m_block.size() - done, kCopied));
        m_isGood = m_target.write(m_block.data() + done, count, written) && written > 0;
        done += m_isGood ? written : 0;
    }
    m_handedOver += done;
    m_block.erase(0, done);
    return m_isGood;
}

void TracePiece::pad() {
    const unsigned fill = pages::offsetIn(position());
    if (fill == 0)
        return;
    const std::unique_ptr<char[]> page(new char[kPageSize]);
    pages::end(page.get(), fill);
    m_block.append(page.get() + fill, kPageSize - fill);
}

bool TracePiece::makeRoom(std::size_t size) {
    if (m_block.size() >= m_most && !flush())
        return false;
    if (!m_isPaged)
        return true;
    if (size > kPageSize)
        return false;
    const auto needed = static_cast<unsigned>(size);
    const unsigned restated = m_contexts.syncSize();
    const bool isAtStart = pages::isBreak(position());
    if (isAtStart ? !pages::fits(needed, restated) : !pages::fits(needed, pages::offsetIn(position()))) {
        if (!pages::fits(needed, restated))
            return false;
        pad();
    }
    if (!pages::isBreak(position()))
        return true;
    char syncs[pages::kMostRestated];
    unsigned fill = 0;
    for (const ContextSort sort : kContextSorts) {
        if (m_contexts.knows(sort))
            fill += m_contexts.writeSync(sort, syncs + fill, static_cast<unsigned>(sizeof syncs) - fill);
    }
    m_block.append(syncs, fill);
    return true;
}

bool TracePiece::write(std::string_view packet) {
    if (!m_isGood || !makeRoom(packet.size()))
        return false;
    m_block += packet;
    return true;
}

bool TracePiece::put(std::string_view packet) {
    const tagTCode code = codeOf(packet);
    const unsigned length = lengthOf(packet);
    if (code == CharString && length > 0 && m_textMayFollow && !write(kNoText))
        return false;
    if (!write(packet))
        return false;
    m_textMayFollow =
        isFollowedByText(code) && !factsOf(code).countsText(length) && packet.size() == CPacketHeader::Len() + length;
    if (factsOf(code).standsAlone)
        return true;
    m_contexts.note(code, packet.data() + CPacketHeader::Len(), length);
    if (code == TraceEnabled) {
        CTraceEnabledPayload enabled;
        m_isInFrame = true;
        m_frame = length == CTraceEnabled::Len() && enabled.decode(packet.data() + CPacketHeader::Len(), length)
                      ? detail::OpenFrame(position() - packet.size(), enabled)
                      : detail::OpenFrame();
    } else if (code == TraceDisabled) {
        m_isInFrame = false;
        return closeFrame();
    }
    return true;
}

bool TracePiece::closeFrame() {
    const detail::OpenFrame frame = std::exchange(m_frame, detail::OpenFrame());
    if (!frame)
        return true;
    const auto packet = frame.closed(position());
    if (frame.position() >= m_handedOver)
        std::ranges::copy(packet, m_block.begin() + static_cast<std::ptrdiff_t>(frame.position() - m_handedOver));
    else if (flush() && !frame.closeIn(m_target, packet, position()) && !m_target.good())
        m_target.clear();
    return m_isGood;
}

bool TracePiece::beginFrame(const TraceFrame& frame) {
    if (!frame.isOpen)
        return true;
    char packet[CPacketHeader::Len() + CTraceEnabled::Len()] = {static_cast<char>(TraceEnabled),
                                                                static_cast<char>(CTraceEnabled::Len())};
    char* const fields = packet + CPacketHeader::Len();
    storeLittleEndian(fields, frame.version);
    storeLittleEndian(fields + sizeof frame.version, kUnknown64);
    storeLittleEndian(fields + sizeof frame.version + sizeof kUnknown64, frame.config);
    return put(std::string_view(packet, sizeof packet));
}

bool TracePiece::put(const TraceState& state) {
    bool isDone = true;
    state.eachPacket([&](std::string_view packet) { isDone = isDone && put(packet); });
    return isDone && put(state.contexts());
}

bool TracePiece::writeSync(const CContexts& contexts, ContextSort sort) {
    char sync[pages::kMostRestated];
    return put(std::string_view(sync, contexts.writeSync(sort, sync, sizeof sync)));
}

bool TracePiece::put(const CContexts& contexts) {
    return std::ranges::all_of(kContextSorts, [&](ContextSort sort) {
        return !contexts.knows(sort) || (m_contexts.knows(sort) && contexts.hasSame(sort, m_contexts)) ||
               writeSync(contexts, sort);
    });
}

bool TracePiece::put(const CTraceCursor& packet) {
    const tagTCode code = packet.TraceCode();
    const KindFacts& facts = factsOf(code);
    const CContexts& there = packet.contexts();
    if (facts.standsAlone && !facts.isRelative) [[likely]] {
        // As most packets; all that stands behind the fields of one is damage.
    } else if (facts.isRelative) {
        if ((!there.hasSame(facts.context, m_contexts) ||
             (there.knows(facts.context) && !m_contexts.knows(facts.context))) &&
            !writeSync(there, facts.context))
            return false;
    } else if (code == Fill) {
        return true;
    } else if (code == EndOfTrace) {
        m_isAtEnd = true;
        return endFrame();
    } else if (code == TraceEnabled && packet.Length() > sizeof(std::uint32_t)) {
        TraceFrame frame;
        frame.note(packet);
        return beginFrame(frame);
    } else if (facts.sync != ContextSort::None) {
        const bool isAtStart = pages::isBreak(packet.offset()) || packet.offset() == m_pageStartEnd;
        if (isAtStart && m_contexts.knows(facts.sync) && there.hasSame(facts.sync, m_contexts)) {
            m_pageStartEnd = packet.end();
            return true;
        }
    }
    const char* const begin = packet.payload() - CPacketHeader::Len();
    const std::string_view whole(begin, static_cast<std::size_t>(packet.end() - packet.offset()));
    const bool isCounted = packet.textState() == CTraceCursor::Text::Counted;
    const bool isOpen = packet.textState() == CTraceCursor::Text::Open;
    const unsigned announced = lengthOf(whole);
    if ((packet.Length() == announced || isCounted) && !isOpen)
        return put(whole);
    m_packet.assign(whole, 0, CPacketHeader::Len() + packet.Length());
    m_packet[1] = static_cast<char>(packet.Length());
    m_packet.append(whole, CPacketHeader::Len() + announced);
    if (isOpen)
        m_packet += kNoText;
    return put(m_packet);
}

bool TracePiece::copyPages(CTraceSourceBuffer& source, std::uint64_t from, std::uint64_t to,
                           const CContexts& contexts) {
    pad();
    if (!flush())
        return false;
    m_block.resize(kCopied);
    std::uint64_t at = from;
    while (m_isGood && at < to) {
        unsigned got = 0, written = 0;
        const auto count = static_cast<unsigned>(std::min<std::uint64_t>(to - at, kCopied));
        if (!source.read(m_block.data(), count, at, got))
            break;
        for (unsigned done = 0; m_isGood && done < got; done += written)
            m_isGood = m_target.write(m_block.data() + done, got - done, written) && written > 0;
        at += m_isGood ? got : 0;
    }
    m_handedOver += at - from;
    m_block.clear();
    m_textMayFollow = false;
    m_contexts = contexts;
    return m_isGood && at == to;
}

bool TracePiece::endFrame() {
    return !m_isInFrame || put(kTraceDisabled);
}

bool TracePiece::end(bool endsFrame) {
    if (m_isInFrame && endsFrame) {
        m_isAtEnd = true;
        if (!endFrame())
            return false;
    }
    return (!m_isAtEnd || write(kEndOfTrace)) && flush();
}

} // namespace Quorvex

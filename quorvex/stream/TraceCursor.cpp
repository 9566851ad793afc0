#include "quorvex/stream/TraceCursor.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/format/Exception.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/TraceSourceBuffer.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <exception>
#include <memory>

namespace Quorvex {

platform::Atomic<std::uint16_t> CTraceCursor::s_fits[256][256];
platform::Atomic<bool> CTraceCursor::s_isSimple[0x10000];

namespace {

const unsigned char* asBytes(const char* bytes) {
    return reinterpret_cast<const unsigned char*>(bytes);
}

std::string_view asText(const unsigned char* bytes, std::size_t size) {
    return {reinterpret_cast<const char*>(bytes), size};
}

/// The packet that these bytes make; null where they make none.
std::unique_ptr<CPacket> made(const unsigned char* bytes, unsigned size, unsigned& consumed) {
    try {
        return std::unique_ptr<CPacket>(
            CPacketFactory::getCPacket(reinterpret_cast<const char*>(bytes), size, consumed));
    } catch (const std::exception& exception) {
        if (isOutOfMemory(exception))
            throw;
        return nullptr;
    }
}

} // namespace

CTraceCursor::CTraceCursor(std::string_view bytes, std::uint64_t position, const CContexts& contexts)
    : m_next(asBytes(bytes.data())),
      m_limit(m_next + bytes.size()),
      m_at(m_next),
      m_begin(m_next),
      m_position(position),
      m_contexts(contexts) {}

CTraceCursor::CTraceCursor(CTraceSourceBuffer& source, std::uint64_t position, const CContexts& contexts,
                           std::size_t block)
    : CTraceCursor(std::string_view(), position, contexts) {
    m_source = &source;
    m_block.resize(block);
    m_next = m_limit = m_at = m_begin = asBytes(m_block.data());
}

CTraceCursor::~CTraceCursor() = default;

bool CTraceCursor::have(std::size_t count) {
    while (static_cast<std::size_t>(m_limit - m_next) < count) {
        if (!refill())
            return false;
    }
    return true;
}

bool CTraceCursor::refill() {
    if (!m_source)
        return false;
    const auto rest = static_cast<std::size_t>(m_limit - m_next);
    m_position = positionOf(m_next);
    if (rest == m_block.size()) {
        m_block.resize(2 * rest); // which keeps them
    } else {
        std::memmove(m_block.data(), m_next, rest);
    }
    m_begin = m_next = m_at = asBytes(m_block.data());
    m_limit = m_begin + rest;
    unsigned got = 0;
    m_source->read(m_block.data() + rest,
                   static_cast<unsigned>(std::min<std::size_t>(m_block.size() - rest, kBlockSize)), got);
    m_limit += got;
    return got > 0;
}

unsigned CTraceCursor::fitOf(unsigned code, unsigned length) {
    platform::Atomic<std::uint16_t>& known = s_fits[code][length];
    unsigned fit = known.load(std::memory_order_relaxed);
    if (fit != NotAsked)
        return fit;
    const KindFacts& facts = factsOf(tagTCode(code));
    fit = Refused;
    if (facts.hasClass && facts.countsText(length)) {
        fit = Varying;
    } else if (facts.hasClass) {
        unsigned consumed = 0;
        if (made(m_next, CPacketHeader::Len() + length, consumed)) {
            const unsigned fields = consumed - CPacketHeader::Len();
            const bool isPlain = fields == length && facts.text == TextSort::None && facts.sync == ContextSort::None;
            fit = Accepted | fields;
            s_isSimple[code | length << 8].store(isPlain, std::memory_order_relaxed);
        }
    }
    known.store(static_cast<std::uint16_t>(fit), std::memory_order_relaxed);
    return fit;
}

bool CTraceCursor::advance() {
    while (true) {
        if (!have(CPacketHeader::Len()) || !have(CPacketHeader::Len() + m_next[1]))
            return false;
        const tagTCode code = tagTCode(m_next[0]);
        const unsigned length = m_next[1];
        const std::size_t size = CPacketHeader::Len() + length;
        const unsigned fit = fitOf(code, length);
        unsigned fields = fit & 0xFF;
        std::size_t behind = size;
        Text text = Text::None;
        bool isPacket = (fit & 0xFF00) != Refused;
        if ((fit & 0xFF00) == Varying) {
            unsigned consumed = 0;
            const auto packet = made(m_next, static_cast<unsigned>(size), consumed);
            isPacket = packet != nullptr;
            if (packet) {
                fields = packet->Length();
                m_joined = textOf(*packet)->view();
                text = Text::Counted;
            }
        } else if (isPacket && isFollowedByText(code) && !findText(behind, text)) {
            return false;
        }
        const std::uint64_t position = positionOf(m_next);
        m_at = m_next;
        m_next += behind;
        if (!isPacket) {
            addDamage(position, position + size);
            continue;
        }
        m_fields = fields;
        m_text = text;
        m_contexts.note(code, payload(), fields);
        if (fields < length && text != Text::Counted)
            addDamage(position + CPacketHeader::Len() + fields, position + size);
        return true;
    }
}

bool CTraceCursor::findText(std::size_t& behind, Text& text) {
    const std::size_t first = behind;
    text = Text::Absent;
    // Only the end of the trace tells that no text follows; where reading fails, it may be there on the next try.
    const auto isEnd = [this] { return !m_source || m_source->eof(); };
    while (text != Text::Whole) {
        if (!have(behind + 1))
            return isEnd();
        if (m_next[behind] != CharString)
            return true;
        if (!have(behind + CPacketHeader::Len()) || !have(behind + CPacketHeader::Len() + m_next[behind + 1]))
            return isEnd();
        const unsigned length = m_next[behind + 1];
        if (length == 0 && behind == first)
            return true;
        behind += CPacketHeader::Len() + length;
        text = length == kCharStringMax ? Text::Open : Text::Whole;
    }
    return true;
}

std::string_view CTraceCursor::text() const {
    if (m_text == Text::Counted)
        return m_joined;
    if (m_text == Text::None)
        return TraceCode() == CharString ? std::string_view(payload(), m_fields) : std::string_view();
    const unsigned char* at = m_at + CPacketHeader::Len() + m_at[1];
    if (m_next - at - CPacketHeader::Len() <= std::ptrdiff_t{kCharStringMax})
        return at < m_next ? asText(at + CPacketHeader::Len(), at[1]) : std::string_view();
    m_joined.clear();
    for (; at < m_next; at += CPacketHeader::Len() + at[1])
        m_joined += asText(at + CPacketHeader::Len(), at[1]);
    return m_joined;
}

std::uint64_t CTraceCursor::otherTick() const {
    switch (factsOf(TraceCode()).context) {
    case ContextSort::Core:
        return checkedTick(contextOf<CCoreContext>()->tick);
    case ContextSort::Bus:
        return checkedTick(contextOf<CBusContext>()->tick);
    case ContextSort::System:
        return checkedTick(contextOf<CSystemContext>()->tick);
    case ContextSort::None:
        break;
    }
    if (const auto timestamp = as<CTimestamp>())
        return checkedTick(timestamp->Timestamp());
    if (const auto message = as<CMessage>())
        return checkedTick(message->Timestamp());
    if (const auto state = as<CInitialState>())
        return checkedTick(state->Tick());
    if (const auto transition = as<CTransition>())
        return checkedTick(transition->Tick());
    return kUnknown64;
}

CPacket* CTraceCursor::packet() const {
    const char* bytes = reinterpret_cast<const char*>(m_at);
    const unsigned size = static_cast<unsigned>(m_next - m_at);
    unsigned consumed = 0;
    if (m_fields == m_at[1] || m_text == Text::Counted)
        return CPacketFactory::getCPacket(CPacketHeader(TraceCode(), m_at[1]), bytes + CPacketHeader::Len(),
                                          size - CPacketHeader::Len(), consumed);
    // Its fields, and behind them its text.
    std::string own(bytes, CPacketHeader::Len() + m_fields);
    own[1] = static_cast<char>(m_fields);
    own.append(bytes + CPacketHeader::Len() + m_at[1], bytes + size);
    return CPacketFactory::getCPacket(own.data(), static_cast<unsigned>(own.size()), consumed);
}

void CTraceCursor::addDamage(std::uint64_t from, std::uint64_t to) {
    m_damage.join({1, to - from, from, to});
}

} // namespace Quorvex

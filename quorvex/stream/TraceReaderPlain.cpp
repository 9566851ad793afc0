#include "quorvex/stream/TraceReaderPlain.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/stream/TextRun.h"

#include <algorithm>
#include <cstring>
#include <istream>
#include <streambuf>

namespace Quorvex {

/// The reader's bytes as a stream, for the one packet that no block can hold.
class CTraceReaderPlain::Overlong : public std::streambuf {
public:
    explicit Overlong(CTraceReaderPlain& reader) : m_reader(reader) { show(); }
    /// Tells the reader how far the bytes were taken.
    void finish() { m_reader.m_index = static_cast<unsigned>(gptr() - m_reader.m_block); }

protected:
    int_type underflow() override {
        m_reader.m_index = m_reader.m_count;
        if (!m_reader.fill(kPageSize) || m_reader.remain() == 0) {
            show();
            return traits_type::eof();
        }
        show();
        return traits_type::to_int_type(*gptr());
    }

private:
    void show() {
        char* block = m_reader.m_block;
        setg(block, block + m_reader.m_index, block + m_reader.m_count);
    }

    CTraceReaderPlain& m_reader;
};

CTraceReaderPlain::~CTraceReaderPlain() = default;

void CTraceReaderPlain::clear() {
    m_eot = false;
    m_source.clear();
}

bool CTraceReaderPlain::fill(unsigned count) {
    const unsigned rest = remain();
    std::memmove(m_block, m_block + m_index, rest);
    m_base += m_index;
    m_index = 0;
    m_count = rest;
    unsigned got = 0;
    if (!m_source.read(m_block + rest, std::min(count, kPageSize - rest), got))
        return false;
    m_count += got;
    return true;
}

bool CTraceReaderPlain::fill(std::uint64_t position, unsigned count) {
    unsigned got = 0;
    if (!m_source.read(m_block, std::min(count, kPageSize), position, got))
        return false;
    m_base = position;
    m_count = got;
    m_index = 0;
    return true;
}

bool CTraceReaderPlain::seek(std::uint64_t position) {
    if (position >= m_base && position - m_base < m_count) {
        m_index = static_cast<unsigned>(position - m_base);
        return true;
    }
    return fill(position, kPageSize);
}

bool CTraceReaderPlain::load(unsigned count) {
    while (remain() < count) {
        const unsigned before = remain();
        if (!fill(kPageSize) || remain() == before)
            return false;
    }
    return true;
}

bool CTraceReaderPlain::loadPacket(unsigned& size) {
    const auto at = [this](unsigned offset) { return static_cast<unsigned char>((m_block + m_index)[offset]); };
    if (!load(CPacketHeader::Len()))
        return false;
    // Never more bytes than the header and the texts announce, though a damaged packet may ask for more: what it would
    // get depends on how much the block happens to hold.
    size = CPacketHeader::Len() + at(1);
    if (!load(size))
        return false;
    const unsigned sizeOfPacket = size;
    bool more = isFollowedByText(tagTCode(at(0)));
    while (more) {
        if (size + CPacketHeader::Len() + kCharStringMax > kPageSize) {
            size = kOverlong;
            return true;
        }
        // Only the end of the trace tells that no text follows; where reading fails, it may be there on the next try.
        if (!load(size + 1))
            return m_source.eof();
        if (at(size) != CharString)
            return true;
        if (!load(size + CPacketHeader::Len()))
            return false;
        const unsigned length = at(size + 1);
        if (length == 0 && size == sizeOfPacket)
            return true;
        size += CPacketHeader::Len() + length;
        if (!load(size))
            return false;
        more = length == kCharStringMax;
    }
    return true;
}

CPacket* CTraceReaderPlain::build(unsigned size) {
    if (size == kOverlong)
        return buildOverlong();
    try {
        unsigned consumed = 0;
        CPacket* packet = CPacketFactory::getCPacket(m_block + m_index, size, consumed);
        if (packet && packet->TraceCode() == EndOfTrace)
            m_eot = true;
        m_index += consumed;
        return packet;
    } catch (const std::exception&) {
        return nullptr;
    }
}

CPacket* CTraceReaderPlain::buildOverlong() {
    const std::uint64_t start = position();
    Overlong bytes(*this);
    std::istream in(&bytes);
    CPacket* packet = nullptr;
    try {
        packet = CPacketFactory::getCPacket(in);
    } catch (const std::exception&) {
    }
    bytes.finish();
    if (!packet)
        seek(start);
    return packet;
}

tagTCode CTraceReaderPlain::peek() {
    return load(1) ? tagTCode(static_cast<unsigned char>(*(m_block + m_index))) : Invalid;
}

CPacket* CTraceReaderPlain::get() {
    unsigned size = 0;
    if (!loadPacket(size))
        return nullptr;
    CPacket* packet = build(size);
    // One that is larger than a block is not damaged but cut: its texts have any bytes.
    if (!packet && size != kOverlong)
        stepOver();
    return packet;
}

bool CTraceReaderPlain::stepOver() {
    return load(CPacketHeader::Len()) && nextLength() > 0 && skip();
}

bool CTraceReaderPlain::get(std::list<CPacket*>& packets) {
    const std::size_t before = packets.size();
    const auto inBlock = [this] {
        return remain() >= CPacketHeader::Len() && remain() >= CPacketHeader::Len() + nextLength();
    };
    while (packets.size() == before || inBlock()) {
        const std::uint64_t start = m_base;
        unsigned size = 0;
        if (!loadPacket(size))
            break;
        const tagTCode code = tagTCode(static_cast<unsigned char>(*(m_block + m_index)));
        CPacket* packet = build(size);
        if (packet) {
            packets.push_back(packet);
            if (m_base != start) // the block was topped up on the way: one block is enough for one batch
                break;
        } else if (CTCodeInfo::TCodeIsValid(code) || !stepOver()) {
            break;
        }
    }
    return packets.size() != before;
}

bool CTraceReaderPlain::skip() {
    if (!load(CPacketHeader::Len()))
        return false;
    const unsigned size = CPacketHeader::Len() + nextLength();
    if (!load(size))
        return false;
    m_index += size;
    return true;
}

} // namespace Quorvex

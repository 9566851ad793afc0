#include "quorvex/stream/TraceReaderPlain.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/factory/SpareNodes.h"
#include "quorvex/format/Exception.h"
#include "quorvex/packets/KindFacts.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <istream>
#include <streambuf>

namespace Quorvex {

namespace {

/// The packet with a header that tells the length of its fields, in place of one whose header tells more.
[[gnu::noinline, gnu::cold]] CPacket* withOwnLength(CPacket* packet, const char* bytes, unsigned consumed) {
    const unsigned length = consumed - CPacketHeader::Len();
    const CPacketHeader header(packet->TraceCode(), static_cast<std::uint8_t>(length));
    CPacketFactory::releaseCPacket(&packet);
    return CPacketFactory::getCPacket(header, bytes + CPacketHeader::Len(), length, consumed);
}

} // namespace

/// The next packet and its text as a stream, for the one that no block can hold. It shows one packet of the run at a
/// time, and only whole ones.
class CTraceReaderPlain::Overlong : public std::streambuf {
public:
    explicit Overlong(CTraceReaderPlain& reader) : m_reader(reader) { show(CPacketHeader::Len() + reader.at(1)); }
    /// Tells the reader how far the bytes were taken.
    void finish() { m_reader.m_index += static_cast<unsigned>(gptr() - eback()); }
    /// Whether the source has failed on the way.
    bool failed() const { return m_failed; }

protected:
    int_type underflow() override {
        finish();
        unsigned size = 0;
        m_failed = m_failed || !m_reader.loadText(0, size);
        show(size);
        return size > 0 ? traits_type::to_int_type(*gptr()) : traits_type::eof();
    }

private:
    void show(unsigned size) {
        char* start = m_reader.m_block + m_reader.m_index;
        setg(start, start, start + size);
    }

    CTraceReaderPlain& m_reader;
    bool m_failed = false;
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
    if (!m_source.read(m_block + rest, std::min(count, kBlockSize - rest), got))
        return false;
    m_count += got;
    return true;
}

bool CTraceReaderPlain::fill(std::uint64_t position, unsigned count) {
    unsigned got = 0;
    if (!m_source.read(m_block, std::min(count, kBlockSize), position, got))
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
    return fill(position, kBlockSize);
}

bool CTraceReaderPlain::load(unsigned count) {
    while (remain() < count) {
        const unsigned before = remain();
        if (!fill(kBlockSize) || remain() == before)
            return false;
    }
    return true;
}

inline bool CTraceReaderPlain::loadPacket(unsigned& size) {
    // Nearly always it stands there, and no text can follow it.
    const unsigned rest = remain();
    if (rest >= CPacketHeader::Len() && !isFollowedByText(tagTCode(at(0)))) {
        size = CPacketHeader::Len() + at(1);
        if (rest >= size) [[likely]]
            return true;
    }
    unsigned whole = 0; // what has an address does not stay in a register
    const bool loaded = loadWhole(whole);
    size = whole;
    return loaded;
}

bool CTraceReaderPlain::loadWhole(unsigned& size) {
    if (!load(CPacketHeader::Len()))
        return false;
    // Never more bytes than the header and the texts announce, though a damaged packet may ask for more: what it would
    // get depends on how much the block happens to hold.
    const unsigned sizeOfPacket = CPacketHeader::Len() + at(1);
    size = sizeOfPacket;
    if (!load(size))
        return false;
    bool more = isFollowedByText(tagTCode(at(0))) && !factsOf(tagTCode(at(0))).countsText(at(1));
    while (more) {
        if (size + CPacketHeader::Len() + kCharStringMax > kBlockSize) {
            size = kOverlong;
            return true;
        }
        unsigned text = 0;
        if (!loadText(size, text))
            return false;
        if (text == CPacketHeader::Len() && size == sizeOfPacket)
            return true;
        size += text;
        more = text == CPacketHeader::Len() + kCharStringMax;
    }
    return true;
}

bool CTraceReaderPlain::loadText(unsigned offset, unsigned& size) {
    size = 0;
    // Only the end of the trace tells that no text follows; where reading fails, it may be there on the next try.
    if (!load(offset + 1))
        return m_source.eof();
    if (at(offset) != CharString)
        return true;
    if (!load(offset + CPacketHeader::Len()))
        return m_source.eof();
    const unsigned whole = CPacketHeader::Len() + at(offset + 1);
    if (!load(offset + whole))
        return m_source.eof();
    size = whole;
    return true;
}

inline bool CTraceReaderPlain::build(unsigned size, CPacket*& packet) {
    packet = nullptr;
    if (size == kOverlong) [[unlikely]] {
        CPacket* overlong = nullptr;
        const bool good = buildOverlong(overlong);
        packet = overlong;
        return good;
    }
    try {
        const char* bytes = m_block + m_index;
        unsigned consumed = 0;
        packet = CPacketFactory::getCPacket(bytes, size, consumed);
        if (packet && consumed != size) [[unlikely]]
            packet = withOwnLength(packet, bytes, consumed);
    } catch (const std::exception& exception) {
        if (isOutOfMemory(exception))
            throw;
        return true;
    }
    if (packet) {
        if (packet->CPacketHeader::TraceCode() == EndOfTrace)
            m_eot = true;
        m_index += size;
    }
    return true;
}

bool CTraceReaderPlain::buildOverlong(CPacket*& packet) {
    const std::uint64_t start = position();
    Overlong bytes(*this);
    std::istream in(&bytes);
    std::exception_ptr shortage;
    try {
        packet = CPacketFactory::getCPacket(in);
    } catch (const std::exception& exception) {
        if (isOutOfMemory(exception))
            shortage = std::current_exception();
    }
    bytes.finish();
    if (bytes.failed())
        CPacketFactory::releaseCPacket(&packet);
    if (!packet) {
        if (m_source.eof())
            m_source.clear(); // or it does not go back
        seek(start);
    }
    if (shortage)
        std::rethrow_exception(shortage);
    return !bytes.failed();
}

tagTCode CTraceReaderPlain::peek() {
    return load(1) ? tagTCode(static_cast<unsigned char>(*(m_block + m_index))) : Invalid;
}

CPacket* CTraceReaderPlain::get() {
    unsigned size = 0;
    CPacket* packet = nullptr;
    if (loadPacket(size) && build(size, packet) && !packet)
        stepOver();
    return packet;
}

bool CTraceReaderPlain::stepOver() {
    return load(CPacketHeader::Len()) && at(1) > 0 && skip();
}

bool CTraceReaderPlain::get(std::list<CPacket*>& packets) {
    getBatch(packets);
    return !packets.empty();
}

void CTraceReaderPlain::getBatch(std::list<CPacket*>& packets) {
    detail::Appending batch(packets);
    const auto inBlock = [this] {
        return remain() >= CPacketHeader::Len() && remain() >= CPacketHeader::Len() + at(1);
    };
    while (batch.count() == 0 || inBlock()) {
        batch.reserve();
        const std::uint64_t start = m_base;
        unsigned size = 0;
        CPacket* packet = nullptr;
        if (!loadPacket(size) || !build(size, packet))
            break;
        if (packet) {
            batch.append(packet);
            if (m_base != start) // the block was topped up on the way: one block is enough for one batch
                break;
        } else if (CTCodeInfo::TCodeIsValid(tagTCode(at(0))) || !stepOver()) {
            break;
        }
    }
}

bool CTraceReaderPlain::skip() {
    if (!load(CPacketHeader::Len()))
        return false;
    const unsigned size = CPacketHeader::Len() + at(1);
    if (!load(size))
        return false;
    m_index += size;
    return true;
}

} // namespace Quorvex

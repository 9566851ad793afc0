#include "quorvex/stream/TraceWriterPaged.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/TraceControlPackets.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace Quorvex {

namespace {

bool fitsNoPage(unsigned size, const CContexts& restated) {
    return !pages::fits(size, pages::kMostRestated) && !pages::fits(size, restated.syncSize());
}

/// Whether a CharString packet begins there.
bool beginsText(CTraceSourceBuffer& source, std::uint64_t position) {
    char code = 0;
    unsigned got = 0;
    return source.read(&code, 1, position, got) && static_cast<unsigned char>(code) == CharString;
}

} // namespace

CTraceWriterPaged::CTraceWriterPaged(CTraceSinkBuffer& target)
    : m_ownPage(std::in_place), m_page(*m_ownPage), m_target(&target) {
    CTraceWriterPaged::check_initial_pos();
}

CTraceWriterPaged::~CTraceWriterPaged() = default;

void CTraceWriterPaged::check_initial_pos() {
    const std::uint64_t position = m_target->tellp();
    if (position == 0)
        return;
    m_fill = m_written = pages::offsetIn(position);
    m_base = position - m_fill;
}

void CTraceWriterPaged::usePage(char* page) {
    m_page = page;
    m_ownPage.reset();
}

bool CTraceWriterPaged::check_fill(unsigned size, bool& broke) {
    if (pages::fits(size, m_fill))
        return true;
    if (!breakPage())
        return false;
    broke = true;
    return true;
}

bool CTraceWriterPaged::breakPage() {
    return fill() && overflow_flush() && insertSync();
}

bool CTraceWriterPaged::fill() {
    if (!pages::end(m_page, m_fill)) {
        report("CTraceWriterPaged::fill(): Not enough space to emit a packet!");
        return false;
    }
    m_fill = kPageSize;
    return true;
}

bool CTraceWriterPaged::handOver(const char* operation, unsigned& written) {
    const unsigned requested = m_fill - m_written;
    const std::uint64_t position = m_base + m_written;
    written = 0;
    const bool done = m_target->write(at(m_written), requested, position, written);
    if (!m_frame.inPage && m_frame.overlaps(position, position + std::min(written, requested)))
        m_frame = FrameOnPage(); // written over
    if (done && written == requested)
        return true;
    // In an array: this may be in a signal handler that has interrupted the program's allocator.
    char text[160];
    if (!done)
        std::snprintf(text, sizeof text, "CTraceWriterPaged::%s(): Failed to flush buffer to trace output.", operation);
    else
        std::snprintf(text, sizeof text, "CTraceWriterPaged::%s(): %s (%u/%u).", operation,
                      written > requested ? "Wrote more to output than requested"
                                          : "Buffer was only partially written to trace output",
                      written, requested);
    report(text);
    return false;
}

void CTraceWriterPaged::report(const char* text) {
    logError(text);
}

bool CTraceWriterPaged::overflow_flush() {
    unsigned written = 0;
    if (handOver("overflow_flush", written)) {
        m_frame.inPage = false;
        m_base += m_fill;
        m_fill = m_written = 0;
        return true;
    }
    // What the target took is not offered again. The page stays where it is, or its end would move.
    m_written += std::min(written, m_fill - m_written);
    return false;
}

void CTraceWriterPaged::flush() {
    if (m_written == m_fill)
        return;
    unsigned written = 0;
    if (handOver("flush", written))
        m_written = m_fill;
    m_target->flush();
}

bool CTraceWriterPaged::insertSync() {
    static constexpr std::pair<ContextSort, const char*> kRestated[] = {
        {ContextSort::Core, "CTraceWriterPaged::insertSync(): Could not write core sync packet!"},
        {ContextSort::Bus, "CTraceWriterPaged::insertSync(): Could not write bus sync packet!"},
        {ContextSort::System, "CTraceWriterPaged::insertSync(): Could not write system sync packet!"},
    };
    for (const auto& [sort, failure] : kRestated) {
        if (!m_contexts.knows(sort))
            continue;
        const unsigned written = m_contexts.writeSync(sort, at(m_fill), remain());
        m_fill += written;
        if (written == 0) {
            report(failure);
            return false;
        }
    }
    return true;
}

bool CTraceWriterPaged::seekp(std::uint64_t position) {
    if (position >= m_base && position - m_base <= m_fill) {
        dropFrameBehind(static_cast<unsigned>(position - m_base));
        m_fill = static_cast<unsigned>(position - m_base);
        m_written = std::min(m_written, m_fill);
    } else {
        unsigned written = 0;
        if (!m_target->write(m_page, 0, position, written))
            return false;
        dropFrameBehind(0);
        m_base = position;
        m_fill = m_written = 0;
    }
    return true;
}

void CTraceWriterPaged::dropFrameBehind(unsigned fill) {
    if (!m_frame || !m_frame.inPage || m_frame.end() <= m_base + fill)
        return;
    m_frame.inPage = false;
    if (m_frame.end() > m_base + m_written)
        m_frame = FrameOnPage(); // the target does not have it
}

inline bool CTraceWriterPaged::write(CPacket* packet, const char* noRoom, const char* notChecked) {
    // Most packets are of a kind that the writer takes no note of, and there is room for any of them.
    if (m_fill <= kRoomForAny && packet && factsOf(packet->CPacketHeader::TraceCode()).standsAlone) [[likely]] {
        const unsigned written = packet->write(at(m_fill), kPageSize - m_fill);
        m_fill += written;
        return written != 0;
    }
    return writeNoted(packet, noRoom, notChecked);
}

bool CTraceWriterPaged::put(CPacket* packet) {
    return write(packet, "CTraceWriterPaged::put(): Unable to ashure the page condition. Exiting!",
                 "CTraceWriterPaged::put(): Unable to check packet!");
}

bool CTraceWriterPaged::forward(CPacket*& packet) {
    return write(packet, "CTraceWriterPaged::forward(): Unable to ensure the page condition. Exiting!",
                 "CTraceWriterPaged::forward(): Unable to check packet!");
}

bool CTraceWriterPaged::forward(std::list<CPacket*>& packets) {
    for (auto at = packets.begin(); at != packets.end(); ++at) {
        if (!*at || write(*at, "CTraceWriterPaged::forward(): Unable to ashure the page condition. Exiting!",
                          "CTraceWriterPaged::forward(): Unable to check packet!"))
            continue;
        std::list<CPacket*> taken;
        taken.splice(taken.begin(), packets, packets.begin(), at);
        CPacketFactory::release(taken);
        return false;
    }
    return CPacketFactory::release(packets);
}

bool CTraceWriterPaged::writeNoted(CPacket* packet, const char* noRoom, const char* notChecked) {
    if (!packet)
        return false;
    const unsigned size = packet->StreamSize();
    bool broke = false;
    if (fitsNoPage(size, m_contexts) || !check_fill(size, broke)) {
        report(noRoom);
        return false;
    }
    if (!process(packet))
        report(notChecked);
    const unsigned written = packet->write(at(m_fill), remain());
    m_fill += written;
    return written != 0;
}

char* CTraceWriterPaged::claim(unsigned size) {
    bool broke = false;
    return !fitsNoPage(size, m_contexts) && check_fill(size, broke) ? at(m_fill) : nullptr;
}

void CTraceWriterPaged::commit(unsigned size) {
    CPacketHeader header;
    header.read(at(m_fill), size);
    process(header);
    m_fill += size;
}

bool CTraceWriterPaged::append(const char* packet, unsigned size) {
    char* const room = size < CPacketHeader::Len() ? nullptr : claim(size);
    if (!room)
        return false;
    std::memcpy(room, packet, size);
    commit(size);
    return true;
}

bool CTraceWriterPaged::process(CPacket* packet) {
    const tagTCode code = packet->TraceCode();
    if (code == TraceDisabled) {
        closeFrame(packet->StreamSize());
    } else if (code == TraceEnabled) {
        auto* enabled = dynamic_cast<CTraceEnabled*>(packet);
        if (!enabled)
            return false;
        m_frame = FrameOnPage(tellp(), *enabled);
        enabled->FrameLen(kUnknown64);
    } else if (code != Sync || packet->Length() == CCoreContext::Len()) {
        m_contexts.note(*packet);
    }
    return true;
}

void CTraceWriterPaged::closeFrame(unsigned sizeOfDisabled) {
    const FrameOnPage frame = std::exchange(m_frame, FrameOnPage());
    // What stands in the page in its place is about to be handed over.
    if (!frame || (!frame.inPage && frame.overlaps(m_base, m_base + m_fill)))
        return;
    const auto packet = frame.closed(tellp() + sizeOfDisabled);
    // Where the packet still stands in the page it is mended there; the target is patched if it has it already.
    if (frame.inPage)
        std::ranges::copy(packet, at(static_cast<unsigned>(frame.position() - m_base)));
    if (frame.inPage && frame.position() >= m_base + m_written)
        return;
    if (!frame.closeIn(*m_target, packet, m_base) && !m_target->good())
        m_target->clear();
}

unsigned CTraceWriterPaged::CalcSizeOfPacket(CPacketHeader& header, char* data, unsigned available) {
    bool open = false;
    return sizeOfPacket(header, data, available, open);
}

unsigned CTraceWriterPaged::CalcSizeOfString(char* data, unsigned available) {
    bool open = false;
    return sizeOfString(data, available, open);
}

unsigned CTraceWriterPaged::sizeOfPacket(const CPacketHeader& header, const char* data, unsigned available,
                                         bool& open) {
    if (header.TraceCode() == Message || header.TraceCode() == CharString)
        return sizeOfString(data, available, open);
    const unsigned size = header.Length() + CPacketHeader::Len();
    if (!isFollowedByText(header.TraceCode()) || factsOf(header.TraceCode()).countsText(header.Length()) ||
        size > available)
        return size;
    return size + sizeOfString(data + size, available - size, open);
}

unsigned CTraceWriterPaged::sizeOfString(const char* data, unsigned available, bool& open) {
    unsigned sum = 0;
    open = true;
    while (open && sum < available && available - sum >= CPacketHeader::Len()) {
        CPacketHeader header;
        header.read(data + sum, available - sum);
        if (header.TraceCode() != Message && header.TraceCode() != CharString) {
            open = false;
            break;
        }
        sum += header.Length() + CPacketHeader::Len();
        open = header.TraceCode() == Message || header.Length() == kCharStringMax;
    }
    return sum;
}

bool CTraceWriterPaged::process(CPacketHeader& header) {
    const char* payload = at(m_fill + CPacketHeader::Len());
    const tagTCode code = header.TraceCode();
    const unsigned length = header.Length();
    if (code == TraceDisabled) {
        closeFrame(length + CPacketHeader::Len());
    } else if (code == TraceEnabled) {
        // Shorter forms have no room for a frame length, or not for the whole packet that is put in later.
        CTraceEnabledPayload enabled;
        if (length != CTraceEnabled::Len() || !enabled.decode(payload, length))
            return true;
        m_frame = FrameOnPage(tellp(), enabled);
        storeLittleEndian(at(m_fill + FrameOnPage::kLengthAt), kUnknown64);
    } else if (code != Sync || length == CCoreContext::Len()) {
        m_contexts.note(code, payload, length);
    }
    return true;
}

bool CTraceWriterPaged::put(CTraceSourceBuffer& source) {
    const std::uint64_t total = source.size();
    std::uint64_t position = 0;
    while (position < total) {
        if (const char* failure = copyChunk(source, position, total)) {
            report(failure);
            return false;
        }
    }
    return true;
}

unsigned CTraceWriterPaged::takeIn(CTraceSourceBuffer& source, std::uint64_t position, unsigned count) {
    unsigned sum = 0;
    for (unsigned got = 0; sum < count && source.read(at(m_fill + sum), count - sum, position + sum, got) && got > 0;)
        sum += got;
    return sum;
}

const char* CTraceWriterPaged::copyChunk(CTraceSourceBuffer& source, std::uint64_t& position, std::uint64_t total) {
    static constexpr const char* kCut =
        "Error: Could not process current message. Assuming packet is not in buffer completely!";

    if (total - position < CPacketHeader::Len())
        return kCut;
    if (remain() < CPacketHeader::Len() && (!breakPage() || remain() < CPacketHeader::Len()))
        return "Error: Failed to flush current buffer content. Not enough space available!";
    const unsigned wanted = static_cast<unsigned>(std::min<std::uint64_t>(remain(), total - position));
    unsigned left = takeIn(source, position, wanted);
    if (left == 0)
        return "Error: Could not read from source buffer!";
    // Less than asked for means that the source ends before its size.
    const bool atEnd = left < wanted || position + left == total;

    while (left >= CPacketHeader::Len()) {
        CPacketHeader header;
        header.read(at(m_fill), left);
        bool open = false;
        const unsigned size = sizeOfPacket(header, at(m_fill), left, open);
        if (size > left && atEnd)
            return kCut;
        const bool isWhole = size <= left && (atEnd || !open || !beginsText(source, position + size));
        if (!isWhole || !pages::fits(size, m_fill)) {
            // It is read again at the start of the next page. On a page that holds no other packet, none is larger.
            return m_fill > m_contexts.syncSize() && breakPage()
                       ? nullptr
                       : "Error: Page could not be filled and written to target buffer!";
        }
        if (!process(header))
            return kCut;
        m_fill += size;
        position += size;
        left -= size;
    }
    return left > 0 ? kCut : nullptr;
}

} // namespace Quorvex

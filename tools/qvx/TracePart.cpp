#include "TracePart.h"

#include "Selection.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/stream/TraceSinkBuffer.h"

namespace qvx {

using namespace Quorvex;

namespace {

/// More traces than that are not kept open.
constexpr std::size_t kMostOpen = 64;
/// Bytes that such a trace is read at a time, and that are made of it: of thousands, these stay in memory.
constexpr unsigned kPortion = 0x2000;
constexpr std::size_t kMadeAtOnce = 0x800;

} // namespace

bool TracePart::advance() {
    const bool isThere = m_isGood && !m_isBehind && m_whole.advance();
    if (!isThere && m_isGood) {
        begin();
        m_isGood = m_isGood && m_piece.end(m_whole.report().end < TraceEnd::Missing);
    }
    if (!isThere)
        return false;
    const CTraceCursor& packet = m_whole.cursor();
    m_offset = packet.offset();
    if (m_layout && m_layout->look(packet))
        m_piece.layOut(m_layout->isPaged());
    const bool isSync = factsOf(packet.TraceCode()).sync != ContextSort::None;
    const Taken taken = look(packet);
    if (taken == Behind) {
        m_isBehind = true;
        return true;
    }
    if (taken == Within)
        begin();
    // The piece tells what selected packets are relative to.
    if (!m_isGood || taken == Never || (m_isIn && isSync && isSelective()))
        return m_isGood;
    if (m_isIn) {
        m_isGood = m_piece.put(packet);
    } else {
        m_frame.note(packet);
        if (m_state)
            m_state->note(packet);
    }
    if (isSync)
        m_before = packet.contexts();
    return m_isGood;
}

void TracePart::begin() {
    if (m_isIn)
        return;
    m_isIn = true;
    m_isGood = m_piece.beginFrame(m_frame) && (m_state ? m_piece.put(*m_state) : m_piece.put(m_before));
    m_state.reset();
    m_front = m_piece.position();
}

TracePart::Taken TracePart::look(const CTraceCursor& packet) {
    if (!m_selection)
        return packet.offset() < m_places.first ? Before : packet.offset() < m_places.second ? Within : Behind;
    const bool isTaken = m_selection->takes(m_number, packet);
    const Role role = factsOf(packet.TraceCode()).role;
    const std::uint64_t tick = role != Role::Structure ? packet.tick() : kUnknown64;
    if (tick != kUnknown64 && tick >= m_selection->to())
        return Behind;
    if (role != Role::Happening)
        return isTaken && tick != kUnknown64 ? Within : Before;
    return isTaken ? Within : m_selection->takesAnyTime(m_number, packet) ? Before : Never;
}

bool TracePart::isSelective() const {
    return m_selection && !m_selection->isOfTime() && !m_selection->takesAll();
}

/// Keeps what a piece hands over.
struct PartBytes::Sink : CTraceSinkBuffer {
    bool write(const char*, unsigned, std::uint64_t, unsigned& written) override {
        written = 0;
        return false; // it may have been read
    }
    bool write(const char* src, unsigned count, unsigned& written) override {
        bytes.append(src, count);
        written = count;
        return true;
    }
    bool eof() override { return false; }
    bool good() override { return true; }
    void flush() override {}
    void clear() override {}
    std::uint64_t tellp() override { return 0; }

    std::string bytes;
};

PartBytes::PartBytes(std::unique_ptr<TraceFile> whole, Selection& selection, std::size_t number, bool pauses)
    : m_whole(std::move(whole)),
      m_sink(std::make_unique<Sink>()),
      m_piece(*m_sink, false, pauses ? kMadeAtOnce : kPageSize),
      m_part(*m_whole, m_piece, true),
      m_pauses(pauses),
      m_stream(this) {
    m_part.select(selection, number);
    if (m_pauses)
        m_whole->readAtATime(kPortion);
    fill();
}

PartBytes::~PartBytes() = default;

void PartBytes::fill() {
    m_sink->bytes.clear();
    while (m_sink->bytes.empty() && !m_isEnded)
        m_isEnded = !m_part.advance();
    if (m_pauses)
        m_whole->pause();
    char* const begin = m_sink->bytes.data();
    setg(begin, begin, begin + m_sink->bytes.size());
}

PartBytes::int_type PartBytes::underflow() {
    try {
        fill();
    } catch (...) {
        m_failure = std::current_exception();
        throw;
    }
    return gptr() == egptr() ? traits_type::eof() : traits_type::to_int_type(*gptr());
}

void PartBytes::throwFailure() const {
    if (m_failure)
        std::rethrow_exception(m_failure);
}

void SelectedTrace::failToRead() const {
    throwFailure();
    TraceFile::failToRead();
}

std::unique_ptr<TraceFile> selected(std::unique_ptr<TraceFile> trace, std::size_t number, std::size_t count,
                                    Selection& selection) {
    if (!selection.isAsked())
        return trace;
    return std::make_unique<SelectedTrace>(std::move(trace), selection, number, count > kMostOpen);
}

std::unique_ptr<TraceFile> openSelected(const std::vector<std::string>& files, std::size_t number,
                                        Selection& selection) {
    return selected(std::make_unique<TraceInput>(files[number]), number, files.size(), selection);
}

} // namespace qvx

#include "quorvex/analysis/RepairedTrace.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/stream/FileKind.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/TraceSinkBuffer.h"

#include <utility>

namespace Quorvex::detail {

namespace {

constexpr tagTCode syncOf(ContextSort sort) {
    constexpr tagTCode kCodes[] = {Invalid, Sync, BusSync, SystemSync};
    return kCodes[unsigned(sort)];
}

std::string countOf(std::uint64_t count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

} // namespace

RepairedTrace::RepairedTrace(RepairWindow& in, CTraceSinkBuffer& to, bool isPaged, const RepairOptions& options,
                             RepairReport& report, Take take, void* taker)
    : m_in(in), m_sink(to), m_isPaged(isPaged), m_options(options), m_report(report), m_take(take), m_taker(taker) {
    const bool writesPages =
        options.layout == RepairOptions::Layout::Kept ? isPaged : options.layout == RepairOptions::Layout::Paged;
    if (writesPages)
        m_writer = &m_paged.emplace(to);
    else
        m_writer = &m_plain.emplace(to);
}

void RepairedTrace::packet(std::uint64_t offset, RepairSolver::Part part) {
    m_here = offset;
    closeGap();
    const auto bytesHere = [&] { return m_in.at(offset).substr(0, kHeader + part.length); };
    const std::string_view bytes = bytesHere();
    const tagTCode code = codeAt(bytes);
    const std::uint64_t tick = fullTickAt(bytes);
    const bool isLonger = part.how == RepairSolver::How::Mended && part.length > lengthAt(bytes);
    if (part.how == RepairSolver::How::Mended)
        note(offset, part.size, code, CheckRule::Damage, true,
             "announces " + countOf(lengthAt(bytes), "byte") + ", of which it has " + std::to_string(part.length));
    if (part.how == RepairSolver::How::Trimmed) {
        doubtBehind(m_in.at(offset));
        note(offset + kHeader + part.length, part.size - kHeader - part.length, code, CheckRule::Damage, true,
             countOf(part.size - kHeader - part.length, "byte") + " behind its fields are left out");
    }
    if (code == CharString && m_unitGoesOn && m_unitEnd == offset && (part.length > 0 || m_unitHasText)) {
        addText(bytes, part);
    } else {
        endUnit(offset);
        m_unit.assign(bytesHere());
        m_unit[1] = static_cast<char>(part.length);
        m_unitOffset = offset;
        m_unitGoesOn = isFollowedByText(code) && !factsOf(code).countsText(part.length);
        m_unitHasText = false;
        m_unitDropped = 0;
        if (!m_unitGoesOn)
            endUnit(offset + part.size);
    }
    m_unitEnd = offset + part.size;
    if (tick != kUnknown64)
        m_lastTick = tick;
    for (const ContextSort sort : kContextSorts) {
        if (isLonger && sort != sortOfSync(code)) // what it has taken in may have been a sync packet
            doubt(sort);
    }
}

void RepairedTrace::lose(std::uint64_t offset, std::uint64_t size, bool isAnnounced) {
    m_here = offset;
    if (m_gapFrom == kUnknown64) {
        endUnit(offset);
        m_gapFrom = offset;
        m_lossInFrame = true;
    }
    m_gapTo = offset + size;
    for (const ContextSort sort : kContextSorts) {
        if (!isAnnounced)
            doubt(sort);
    }
    if (isAnnounced)
        doubtBehind(m_in.at(offset));
}

void RepairedTrace::end(std::uint64_t size) {
    m_here = size;
    const bool isCut = m_gapFrom != kUnknown64 && m_gapTo == size;
    m_isCutInText = m_unitGoesOn && m_unitHasText && m_unitEnd == size;
    closeGap(isCut ? CheckRule::Cut : CheckRule::Damage);
    endUnit(size);
    settleEnd(Invalid);
    if (!(m_isPaged && pages::isBreak(size)))
        writeFills();
    for (const ContextSort sort : kContextSorts)
        endStretch(sort, size);
    if (m_oddFills > 0)
        note(m_firstOddFill, 0, Fill, CheckRule::Fill, false,
             countOf(m_oddFills, "packet") + " of padding with other bytes than 0x80, which are put right");
    if (m_frameBegin != kUnknown64) {
        const bool isWhole = m_options.isWhole && !isCut && !m_isCutInText;
        note(size, 0, Invalid, CheckRule::Cut, !isWhole,
             "the trace ends within a frame, which is closed: TraceDisabled and EndOfTrace are added");
        closeFrame();
        add(EndOfTrace);
    } else if (isCut && m_lastCode == TraceDisabled) {
        note(size, 0, Invalid, CheckRule::Cut, true, "the end of the trace is lost: EndOfTrace is added");
        add(EndOfTrace);
    }
    m_writer->flush();
    m_report.writtenBytes = m_writer->tellp();
    m_report.isWritten = m_report.isWritten && m_sink.good();
}

void RepairedTrace::note(std::uint64_t offset, std::uint64_t length, tagTCode kind, CheckRule rule, bool isLoss,
                         std::string text) {
    m_report.isLossy = m_report.isLossy || isLoss;
    m_take(m_taker, {m_in.from() + offset, length, kind, rule, isLoss, std::move(text)});
}

void RepairedTrace::closeGap(CheckRule rule) {
    if (m_gapFrom == kUnknown64)
        return;
    const std::uint64_t from = std::exchange(m_gapFrom, kUnknown64);
    ++m_report.places;
    m_report.lost += m_gapTo - from;
    note(from, m_gapTo - from, Invalid, rule, true,
         countOf(m_gapTo - from, "byte") + " that are no packet are left out");
    m_mayHaveBegun = m_frameBegin == kUnknown64 &&
                     (m_lastCode == Invalid || m_lastCode == TraceDisabled || m_lastCode == EndOfTrace);
}

void RepairedTrace::addText(std::string_view bytes, RepairSolver::Part part) {
    m_unitHasText = true;
    m_unitGoesOn = part.length == kCharStringMax;
    if (m_unit.size() + bytes.size() > pages::kFittingText) {
        m_unitDropped += part.length;
    } else {
        m_unit.append(bytes);
        m_unit[m_unit.size() - bytes.size() + 1] = static_cast<char>(part.length);
    }
    if (!m_unitGoesOn)
        endUnit(m_unitEnd + part.size);
}

void RepairedTrace::endUnit(std::uint64_t next) {
    if (m_unit.empty())
        return;
    const tagTCode code = codeAt(m_unit);
    if (m_unitDropped > 0)
        note(m_unitOffset, next - m_unitOffset, code, CheckRule::Text, true,
             "the last " + countOf(m_unitDropped, "byte") + " of its text are left out: no page can hold them");
    else if (m_unitGoesOn && m_unitHasText)
        note(m_unitOffset, next - m_unitOffset, code, m_isCutInText ? CheckRule::Cut : CheckRule::Text, true,
             "its text breaks off, and is ended with what there is of it");
    m_unitGoesOn = false;
    m_unitNext = next;
    process(code);
    m_unit.clear();
}

void RepairedTrace::process(tagTCode code) {
    if (m_isPaged && pages::numberAt(m_unitOffset) != m_page) {
        m_page = pages::numberAt(m_unitOffset);
        m_isAtPageStart = true;
        m_restated = {};
        m_fills.clear(); // they have padded the page before
    }
    settleEnd(code);
    if (code == Fill) {
        if (!isPadding(std::string_view(m_unit).substr(kHeader)) && m_oddFills++ == 0)
            m_firstOddFill = m_unitOffset;
        leavePageStart();
        if (m_isPaged)
            m_fills.push_back(static_cast<std::uint8_t>(m_unit[1]));
        else
            writeUnit();
        return;
    }
    const ContextSort sync = sortOfSync(code);
    if (m_isAtPageStart && sync != ContextSort::None && !m_restated[unsigned(sync)])
        return restate(sync);
    leavePageStart();
    writeFills();
    if (std::exchange(m_mayHaveBegun, false) && code != TraceEnabled && code != TraceDisabled && code != EndOfTrace)
        beginFrame();
    if (sync != ContextSort::None)
        return takeSync(sync);
    if (const ContextSort sort = sortOfRelative(code); sort != ContextSort::None)
        placeRelative(sort);
    if (code == EndOfTrace)
        m_endAt = m_unitOffset; // whether it is one is told by what follows
    else if (code == TraceEnabled || code == TraceDisabled)
        processFrame(code, m_unitOffset);
    else
        writeOther(code);
}

void RepairedTrace::writeOther(tagTCode code) {
    if (code == CharString && m_unit.size() > kHeader && m_takesText)
        add(CharString); // or it would be taken for the text of the packet before
    writeUnit();
}

void RepairedTrace::restate(ContextSort sort) {
    const PacketPointer packet = unitPacket();
    if (!packet)
        return;
    m_restated[unsigned(sort)] = true;
    Reference& reference = m_references[unsigned(sort)];
    if (!reference.isDoubtful && m_contexts.knows(sort) && !m_contexts.repeats(*packet))
        note(m_unitOffset, 0, codeAt(m_unit), CheckRule::Restated, true,
             std::string("restates another ") + nameOf(sort) + " context than was told; " +
                 countOf(reference.users, "relative packet") + " before may have a wrong one");
    endStretch(sort, m_unitOffset);
    m_contexts.note(*packet);
    reference = {};
    if (!m_written.knows(sort) || !m_written.repeats(*packet))
        writeUnit(*packet);
    m_written.note(*packet);
}

void RepairedTrace::takeSync(ContextSort sort) {
    const PacketPointer packet = unitPacket();
    if (!packet)
        return doubt(sort);
    endStretch(sort, m_unitOffset);
    m_references[unsigned(sort)] = {};
    m_contexts.note(*packet);
    m_written.note(*packet);
    writeUnit(*packet);
}

void RepairedTrace::leavePageStart() {
    if (!std::exchange(m_isAtPageStart, false) || m_page == 0)
        return;
    for (const ContextSort sort : kContextSorts) {
        if (m_contexts.knows(sort) && !m_restated[unsigned(sort)])
            doubt(sort);
    }
}

void RepairedTrace::doubtBehind(std::string_view header) {
    for (const ContextSort sort : kContextSorts) {
        if (sortOfSync(codeAt(header)) == sort || lengthAt(header) == lengthOf(sort))
            doubt(sort);
    }
}

void RepairedTrace::doubt(ContextSort sort) {
    Reference& reference = m_references[unsigned(sort)];
    reference.isDoubtful = true;
    reference.wasSought = false;
}

void RepairedTrace::placeRelative(ContextSort sort) {
    Reference& reference = m_references[unsigned(sort)];
    if (m_report.isLossy && !m_contexts.knows(sort))
        reference.isDoubtful = true;
    if (reference.isDoubtful && !std::exchange(reference.wasSought, true) && findRestated(sort)) {
        endStretch(sort, m_unitOffset);
        reference = {};
        note(m_unitOffset, 0, syncOf(sort), CheckRule::Reference, false,
             std::string("the ") + nameOf(sort) +
                 " context that packets are relative to is that which the next page "
                 "restates");
        const PacketPointer packet(m_contexts.sync(sort));
        if (!m_written.knows(sort) || !m_written.repeats(*packet)) {
            m_written.note(*packet);
            write(*packet);
        }
    }
    ++reference.users;
    if (!reference.isDoubtful)
        return;
    if (reference.uncertain++ == 0) {
        reference.stretch = m_unitOffset;
        const PacketPointer packet = unknownSync(sort);
        if (!m_written.knows(sort) || !m_written.repeats(*packet)) {
            m_written.note(*packet);
            write(*packet);
        }
    }
}

PacketPointer RepairedTrace::unknownSync(ContextSort sort) {
    constexpr std::uint32_t kUnknown = ~std::uint32_t{0};
    switch (sort) {
    case ContextSort::Bus:
        return PacketPointer(new CBusSync(kUnknown64, kUnknown, kUnknown));
    case ContextSort::System:
        return PacketPointer(new CSystemSync(kUnknown64, kUnknown, kUnknown));
    default:
        return PacketPointer(new CSync(kUnknown64, kUnknown, kUnknown, kUnknown64));
    }
}

bool RepairedTrace::findRestated(ContextSort sort) {
    if (!m_isPaged)
        return false;
    const std::uint64_t end = pages::endAt(m_unitOffset);
    m_in.reach(m_here, end + pages::kMostRestated);
    std::uint64_t at = m_unitNext;
    for (unsigned size; at < end && at < m_in.end(); at += size) {
        const std::string_view here = m_in.at(at, end);
        size = sizeOfPacket(here);
        if (size == 0 || sortOfSync(codeAt(here)) == sort || RepairSolver::isDisguised(here, m_lastTick))
            return false;
    }
    for (unsigned size; at < m_in.end(); at += size) {
        const std::string_view here = m_in.at(at);
        size = sizeOfPacket(here);
        const ContextSort restated = size == 0 ? ContextSort::None : sortOfSync(codeAt(here));
        if (restated == ContextSort::None)
            return false;
        if (restated == sort)
            return m_contexts.note(codeAt(here), here.data() + kHeader, lengthAt(here));
    }
    return false;
}

void RepairedTrace::endStretch(ContextSort sort, std::uint64_t next) {
    Reference& reference = m_references[unsigned(sort)];
    if (reference.uncertain == 0)
        return;
    m_report.uncertain += reference.uncertain;
    note(reference.stretch, next - reference.stretch, Invalid, CheckRule::Reference, true,
         std::string("the ") + nameOf(sort) + " context of " + countOf(reference.uncertain, "relative packet") +
             " is not known, as what told it may be lost");
    reference.uncertain = 0;
}

void RepairedTrace::settleEnd(tagTCode next) {
    const std::uint64_t at = std::exchange(m_endAt, kUnknown64);
    if (at == kUnknown64)
        return;
    if (next == Invalid || next == TraceEnabled || next == Fill)
        processFrame(EndOfTrace, at);
    else
        note(at, kHeader, EndOfTrace, CheckRule::Frame, true, "is left out, as the trace goes on behind it");
}

void RepairedTrace::processFrame(tagTCode code, std::uint64_t offset) {
    if (code == TraceDisabled && m_frameBegin == kUnknown64) {
        note(offset, m_unit.size(), code, CheckRule::Frame, true, "ends a frame that has not begun, and is left out");
        return;
    }
    if (m_frameBegin != kUnknown64 && (code == TraceEnabled || (code == EndOfTrace && m_lossInFrame))) {
        note(offset, 0, Invalid, CheckRule::Frame, true,
             "the end of the frame before is missing: TraceDisabled is added");
        closeFrame();
    }
    if (code == TraceEnabled) {
        m_lossInFrame = false;
        if (const PacketPointer packet = unitPacket()) {
            if (const auto* enabled = packetAs<CTraceEnabled>(*packet)) {
                ++m_report.packets;
                openFrame(*enabled);
            }
        }
        return;
    }
    if (code == TraceDisabled && m_frameBegin != kUnknown64) {
        const std::uint64_t length = offset + m_unit.size() - m_frameBegin;
        const std::uint64_t lacking =
            m_frameLength != kUnknown64 && m_frameLength > length ? m_frameLength - length : 0;
        if (lacking > 0) {
            ++m_report.places;
            m_report.lost += lacking;
        }
        if (lacking > 0 || (!m_lossInFrame && m_frameLength != kUnknown64 && m_frameLength != length))
            note(m_frameBegin, 0, TraceEnabled, CheckRule::Frame, lacking > 0,
                 "tells a frame of " + countOf(m_frameLength, "byte") + ", which has " + std::to_string(length) +
                     (lacking > 0 ? ": " + countOf(lacking, "byte") + (lacking == 1 ? " is" : " are") + " missing"
                                  : "") +
                     "; the length is put right");
    }
    ++m_report.packets;
    add(code);
    if (code == TraceDisabled)
        tellFrameLength(m_frameLength != kUnknown64 || m_lossInFrame);
    m_frameBegin = kUnknown64;
    m_lossInFrame = false;
}

void RepairedTrace::openFrame(const CTraceEnabled& enabled) {
    m_frameBegin = m_unitOffset;
    m_frameLength = enabled.FrameLen();
    // A short one has no room for a length.
    CTraceEnabled whole(enabled.FrameLen(), enabled.FrameConfig());
    whole.Version(enabled.Version());
    m_openFrame = OpenFrame(m_writer->tellp(), whole);
    write(whole);
}

void RepairedTrace::beginFrame() {
    note(m_unitOffset, 0, Invalid, CheckRule::Frame, true,
         "the beginning of a frame may be lost: TraceEnabled is added");
    openFrame(CTraceEnabled());
    m_lossInFrame = true;
}

void RepairedTrace::closeFrame() {
    add(TraceDisabled);
    tellFrameLength(true);
    m_frameBegin = kUnknown64;
    m_lossInFrame = false;
}

void RepairedTrace::tellFrameLength(bool isTold) {
    if (isTold && m_openFrame && m_plain && isWritten()) {
        m_writer->flush();
        m_openFrame.closeIn(m_sink, m_openFrame.closed(m_writer->tellp()), m_writer->tellp());
    }
    m_openFrame = OpenFrame();
}

void RepairedTrace::writeFills() {
    for (const std::uint8_t length : std::exchange(m_fills, {})) {
        CFill fill(length);
        write(fill);
    }
}

void RepairedTrace::add(tagTCode code) {
    const PacketPointer packet(CPacketFactory::getCPacket(code));
    write(*packet);
}

PacketPointer RepairedTrace::unitPacket() {
    unsigned consumed = 0;
    PacketPointer packet(CPacketFactory::getCPacket(m_unit.data(), static_cast<unsigned>(m_unit.size()), consumed));
    if (!packet) {
        ++m_report.places;
        m_report.lost += m_unitNext - m_unitOffset;
        note(m_unitOffset, m_unitNext - m_unitOffset, codeAt(m_unit), CheckRule::Damage, true,
             "cannot be read, and is left out");
    }
    return packet;
}

void RepairedTrace::writeUnit() {
    if (const PacketPointer packet = unitPacket())
        writeUnit(*packet);
}

void RepairedTrace::writeUnit(CPacket& packet) {
    ++m_report.packets;
    write(packet);
}

void RepairedTrace::write(CPacket& packet) {
    m_report.isWritten = m_report.isWritten && m_writer->put(&packet);
    m_lastCode = packet.TraceCode();
    const CCharStringSequence* text = textOf(packet);
    m_takesText = text && text->view().empty();
}

} // namespace Quorvex::detail

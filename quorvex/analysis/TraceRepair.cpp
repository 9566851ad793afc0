#include "quorvex/analysis/TraceRepair.h"

#include "quorvex/analysis/TraceError.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/format/Characters.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/platform/LittleEndian.h"
#include "quorvex/platform/System.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/FileKind.h"
#include "quorvex/stream/OpenFrame.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/TraceSourceBuffer.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "quorvex/stream/TraceWriterPlain.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <cerrno>
#include <cstring>
#include <deque>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace Quorvex {

namespace {

constexpr unsigned kHeader = CPacketHeader::Len();
constexpr unsigned kMostBytes = kHeader + UINT8_MAX; ///< of a packet

constexpr tagTCode syncOf(ContextSort sort) {
    constexpr tagTCode kCodes[] = {Invalid, Sync, BusSync, SystemSync};
    return kCodes[unsigned(sort)];
}
constexpr unsigned lengthOf(ContextSort sort) {
    return sort == ContextSort::Core ? CCoreContext::Len() : CBusContext::Len();
}
static_assert(CBusContext::Len() == CSystemContext::Len());

/// Whether two ticks can be of one trace, as far as that can be told.
bool isNear(std::uint64_t one, std::uint64_t other) {
    constexpr std::uint64_t kFar = std::uint64_t{1} << 40;
    return one != kUnknown64 && other != kUnknown64 && (one > other ? one - other : other - one) < kFar;
}

std::string countOf(std::uint64_t count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

/// The bytes of a source, of which a part can be looked at that moves on. Positions count from where the trace begins.
class Window {
public:
    Window(CTraceSourceBuffer& source, const std::string& name, std::uint64_t from, std::uint64_t to)
        : m_source(source), m_name(name), m_from(from), m_left(to - from), m_isAtStart(from > 0) {}

    /// Sees to it that the bytes from `keep` to before `to` are there, those before may go. False where the source ends
    /// before.
    bool reach(std::uint64_t keep, std::uint64_t to) {
        if (to > m_end && !m_isEnded)
            refill(keep);
        return to <= m_end;
    }
    std::uint64_t end() const { return m_end; }   ///< behind the last byte that is there
    bool isEnded() const { return m_isEnded; }    ///< there is nothing behind it
    std::uint64_t from() const { return m_from; } ///< where the trace begins in the source
    std::string_view at(std::uint64_t position, std::uint64_t limit = kUnknown64) const {
        return {m_bytes.get() + indexOf(position), static_cast<std::size_t>(std::min(limit, m_end) - position)};
    }

    static constexpr std::size_t kSize = 17 * std::size_t{kPageSize};

private:
    std::size_t indexOf(std::uint64_t position) const { return static_cast<std::size_t>(position - m_begin); }

    void refill(std::uint64_t keep) {
        std::memmove(m_bytes.get(), m_bytes.get() + indexOf(keep), indexOf(m_end) - indexOf(keep));
        m_begin = keep;
        while (!m_isEnded && indexOf(m_end) < kSize) {
            const auto wanted =
                static_cast<unsigned>(std::min<std::uint64_t>({kSize - indexOf(m_end), kPageSize, m_left}));
            unsigned got = 0;
            char* const to = m_bytes.get() + indexOf(m_end);
            if (wanted > 0 && std::exchange(m_isAtStart, false))
                m_source.read(to, wanted, m_from, got);
            else if (wanted > 0)
                m_source.read(to, wanted, got);
            if (got == 0 && wanted > 0 && !m_source.eof())
                throw TraceError(m_name, m_from + m_end, platform::errorText(EIO));
            m_end += got;
            m_left -= got;
            m_isEnded = got == 0;
        }
    }

    CTraceSourceBuffer& m_source;
    const std::string& m_name;
    std::uint64_t m_from;
    std::uint64_t m_left;
    bool m_isAtStart; ///< it is to be gone to
    std::unique_ptr<char[]> m_bytes = std::make_unique_for_overwrite<char[]>(kSize);
    std::uint64_t m_begin = 0;
    std::uint64_t m_end = 0;
    bool m_isEnded = false;
};

tagTCode codeAt(std::string_view bytes) {
    return tagTCode(static_cast<unsigned char>(bytes[0]));
}
unsigned lengthAt(std::string_view bytes) {
    return static_cast<unsigned char>(bytes[1]);
}

/// The tick that a packet of that code tells in full where its payload begins; kUnknown64 where it tells none.
std::uint64_t fullTickAt(std::string_view packet) {
    const tagTCode code = codeAt(packet);
    const KindFacts& facts = factsOf(code);
    if (packet.size() < kHeader + sizeof(std::uint64_t) ||
        !(code == Timestamp || (facts.context != ContextSort::None && !facts.isRelative)))
        return kUnknown64;
    return checkedTick(loadLittleEndian<std::uint64_t>(packet.data() + kHeader));
}

bool isPadding(std::string_view bytes) {
    return bytes.find_first_not_of('\x80') == bytes.npos;
}

/// How packets are read from bytes. All of it is worth or costs what the comment on repairTrace() tells.
class Solver {
public:
    /// How a packet, or what is none, is taken.
    enum class How : std::uint8_t {
        Gap,     ///< it is one of the bytes that are stepped over
        Stepped, ///< is stepped over by its announced length
        Packet,  ///< as it stands
        Mended,  ///< with another length than its header tells
        Trimmed, ///< without the bytes behind its fields
    };
    struct Part {
        How how;
        std::uint16_t size;  ///< bytes in the source
        std::uint8_t length; ///< of the payload
    };

    /// Whether a packet of a kind without a tick holds one that fits where others have theirs.
    static bool hidesTick(std::string_view packet, std::uint64_t lastTick) {
        return packet.size() >= kHeader + sizeof lastTick &&
               isNear(checkedTick(loadLittleEndian<std::uint64_t>(packet.data() + kHeader)), lastTick);
    }
    /// Whether a text or padding is a sync packet whose code was damaged.
    static bool isDisguised(std::string_view packet, std::uint64_t lastTick) {
        const tagTCode code = codeAt(packet);
        return (code == CharString || code == Fill) &&
               std::ranges::any_of(kContextSorts,
                                   [&](ContextSort sort) { return lengthAt(packet) == lengthOf(sort); }) &&
               hidesTick(packet, lastTick);
    }

    /// Whether a text or padding does not look like one.
    static bool isOddText(std::string_view packet) {
        const std::string_view payload = packet.substr(kHeader);
        return codeAt(packet) == Fill ? !isPadding(payload)
                                      : codeAt(packet) == CharString && payload.find('\0') != payload.npos;
    }

    /// Finds the best way through the first `count` bytes. Others may stand behind them; where `isEnd` is set, no
    /// packet reaches beyond them, and if the trace ends there, `isTraceEnd` is set, too.
    void solve(std::string_view bytes, std::size_t count, bool isEnd, bool isTraceEnd, std::uint64_t lastTick) {
        m_bytes = isEnd ? bytes.substr(0, count) : bytes;
        m_count = count;
        m_isTraceEnd = isTraceEnd;
        m_lastTick = lastTick;
        m_cells.assign(count + 1, Cell());
        for (std::size_t at = count; at-- > 0;)
            rate(at);
    }

    /// What is taken at a place, behind bytes that were stepped over or not.
    Part partAt(std::size_t at, bool isInGap) const {
        const Cell& cell = m_cells[at];
        if (isInGap && !cell.endsGap)
            return {How::Gap, 1, 0};
        if (isInGap)
            return {How::Packet, static_cast<std::uint16_t>(kHeader + cell.length), cell.length};
        return cell.part;
    }

private:
    struct Cell {
        int chain = 0;                   ///< what all from here on is worth
        int gap = 0;                     ///< the same behind a byte that is stepped over
        std::uint64_t tick = kUnknown64; ///< the next one that a packet tells in full
        Part part{How::Gap, 1, 0};       ///< what comes here
        std::uint8_t length = 0;         ///< that the header announces
        bool endsGap = false;            ///< a gap ends here
        bool isPacket = false, isFitting = false;
    };
    enum Points : int {
        First = 1,
        Text = 2,
        Other = 3,
        Fitting = 12,
        Gap = -26,
        Mended = -25,
        Cut = -17,
        Stepped = -24,
        Trimmed = -23,
        Shortened = -10,
    };

    /// The lengths that payloads can have.
    static const std::vector<std::uint8_t>& lengthsOf(tagTCode code) {
        using Lengths = std::array<std::vector<std::uint8_t>, 256>;
        static const Lengths kLengths = [] {
            Lengths lengths;
            for (unsigned of = 0; of < lengths.size(); ++of) {
                for (unsigned length = 0; length <= UINT8_MAX; ++length) {
                    if (detail::fieldsOf(tagTCode(of), static_cast<std::uint8_t>(length)) == length)
                        lengths[of].push_back(static_cast<std::uint8_t>(length));
                }
            }
            return lengths;
        }();
        return kLengths[code];
    }
    const Cell& cellAt(std::size_t at) const { return m_cells[std::min(at, m_count)]; }

    /// What the packet of that length is worth.
    int worth(std::string_view packet, std::uint64_t tick, std::uint64_t nextTick) const {
        const tagTCode code = codeAt(packet);
        if (code == Fill)
            return isPadding(packet.substr(kHeader)) ? Text : 0;
        if (code == CharString)
            return Text;
        return isNear(tick, m_lastTick) || isNear(tick, nextTick) ? Fitting : Other;
    }

    void rate(std::size_t at) {
        Cell& cell = m_cells[at];
        const Cell& next = cellAt(at + 1);
        cell.gap = next.gap;
        cell.chain = Gap + next.gap;
        cell.tick = next.tick;
        const std::string_view here = m_bytes.substr(at);
        if (m_isTraceEnd && isCut(here))
            consider(cell, {How::Stepped, static_cast<std::uint16_t>(here.size()), 0}, Cut, kUnknown64,
                     cellAt(m_count));
        if (here.size() < kHeader)
            return;
        const tagTCode code = codeAt(here);
        const unsigned length = lengthAt(here);
        cell.length = static_cast<std::uint8_t>(length);
        unsigned size = detail::sizeOfPacket(here);
        if (size > 0 && isDisguised(here, m_lastTick))
            size = 0;
        if (size > 0) {
            const Cell& behind = cellAt(at + size);
            const std::uint64_t tick = fullTickAt(here.substr(0, size));
            const int points = worth(here.substr(0, size), tick, behind.tick);
            cell.isPacket = true;
            cell.isFitting = points == Fitting;
            consider(cell, {How::Packet, static_cast<std::uint16_t>(size), static_cast<std::uint8_t>(length)},
                     points + behind.chain, tick, behind);
            const int first = (cell.isFitting ? points : mayBeFirst(here.substr(0, size)) ? First : 0) + behind.chain;
            cell.endsGap = first > cell.gap;
            cell.gap = std::max(cell.gap, first);
        } else if (kHeader + length <= here.size()) {
            const std::size_t step = kHeader + length;
            const Cell& behind = cellAt(at + step);
            const unsigned fields = detail::fieldsOf(code, static_cast<std::uint8_t>(length));
            if (fields < length && sortOfSync(code) == ContextSort::None &&
                (fullTickAt(here) != kUnknown64 || !hidesTick(here.substr(0, step), m_lastTick)))
                consider(cell, {How::Trimmed, static_cast<std::uint16_t>(step), static_cast<std::uint8_t>(fields)},
                         Trimmed + behind.chain, kUnknown64, behind);
            consider(cell, {How::Stepped, static_cast<std::uint16_t>(step), 0}, Stepped + behind.chain, kUnknown64,
                     behind);
        }
        mend(cell, at, here);
    }

    /// Whether these bytes, the last ones, can be the beginning of a packet.
    static bool isCut(std::string_view bytes) {
        return bytes.size() < kHeader ||
               (kHeader + lengthAt(bytes) > bytes.size() &&
                detail::fieldsOf(codeAt(bytes), static_cast<std::uint8_t>(lengthAt(bytes))) == lengthAt(bytes));
    }

    void consider(Cell& cell, Part part, int points, std::uint64_t tick, const Cell& behind) {
        if (points <= cell.chain)
            return;
        cell.chain = points;
        cell.part = part;
        cell.tick = tick != kUnknown64 ? tick : behind.tick;
    }

    /// Whether a packet that is nothing by itself can begin a row of them.
    static bool mayBeFirst(std::string_view packet) {
        std::string_view text = packet.substr(kHeader);
        bool isText = !text.empty();
        while (isText && !text.empty()) {
            const Character character = firstCharacter(text);
            isText = character.printable;
            text.remove_prefix(character.size);
        }
        return codeAt(packet) != Fill && (codeAt(packet) != CharString || isText);
    }

    /// Looks for another length for the packet.
    void mend(Cell& cell, std::size_t at, std::string_view here) {
        constexpr std::size_t kMany = 8;
        const tagTCode code = codeAt(here);
        const bool isOdd = isOddText(here.substr(0, kHeader + cell.length));
        const std::vector<std::uint8_t>& lengths = lengthsOf(code);
        for (const std::uint8_t length : lengths) {
            const std::size_t size = kHeader + length;
            if (length == cell.length || size > here.size())
                continue;
            const std::string_view packet = here.substr(0, size);
            if (code == Fill && !isPadding(packet.substr(kHeader)))
                break; // nor are longer ones
            const Cell& behind = cellAt(at + size);
            const bool isShortened = isOdd && length < cell.length;
            if (!behind.isPacket && (at + size < m_count || m_isTraceEnd || lengths.size() > kMany))
                continue;
            const std::uint64_t tick = fullTickAt(packet);
            const int points = worth(packet, tick, behind.tick);
            const int own = cell.isPacket ? points : 0;
            consider(cell, {How::Mended, static_cast<std::uint16_t>(size), length},
                     (isShortened ? Shortened : Mended) + own + behind.chain, tick, behind);
        }
    }

    std::string_view m_bytes;
    std::size_t m_count = 0;
    bool m_isTraceEnd = false;
    std::uint64_t m_lastTick = kUnknown64;
    std::vector<Cell> m_cells;
};

/// Writes the packets of a trace that is put together from what could be read.
class Mending {
public:
    using Take = void (*)(void*, const RepairNote&);

    Mending(Window& in, CTraceSinkBuffer& to, bool isPaged, const RepairOptions& options, RepairReport& report,
            Take take, void* taker)
        : m_in(in), m_sink(to), m_isPaged(isPaged), m_options(options), m_report(report), m_take(take), m_taker(taker) {
        const bool writesPages =
            options.layout == RepairOptions::Layout::Kept ? isPaged : options.layout == RepairOptions::Layout::Paged;
        if (writesPages)
            m_writer = &m_paged.emplace(to);
        else
            m_writer = &m_plain.emplace(to);
    }

    // What comes next may end the packet before it, which may have to look at the next page: that moves the window, and
    // views of it are no good any more.

    /// A packet that stands there, with that length.
    void packet(std::uint64_t offset, Solver::Part part) {
        m_here = offset;
        closeGap();
        const auto bytesHere = [&] { return m_in.at(offset).substr(0, kHeader + part.length); };
        const std::string_view bytes = bytesHere();
        const tagTCode code = codeAt(bytes);
        const std::uint64_t tick = fullTickAt(bytes);
        const bool isLonger = part.how == Solver::How::Mended && part.length > lengthAt(bytes);
        if (part.how == Solver::How::Mended)
            note(offset, part.size, code, CheckRule::Damage, true,
                 "announces " + countOf(lengthAt(bytes), "byte") + ", of which it has " + std::to_string(part.length));
        if (part.how == Solver::How::Trimmed) {
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

    /// Bytes that are no packet; their header announces them if that is what they are stepped over by.
    void lose(std::uint64_t offset, std::uint64_t size, bool isAnnounced = false) {
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

    /// Nothing follows.
    void end(std::uint64_t size) {
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

    bool isWritten() const { return m_report.isWritten; }
    std::uint64_t lastTick() const { return m_lastTick; }

private:
    void note(std::uint64_t offset, std::uint64_t length, tagTCode kind, CheckRule rule, bool isLoss,
              std::string text) {
        m_report.isLossy = m_report.isLossy || isLoss;
        m_take(m_taker, {m_in.from() + offset, length, kind, rule, isLoss, std::move(text)});
    }

    void closeGap(CheckRule rule = CheckRule::Damage) {
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

    void addText(std::string_view bytes, Solver::Part part) {
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

    /// The packet is there with all its text, which what is at `next` does not belong to.
    void endUnit(std::uint64_t next) {
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

    void process(tagTCode code) {
        if (m_isPaged && m_unitOffset / kPageSize != m_page) {
            m_page = m_unitOffset / kPageSize;
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

    void writeOther(tagTCode code) {
        if (code == CharString && m_unit.size() > kHeader && m_takesText)
            add(CharString); // or it would be taken for the text of the packet before
        writeUnit();
    }

    /// A sync packet at the start of a page.
    void restate(ContextSort sort) {
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

    void takeSync(ContextSort sort) {
        const PacketPointer packet = unitPacket();
        if (!packet)
            return doubt(sort);
        endStretch(sort, m_unitOffset);
        m_references[unsigned(sort)] = {};
        m_contexts.note(*packet);
        m_written.note(*packet);
        writeUnit(*packet);
    }

    void leavePageStart() {
        if (!std::exchange(m_isAtPageStart, false) || m_page == 0)
            return;
        for (const ContextSort sort : kContextSorts) {
            if (m_contexts.knows(sort) && !m_restated[unsigned(sort)])
                doubt(sort);
        }
    }

    /// A packet whose header is not right may have been a sync packet, if its code or its length is that of one.
    void doubtBehind(std::string_view header) {
        for (const ContextSort sort : kContextSorts) {
            if (sortOfSync(codeAt(header)) == sort || lengthAt(header) == lengthOf(sort))
                doubt(sort);
        }
    }

    void doubt(ContextSort sort) {
        Reference& reference = m_references[unsigned(sort)];
        reference.isDoubtful = true;
        reference.wasSought = false;
    }

    /// Sees to it that a relative packet comes to stand behind the context that it is relative to.
    void placeRelative(ContextSort sort) {
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

    /// The sync packet that tells that nothing is known.
    static PacketPointer unknownSync(ContextSort sort) {
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

    /// Takes the context from the start of the next page, if nothing on this page changes it and all of it can be read.
    bool findRestated(ContextSort sort) {
        if (!m_isPaged)
            return false;
        const std::uint64_t end = (m_unitOffset / kPageSize + 1) * kPageSize;
        m_in.reach(m_here, end + pages::kMostRestated);
        std::uint64_t at = m_unitNext;
        for (unsigned size; at < end && at < m_in.end(); at += size) {
            const std::string_view here = m_in.at(at, end);
            size = detail::sizeOfPacket(here);
            if (size == 0 || sortOfSync(codeAt(here)) == sort || Solver::isDisguised(here, m_lastTick))
                return false;
        }
        for (unsigned size; at < m_in.end(); at += size) {
            const std::string_view here = m_in.at(at);
            size = detail::sizeOfPacket(here);
            const ContextSort restated = size == 0 ? ContextSort::None : sortOfSync(codeAt(here));
            if (restated == ContextSort::None)
                return false;
            if (restated == sort)
                return m_contexts.note(codeAt(here), here.data() + kHeader, lengthAt(here));
        }
        return false;
    }

    void endStretch(ContextSort sort, std::uint64_t next) {
        Reference& reference = m_references[unsigned(sort)];
        if (reference.uncertain == 0)
            return;
        m_report.uncertain += reference.uncertain;
        note(reference.stretch, next - reference.stretch, Invalid, CheckRule::Reference, true,
             std::string("the ") + nameOf(sort) + " context of " + countOf(reference.uncertain, "relative packet") +
                 " is not known, as what told it may be lost");
        reference.uncertain = 0;
    }

    /// An EndOfTrace packet counts where the trace ends, or another one begins.
    void settleEnd(tagTCode next) {
        const std::uint64_t at = std::exchange(m_endAt, kUnknown64);
        if (at == kUnknown64)
            return;
        if (next == Invalid || next == TraceEnabled || next == Fill)
            processFrame(EndOfTrace, at);
        else
            note(at, kHeader, EndOfTrace, CheckRule::Frame, true, "is left out, as the trace goes on behind it");
    }

    void processFrame(tagTCode code, std::uint64_t offset) {
        if (code == TraceDisabled && m_frameBegin == kUnknown64) {
            note(offset, m_unit.size(), code, CheckRule::Frame, true,
                 "ends a frame that has not begun, and is left out");
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

    void openFrame(const CTraceEnabled& enabled) {
        m_frameBegin = m_unitOffset;
        m_frameLength = enabled.FrameLen();
        // A short one has no room for a length.
        CTraceEnabled whole(enabled.FrameLen(), enabled.FrameConfig());
        whole.Version(enabled.Version());
        m_openFrame = detail::OpenFrame(m_writer->tellp(), whole);
        write(whole);
    }

    /// What stands here may have been in a frame whose beginning is lost.
    void beginFrame() {
        note(m_unitOffset, 0, Invalid, CheckRule::Frame, true,
             "the beginning of a frame may be lost: TraceEnabled is added");
        openFrame(CTraceEnabled());
        m_lossInFrame = true;
    }

    void closeFrame() {
        add(TraceDisabled);
        tellFrameLength(true);
        m_frameBegin = kUnknown64;
        m_lossInFrame = false;
    }

    /// Puts the length of the frame that has just ended into its first packet; a writer of pages has done that itself.
    void tellFrameLength(bool isTold) {
        if (isTold && m_openFrame && m_plain && isWritten()) {
            m_writer->flush();
            m_openFrame.closeIn(m_sink, m_openFrame.closed(m_writer->tellp()), m_writer->tellp());
        }
        m_openFrame = detail::OpenFrame();
    }

    void writeFills() {
        for (const std::uint8_t length : std::exchange(m_fills, {})) {
            CFill fill(length);
            write(fill);
        }
    }

    void add(tagTCode code) {
        const PacketPointer packet(CPacketFactory::getCPacket(code));
        write(*packet);
    }

    /// Null, with a note of that, where the bytes are none.
    PacketPointer unitPacket() {
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

    void writeUnit() {
        if (const PacketPointer packet = unitPacket())
            writeUnit(*packet);
    }
    void writeUnit(CPacket& packet) {
        ++m_report.packets;
        write(packet);
    }

    void write(CPacket& packet) {
        m_report.isWritten = m_report.isWritten && m_writer->put(&packet);
        m_lastCode = packet.TraceCode();
        const CCharStringSequence* text = textOf(packet);
        m_takesText = text && text->view().empty();
    }

    /// What relative packets of a sort are relative to.
    struct Reference {
        bool isDoubtful = false;     ///< it may have been told where something is lost
        bool wasSought = false;      ///< the next page does not tell
        std::uint64_t users = 0;     ///< packets since it was told
        std::uint64_t uncertain = 0; ///< those of them for which it is doubtful,
        std::uint64_t stretch = 0;   ///< from there on
    };

    Window& m_in;
    CTraceSinkBuffer& m_sink;
    bool m_isPaged;
    const RepairOptions& m_options;
    RepairReport& m_report;
    Take m_take;
    void* m_taker;
    std::optional<CTraceWriterPaged> m_paged;
    std::optional<CTraceWriterPlain> m_plain;
    CTraceSinkEx* m_writer = nullptr;
    std::uint64_t m_lastTick = kUnknown64;
    std::uint64_t m_here = 0; ///< what is before it is not looked at any more
    // What is stepped over.
    std::uint64_t m_gapFrom = kUnknown64; ///< unknown: nothing
    std::uint64_t m_gapTo = 0;
    // The packet that is not processed yet, with its text.
    std::string m_unit;
    std::uint64_t m_unitOffset = 0;
    std::uint64_t m_unitEnd = 0;
    std::uint64_t m_unitNext = 0;    ///< where the next one may begin
    std::uint64_t m_unitDropped = 0; ///< bytes of its text
    bool m_unitGoesOn = false;       ///< (more of) its text may follow
    bool m_unitHasText = false;
    bool m_isCutInText = false;
    // What was written.
    tagTCode m_lastCode = Invalid;
    bool m_takesText = false; ///< the last packet would take a text behind it for its own
    CContexts m_written;      ///< what the packets that were written tell
    // Pages.
    std::uint64_t m_page = 0;
    bool m_isAtPageStart = false;
    std::array<bool, 4> m_restated{};
    std::vector<std::uint8_t> m_fills; ///< that may be the page's padding
    std::uint64_t m_oddFills = 0;
    std::uint64_t m_firstOddFill = 0;
    // Contexts.
    CContexts m_contexts; ///< what the packets that were read tell
    std::array<Reference, 4> m_references{};
    // Frames.
    std::uint64_t m_frameBegin = kUnknown64;
    std::uint64_t m_frameLength = kUnknown64;
    std::uint64_t m_endAt = kUnknown64; ///< of an EndOfTrace packet that is not written yet
    bool m_lossInFrame = false;         ///< or since the last one
    bool m_mayHaveBegun = false;        ///< where bytes were lost
    detail::OpenFrame m_openFrame;
};

/// Whether a trace is one of pages, as its first ones tell: a reader can begin at them.
bool beginsPages(const Window& in) {
    unsigned told = 0, pages = 0;
    for (std::uint64_t at = kPageSize; at < in.end(); at += kPageSize) {
        const std::string_view page = in.at(at, at + kPageSize);
        constexpr std::size_t kTelling = 16;
        const std::string_view start = page.substr(0, kTelling);
        if (start.find_first_not_of(start[0]) == start.npos)
            continue; // erased
        ++told;
        CContexts contexts;
        constexpr unsigned kRow = 64;
        constexpr unsigned kFewest = 8;
        unsigned packets = 0;
        std::size_t next = 0;
        bool isKnown = true;
        for (unsigned size; packets < kRow && isKnown && next < page.size(); next += size, ++packets) {
            const std::string_view here = page.substr(next);
            size = detail::sizeOfPacket(here);
            if (size == 0)
                break;
            const ContextSort sort = sortOfRelative(codeAt(here));
            isKnown = sort == ContextSort::None || contexts.knows(sort);
            contexts.note(codeAt(here), here.data() + kHeader, lengthAt(here));
        }
        pages += isKnown && (packets >= kFewest || next >= page.size());
    }
    return 2 * pages > told;
}

class Repair {
public:
    Repair(CTraceSourceBuffer& source, CTraceSinkBuffer& to, const RepairOptions& options, Mending::Take take,
           void* taker)
        : m_in(source, options.name, options.from, options.to),
          m_isPaged((m_in.reach(0, Window::kSize), beginsPages(m_in))),
          m_out(m_in, to, m_isPaged, options, m_report, take, taker) {
        m_report.isPaged = m_isPaged;
    }

    RepairReport run() {
        while (m_out.isWritten()) {
            m_in.reach(kept(), m_at + kAhead + kMostBytes);
            if (m_at >= m_in.end())
                break;
            const std::string_view here = m_in.at(m_at, limit());
            const unsigned size = detail::sizeOfPacket(here);
            if (size == 0 || Solver::isOddText(here.substr(0, size))) {
                solve();
                continue;
            }
            m_pending.push_back(m_at);
            m_at += size;
            if (m_at == limit())
                takePending(0);
            else if (m_pending.size() > kPending)
                takePending(kPending);
        }
        takePending(0);
        m_report.size = m_in.end();
        m_out.end(m_in.end());
        return m_report;
    }

private:
    static constexpr std::size_t kPending = 16; ///< packets that may turn out to be none
    static constexpr unsigned kAhead = 0x4000;  ///< bytes behind damage that tell how to read on
    static constexpr unsigned kMargin = 0x1000; ///< the last of them are not decided yet

    std::uint64_t kept() const { return m_pending.empty() ? m_at : m_pending.front(); }
    /// No packet reaches beyond it.
    std::uint64_t limit() const { return m_isPaged ? (m_at / kPageSize + 1) * kPageSize : kUnknown64; }

    void takePending(std::size_t left) {
        while (m_pending.size() > left) {
            const std::uint64_t offset = m_pending.front();
            m_pending.pop_front();
            const unsigned length = lengthAt(m_in.at(offset));
            m_out.packet(offset, {Solver::How::Packet, static_cast<std::uint16_t>(kHeader + length),
                                  static_cast<std::uint8_t>(length)});
        }
    }

    /// Finds the best way around what cannot be read, from the packets that are pending on.
    void solve() {
        std::uint64_t at = kept();
        m_pending.clear();
        bool isInGap = false;
        do {
            const std::uint64_t from = at;
            m_in.reach(from, m_at + kAhead + kMostBytes);
            const std::uint64_t end = std::min({m_at + kAhead, m_in.end(), limit()});
            const bool isTraceEnd = m_in.isEnded() && end == m_in.end();
            const bool isEnd = isTraceEnd || end == limit();
            const auto count = static_cast<std::size_t>(end - from);
            m_solver.solve(m_in.at(from), count, isEnd, isTraceEnd, m_out.lastTick());
            std::size_t next = 0;
            while (next < count && (isEnd || next + kMargin < count)) {
                const Solver::Part part = m_solver.partAt(next, isInGap);
                isInGap = part.how == Solver::How::Gap;
                if (isInGap)
                    m_out.lose(from + next, 1);
                else if (part.how == Solver::How::Stepped)
                    m_out.lose(from + next, part.size, part.size >= kHeader);
                else
                    m_out.packet(from + next, part);
                next += part.size;
            }
            at = m_at = from + next;
            isInGap = isInGap && !isEnd;
        } while (isInGap && m_out.isWritten());
    }

    RepairReport m_report;
    Window m_in;
    bool m_isPaged;
    Mending m_out;
    Solver m_solver;
    std::uint64_t m_at = 0;              ///< what comes next
    std::deque<std::uint64_t> m_pending; ///< packets before it
};

} // namespace

RepairReport detail::repairTrace(CTraceSourceBuffer& source, CTraceSinkBuffer& to, const RepairOptions& options,
                                 void (*take)(void*, const RepairNote&), void* taker) {
    return Repair(source, to, options, take, taker).run();
}

namespace {

/// Looks for traces in any bytes.
class Search {
public:
    Search(CTraceSourceBuffer& source, const std::string& name)
        : m_in(source, name, 0, std::numeric_limits<std::uint64_t>::max()) {}

    template <class Take> void run(Take take) {
        for (std::uint64_t at = 0; reach(at), at < m_in.end(); ++at) {
            if (!isRow(at, kUnknown64))
                continue;
            const std::uint64_t end = endOf(at);
            take(FoundTrace{at, end - at});
            at = end - 1;
        }
    }

private:
    static constexpr unsigned kRow = 0x10000; ///< bytes in which packets must tell that they are some

    void reach(std::uint64_t at) { m_in.reach(at, at + kRow + kMostBytes); }

    /// Whether a packet stands there with which a frame begins, all its fields as they are written today.
    static bool isBeginning(std::string_view here) {
        constexpr std::size_t kConfigAt = detail::OpenFrame::kLengthAt + sizeof(std::uint64_t);
        constexpr std::uint32_t kConfigs = 8;
        return here.size() >= detail::OpenFrame::kSize && codeAt(here) == TraceEnabled &&
               lengthAt(here) == CTraceEnabled::Len() && loadLittleEndian<std::uint32_t>(here.data() + kHeader) == 0 &&
               loadLittleEndian<std::uint32_t>(here.data() + kConfigAt) < kConfigs;
    }

    /// Whether packets stand there that are no chance, behind one with that tick.
    bool isRow(std::uint64_t start, std::uint64_t tick) {
        constexpr unsigned kTicks = 8, kKinds = 3, kFurther = 4;
        const std::string_view first = m_in.at(start);
        const bool begins = isBeginning(first);
        if (!begins && (detail::sizeOfPacket(first) == 0 || fullTickAt(first) == kUnknown64))
            return false;
        reach(start);
        const bool isKnown = begins || tick != kUnknown64;
        std::bitset<256> kinds;
        bool isMixed = false;
        unsigned packets = 0, ticks = 0, falls = 0;
        unsigned size = 0, sizeBefore = 0;
        for (std::uint64_t at = start; at < m_in.end() && at < start + kRow; at += size) {
            const std::string_view here = m_in.at(at);
            size = detail::sizeOfPacket(here);
            if (size == 0)
                break;
            kinds.set(codeAt(here));
            isMixed = isMixed || (sizeBefore > 0 && size != sizeBefore);
            sizeBefore = size;
            ++packets;
            if (const std::uint64_t told = fullTickAt(here.substr(0, size)); told != kUnknown64) {
                if (tick != kUnknown64 && !isNear(told, tick))
                    return false;
                falls += tick != kUnknown64 && told < tick;
                tick = told;
                ++ticks;
            }
            if (begins ? packets >= kFurther && ticks > 0
                       : ticks >= (isKnown ? kFurther : kTicks) && 4 * falls <= ticks &&
                             (isKnown || (kinds.count() >= kKinds && isMixed)))
                return true;
        }
        return false;
    }

    /// Where the trace ends that begins there.
    std::uint64_t endOf(std::uint64_t at) {
        std::uint64_t tick = kUnknown64;
        while (true) {
            tagTCode last = Invalid;
            unsigned size = 0;
            for (; reach(at), at < m_in.end() && (size = detail::sizeOfPacket(m_in.at(at))) > 0; at += size) {
                last = codeAt(m_in.at(at));
                if (const std::uint64_t told = fullTickAt(m_in.at(at).substr(0, size)); told != kUnknown64)
                    tick = told;
                if (last == EndOfTrace)
                    return at + size;
            }
            m_in.reach(at, at + kPageSize + kRow + kMostBytes);
            std::uint64_t next = last == TraceDisabled ? m_in.end() : at;
            const std::uint64_t stop = std::min(at + kPageSize, m_in.end());
            while (next <= stop && next < m_in.end() && !isRow(next, tick))
                ++next;
            if (next > stop || next >= m_in.end() || codeAt(m_in.at(next)) == TraceEnabled)
                return at;
            at = next;
        }
    }

    Window m_in;
};

} // namespace

void detail::findTraces(CTraceSourceBuffer& source, const std::string& name, void (*take)(void*, const FoundTrace&),
                        void* taker) {
    Search(source, name).run([=](const FoundTrace& trace) { take(taker, trace); });
}

} // namespace Quorvex

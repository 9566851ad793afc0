#include "quorvex/analysis/RepairSolver.h"

#include "quorvex/analysis/RepairBytes.h"
#include "quorvex/format/Characters.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/platform/LittleEndian.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/FileKind.h"

#include <array>

namespace Quorvex::detail {

bool RepairSolver::hidesTick(std::string_view packet, std::uint64_t lastTick) {
    return packet.size() >= kHeader + sizeof lastTick &&
           isNear(checkedTick(loadLittleEndian<std::uint64_t>(packet.data() + kHeader)), lastTick);
}

bool RepairSolver::isDisguised(std::string_view packet, std::uint64_t lastTick) {
    const tagTCode code = codeAt(packet);
    return (code == CharString || code == Fill) &&
           std::ranges::any_of(kContextSorts, [&](ContextSort sort) { return lengthAt(packet) == lengthOf(sort); }) &&
           hidesTick(packet, lastTick);
}

bool RepairSolver::isOddText(std::string_view packet) {
    const std::string_view payload = packet.substr(kHeader);
    return codeAt(packet) == Fill ? !isPadding(payload)
                                  : codeAt(packet) == CharString && payload.find('\0') != payload.npos;
}

void RepairSolver::solve(std::string_view bytes, std::size_t count, bool isEnd, bool isTraceEnd,
                         std::uint64_t lastTick) {
    m_bytes = isEnd ? bytes.substr(0, count) : bytes;
    m_count = count;
    m_isTraceEnd = isTraceEnd;
    m_lastTick = lastTick;
    m_cells.assign(count + 1, Cell());
    for (std::size_t at = count; at-- > 0;)
        rate(at);
}

RepairSolver::Part RepairSolver::partAt(std::size_t at, bool isInGap) const {
    const Cell& cell = m_cells[at];
    if (isInGap && !cell.endsGap)
        return {How::Gap, 1, 0};
    if (isInGap)
        return {How::Packet, static_cast<std::uint16_t>(kHeader + cell.length), cell.length};
    return cell.part;
}

const std::vector<std::uint8_t>& RepairSolver::lengthsOf(tagTCode code) {
    using Lengths = std::array<std::vector<std::uint8_t>, 256>;
    static const Lengths kLengths = [] {
        Lengths lengths;
        for (unsigned of = 0; of < lengths.size(); ++of) {
            for (unsigned length = 0; length <= UINT8_MAX; ++length) {
                if (fieldsOf(tagTCode(of), static_cast<std::uint8_t>(length)) == length)
                    lengths[of].push_back(static_cast<std::uint8_t>(length));
            }
        }
        return lengths;
    }();
    return kLengths[code];
}

int RepairSolver::worth(std::string_view packet, std::uint64_t tick, std::uint64_t nextTick) const {
    const tagTCode code = codeAt(packet);
    if (code == Fill)
        return isPadding(packet.substr(kHeader)) ? Text : 0;
    if (code == CharString)
        return Text;
    return isNear(tick, m_lastTick) || isNear(tick, nextTick) ? Fitting : Other;
}

void RepairSolver::rate(std::size_t at) {
    Cell& cell = m_cells[at];
    const Cell& next = cellAt(at + 1);
    cell.gap = next.gap;
    cell.chain = Gap + next.gap;
    cell.tick = next.tick;
    const std::string_view here = m_bytes.substr(at);
    if (m_isTraceEnd && isCut(here))
        consider(cell, {How::Stepped, static_cast<std::uint16_t>(here.size()), 0}, Cut, kUnknown64, cellAt(m_count));
    if (here.size() < kHeader)
        return;
    const tagTCode code = codeAt(here);
    const unsigned length = lengthAt(here);
    cell.length = static_cast<std::uint8_t>(length);
    unsigned size = sizeOfPacket(here);
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
        const unsigned fields = fieldsOf(code, static_cast<std::uint8_t>(length));
        if (fields < length && sortOfSync(code) == ContextSort::None &&
            (fullTickAt(here) != kUnknown64 || !hidesTick(here.substr(0, step), m_lastTick)))
            consider(cell, {How::Trimmed, static_cast<std::uint16_t>(step), static_cast<std::uint8_t>(fields)},
                     Trimmed + behind.chain, kUnknown64, behind);
        consider(cell, {How::Stepped, static_cast<std::uint16_t>(step), 0}, Stepped + behind.chain, kUnknown64, behind);
    }
    mend(cell, at, here);
}

bool RepairSolver::isCut(std::string_view bytes) {
    return bytes.size() < kHeader ||
           (kHeader + lengthAt(bytes) > bytes.size() &&
            fieldsOf(codeAt(bytes), static_cast<std::uint8_t>(lengthAt(bytes))) == lengthAt(bytes));
}

void RepairSolver::consider(Cell& cell, Part part, int points, std::uint64_t tick, const Cell& behind) {
    if (points <= cell.chain)
        return;
    cell.chain = points;
    cell.part = part;
    cell.tick = tick != kUnknown64 ? tick : behind.tick;
}

bool RepairSolver::mayBeFirst(std::string_view packet) {
    std::string_view text = packet.substr(kHeader);
    bool isText = !text.empty();
    while (isText && !text.empty()) {
        const Character character = firstCharacter(text);
        isText = character.printable;
        text.remove_prefix(character.size);
    }
    return codeAt(packet) != Fill && (codeAt(packet) != CharString || isText);
}

void RepairSolver::mend(Cell& cell, std::size_t at, std::string_view here) {
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

} // namespace Quorvex::detail

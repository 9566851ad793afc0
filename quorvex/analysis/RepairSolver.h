#pragma once

#include "quorvex/format/Context.h"
#include "quorvex/format/TCodeInfo.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Quorvex::detail {

/// How packets are read from bytes. All of it is worth or costs what the comment on repairTrace() tells.
class RepairSolver {
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
    static bool hidesTick(std::string_view packet, std::uint64_t lastTick);
    /// Whether a text or padding is a sync packet whose code was damaged.
    static bool isDisguised(std::string_view packet, std::uint64_t lastTick);

    /// Whether a text or padding does not look like one.
    static bool isOddText(std::string_view packet);

    /// Finds the best way through the first `count` bytes. Others may stand behind them; where `isEnd` is set, no
    /// packet reaches beyond them, and if the trace ends there, `isTraceEnd` is set, too.
    void solve(std::string_view bytes, std::size_t count, bool isEnd, bool isTraceEnd, std::uint64_t lastTick);

    /// What is taken at a place, behind bytes that were stepped over or not.
    Part partAt(std::size_t at, bool isInGap) const;

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
    static const std::vector<std::uint8_t>& lengthsOf(tagTCode code);
    const Cell& cellAt(std::size_t at) const { return m_cells[std::min(at, m_count)]; }

    /// What the packet of that length is worth.
    int worth(std::string_view packet, std::uint64_t tick, std::uint64_t nextTick) const;

    void rate(std::size_t at);

    /// Whether these bytes, the last ones, can be the beginning of a packet.
    static bool isCut(std::string_view bytes);

    void consider(Cell& cell, Part part, int points, std::uint64_t tick, const Cell& behind);

    /// Whether a packet that is nothing by itself can begin a row of them.
    static bool mayBeFirst(std::string_view packet);

    /// Looks for another length for the packet.
    void mend(Cell& cell, std::size_t at, std::string_view here);

    std::string_view m_bytes;
    std::size_t m_count = 0;
    bool m_isTraceEnd = false;
    std::uint64_t m_lastTick = kUnknown64;
    std::vector<Cell> m_cells;
};

} // namespace Quorvex::detail

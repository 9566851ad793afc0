#pragma once

#include "quorvex/analysis/TableColumns.h"
#include "quorvex/analysis/TableFile.h"
#include "quorvex/analysis/TraceFile.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

namespace Quorvex::detail {

/// What could not be read, or is not there.
class LossTable {
public:
    enum Reason : std::uint8_t { Damage, Broken, Cut, End };
    static constexpr const char* kReasons[] = {"damage", "broken", "cut", "end"};

    struct Loss {
        std::uint64_t offset;
        Reason reason;
        std::uint64_t size = kUnknown64;
        std::uint64_t tick = kUnknown64;
        bool isOfBefore = false; ///< the tick is that of a packet before the piece
    };
    struct Piece {
        void note(const LossTable&, const CTraceCursor& packet) {
            if (!hasPackets)
                begin = packet.offset();
            else if (packet.offset() > end)
                add({end, Damage, packet.offset() - end});
            hasPackets = true;
            end = packet.end();
            if (packet.TraceCode() == TraceBroken) {
                losses.push_back({packet.offset(), Broken, kUnknown64, packet.tick()});
            } else if (const unsigned announced = static_cast<unsigned char>(packet.payload()[-1]);
                       announced > packet.Length() && packet.textState() != CTraceCursor::Text::Counted) {
                add({packet.offset() + CPacketHeader::Len() + packet.Length(), Damage, announced - packet.Length()});
            }
            if (const std::uint64_t its = packet.tick(); its != kUnknown64)
                tick = its;
        }
        void add(Loss loss) {
            loss.tick = tick;
            loss.isOfBefore = tick == kUnknown64;
            losses.push_back(loss);
        }

        std::vector<Loss> losses;
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
        std::uint64_t tick = kUnknown64; ///< the last one
        bool hasPackets = false;
    };

    LossTable(const TableFile& file, std::uint64_t begin) : m_file(file), m_end(begin) {}
    void take(Piece&& piece, Batches& rows) {
        if (!piece.hasPackets)
            return;
        if (piece.begin > m_end)
            add({m_end, Damage, piece.begin - m_end, m_tick}, rows);
        for (Loss& loss : piece.losses) {
            if (loss.isOfBefore)
                loss.tick = m_tick;
            add(loss, rows);
        }
        m_end = piece.end;
        if (piece.tick != kUnknown64)
            m_tick = piece.tick;
    }
    void finish(const TraceFile& trace, Batches& rows) {
        const TraceReport& report = trace.report();
        if (report.end == TraceEnd::Unread || trace.tableError())
            return; // a range ends here, or a table has no places
        if (report.endOffset > m_end)
            add({m_end, Damage, report.endOffset - m_end, m_tick}, rows);
        if (report.end == TraceEnd::InPacket)
            add({report.endOffset, Cut, trace.size() - report.endOffset, m_tick}, rows);
        if (report.end == TraceEnd::Missing || report.end == TraceEnd::InText || report.missing > 0)
            add({trace.size(), End, report.missing > 0 ? report.missing : kUnknown64, m_tick}, rows);
    }

private:
    void add(const Loss& loss, Batches& rows) const {
        using columns::at;
        using columns::kLosses;
        TableBatch& batch = batchFor(rows, m_file.layout);
        const std::size_t row = batch.add();
        batch[at(kLosses, "file")].setNumber(row, m_file.number);
        batch.setUnsigned(at(kLosses, "file_offset"), row, loss.offset);
        batch[at(kLosses, "reason")].setNumber(row, loss.reason);
        batch.setUnsigned(at(kLosses, "size"), row, loss.size);
        m_file.setTicks(batch, at(kLosses, "tick"), at(kLosses, "time_ns"), row, loss.tick);
    }

    const TableFile& m_file;
    std::uint64_t m_end;
    std::uint64_t m_tick = kUnknown64;
};

} // namespace Quorvex::detail

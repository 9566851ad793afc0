#pragma once

#include "quorvex/analysis/TableColumns.h"
#include "quorvex/analysis/TableFile.h"
#include "quorvex/analysis/TraceFile.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

namespace Quorvex::detail {

/// Makes a row of each packet of some kinds.
class RowTable {
public:
    class Piece {
    public:
        void note(const RowTable& table, const CTraceCursor& packet) {
            const RowTable::Make make = table.m_makes[packet.TraceCode()];
            if (make)
                (table.*make)(m_rows, packet);
        }

    private:
        friend class RowTable;
        Batches m_rows;
    };

    /// Of the kinds that are taken, by their codes.
    RowTable(TraceTable table, const TableFile& file, const std::vector<std::int32_t>& kinds,
             const std::vector<bool>& takes);
    void take(Piece&& piece, Batches& rows) {
        std::move(piece.m_rows.begin(), piece.m_rows.end(), std::back_inserter(rows));
    }
    void finish(const TraceFile&, Batches&) {}

private:
    using Make = void (RowTable::*)(Batches& rows, const CTraceCursor& packet) const;

    /// A row for a packet, with what all of these tables begin with; none where it is not within the window.
    template <const auto& Columns>
    TableBatch* begin(Batches& rows, std::size_t& row, const CTraceCursor& packet, const PacketPlace& place) const {
        using columns::at;
        if (!m_file.isWithin(place.tick))
            return nullptr;
        TableBatch& batch = batchFor(rows, m_file.layout);
        row = batch.add();
        batch[at(Columns, "file")].setNumber(row, m_file.number);
        batch.setUnsigned(at(Columns, "file_offset"), row, packet.offset());
        m_file.setTicks(batch, at(Columns, "tick"), at(Columns, "time_ns"), row, place.tick);
        return &batch;
    }
    static void setKnown(TableBatch& rows, unsigned column, std::size_t row, std::uint32_t number) {
        rows.setUnsigned(column, row, number == ~0U ? kUnknown64 : number);
    }
    static void setAddress(TableBatch& rows, unsigned column, std::size_t row, std::uint64_t address) {
        if (address == kUnknown64)
            rows[column].setNull(row);
        else
            rows[column].setNumber(row, static_cast<std::int64_t>(address));
    }
    template <const auto& Columns> static void setData(TableBatch& rows, std::size_t row, std::string_view data) {
        using columns::at;
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < std::min(data.size(), sizeof value); ++i)
            value |= std::uint64_t{static_cast<unsigned char>(data[i])} << 8 * i;
        if (data.empty())
            rows[at(Columns, "value")].setNull(row);
        else
            rows[at(Columns, "value")].setNumber(row, static_cast<std::int64_t>(value));
        rows.setText(at(Columns, "data"), row, data);
    }
    /// What stands behind so many bytes of the payload behind a core context.
    static std::string_view behind(const CTraceCursor& packet, unsigned bytes) {
        const unsigned context = factsOf(packet.TraceCode()).isRelative ? CRelCoreContext::Len() : CCoreContext::Len();
        return {packet.payload() + context + bytes, packet.Length() - context - bytes};
    }

    void makePacket(Batches& rows, const CTraceCursor& packet) const;
    void makeCounter(Batches& rows, const CTraceCursor& packet) const;
    void makeVariable(Batches& rows, const CTraceCursor& packet) const;
    void makeEvent(Batches& rows, const CTraceCursor& packet) const;
    void makeMessage(Batches& rows, const CTraceCursor& packet) const;
    void makeState(Batches& rows, const CTraceCursor& packet) const;

    const TableFile& m_file;
    const std::vector<std::int32_t>& m_kinds; ///< indices of their names, by code
    std::array<Make, 256> m_makes{};
};

} // namespace Quorvex::detail

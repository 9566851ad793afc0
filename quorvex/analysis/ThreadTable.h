#pragma once

#include "quorvex/analysis/TableColumns.h"
#include "quorvex/analysis/TableFile.h"
#include "quorvex/analysis/TraceFile.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

namespace Quorvex::detail {

/// The threads of which packets tell.
class ThreadTable {
public:
    struct Its {
        std::uint64_t packets = 0;
        std::uint64_t first = kUnknown64;
        std::uint64_t last = kUnknown64;

        void note(std::uint64_t count, std::uint64_t from, std::uint64_t to) {
            packets += count;
            first = std::min(first, from);
            last = last == kUnknown64 ? to : to == kUnknown64 ? last : std::max(last, to);
        }
    };
    struct Piece {
        void note(const ThreadTable& table, const CTraceCursor& packet) {
            const KindFacts& facts = factsOf(packet.TraceCode());
            if (facts.role == Role::Structure || facts.context != ContextSort::Core)
                return;
            const PacketPlace place = PacketPlace::onCore(packet);
            if (table.m_file.isWithin(place.tick))
                threads[place.thread].note(1, place.tick, place.tick);
        }
        Directory<std::uint32_t, Its> threads;
    };

    explicit ThreadTable(const TableFile& file) : m_file(file) {}
    void take(Piece&& piece, Batches&) {
        for (const auto& [number, its] : piece.threads)
            m_threads[number].note(its.packets, its.first, its.last);
    }
    void finish(const TraceFile&, Batches& rows) {
        using columns::at;
        using columns::kThreads;
        for (const auto& [number, its] : m_threads) {
            TableBatch& batch = batchFor(rows, m_file.layout);
            const std::size_t row = batch.add();
            batch[at(kThreads, "file")].setNumber(row, m_file.number);
            m_file.setThread<kThreads>(batch, row, number);
            batch.setUnsigned(at(kThreads, "packets"), row, its.packets);
            m_file.setTicks(batch, at(kThreads, "first_tick"), at(kThreads, "first_ns"), row, its.first);
            m_file.setTicks(batch, at(kThreads, "last_tick"), at(kThreads, "last_ns"), row, its.last);
        }
    }

private:
    const TableFile& m_file;
    Directory<std::uint32_t, Its> m_threads;
};

} // namespace Quorvex::detail

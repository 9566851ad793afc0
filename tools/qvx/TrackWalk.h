#pragma once

#include "TrackIndex.h"

#include <cstdint>
#include <limits>
#include <span>
#include <string_view>

namespace qvx {

/// How those who answer out of an index go through it. Moments are ticks from the base of the index.
class TrackWalk {
public:
    using TrackEntry = TrackIndex::TrackEntry;
    using Row = TrackIndex::Row;
    using Block = TrackIndex::Block;

    explicit TrackWalk(const TrackIndex& index) : m_index(index) {}

    const TrackIndex& index() const { return m_index; }
    std::int64_t fromBase(std::uint64_t tick) const { return static_cast<std::int64_t>(tick - m_index.base()); }
    /// The moment behind that.
    std::int64_t behind(std::uint64_t tick) const {
        const std::int64_t moment = fromBase(tick);
        return moment < std::numeric_limits<std::int64_t>::max() ? moment + 1 : moment;
    }
    /// How long after a moment that is; further away than numbers reach it is anything.
    std::int64_t since(std::int64_t moment, std::uint64_t tick) const {
        return static_cast<std::int64_t>(tick - m_index.base() - static_cast<std::uint64_t>(moment));
    }
    static bool isSpans(const TrackEntry& track) { return track.form == TrackIndex::Form::Spans; }
    static double valueOf(const TrackEntry& track, std::uint64_t bits);
    std::string_view nameOf(const TrackEntry& track, const Item& item) const;
    /// The number of a track, by which answers name it.
    std::size_t numberOf(const TrackEntry& track) const {
        return static_cast<std::size_t>(&track - m_index.tracks().data());
    }
    /// The first block of a row that ends at a moment or later; its number.
    std::size_t blockAt(const Row& row, std::int64_t moment) const;
    /// Tells `take` of items of a row that begin before `to`, from the first that ends at `from` or later, as long as
    /// it takes them, with their places within the row.
    template <class Take>
    void eachItem(const TrackEntry& track, const Row& row, std::int64_t from, std::int64_t to, const Take& take) const {
        const std::span<const Block> blocks = m_index.blocksOf(row);
        for (std::size_t number = blockAt(row, from); number < blocks.size(); ++number) {
            const Block& block = blocks[number];
            for (std::uint32_t i = 0; i < block.count; ++i) {
                const Item item = m_index.item(block, i);
                if (fromBase(item.at) >= to)
                    return;
                if (fromBase(isSpans(track) ? item.end() : item.at) >= from && !take(item, block.place + i))
                    return;
            }
        }
    }

private:
    const TrackIndex& m_index;
};

} // namespace qvx

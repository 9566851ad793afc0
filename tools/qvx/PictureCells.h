#pragma once

#include "TrackWalk.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <span>
#include <utility>

namespace qvx {

/// Takes what a picture of so many cells needs: of what is shorter than a cell, one of those that begin in it.
class PictureCells {
public:
    PictureCells(const TrackWalk& walk, std::int64_t from, std::int64_t to, std::int64_t cell)
        : m_walk(walk), m_from(from), m_to(to), m_cell(static_cast<std::uint64_t>(std::max<std::int64_t>(cell, 1))) {}

    /// Tells `take` of the items that are wanted of a row, with their places.
    template <class Take> void each(const TrackIndex::TrackEntry& track, const TrackIndex::Row& row, const Take& take) {
        const TrackIndex& index = m_walk.index();
        const std::span<const TrackIndex::Block> blocks = index.blocksOf(row);
        std::size_t number = m_walk.blockAt(row, m_from);
        if (m_walk.isSpans(track) || track.form == TrackIndex::Form::Marks) {
            Kept kept;
            const auto look = [&](const Item& item, std::uint64_t place) {
                const bool isMoment = track.form == TrackIndex::Form::Marks;
                if (!isMoment && item.more >= m_cell) {
                    kept.give(take);
                    take(item, place);
                    return;
                }
                const std::uint64_t cell = cellOf(item.at);
                if (kept.isThere && kept.cell == cell && (isMoment || item.more <= kept.item.more))
                    return;
                if (kept.cell != cell)
                    kept.give(take);
                kept = {true, cell, item, place};
            };
            for (; number < blocks.size() && m_walk.fromBase(blocks[number].first) < m_to; ++number) {
                const TrackIndex::Block& block = blocks[number];
                if (block.last - block.first < m_cell) {
                    look(TrackIndex::unpacked(block.chosen[0]), block.place + block.chosen[0].index);
                    continue;
                }
                for (std::uint32_t i = 0; i < block.count; ++i) {
                    const Item item = index.item(block, i);
                    if (m_walk.fromBase(item.at) >= m_to)
                        break;
                    if (m_walk.fromBase(track.form == TrackIndex::Form::Marks ? item.at : item.end()) >= m_from)
                        look(item, block.place + i);
                }
            }
            kept.give(take);
            return;
        }
        // Of values the least, the greatest and the last one of each cell, and the one that holds at the beginning.
        std::map<std::uint64_t, Item> three; // by place
        std::uint64_t cell = ~std::uint64_t{0};
        std::uint64_t least = 0, most = 0, last = 0;
        const auto valueAt = [&](std::uint64_t place) { return m_walk.valueOf(track, three[place].more); };
        const auto give = [&] {
            for (const auto& [place, item] : three)
                take(item, place);
            three.clear();
        };
        const auto look = [&](const Item& item, std::uint64_t place) {
            const std::uint64_t its = cellOf(item.at);
            if (its != cell || three.empty()) {
                give();
                cell = its;
                least = most = last = place;
                three.emplace(place, item);
                return;
            }
            three.emplace(place, item);
            const std::uint64_t before[] = {least, most, last};
            least = valueAt(place) < valueAt(least) ? place : least;
            most = valueAt(place) > valueAt(most) ? place : most;
            last = std::max(last, place);
            for (const std::uint64_t one : before) {
                if (one != least && one != most && one != last)
                    three.erase(one);
            }
        };
        if (number > 0)
            --number;
        for (; number < blocks.size() && m_walk.fromBase(blocks[number].first) < m_to; ++number) {
            const TrackIndex::Block& block = blocks[number];
            if (block.last - block.first < m_cell) {
                for (const TrackIndex::Packed& item : block.chosen)
                    look(TrackIndex::unpacked(item), block.place + item.index);
                look(index.item(block, block.count - 1), block.place + block.count - 1);
                continue;
            }
            for (std::uint32_t i = 0; i < block.count; ++i) {
                const Item item = index.item(block, i);
                if (m_walk.fromBase(item.at) >= m_to)
                    break;
                const bool isBefore = i + 1 < block.count && m_walk.fromBase(index.item(block, i + 1).at) < m_from;
                if (!isBefore)
                    look(item, block.place + i);
            }
        }
        give();
    }

private:
    struct Kept {
        bool isThere = false;
        std::uint64_t cell = 0;
        Item item{};
        std::uint64_t place = 0;

        template <class Take> void give(const Take& take) {
            if (std::exchange(isThere, false))
                take(item, place);
        }
    };

    std::uint64_t cellOf(std::uint64_t tick) const {
        const std::int64_t since = m_walk.since(m_from, tick);
        return since < 0 ? ~std::uint64_t{0} - 1 : static_cast<std::uint64_t>(since) / m_cell;
    }

    const TrackWalk& m_walk;
    std::int64_t m_from;
    std::int64_t m_to;
    std::uint64_t m_cell;
};

} // namespace qvx

#include "TrackWalk.h"

#include <algorithm>
#include <bit>
#include <string>
#include <vector>

namespace qvx {

double TrackWalk::valueOf(const TrackEntry& track, std::uint64_t bits) {
    return track.form == TrackIndex::Form::Numbers ? static_cast<double>(static_cast<std::int64_t>(bits))
                                                   : std::bit_cast<double>(bits);
}

std::string_view TrackWalk::nameOf(const TrackEntry& track, const Item& item) const {
    const std::vector<std::string>& names = m_index.namesOf(track.table);
    return item.name < names.size() ? std::string_view(names[item.name]) : std::string_view();
}

std::size_t TrackWalk::blockAt(const Row& row, std::int64_t moment) const {
    const std::span<const Block> blocks = m_index.blocksOf(row);
    const auto at =
        std::ranges::partition_point(blocks, [&](const Block& block) { return fromBase(block.last) < moment; });
    return static_cast<std::size_t>(at - blocks.begin());
}

} // namespace qvx

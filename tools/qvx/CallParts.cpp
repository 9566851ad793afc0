#include "CallParts.h"

#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/Durations.h"
#include "quorvex/analysis/TimeBase.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>

namespace qvx {

using namespace Quorvex;

/// Goes through the spans of a row one by one.
class CallParts::Cursor {
public:
    /// Stands at the first span that is within what begins at `from`.
    Cursor(const TrackWalk& walk, const Row& row, std::int64_t from)
        : m_index(walk.index()), m_blocks(m_index.blocksOf(row)), m_block(walk.blockAt(row, from)) {
        load();
        while (isThere() && walk.fromBase(m_item.at) < from && walk.fromBase(m_item.end()) <= from)
            next();
    }
    bool isThere() const { return m_block < m_blocks.size(); }
    const Item& operator*() const { return m_item; }
    std::uint64_t place() const { return m_blocks[m_block].place + m_at; } ///< within the row
    void next() {
        if (++m_at == m_blocks[m_block].count) {
            m_at = 0;
            ++m_block;
        }
        load();
    }

private:
    void load() {
        if (isThere())
            m_item = m_index.item(m_blocks[m_block], m_at);
    }

    const TrackIndex& m_index;
    std::span<const Block> m_blocks;
    std::size_t m_block;
    std::uint32_t m_at = 0;
    Item m_item{};
};

/// When a track is cut, and the part between two of these moments, as far as that has been asked for.
struct CallParts::Slices {
    std::vector<std::int64_t> moments;
    std::unique_ptr<std::once_flag[]> once;
    std::vector<CallPart> parts;
};

CallParts::CallParts(const TrackIndex& index, std::size_t blocks)
    : TrackWalk(index), m_slices(std::make_unique<Slices[]>(index.tracks().size())) {
    for (std::size_t number = 0; number < index.tracks().size(); ++number) {
        const TrackEntry& track = index.tracks()[number];
        if (track.isCalls == 0 || !isSpans(track))
            continue;
        const Row& row = *std::ranges::max_element(index.rowsOf(track), {}, &Row::blockCount);
        const std::span<const Block> its = index.blocksOf(row);
        Slices& slices = m_slices[number];
        std::size_t next = blocks;
        for (std::size_t i = 1; i < its.size(); ++i) {
            // What encloses the first call of the block goes on, and what was before has ended.
            if (i < next || fromBase(its[i - 1].last) >= fromBase(its[i].first) || index.item(its[i], 0).more == 0 ||
                (!slices.moments.empty() && fromBase(its[i].first) <= slices.moments.back()))
                continue;
            slices.moments.push_back(fromBase(its[i].first));
            next = i + blocks;
        }
        slices.once = std::make_unique<std::once_flag[]>(slices.moments.size());
        slices.parts.resize(slices.moments.size());
    }
}

CallParts::~CallParts() = default;

template <class Opens, class Ended>
void CallParts::eachCall(const TrackEntry& track, std::int64_t from, std::int64_t to, const Opens& opens,
                         const Ended& ended) const {
    struct Open {
        Item item;
        std::uint64_t place;
        bool hasBegun; ///< what is within it
    };
    std::vector<Cursor> rows;
    for (const Row& row : index().rowsOf(track))
        rows.push_back(Cursor(*this, row, from));
    std::vector<Open> open;
    // Whether the next one of the row below belongs to what is open.
    const auto isWithin = [&](const Item& item) {
        if (open.empty())
            return true;
        Open& above = open.back();
        if (above.hasBegun)
            return !item.isFirst;
        // The first ones of what has begun before may have ended before.
        return above.item.hasInner && (!item.isFirst || fromBase(above.item.at) >= from ||
                                       (item.at >= above.item.at && item.at <= above.item.end()));
    };
    for (;;) {
        const std::size_t depth = open.size();
        if (depth < rows.size() && rows[depth].isThere() && fromBase((*rows[depth]).at) < to &&
            isWithin(*rows[depth])) {
            if (!open.empty())
                open.back().hasBegun = true;
            open.push_back({*rows[depth], rows[depth].place(), false});
            rows[depth].next();
            opens(depth, open.back().item.name);
            continue;
        }
        if (open.empty())
            return;
        const Open its = open.back();
        open.pop_back();
        ended(open.size(), its.item, its.place, open.empty() ? 0 : open.back().place);
    }
}

CallPart CallParts::partOf(const TrackEntry& track, std::int64_t from, std::int64_t to) const {
    struct Level {
        std::uint32_t path;
        std::uint64_t inner;
    };
    CallPart part;
    Directory<std::uint64_t, std::uint32_t> paths; // by the one above and the name
    Directory<std::uint64_t, std::size_t> alike;   // by path and counter
    std::vector<Level> open;
    std::vector<std::uint32_t> within(index().namesOf(track.table).size()); // how many calls are open, by name
    eachCall(
        track, from, to,
        [&](std::size_t, std::uint32_t name) {
            const std::uint32_t above = open.empty() ? 0 : open.back().path + 1;
            const bool isOutermost = name >= within.size() || within[name]++ == 0;
            const std::uint32_t path = paths.findOrMake(std::uint64_t{above} << 32 | name, [&] {
                part.paths.push_back({above, name, isOutermost});
                return static_cast<std::uint32_t>(part.paths.size() - 1);
            });
            open.push_back({path, 0});
        },
        [&](std::size_t depth, const Item& item, std::uint64_t place, std::uint64_t above) {
            const Level its = open.back();
            open.pop_back();
            CallPart::Path& path = part.paths[its.path];
            if (path.name < within.size())
                --within[path.name];
            if (fromBase(item.at) < from || fromBase(item.end()) > to) {
                part.cut.push_back(
                    {item, place, above, static_cast<std::uint32_t>(depth), its.path, path.isOutermost, its.inner});
                return;
            }
            const std::uint64_t duration = TimeBase::nanosecondsOf(item.more, track.frequency);
            if (!open.empty())
                open.back().inner += duration;
            ++path.calls;
            path.unfinished += item.isOpen;
            path.total += duration;
            path.self += duration - std::min(its.inner, duration);
            if (item.isOpen)
                return;
            const std::size_t at =
                alike.findOrMake(std::uint64_t{its.path} << 32 | Durations::counterOf(duration), [&] {
                    part.alike.push_back({its.path, 0, duration, duration});
                    return part.alike.size() - 1;
                });
            CallPart::Alike& those = part.alike[at];
            ++those.count;
            those.least = std::min(those.least, duration);
            those.most = std::max(those.most, duration);
        });
    return part;
}

void CallParts::each(const TrackEntry& track, std::int64_t from, std::int64_t to, const Take& take,
                     const Ends& ends) const {
    std::map<std::pair<std::uint32_t, std::uint64_t>, CutCall, std::greater<>> cut; // the deepest first
    const auto add = [&](const CallPart& part, std::int64_t begin, std::int64_t end) {
        const auto numbers = take(part, begin, end);
        for (const CutCall& call : part.cut) {
            const auto [at, isNew] = cut.try_emplace({call.depth, call.place}, call);
            if (isNew)
                at->second.path = numbers.empty() ? 0 : numbers[call.path];
            else
                at->second.inner += call.inner;
        }
    };
    Slices& slices = m_slices[numberOf(track)];
    const std::vector<std::int64_t>& moments = slices.moments;
    auto i = static_cast<std::size_t>(std::ranges::lower_bound(moments, from) - moments.begin());
    std::int64_t begin = from;
    do {
        if (i + 1 < moments.size() && begin == moments[i] && moments[i + 1] <= to) {
            std::call_once(slices.once[i], [&] { slices.parts[i] = partOf(track, moments[i], moments[i + 1]); });
            add(slices.parts[i], begin, moments[i + 1]);
            begin = moments[++i];
        } else {
            const std::int64_t end = i < moments.size() && begin < moments[i] ? std::min(moments[i], to) : to;
            add(partOf(track, begin, end), begin, end);
            begin = end;
        }
    } while (begin < to);
    for (const auto& [key, call] : cut) {
        const std::int64_t start = std::max(fromBase(call.item.at), from);
        const std::int64_t end = std::min(fromBase(call.item.end()), to);
        const std::uint64_t duration =
            TimeBase::nanosecondsOf(end > start ? static_cast<std::uint64_t>(end - start) : 0, track.frequency);
        ends(call, duration, duration - std::min(call.inner, duration));
        if (call.depth == 0)
            continue;
        if (const auto above = cut.find({call.depth - 1, call.above}); above != cut.end())
            above->second.inner += duration;
    }
}

} // namespace qvx

#pragma once

#include "TrackIndex.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

/// What the page asks of an index: a name, and what is told besides. Ticks are counted from the base of the index.
/// May be used by several threads at once.
///
/// Sums of calls are made of parts: the time of a track is cut into slices, of which each is summed up when it is
/// needed first, and kept. What is asked for later looks at the slices that it begins and ends in, and no others.
class TrackAnswers {
public:
    using Words = std::map<std::string, std::string>;

    /// A slice has so many blocks at least, of the row of its track that has the most.
    explicit TrackAnswers(const TrackIndex& index, std::size_t blocks = 32);
    ~TrackAnswers();

    /// The answer; nothing to a question that there is not, or that cannot be understood.
    std::optional<std::string> answer(const std::string& question, const Words& words) const;

private:
    class Asked;
    class Cells;
    class Cursor;
    struct Part;
    struct Slices;
    struct CutCall;

    std::string tile(const Asked& asked) const;
    std::string table(const Asked& asked) const;
    std::string histogram(const Asked& asked) const;
    std::string flame(const Asked& asked) const;
    std::string marks(const Asked& asked) const;
    std::string next(const Asked& asked) const;
    std::string item(const Asked& asked) const;

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
    bool isSpans(const TrackIndex::TrackEntry& track) const { return track.form == TrackIndex::Form::Spans; }
    double valueOf(const TrackIndex::TrackEntry& track, std::uint64_t bits) const;
    std::string_view nameOf(const TrackIndex::TrackEntry& track, const Item& item) const;
    /// The first block of a row that ends at a moment or later; its number.
    std::size_t blockAt(const TrackIndex::Row& row, std::int64_t moment) const;
    /// Tells `take` of items of a row that begin before `to`, from the first that ends at `from` or later, as long as
    /// it takes them, with their places within the row.
    template <class Take>
    void eachItem(const TrackIndex::TrackEntry& track, const TrackIndex::Row& row, std::int64_t from, std::int64_t to,
                  const Take& take) const;
    /// Calls of a track that are within a time, each when it ends; `opens` is told of each before.
    template <class Opens, class Ends>
    void eachCall(const TrackIndex::TrackEntry& track, std::int64_t from, std::int64_t to, const Opens& opens,
                  const Ends& ends) const;
    /// A part of the time, summed up.
    Part partOf(const TrackIndex::TrackEntry& track, std::int64_t from, std::int64_t to) const;
    /// Tells `take` of parts that make a time, with their own times; it gives numbers for the paths of a part, or none.
    /// Then tells `ends` of the calls that reach beyond a part, with such a number, their durations and their self
    /// times.
    template <class Take, class Ends>
    void eachPart(const TrackIndex::TrackEntry& track, std::int64_t from, std::int64_t to, const Take& take,
                  const Ends& ends) const;
    /// The tracks that have calls, or one of them.
    std::vector<const TrackIndex::TrackEntry*> callTracks(const Asked& asked) const;

    const TrackIndex& m_index;
    std::unique_ptr<Slices[]> m_slices; ///< by track
};

} // namespace qvx

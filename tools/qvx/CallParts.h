#pragma once

#include "TrackWalk.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace qvx {

/// A call that reaches beyond a part.
struct CutCall {
    Item item;
    std::uint64_t place; ///< within its row
    std::uint64_t above; ///< the place of what encloses it
    std::uint32_t depth;
    std::uint32_t path;
    bool isOutermost;
    std::uint64_t inner; ///< the time in what it called that is within the part as a whole
};

/// The calls of a track in a part of the time. Durations are in nanoseconds, or in ticks of traces that do not tell
/// their clock.
struct CallPart {
    /// Calls of a function by the same path. Those that reach beyond the part are not counted.
    struct Path {
        std::uint32_t above; ///< the number of the path that leads to it, and 1; 0 where there is none
        std::uint32_t name;
        bool isOutermost; ///< no other call of the function encloses it
        std::uint64_t calls = 0;
        std::uint64_t unfinished = 0; ///< of these
        std::uint64_t total = 0;
        std::uint64_t self = 0;
    };
    /// Calls of a path, without unfinished ones, whose durations have one counter.
    struct Alike {
        std::uint32_t path;
        std::uint32_t count;
        std::uint64_t least;
        std::uint64_t most;
    };

    std::vector<Path> paths; ///< behind those that lead to them
    std::vector<Alike> alike;
    std::vector<CutCall> cut;
};

/// Sums up the calls of tracks in any part of the time. That is made of parts: the time of a track is cut into slices,
/// of which each is summed up when it is needed first, and kept. What is asked for later looks at the slices that it
/// begins and ends in, and no others. May be used by several threads at once.
class CallParts : private TrackWalk {
public:
    /// A slice has so many blocks at least, of the row of its track that has the most.
    CallParts(const TrackIndex& index, std::size_t blocks);
    ~CallParts();

    /// Is told of a part and of its time, and gives numbers for its paths, or none.
    using Take = std::function<std::vector<std::uint32_t>(const CallPart& part, std::int64_t from, std::int64_t to)>;
    /// Is told of a call that reaches beyond a part, with such a number as its path, its duration and its self time.
    using Ends = std::function<void(const CutCall& call, std::uint64_t duration, std::uint64_t self)>;
    /// Tells of parts that make a time, then of the calls that reach beyond them.
    void each(const TrackEntry& track, std::int64_t from, std::int64_t to, const Take& take, const Ends& ends) const;

private:
    class Cursor;
    struct Slices;

    /// Calls of a track that are within a time, each when it ends; `opens` is told of each before.
    template <class Opens, class Ended>
    void eachCall(const TrackEntry& track, std::int64_t from, std::int64_t to, const Opens& opens,
                  const Ended& ended) const;
    /// A part of the time, summed up.
    CallPart partOf(const TrackEntry& track, std::int64_t from, std::int64_t to) const;

    std::unique_ptr<Slices[]> m_slices; ///< by track
};

} // namespace qvx

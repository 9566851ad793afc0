#pragma once

#include "CallParts.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

/// What the page asks of an index: a name, and what is told besides. Ticks are counted from the base of the index.
/// May be used by several threads at once.
class TrackAnswers : private TrackWalk {
public:
    using Words = std::map<std::string, std::string>;

    /// Sums of calls are made of slices of so many blocks.
    explicit TrackAnswers(const TrackIndex& index, std::size_t blocks = 32)
        : TrackWalk(index), m_parts(index, blocks) {}

    /// The answer; nothing to a question that there is not, or that cannot be understood.
    std::optional<std::string> answer(const std::string& question, const Words& words) const;

private:
    class Asked;

    std::string tile(const Asked& asked) const;
    std::string table(const Asked& asked) const;
    std::string histogram(const Asked& asked) const;
    std::string flame(const Asked& asked) const;
    std::string marks(const Asked& asked) const;
    std::string next(const Asked& asked) const;
    std::string item(const Asked& asked) const;

    /// The tracks that have calls, or one of them.
    std::vector<const TrackEntry*> callTracks(const Asked& asked) const;

    CallParts m_parts;
};

} // namespace qvx

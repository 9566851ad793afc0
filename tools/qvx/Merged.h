#pragma once

#include "TraceInput.h"

#include <memory>
#include <queue>
#include <string>
#include <utility>
#include <vector>

namespace qvx {

/// Several traces as one, in the order of time: packets are absolute, and what frames a trace or restates contexts is
/// left out. A packet whose tick is not known comes right behind the one before it in its trace.
class Merged {
public:
    explicit Merged(const std::vector<std::string>& files);
    ~Merged();

    /// The next packet; null at the end of all traces.
    PacketPointer next();
    /// Tells of damage on standard error; the exit code that follows from it.
    ExitCode reportDamage() const;

private:
    struct Source;

    /// Makes the source's next packet ready, if it has one.
    void advance(std::size_t index);

    std::vector<std::unique_ptr<Source>> m_sources;
    /// The sources that have a packet, by its tick, then in the order of the files.
    using Turn = std::pair<std::uint64_t, std::size_t>;
    std::priority_queue<Turn, std::vector<Turn>, std::greater<>> m_turns;
};

} // namespace qvx

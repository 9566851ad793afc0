#pragma once

#include "TraceInput.h"

#include <memory>
#include <queue>
#include <string>
#include <utility>
#include <vector>

namespace qvx {

/// Whether a packet of that code gives a name. Where its tick is older than the packet before it, that means nothing.
bool isDefinition(Quorvex::tagTCode code);

/// Several traces as one, in the order of time: packets are absolute, and what frames a trace or restates contexts is
/// left out. A packet whose tick is not known comes right behind the one before it in its trace.
///
/// Damage can make a tick that lies far ahead, behind which nothing else would have a place. The packets behind it
/// tell: where nearly all of the next eight that have a tick go on from before the jump, in a stretch that is short
/// beside it, the tick is taken as unknown, with those that were relative to it. Only packets of the same frame tell,
/// so a last packet is believed. The tick of a definition that is older than the packet before it is taken as unknown
/// too.
class Merged {
public:
    explicit Merged(const std::vector<std::string>& files);
    ~Merged();

    /// The next packet; null at the end of all traces.
    PacketPointer next();
    /// Tells of damage and wrong ticks on standard error; the exit code that follows from it.
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

#pragma once

#include "quorvex/export/TrackWriter.h"

#include <string>
#include <utility>
#include <vector>

namespace Quorvex {

/// Writes a trace in the format of speedscope: an evented profile for each thread, and for the threads, processes and
/// interrupts of each core and the states of each state machine, from the first known tick to the last. Times are
/// nanoseconds; without a known frequency they have no unit. The format has slices only.
class QUORVEX_API CSpeedscopeWriter : public CTrackWriter {
public:
    explicit CSpeedscopeWriter(std::ostream& out, ViewerOptions options = {})
        : CTrackWriter(out, std::move(options),
                       {.instants = false, .values = false, .textsAsSlices = false, .byTrack = true}) {}

protected:
    void startFile() override;
    void startTrack(std::uint32_t track) override;
    void write(const Fact& fact) override;
    void endTrack(std::uint32_t track) override;
    void endFile() override;

private:
    void startProfile(std::string_view name);

    std::uint32_t m_profiles = 0;
    bool m_hasEvents = false;           ///< so has it
    std::vector<std::string> m_numbers; ///< of labels, as they stand in events
};

} // namespace Quorvex

#pragma once

#include "quorvex/export/TrackWriter.h"

#include <string>
#include <utility>

namespace Quorvex {

/// Writes a trace as a Perfetto protobuf file: a track with slices and instants for each thread, core, state machine
/// and so on, and a counter track for each counter, variable and signal whose values are numbers. Threads stand under
/// their numbers; those that share one are of processes of their own. Thread 0, which is the idle one to Perfetto, is a
/// track without a number. Times are nanoseconds from the first known tick.
class QUORVEX_API CPerfettoWriter : public CTrackWriter {
public:
    explicit CPerfettoWriter(std::ostream& out, ViewerOptions options = {})
        : CTrackWriter(out, std::move(options), {}) {}

protected:
    void startFile() override;
    void write(const Fact& fact) override;
    void endFile() override {}

private:
    /// Of a fact with fields, or a name of its own.
    void writeLong(const Fact& fact);
    std::uint64_t processTrack(std::uint32_t group) const { return tracks().size() + group; }
};

} // namespace Quorvex

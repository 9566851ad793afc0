#pragma once

#include "quorvex/export/TrackWriter.h"

#include <string>
#include <utility>
#include <vector>

namespace Quorvex {

/// Writes a trace as a Trace Event file, the JSON that chrome://tracing and Perfetto's viewer open: B and E for slices,
/// i for instants, C for values. Threads stand under their numbers; those that share one are of processes of their own.
/// All other tracks are threads of process 0. Times are microseconds with three digits behind the point, from the first
/// known tick, which metadata tells.
///
/// So that nothing of what is shown is lost on the way back, the category of a slice or a value tells the sort of its
/// track, a value has the thread that tells it in "thread", or its core where that is not known in "core", and an end
/// that no packet tells has the argument "left", which is false. Readers pass over what they do not know.
class QUORVEX_API CChromeWriter : public CTrackWriter {
public:
    explicit CChromeWriter(std::ostream& out, ViewerOptions options = {}) : CTrackWriter(out, std::move(options), {}) {}

protected:
    void startFile() override;
    void write(const Fact& fact) override;
    void endFile() override;

private:
    std::vector<std::string> m_names;    ///< of labels, as they stand in events
    std::vector<std::string> m_places;   ///< of tracks, likewise
    std::vector<std::string> m_instants; ///< likewise, of instants
    std::vector<std::string> m_values;   ///< of tracks: what stands before a value
    std::vector<std::string> m_tellers;  ///< of tracks: what stands behind the time of a value that such a thread tells
    std::string m_text;                  ///< kept for its memory
};

} // namespace Quorvex

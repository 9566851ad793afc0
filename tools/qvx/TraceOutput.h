#pragma once

#include "TraceInput.h"
#include "quorvex/stream/TraceCompressor.h"
#include "quorvex/stream/TraceSinkBuffer.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "quorvex/stream/TraceWriterPlain.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace qvx {

class Target;
class Verb;

/// The layout and the form of a trace that is written, as options.
struct TraceShape {
    bool plain = false;
    bool paged = false;
    bool absolute = false;
    bool relative = false;

    void addTo(Verb& verb);
};

/// A trace that a verb writes. The lengths of frames whose length is told come out right, whatever the form; where the
/// target cannot be gone back in, they are told as unknown. A text of its own is never written so that it would become
/// that of a packet before.
class TraceOutput {
public:
    /// Opens the target, which must outlive this. Relative: packets that are absolute are told by the change of their
    /// context, where that is possible; relative ones must not come then.
    TraceOutput(Target& target, bool paged, bool relative);
    TraceOutput(const TraceOutput&) = delete;
    TraceOutput& operator=(const TraceOutput&) = delete;
    ~TraceOutput();

    /// Writes a packet; `file` and `offset` are where it comes from. Throws Failure where it fits no block.
    void write(PacketPointer packet, const std::string& file, std::uint64_t offset);
    /// Puts the trace in place; how many bytes it has.
    std::uint64_t commit();

private:
    class FrameWriter;

    bool forward(PacketPointer packet);

    Target& m_target;
    std::unique_ptr<Quorvex::CTraceSinkBuffer> m_sink;
    std::optional<Quorvex::CTraceWriterPaged> m_paged;
    std::unique_ptr<FrameWriter> m_plain;
    Quorvex::CTraceSinkEx* m_writer; ///< the one that writes to the sink
    std::optional<Quorvex::CTraceCompressor> m_compressor;
    bool m_awaitsText = false; ///< the last packet may have one, and has none
};

} // namespace qvx

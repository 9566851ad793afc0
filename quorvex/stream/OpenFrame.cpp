#include "quorvex/stream/OpenFrame.h"

#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/TraceControlPackets.h"
#include "quorvex/stream/TraceSinkBuffer.h"

namespace Quorvex::detail {

static_assert(OpenFrame::kSize == CPacketHeader::Len() + CTraceEnabled::Len());

OpenFrame::OpenFrame(std::uint64_t position, const CTraceEnabledPayload& enabled)
    : m_position(position), m_version(enabled.Version()), m_config(enabled.FrameConfig()) {}

OpenFrame::Bytes OpenFrame::closed(std::uint64_t frameEnd) const {
    CTraceEnabled enabled(frameEnd >= m_position ? frameEnd - m_position : kUnknown64, m_config);
    enabled.Version(m_version);
    Bytes bytes;
    enabled.write(bytes.data(), kSize);
    return bytes;
}

bool OpenFrame::closeIn(CTraceSinkBuffer& target, const Bytes& packet, std::uint64_t next) const {
    unsigned written = 0;
    if (!target.write(packet.data(), kSize, m_position, written))
        return false;
    if (!target.write(packet.data(), 0, next, written))
        logError("TraceStreamWriter::process(): Discovered Seek Error! Couldn't set the stream to original position!");
    return true;
}

} // namespace Quorvex::detail

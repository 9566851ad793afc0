#include "TraceOutput.h"

#include "Arguments.h"
#include "Output.h"
#include "TraceSinks.h"
#include "Verbs.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/OpenFrame.h"

#include <fmt/format.h>

#include <utility>

namespace qvx {

using namespace Quorvex;

void TraceShape::addTo(Verb& verb) {
    const Option inPages = verb.flag("--paged", paged, "Pages of 256 KiB, each of which a reader can begin with");
    verb.flag("--plain", plain, "Packets back to back").excludes(inPages);
    const Option whole = verb.flag("--absolute", absolute, "Every packet with its full context");
    verb.flag("--relative", relative, "Contexts told by their change, where that is possible").excludes(whole);
}

/// A plain writer that corrects the length of every frame whose length is told: it changes with the form of the
/// packets. Where the target cannot be gone back in, the length is told as unknown.
class TraceOutput::FrameWriter : public CTraceWriterPlain {
public:
    explicit FrameWriter(CTraceSinkBuffer& target) : CTraceWriterPlain(target), m_sink(target) {}

    bool put(CPacket* packet) override {
        const tagTCode code = packet->TraceCode();
        if (code != TraceEnabled && code != TraceDisabled)
            return CTraceWriterPlain::put(packet);
        auto* enabled = packetAs<CTraceEnabled>(*packet);
        const bool told = enabled && enabled->FrameLen() != kUnknown64;
        const auto frame = told ? OpenFrame(tellp(), *enabled) : OpenFrame();
        if (told)
            enabled->FrameLen(kUnknown64);
        if (!CTraceWriterPlain::put(packet))
            return false;
        if (enabled)
            m_frame = frame;
        else if (code == TraceDisabled && m_frame)
            closeFrame();
        return true;
    }

private:
    using OpenFrame = Quorvex::detail::OpenFrame;

    void closeFrame() {
        flush();
        m_frame.closeIn(m_sink, m_frame.closed(tellp()), tellp());
        m_frame = OpenFrame();
    }

    CTraceSinkBuffer& m_sink;
    OpenFrame m_frame;
};

TraceOutput::TraceOutput(Target& target, bool paged, bool relative) : m_target(target), m_sink(makeSink(target)) {
    if (paged)
        m_writer = &m_paged.emplace(*m_sink);
    else
        m_writer = (m_plain = std::make_unique<FrameWriter>(*m_sink)).get();
    if (relative)
        m_compressor.emplace(*m_writer);
}

TraceOutput::~TraceOutput() = default;

bool TraceOutput::forward(PacketPointer packet) {
    CPacket* raw = packet.release();
    const bool written = m_compressor ? m_compressor->forward(raw) : m_writer->forward(raw);
    packet.reset(raw); // some sinks leave the packet with the caller
    return written;
}

void TraceOutput::write(PacketPointer packet, const std::string& file, std::uint64_t offset) {
    const tagTCode code = packet->TraceCode();
    const unsigned size = packet->StreamSize();
    if (m_awaitsText && code == CharString && packet->Length() > 0)
        forward(PacketPointer(new CCharString));
    m_awaitsText = isFollowedByText(code) && size == CPacketHeader::Len() + packet->Length();
    if (forward(std::move(packet)))
        return;
    m_target.finish();
    throw Failure(file, fmt::format("offset {}: a {} packet of {} bytes, its text included, does not fit a block of {} "
                                    "bytes",
                                    offset, CTCodeInfo::TCodeToName(code), size, kBlockSize));
}

std::uint64_t TraceOutput::commit() {
    m_writer->flush();
    const std::uint64_t size = m_writer->tellp();
    m_target.commit();
    return size;
}

} // namespace qvx

#include "Arguments.h"
#include "Output.h"
#include "TraceInput.h"
#include "TraceSinks.h"
#include "Verbs.h"
#include "quorvex/analysis/Unpaged.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/OpenFrame.h"
#include "quorvex/stream/TraceCompressor.h"
#include "quorvex/stream/TraceSinkBuffer.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "quorvex/stream/TraceWriterPlain.h"

#include <fmt/format.h>

#include <memory>
#include <new>
#include <optional>
#include <utility>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

struct ConvertOptions {
    std::vector<std::string> files;
    bool plain = false; ///< what is done anyway, for those who want to say so
    bool paged = false;
    bool absolute = false;
    bool relative = false;
    Output output;
};

/// A plain writer that corrects the length of every frame whose length is told: it changes with the form of the
/// packets. Where the target cannot be gone back in, the length is told as unknown.
class FrameWriter : public CTraceWriterPlain {
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

/// A trace in absolute form. A sync packet that told a relative packet its context, which that packet now carries
/// itself, is dropped; all others are kept.
class AbsoluteForm {
public:
    explicit AbsoluteForm(Unpaged& source) : m_source(source) {}

    PacketPointer next() {
        while (!m_ahead && !m_ended) {
            PacketPointer packet(m_source.get());
            m_ended = !packet;
            const KindFacts& kind = factsOf(packet ? m_source.lastCode() : Invalid);
            if (kind.isRelative)
                makeAbsolute(packet, kind.context);
            if (m_held && packet && carries(*packet))
                m_held.reset();
            if (kind.sync != ContextSort::None) {
                std::swap(m_held, packet);
                m_needed = !m_contexts.reaches(*m_held);
                m_contexts.note(*m_held);
                if (packet)
                    return packet;
            } else if (m_held) {
                m_ahead = std::move(packet);
                return std::move(m_held);
            } else {
                return packet;
            }
        }
        return m_ahead ? std::move(m_ahead) : std::move(m_held);
    }

private:
    void makeAbsolute(PacketPointer& packet, ContextSort sort) const {
        packet.reset(m_contexts.absolute(*packet, sort));
        if (!packet)
            throw std::bad_alloc();
    }
    /// Whether the packet was relative, could not have been told without the sync packet that is held, and repeats its
    /// context.
    bool carries(const CPacket& packet) const {
        return m_needed && sortOfRelative(m_source.lastCode()) == sortOfSync(m_held->TraceCode()) &&
               m_contexts.repeats(packet);
    }

    Unpaged& m_source;
    PacketPointer m_held;  ///< a sync packet of which it is not known yet whether it stays
    PacketPointer m_ahead; ///< the packet behind it
    bool m_needed = false;
    bool m_ended = false;
    CContexts m_contexts;
};

/// A trace with its packets as they are. Behind another one, relative packets before the first sync packet would change
/// their meaning: the unknown context that they are relative to is restated for them.
class SameForm {
public:
    /// `written` is what the traces before this one have told, and gets what this one tells.
    SameForm(Unpaged& source, CContexts& written) : m_source(source), m_written(written) {}

    PacketPointer next() {
        PacketPointer packet = m_ahead ? std::move(m_ahead) : PacketPointer(m_source.get());
        if (!packet)
            return nullptr;
        const ContextSort sort = sortOfRelative(packet->TraceCode());
        if (m_written.knows(sort) && !m_here.knows(sort)) {
            m_ahead = std::exchange(packet, PacketPointer(m_here.sync(sort)));
            if (!packet)
                throw std::bad_alloc();
        }
        if (sortOfSync(packet->TraceCode()) != ContextSort::None) {
            m_here.note(*packet);
            m_written.note(*packet);
        }
        return packet;
    }

private:
    Unpaged& m_source;
    CContexts& m_written;
    CContexts m_here;
    PacketPointer m_ahead;
};

/// Writes all inputs, one after the other, to one output.
class Conversion {
public:
    explicit Conversion(ConvertOptions& options) : m_options(options) {
        options.output.check(options.files);
        m_sink = makeSink(options.output.target());
        if (options.paged)
            m_writer = &m_paged.emplace(*m_sink);
        else
            m_writer = &m_plain.emplace(*m_sink);
        m_packetSink = m_writer;
        if (options.relative)
            m_packetSink = &m_compressor.emplace(*m_writer);
    }

    ExitCode run() {
        ExitCode exitCode = Done;
        for (const std::string& file : m_options.files) {
            TraceInput input(file);
            Unpaged source(input);
            if (m_options.absolute || m_options.relative)
                writeAll(input, AbsoluteForm(source));
            else
                writeAll(input, SameForm(source, m_written));
            m_bytes += input.size();
            if (const ExitCode damage = input.reportDamage(); damage != Done)
                exitCode = damage;
        }
        m_writer->flush();
        const std::uint64_t size = m_writer->tellp();
        m_options.output.target().commit();
        std::string summary = fmt::format("{} packets, {} bytes -> {} bytes", m_packets, m_bytes, size);
        if (m_bytes > 0)
            summary += fmt::format(" ({:.1f} %)", 100.0 * static_cast<double>(size) / static_cast<double>(m_bytes));
        tell(summary);
        return exitCode;
    }

private:
    template <class Form> void writeAll(const TraceInput& input, Form form) {
        while (PacketPointer packet = form.next()) {
            ++m_packets;
            write(input, packet);
        }
        // Of a program that was killed nothing is missing but the end, nor is anything missing in what is written.
        if (input.report().end == TraceEnd::Recording) {
            PacketPointer end(new CTraceDisabled);
            write(input, end);
        }
    }

    void write(const TraceInput& input, PacketPointer& packet) {
        const tagTCode code = packet->TraceCode();
        const unsigned size = packet->StreamSize();
        CPacket* raw = packet.release();
        const bool written = m_packetSink->forward(raw);
        packet.reset(raw); // some sinks leave the packet with the caller
        if (written)
            return;
        m_options.output.target().finish();
        throw Failure(input.name(), fmt::format("offset {}: a {} packet of {} bytes, its text included, does not fit a "
                                                "block of {} bytes",
                                                input.offset(), CTCodeInfo::TCodeToName(code), size, kBlockSize));
    }

    ConvertOptions& m_options;
    std::unique_ptr<CTraceSinkBuffer> m_sink;
    std::optional<CTraceWriterPaged> m_paged;
    std::optional<FrameWriter> m_plain;
    std::optional<CTraceCompressor> m_compressor;
    CTraceSinkEx* m_writer = nullptr;     ///< what writes to the sink
    CTraceSinkEx* m_packetSink = nullptr; ///< what takes the packets
    CContexts m_written;
    std::uint64_t m_packets = 0;
    std::uint64_t m_bytes = 0;
};

} // namespace

void addConvert(Program& program) {
    auto options = std::make_shared<ConvertOptions>();
    Verb verb = program.add("convert", "Change the layout or the form of traces, or join them");
    verb.option("FILES", options->files, "Trace files, or plain tables as dump shows them; - for standard input")
        .required();
    const Option paged =
        verb.flag("--paged", options->paged, "Pages of 256 KiB, each of which a reader can begin with");
    verb.flag("--plain", options->plain, "Packets back to back (default)").excludes(paged);
    const Option absolute = verb.flag("--absolute", options->absolute, "Every packet with its full context");
    verb.flag("--relative", options->relative, "Contexts told by their change, where that is possible")
        .excludes(absolute);
    options->output.addOptions(verb, true);
    verb.footer("Example: qvx convert thread_4711.qvx -o small.qvx --relative\n"
                "Without --absolute or --relative packets keep their form. Several files are written one after the\n"
                "other. What only pages need (padding, contexts restated at a page's start) is left out.");
    verb.runs([options] { return Conversion(*options).run(); });
}

} // namespace qvx

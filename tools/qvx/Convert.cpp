#include "Arguments.h"
#include "Inputs.h"
#include "Output.h"
#include "Selection.h"
#include "TraceInput.h"
#include "TraceOutput.h"
#include "TracePart.h"
#include "Verbs.h"
#include "quorvex/analysis/Unpaged.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/stream/Contexts.h"

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
    Inputs inputs;
    TraceShape shape;
    Selection selection;
    Output output;
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
    explicit Conversion(ConvertOptions& options) : m_options(options), m_files(options.inputs.files()) {
        options.output.check(m_files);
        m_output.emplace(options.output.target(), options.shape.paged, options.shape.relative);
    }

    ExitCode run() {
        m_options.selection.begin(m_files);
        ExitCode exitCode = Done;
        for (std::size_t file = 0; file < m_files.size(); ++file) {
            const std::unique_ptr<TraceFile> input = openSelected(m_files, file, m_options.selection);
            Unpaged source(*input);
            m_isLast = file + 1 == m_files.size();
            if (m_options.shape.absolute || m_options.shape.relative)
                writeAll(*input, AbsoluteForm(source));
            else
                writeAll(*input, SameForm(source, m_written));
            m_bytes += input->size();
            if (const ExitCode damage = reportDamage(*input); damage != Done)
                exitCode = damage;
        }
        const std::uint64_t size = m_output->commit();
        std::string summary = fmt::format("{} packets, {} bytes -> {} bytes", m_packets, m_bytes, size);
        if (m_bytes > 0)
            summary += fmt::format(" ({:.1f} %)", 100.0 * static_cast<double>(size) / static_cast<double>(m_bytes));
        tell(summary);
        return exitCode;
    }

private:
    template <class Form> void writeAll(const TraceFile& input, Form form) {
        while (PacketPointer packet = form.next()) {
            if (packet->TraceCode() == EndOfTrace && !m_isLast)
                continue; // the trace goes on
            if (auto* enabled = m_isPart ? packetAs<CTraceEnabled>(*packet) : nullptr)
                enabled->FrameLen(0); // it is put in at its end
            ++m_packets;
            m_output->write(std::move(packet), input.name(), input.offset());
        }
        // Of a program that was killed nothing is missing but the end, nor is anything missing in what is written.
        if (input.report().end == TraceEnd::Recording)
            m_output->write(PacketPointer(new CTraceDisabled), input.name(), input.offset());
    }

    ConvertOptions& m_options;
    std::vector<std::string> m_files;
    std::optional<TraceOutput> m_output;
    CContexts m_written;
    bool m_isPart = m_options.selection.isAsked();
    bool m_isLast = true; ///< no file follows
    std::uint64_t m_packets = 0;
    std::uint64_t m_bytes = 0;
};

} // namespace

void addConvert(Program& program) {
    auto options = std::make_shared<ConvertOptions>();
    Verb verb = program.add("convert", "Change the layout or the form of traces");
    options->inputs.addTo(verb,
                          "Traces, or plain tables as dump shows them, or directories of *.qvx; - for standard input");
    options->selection.addTo(verb, Selection::OfTrace);
    options->shape.addTo(verb);
    options->output.addOptions(verb, true);
    verb.footer(
        "Example: qvx convert thread_4711.qvx -o small.qvx --relative\n"
        "What is written is plain, and packets keep their form, unless options say otherwise. Several files are\n"
        "written one after the other as they are; `qvx cat` joins the parts of a trace, `qvx merge` joins traces by\n"
        "time. What only pages need (padding, contexts restated at a page's start) is left out.\n" +
        std::string(kPartHelp));
    verb.runs([options] { return Conversion(*options).run(); });
}

} // namespace qvx

#include "Arguments.h"
#include "Inputs.h"
#include "Output.h"
#include "TraceInput.h"
#include "TraceSinks.h"
#include "Verbs.h"
#include "quorvex/analysis/Renumbering.h"
#include "quorvex/analysis/TracePages.h"
#include "quorvex/analysis/TracePiece.h"
#include "quorvex/analysis/TraceState.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/TraceCursor.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

struct CatOptions {
    Inputs inputs;
    Output output;
};

/// What a trace begins with that only repeats what holds at the end of the one before it, as a piece of a longer trace
/// does. Told the packets of the trace from its first one on.
class Front {
public:
    /// Of the first trace, which repeats nothing.
    Front() = default;
    explicit Front(const TraceState& before) {
        before.eachPacket([this](std::string_view packet) { m_packets.emplace(packet); });
        for (const ContextSort sort : {ContextSort::Core, ContextSort::Bus, ContextSort::System}) {
            char sync[UINT8_MAX];
            if (before.contexts().knows(sort))
                m_syncs.emplace(sync, before.contexts().writeSync(sort, sync, sizeof sync));
        }
    }

    /// Whether the packet that stands next is of it: one that is repeated, or before all of them, begins a frame.
    bool take(const CTraceCursor& packet) {
        const tagTCode code = packet.TraceCode();
        const bool isFrame = code == TraceEnabled && !m_frame.isTold && m_end == 0 && !m_packets.empty();
        if (isFrame)
            m_frame.note(packet);
        else if (code == Fill ? m_end == 0 : !repeats(packet))
            return false;
        if (!isFrame) {
            m_end = packet.end();
            m_contexts = packet.contexts();
        }
        return true;
    }

    std::uint64_t end() const { return m_end; }              ///< behind what is repeated; 0 if nothing is
    const CContexts& contexts() const { return m_contexts; } ///< there
    const TraceFrame& frame() const { return m_frame; }      ///< that it begins with
    /// Whether all that holds is repeated: the frame goes on that was open, too.
    bool isAll() const { return m_frame.isOpen && m_packets.empty(); }

private:
    bool repeats(const CTraceCursor& packet) {
        if (factsOf(packet.TraceCode()).sync != ContextSort::None)
            return m_syncs.contains(
                std::string_view(packet.payload() - CPacketHeader::Len(), CPacketHeader::Len() + packet.Length()));
        TraceState alone(TraceState::Start::OfTrace);
        alone.note(packet);
        bool isFound = false;
        alone.eachPacket([&](std::string_view its) {
            const auto at = m_packets.find(its);
            isFound = at != m_packets.end();
            if (isFound)
                m_packets.erase(at);
        });
        return isFound;
    }

    std::multiset<std::string, std::less<>> m_packets; ///< that are repeated, if it comes to that
    std::set<std::string, std::less<>> m_syncs;
    TraceFrame m_frame;
    std::uint64_t m_end = 0;
    CContexts m_contexts;
};

class Cat {
public:
    Cat(Target& target, const std::vector<std::string>& files)
        : m_target(target),
          m_files(files),
          m_areOfPages(std::ranges::all_of(files, isFileOfPages)),
          m_sink(makeSink(target)),
          m_piece(*m_sink, m_areOfPages || files.size() == 1) {}

    ExitCode run() {
        ExitCode exitCode = Done;
        for (const std::string& file : m_files) {
            if (const ExitCode its = m_areOfPages ? copy(file) : walk(file); its != Done)
                exitCode = its;
        }
        check(m_piece.end(!m_isMissing), m_files.back(), 0);
        m_target.commit();
        if (const std::uint64_t count = m_names.given(); count > 0)
            tell(fmt::format("{} identifier{} of one trace {} something else in another; qvx merge keeps them apart",
                             count, plural(count), count == 1 ? "means" : "mean"));
        tell(fmt::format("{} bytes -> {} bytes", m_read, m_piece.position()));
        return exitCode;
    }

private:
    ExitCode copy(const std::string& file) {
        PagesInput pages(file);
        TraceInput input(file);
        while (input.advance() && m_front.take(input.cursor())) {
        }
        const bool isWhole = m_front.end() == 0;
        const TraceFrame frame = isWhole ? TraceFrame() : m_front.frame();
        goOn(frame, file);
        const std::uint64_t end = isLast(file) || pages.isRecording() ? pages.size() : endOfFrame(file, pages.size());
        if (!pages.copyTo(m_piece, m_front.end(), end, m_front.contexts(), frame))
            check(false, file, pages.stoppedAt());
        if (m_files.size() > 1)
            look(pages.stateAt(pages.size()));
        m_read += pages.size();
        m_isMissing = m_piece.isInFrame() && end == pages.size() && !pages.isRecording();
        return reportDamage(pages, m_isMissing);
    }

    ExitCode walk(const std::string& file) {
        TraceInput input(file);
        LayoutSeen layout;
        TraceState state(TraceState::Start::OfTrace);
        bool isInFront = true;
        bool isEnding = false; // the frame, if nothing else follows
        while (input.advance()) {
            if (m_files.size() == 1 && layout.look(input.cursor()))
                m_piece.layOut(layout.isPaged());
            if (m_files.size() > 1)
                state.note(input.cursor());
            if (isInFront && m_front.take(input.cursor()))
                continue;
            if (std::exchange(isInFront, false))
                goOn(m_front.frame(), file);
            const tagTCode code = input.cursor().TraceCode();
            if (isEnding && code == EndOfTrace)
                continue;
            if (std::exchange(isEnding, code == TraceDisabled && m_piece.isInFrame() && !isLast(file)))
                check(m_piece.endFrame(), file, 0);
            if (isEnding)
                continue;
            check(m_piece.put(input.cursor()), file, input.cursor().offset());
        }
        look(state);
        m_read += input.size();
        m_isMissing = input.report().end >= TraceEnd::Missing;
        return input.reportDamage();
    }

    bool isLast(const std::string& file) const { return &file == &m_files.back(); }

    /// Ends the frame of the trace before, and begins that of the next one, unless that is the same.
    void goOn(const TraceFrame& frame, const std::string& file) {
        if (!m_piece.isInFrame() || !m_front.isAll())
            check(m_piece.endFrame() && m_piece.beginFrame(frame), file, 0);
    }

    /// Where a trace in pages has the end of its frame, if only that of the trace is behind; else its size.
    static std::uint64_t endOfFrame(const std::string& file, std::uint64_t size) {
        const std::uint64_t begin = size > 0 ? pages::beginAt(size - 1) : 0;
        std::string page(static_cast<std::size_t>(size - begin), '\0');
        std::ifstream stream(file, std::ios::binary);
        stream.seekg(static_cast<std::streamoff>(begin));
        stream.read(page.data(), static_cast<std::streamsize>(page.size()));
        if (!stream)
            return size;
        CTraceCursor packet(page, begin);
        std::uint64_t end = size;
        while (packet.next()) {
            if (packet.TraceCode() == TraceDisabled)
                end = packet.offset();
            else if (packet.TraceCode() != EndOfTrace)
                end = size;
        }
        return packet.left() == 0 && packet.damage().places == 0 ? end : size;
    }

    /// Takes note of what holds at the end of a trace.
    void look(const TraceState& state) {
        m_front = Front(state);
        state.eachPacket([this](std::string_view bytes) {
            CTraceCursor packet(bytes);
            if (packet.next() && factsOf(packet.TraceCode()).role == Role::Definition)
                m_names.note(*PacketPointer(packet.packet()));
        });
        m_names.endTrace();
    }

    void check(bool isDone, const std::string& file, std::uint64_t offset) {
        if (!isDone)
            failToWrite(m_target, file, offset);
    }

    Target& m_target;
    const std::vector<std::string>& m_files;
    bool m_areOfPages;
    std::unique_ptr<CTraceSinkBuffer> m_sink;
    TracePiece m_piece;
    Front m_front; ///< of the trace that is next
    Renumbering m_names;
    std::uint64_t m_read = 0;
    bool m_isMissing = false; ///< the end of the last trace so far
};

ExitCode cat(CatOptions& options) {
    const std::vector<std::string> files = options.inputs.files();
    options.output.check(files);
    return Cat(options.output.target(), files).run();
}

} // namespace

void addCat(Program& program) {
    auto options = std::make_shared<CatOptions>();
    Verb verb = program.add("cat", "Join traces, one behind the other");
    options->inputs.addTo(verb);
    options->output.addOptions(verb, true);
    verb.footer(
        "Example: qvx cat day1.qvx day2.qvx -o both.qvx\n"
        "What a trace begins with and only repeats of what holds at the end of the one before it, as pieces of a\n"
        "longer one do, is left out. The result has pages if all traces have. qvx merge puts packets in the\n"
        "order of their ticks.");
    verb.runs([options] { return cat(*options); });
}

} // namespace qvx

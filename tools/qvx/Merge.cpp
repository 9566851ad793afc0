#include "Merge.h"

#include "Arguments.h"
#include "Inputs.h"
#include "Moments.h"
#include "Output.h"
#include "Pieces.h"
#include "Selection.h"
#include "TraceInput.h"
#include "TraceOutput.h"
#include "TracePart.h"
#include "Verbs.h"
#include "Work.h"
#include "quorvex/analysis/CommonClock.h"
#include "quorvex/analysis/Merged.h"
#include "quorvex/analysis/Renumbering.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/platform/System.h"
#include "quorvex/platform/TemporaryFile.h"

#include <fmt/format.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

struct MergeOptions {
    Inputs inputs;
    std::vector<std::string> offsets;
    Selection selection;
    TraceShape shape;
    Output output;
};

/// The bytes of what can be read once only, to be read from the start as often as is wanted.
class Spool : public std::streambuf {
public:
    Spool(std::istream& from, const std::string& name) : m_stream(this) {
        do {
            from.read(m_bytes, sizeof m_bytes);
            if (from.bad())
                throw Failure(name, platform::errorText(EIO));
            check(m_file.write(m_bytes, static_cast<std::size_t>(from.gcount())));
        } while (from);
    }

    std::istream& fromStart() {
        setg(nullptr, nullptr, nullptr);
        check(m_file.seek(0));
        m_stream.clear();
        return m_stream;
    }

protected:
    int_type underflow() override {
        const std::size_t count = m_file.read(m_bytes, sizeof m_bytes);
        check(m_file.good());
        setg(m_bytes, m_bytes, m_bytes + count);
        return count == 0 ? traits_type::eof() : traits_type::to_int_type(m_bytes[0]);
    }

private:
    void check(bool good) const {
        if (!good)
            throw Failure("temporary file", platform::errorText(m_file.error() ? m_file.error() : EIO));
    }

    platform::TemporaryFile m_file;
    std::istream m_stream;
    char m_bytes[0x10000];
};

/// The traces that are merged, each of which can be opened again.
class Sources {
public:
    explicit Sources(std::vector<std::string> files) : m_files(std::move(files)), m_spools(m_files.size()) {}

    std::size_t size() const { return m_files.size(); }
    const std::vector<std::string>& files() const { return m_files; }
    std::string nameOf(std::size_t file) const { return m_files[file] == "-" ? "standard input" : m_files[file]; }

    std::unique_ptr<TraceFile> open(std::size_t file) {
        using platform::FileStatus;
        std::unique_ptr<Spool>& spool = m_spools[file];
        if (!spool && m_files[file] == "-") {
            spool = std::make_unique<Spool>(std::cin, nameOf(file));
        } else if (const FileStatus::Sort sort = FileStatus::of(m_files[file]).sort;
                   !spool && (sort == FileStatus::Fifo || sort == FileStatus::Device)) {
            std::ifstream stream(m_files[file], std::ios::binary);
            if (!stream)
                throw Failure(nameOf(file), platform::errorText(platform::openError(m_files[file].c_str())));
            spool = std::make_unique<Spool>(stream, nameOf(file));
        }
        return spool ? std::make_unique<TraceFile>(nameOf(file), &spool->fromStart())
                     : std::make_unique<TraceInput>(m_files[file]);
    }

private:
    std::vector<std::string> m_files;
    std::vector<std::unique_ptr<Spool>> m_spools;
};

/// By how much a trace is shifted.
struct Offset {
    std::size_t file;
    TimeLength duration;
    bool isBack;
};

/// What --offset says of the traces: FILE=TIME, of which FILE may be a directory.
std::vector<Offset> offsetsOf(const std::vector<std::string>& texts, const std::vector<std::string>& files) {
    std::vector<Offset> offsets;
    for (const std::string& text : texts) {
        const std::size_t equals = text.rfind('=');
        const std::string name = text.substr(0, equals);
        std::string time = equals == std::string::npos ? "" : text.substr(equals + 1);
        const bool isBack = time.starts_with('-');
        if (isBack || time.starts_with('+'))
            time.erase(0, 1);
        const std::optional<TimeLength> duration = TimeLength::of(time);
        if (!duration)
            throw Misuse("--offset", "'" + text + "' is not FILE=TIME, with a TIME as 12, -12 or -1.5s");
        bool isFound = false;
        for (std::size_t file = 0; file < files.size(); ++file) {
            namespace fs = std::filesystem;
            const fs::path path(files[file]);
            if (files[file] != name && fs::path(name) / path.filename() != path)
                continue;
            offsets.push_back({file, *duration, isBack});
            isFound = true;
        }
        if (!isFound)
            throw Misuse("--offset", "'" + name + "' is none of the traces");
    }
    return offsets;
}

/// Names some traces in few words.
class Some {
public:
    explicit Some(const Sources& sources) : m_sources(sources) {}

    void add(std::size_t file) {
        if (m_count++ == 0)
            m_first = file;
    }
    explicit operator bool() const { return m_count > 0; }
    /// With what is to be said of one, or of several.
    std::string that(const char* one, const char* several) const {
        const std::string first = m_sources.nameOf(m_first);
        return m_count == 1 ? fmt::format("{} {}", first, one)
                            : fmt::format("{} and {} more {}", first, m_count - 1, several);
    }

private:
    const Sources& m_sources;
    std::size_t m_first = 0;
    std::size_t m_count = 0;
};

class Merging : PacketChange {
public:
    Merging(const std::vector<std::string>& files, const std::vector<std::string>& offsets, const Selection& selection,
            const TraceShape& shape, Target& target)
        : m_sources(files),
          m_offsets(offsetsOf(offsets, files)),
          m_selection(selection),
          m_shape(shape),
          m_target(target) {}

    std::uint64_t packets() const { return m_packets; } ///< that were written
    std::uint64_t size() const { return m_size; }       ///< of the file, in bytes

    ExitCode run() {
        Selection selection(m_selection);
        selection.begin(m_sources.files());
        for (std::size_t file = 0; file < m_sources.size(); ++file)
            Work::now().expect(m_sources.files()[file]); // twice
        for (std::size_t file = 0; file < m_sources.size(); ++file)
            look(file, selection);
        m_pieces.compare();
        shift();
        tellOfClocks();
        if (const std::uint64_t count = m_renumbering.given(); count > 0)
            tell(fmt::format("{} identifier{} of one trace {} something else in another; {} a new number", count,
                             plural(count), count == 1 ? "means" : "mean", count == 1 ? "it got" : "each got"));
        return write();
    }

private:
    /// Takes note of what a trace says of its clocks, frames and identifiers.
    void look(std::size_t file, Selection& selection) {
        const std::unique_ptr<TraceFile> trace = selected(m_sources.open(file), file, m_sources.size(), selection);
        while (trace->advance()) {
            const CTraceCursor& at = trace->cursor();
            if (m_sources.size() > 1)
                m_pieces.note(at);
            const KindFacts& facts = factsOf(at.TraceCode());
            if (at.TraceCode() == TraceEnabled)
                lookAtFrame(at.as<CTraceEnabled>()->FrameConfig());
            if (facts.role != Role::Definition && facts.role != Role::Undefinition && at.TraceCode() != Timestamp)
                continue;
            const PacketPointer packet = absoluteAt(at);
            m_clock.note(*packet, file);
            m_renumbering.note(*packet);
        }
        m_renumbering.endTrace();
        m_pieces.endTrace();
    }

    /// The one frame is as all frames are; where they differ, its instructions are listed in parts.
    void lookAtFrame(const SFrameConfig& config) {
        if (!m_frame) {
            m_frame = config;
        } else if (*m_frame != config) {
            const bool isKnown = m_frame->getExpansion() != UnknownExpanded && config.getExpansion() != UnknownExpanded;
            m_frame = m_frame->getExpansion() == config.getExpansion() ? config.getExpansion()
                      : isKnown                                        ? MixExpanded
                                                                       : UnknownExpanded;
        }
    }

    void shift() {
        for (const Offset& offset : m_offsets) {
            if (!offset.duration.isTicks() && m_clock.frequency() == 0)
                throw Misuse("--offset", "no trace tells how many ticks are a second");
            m_clock.shift(offset.file, offset.duration.ticks(m_clock.frequency()), offset.isBack);
        }
    }

    void tellOfClocks() const {
        Some slower(m_sources), clockless(m_sources), contradicting(m_sources);
        for (std::size_t file = 0; file < m_sources.size(); ++file) {
            if (m_clock.isSlower(file))
                slower.add(file);
            if (m_clock.frequency() != 0 && !m_clock.hasClock(file))
                clockless.add(file);
            if (m_clock.contradicts(file))
                contradicting.add(file);
        }
        if (slower)
            tell(fmt::format("{} told by the fastest clock, {} ticks a second",
                             slower.that("has a slower clock; its ticks are", "have slower clocks; their ticks are"),
                             m_clock.frequency()));
        if (clockless)
            tell(clockless.that("does not tell how many ticks are a second; they are taken as they are",
                                "do not tell how many ticks are a second; they are taken as they are"));
        if (contradicting)
            tell(contradicting.that("tells several frequencies of one clock; the first counts",
                                    "tell several frequencies of one clock; the first counts"));
    }

    ExitCode write() {
        Merged merged;
        merged.keepOldTicks();
        if (m_clock.changes())
            merged.changeBy(*this);
        m_selection.begin(m_sources.files());
        for (std::size_t file = 0; file < m_sources.size(); ++file)
            merged.add(selected(m_sources.open(file), file, m_sources.size(), m_selection));

        TraceOutput output(m_target, !m_shape.plain, m_shape.relative);
        const auto frame = [&](CPacket* packet) { output.write(PacketPointer(packet), m_target.name(), 0); };
        frame(new CTraceEnabled(0, m_frame.value_or(SFrameConfig()))); // its length is put in at its end
        while (PacketPointer packet = merged.next()) {
            const std::string& name = merged.trace(merged.file()).name();
            if (repeatsClock(*packet) || m_pieces.restates(merged.file(), merged.offset()))
                continue;
            if (!m_renumbering.change(*packet, merged.file()))
                throw Failure(name, fmt::format("offset {}: there is no number left for an identifier of this {} "
                                                "packet",
                                                merged.offset(), CTCodeInfo::TCodeToName(packet->TraceCode())));
            ++m_packets;
            output.write(std::move(packet), name, merged.offset());
        }
        frame(new CTraceDisabled);
        frame(new CEndOfTrace);
        m_size = output.commit();

        ExitCode exitCode = reportDamage(merged);
        Some unplaced(m_sources);
        for (const std::size_t file : m_unplaced)
            unplaced.add(file);
        if (unplaced) {
            constexpr char kWhat[] =
                "ticks that the fastest clock or an offset puts out of 64 bits; they are unknown now";
            tell(unplaced.that("has", "have") + " " + kWhat);
            exitCode = DoneWithLoss;
        }
        return exitCode;
    }

    void change(std::size_t file, CPacket& packet) override {
        if (!m_clock.change(packet, file))
            m_unplaced.insert(file);
    }

    /// Whether the packet tells a clock that is told already.
    bool repeatsClock(const CPacket& packet) {
        const auto* timestamp = packetAs<CTimestamp>(packet);
        if (!timestamp || !timestamp->is_Frequency_valid() || timestamp->Frequency() == 0)
            return false;
        return !m_clocks.insert(timestamp->is_HWCtx_valid() ? std::optional(timestamp->HWCtx()) : std::nullopt).second;
    }

    Sources m_sources;
    std::vector<Offset> m_offsets;
    Selection m_selection;
    TraceShape m_shape;
    Target& m_target;
    std::uint64_t m_packets = 0;
    std::uint64_t m_size = 0;
    CommonClock m_clock;
    Renumbering m_renumbering;
    Pieces m_pieces;
    std::optional<SFrameConfig> m_frame;
    std::set<std::optional<std::uint32_t>> m_clocks; ///< that are told, by core
    std::set<std::size_t> m_unplaced;                ///< traces with ticks that are lost
};

ExitCode merge(MergeOptions& options) {
    const std::vector<std::string> files = options.inputs.files();
    options.output.check(files);
    Merging merging(files, options.offsets, options.selection, options.shape, options.output.target());
    const ExitCode exitCode = merging.run();
    tell(fmt::format("{} packets of {} trace{}, {} bytes", merging.packets(), files.size(), plural(files.size()),
                     merging.size()));
    return exitCode;
}

} // namespace

ExitCode merge(const std::vector<std::string>& files, Target& target) {
    return Merging(files, {}, {}, {}, target).run();
}

void addMerge(Program& program) {
    auto options = std::make_shared<MergeOptions>();
    Verb verb = program.add("merge", "Make one trace of several, in the order of time");
    options->inputs.addTo(verb);
    verb.option("--offset", options->offsets,
                "Shift the ticks of FILE, or of all in a directory: b.qvx=-1.5s, b.qvx=+500", "FILE=TIME");
    options->selection.addTo(verb, Selection::OfTrace);
    options->shape.addTo(verb);
    options->output.addOptions(verb, true);
    verb.footer(
        "Example: qvx merge traces -o run.qvx\n"
        "What is written is paged and absolute, unless options say otherwise. Ticks are told by the fastest clock\n"
        "of the traces; an offset without a unit is in ticks of that. Identifiers that mean different things in\n"
        "different traces get new numbers; cores, threads and buses keep theirs. What pieces of a trace\n"
        "begin with because it holds there comes once. The traces are read twice.\n" +
        std::string(kPartHelp));
    verb.runs([options] { return merge(*options); });
}

} // namespace qvx

#include "Arguments.h"
#include "Moments.h"
#include "Output.h"
#include "TraceInput.h"
#include "TraceSinks.h"
#include "Verbs.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/analysis/TracePiece.h"
#include "quorvex/analysis/TraceSpan.h"
#include "quorvex/analysis/TraceState.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/platform/OutputFile.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/TraceSinkBufferStream.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

enum class SplitBy : std::uint8_t { Nothing, Thread, Core };

struct SplitOptions {
    std::string file;
    std::string to;
    std::string size;
    std::string every;
    SplitBy by = SplitBy::Nothing;
    bool force = false;
};

/// So many pieces are open at a time.
constexpr std::size_t kMostOpen = 64;
/// Bytes that all pieces collect together.
constexpr std::size_t kMostCollected = 0x2000000;
/// More pieces are made only by force.
constexpr std::size_t kMostPieces = 10000;
constexpr std::size_t kLeastCollected = 0x400;

/// A number of bytes, of a page or more, as 512K, 100M, 2G.
std::uint64_t sizeOf(const std::string& text) {
    constexpr std::pair<std::string_view, unsigned> kUnits[] = {{"", 0}, {"K", 10}, {"M", 20}, {"G", 30}};
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    for (const auto& [unit, bits] : kUnits) {
        if (error == std::errc() && number > 0 && number < std::uint64_t{1} << 32 &&
            end == text.data() + text.size() - unit.size() && text.ends_with(unit)) {
            if (number << bits < kPageSize)
                throw Misuse("--size", fmt::format("'{}' is less than a page of {} bytes", text, kPageSize));
            return number << bits;
        }
    }
    throw Misuse("--size", "'" + text + "' is no size, as 512K, 100M, 2G");
}

/// A piece and its file, which may not be open.
class Piece {
public:
    Piece(const std::string& path, bool force, Claims& claims) : m_target(path, force, claims), m_sink(m_target) {
        m_piece.emplace(m_sink, true);
    }
    TracePiece& trace() { return *m_piece; }
    Target& target() { return m_target; }
    /// Closes the file whenever nothing is written, from now on.
    void pause() {
        m_sink.pauses = true;
        m_target.pause();
    }

private:
    struct Sink : CTraceSinkBufferStream {
        explicit Sink(Target& its) : CTraceSinkBufferStream(its.open()), target(its) {}
        bool write(const char* src, unsigned count, std::uint64_t position, unsigned& written) override {
            target.resume();
            return CTraceSinkBufferStream::write(src, count, position, written) && paused();
        }
        bool write(const char* src, unsigned count, unsigned& written) override {
            target.resume();
            return CTraceSinkBufferStream::write(src, count, written) && paused();
        }
        bool paused() {
            if (pauses)
                target.pause();
            return true;
        }

        Target& target;
        bool pauses = false;
    };

    Target m_target;
    Sink m_sink;
    std::optional<TracePiece> m_piece;
};

/// What both ways of splitting share.
class Split {
public:
    explicit Split(SplitOptions& options) : m_options(options) {
        namespace fs = std::filesystem;
        m_claims.read(options.file);
        m_prefix = options.to;
        const bool isDirectory =
            platform::FileStatus::of(options.to).sort == platform::FileStatus::Directory || options.to.ends_with('/');
        const std::string stem = options.file == "-" ? "trace" : fs::path(options.file).stem().string();
        if (isDirectory)
            m_prefix = (fs::path(options.to) / stem).string();
    }

protected:
    std::unique_ptr<Piece> make(const std::string& name) {
        if (m_count == kMostPieces && !m_options.force) {
            takeBack();
            throw Failure(m_options.file, fmt::format("{} pieces have been made and removed again, and the trace goes "
                                                      "on; use --force for more",
                                                      m_count));
        }
        const std::string path = m_prefix + "-" + name + ".qvx";
        auto piece = std::make_unique<Piece>(path, m_options.force, m_claims);
        ++m_count;
        return piece;
    }
    void put(bool isDone, Piece& piece, std::uint64_t offset) const {
        if (!isDone)
            failToWrite(piece.target(), m_options.file, offset);
    }
    void end(Piece& piece, bool endsFrame = true) {
        put(piece.trace().end(endsFrame), piece, 0);
        m_bytes += piece.trace().position();
        piece.target().commit();
        if (!m_options.force)
            m_made.push_back(piece.target().name());
    }
    /// Removes the pieces that are in place, unless others have been there.
    void takeBack() const {
        for (const std::string& made : m_made) {
            std::error_code failed;
            std::filesystem::remove(made, failed);
        }
    }
    void tellCount() const { tell(fmt::format("{} piece{}, {} bytes", m_count, plural(m_count), m_bytes)); }

    SplitOptions& m_options;
    std::string m_prefix;
    Claims m_claims;
    LayoutSeen m_layout;

private:
    std::vector<std::string> m_made; ///< unless by force, files that have been put in place
    std::uint64_t m_count = 0;
    std::uint64_t m_bytes = 0;
};

/// Pieces that follow one another, each of which begins with what has been told before it.
class SplitInRow : Split {
public:
    explicit SplitInRow(SplitOptions& options) : Split(options) {
        if (!options.size.empty()) {
            m_size = sizeOf(options.size);
        } else {
            m_every = TimeLength::of(options.every);
            if (!m_every)
                throw Misuse("--every", "'" + options.every + "' is no length of time, as 10s, 5ms, 1000");
            if (constexpr std::uint64_t kPicoseconds = 1000000000000; m_every->ticks(kPicoseconds) == 0)
                throw Misuse("--every", "pieces of no time have no end");
        }
    }

    ExitCode run() {
        TraceInput input(m_options.file);
        TraceState state(TraceState::Start::OfTrace);
        while (input.advance()) {
            const CTraceCursor& packet = input.cursor();
            if (!m_piece || isNext(packet)) {
                if (m_piece)
                    end(*m_piece);
                m_piece = make(fmt::format("{:04}", m_number));
                TracePiece& piece = m_piece->trace();
                piece.layOut(m_layout.isPaged());
                put(piece.beginFrame(state.frame()) && piece.put(state), *m_piece, packet.offset());
                m_front = piece.position();
                if (m_size > 0 && m_front + kBeside >= m_size) {
                    takeBack();
                    throw Failure(m_options.file, fmt::format("offset {}: what holds there takes {} bytes; --size must "
                                                              "be more than that",
                                                              packet.offset(), m_front + kBeside));
                }
            }
            if (m_layout.look(packet))
                m_piece->trace().layOut(m_layout.isPaged());
            put(m_piece->trace().put(packet), *m_piece, packet.offset());
            state.note(packet);
            m_span.look(packet);
        }
        if (!m_piece)
            m_piece = make(fmt::format("{:04}", m_number));
        end(*m_piece, input.report().end < TraceEnd::Missing);
        tellCount();
        return input.reportDamage();
    }

private:
    /// What a page restates, and the end of a frame, may be added.
    static constexpr std::uint64_t kBeside = pages::kMostRestated + 4;

    bool isNext(const CTraceCursor& packet) {
        const Role role = factsOf(packet.TraceCode()).role;
        if (role == Role::Structure)
            return false;
        if (m_size > 0) {
            const TracePiece& piece = m_piece->trace();
            const bool isFull = piece.position() + (packet.end() - packet.offset()) + kBeside > m_size;
            const bool isNew = isFull && piece.position() > m_front;
            m_number += isNew;
            return isNew;
        }
        // What stands before the first happening may be older.
        const std::uint64_t tick = role == Role::Happening || m_first != kUnknown64 ? packet.tick() : kUnknown64;
        if (tick == kUnknown64)
            return false;
        if (m_first == kUnknown64) {
            if (!m_every->isTicks() && m_span.frequency == 0)
                throw Failure(m_options.file, "does not begin with how many ticks are a second; tell --every in ticks");
            m_first = tick;
            m_ticks = std::max<std::uint64_t>(m_every->ticks(m_span.frequency), 1);
        }
        const std::uint64_t number = tick > m_first ? (tick - m_first) / m_ticks + 1 : 1;
        if (number <= m_number)
            return false;
        m_number = number;
        return true;
    }

    std::uint64_t m_size = 0;
    std::optional<TimeLength> m_every;
    TraceSpan m_span;                   ///< as far as it has been read
    std::uint64_t m_first = kUnknown64; ///< tick
    std::uint64_t m_ticks = 0;          ///< of a piece
    std::uint64_t m_number = 1;
    std::uint64_t m_front = 0; ///< bytes that the piece begins with
    std::unique_ptr<Piece> m_piece;
};

/// A piece for each thread or core. What several of them need is told in each before it is needed there first.
class SplitByPlace : Split {
public:
    using Split::Split;

    ExitCode run() {
        TraceInput input(m_options.file);
        while (input.advance())
            take(input.cursor());
        for (Part* part : m_parts)
            end(*part->file, input.report().end < TraceEnd::Missing);
        tellCount();
        return input.reportDamage();
    }

private:
    using Key = std::pair<TextSort, std::uint64_t>;

    struct Definition {
        std::string nameless, named; ///< packets
        std::vector<Key> others;     ///< that it is about, too
        std::size_t number = 0;
    };
    struct Part {
        std::unique_ptr<Piece> file;
        std::vector<bool> told;    ///< definitions as they are now, by their numbers
        std::size_t clocks = 0;    ///< that are told
        std::uint64_t signals = 0; ///< how often signals had been defined when it was told of them
    };

    static constexpr std::uint64_t kElsewhere = std::uint64_t{1} << 32; ///< what has no thread, or no core

    void take(const CTraceCursor& packet) {
        const tagTCode code = packet.TraceCode();
        const KindFacts& facts = factsOf(code);
        if (m_layout.look(packet)) {
            for (Part* part : m_parts)
                part->file->trace().layOut(m_layout.isPaged());
        }
        m_frame.note(packet);
        m_lastFrame = m_frame.isOpen ? m_frame : m_lastFrame;
        if (facts.sync != ContextSort::None || facts.isFrame || code == Fill ||
            (code == Timestamp && isNewClock(packet)))
            return; // each piece has its own
        const std::optional<Key> subject = subjectIn(packet);
        const bool isDefinition = subject && facts.role == Role::Definition;
        if (isDefinition)
            define(packet, *subject);
        Part& part = partOf(placeOf(packet));
        TracePiece& piece = part.file->trace();
        bool isDone = true;
        for (; isDone && part.clocks < m_clocks.size(); ++part.clocks)
            isDone = piece.put(m_clocks[part.clocks]);
        if (isDefinition)
            isToldAnew(part, m_definitions[*subject]);
        else if (subject)
            isDone = isDone && tellOf(part, *subject) && tellOfOthers(part, packet);
        else if ((code == Signal || code == RelSignal) && part.signals != m_signalsDefined)
            isDone = isDone && tellOfSignals(part);
        put(isDone && piece.put(packet), *part.file, packet.offset());
    }

    std::uint64_t placeOf(const CTraceCursor& packet) const {
        const bool byCore = m_options.by == SplitBy::Core;
        if (const auto core = packet.contextOf<CCoreContext>())
            return byCore ? core->hwCtx : core->swCtx;
        if (const auto bus = packet.contextOf<CBusContext>(); bus && byCore)
            return bus->hwCtx;
        if (const auto time = packet.as<CTimestamp>(); time && byCore && time->is_HWCtx_valid())
            return time->HWCtx();
        return kElsewhere;
    }

    Part& partOf(std::uint64_t place) {
        if (Part* part = m_places.find(place))
            return *part;
        const char* word = m_options.by == SplitBy::Thread ? "thread" : "core";
        Part& part = m_places[place];
        part.file = make(place == kElsewhere                        ? std::string("other")
                         : place == static_cast<std::uint32_t>(~0U) ? fmt::format("{}-unknown", word)
                                                                    : fmt::format("{}-{}", word, place));
        m_parts.push_back(&part);
        part.file->trace().layOut(m_layout.isPaged());
        put(part.file->trace().beginFrame(m_lastFrame), *part.file, 0);
        // More of them collect less, and close their files in between.
        const std::size_t count = m_parts.size();
        if (std::has_single_bit(count) || count == kMostOpen + 1) {
            for (Part* each : m_parts)
                settle(*each);
        }
        settle(part);
        return part;
    }
    void settle(Part& part) const {
        const std::size_t most = kMostCollected / std::bit_ceil(m_parts.size());
        part.file->trace().collect(std::clamp(most, kLeastCollected, std::size_t{kPageSize}));
        if (m_parts.size() > kMostOpen)
            part.file->pause();
    }

    /// What it defines or is about, if that is defined by something.
    std::optional<Key> subjectIn(const CTraceCursor& packet) {
        if (const KindFacts& facts = factsOf(packet.TraceCode()); facts.entered != TextSort::None) // most packets
            return Key(facts.entered, enteredIn(packet));
        std::optional<bool>& hasIds = m_hasIds[packet.TraceCode()];
        if (hasIds == false)
            return std::nullopt;
        const PacketPointer object(packet.packet());
        if (!hasIds) {
            hasIds = false;
            eachNumber(*object,
                       [&](const NumberField& field) { hasIds = *hasIds || field.meaning == FieldMeaning::Id; });
        }
        const auto subject = subjectOf(*object);
        return subject && subject->sort != TextSort::None ? std::optional(Key(subject->sort, subject->id))
                                                          : std::nullopt;
    }

    /// What a packet refers to besides its subject.
    static std::vector<Key> othersIn(const CPacket& packet) {
        std::vector<Key> others;
        std::uint32_t machine = 0;
        const bool isTyped = packet.TraceCode() == VariableDefine;
        eachNumber(packet, [&](const NumberField& field) {
            const std::string_view name = field.name;
            const auto id = static_cast<std::uint32_t>(field.value);
            if (name == "TypeId" && isTyped)
                others.emplace_back(TextSort::Type, id);
            else if (name == "StateMachine")
                others.emplace_back(TextSort::StateMachine, machine = id);
            else if (name == "StateMachineInstance")
                others.emplace_back(TextSort::StateMachineInstance, CTraceNames::pair(machine, id));
            else if (name == "SourceState" || name == "TargetState")
                others.emplace_back(TextSort::State, CTraceNames::pair(machine, id));
            else if (name == "CntrId")
                others.emplace_back(TextSort::CounterUnit, id);
        });
        return others;
    }

    void define(const CTraceCursor& packet, Key subject) {
        const PacketPointer made = absoluteAt(packet);
        const auto [at, isNew] = m_definitions.try_emplace(subject);
        Definition& definition = at->second;
        if (isNew)
            definition.number = m_definitions.size() - 1;
        for (Part* part : m_parts) {
            if (!isNew && definition.number < part->told.size())
                part->told[definition.number] = false;
        }
        std::string& bytes = packet.text().empty() ? definition.nameless : definition.named;
        bytes.resize(made->StreamSize());
        bytes.resize(made->write(bytes.data(), static_cast<unsigned>(bytes.size())));
        definition.others = othersIn(*made);
        std::erase(definition.others, subject);
        if (subject.first == TextSort::Signal) {
            m_signals.insert(subject);
            ++m_signalsDefined;
        }
    }

    /// Notes that a part is told of it; false if it has been already.
    static bool isToldAnew(Part& part, const Definition& definition) {
        if (definition.number >= part.told.size())
            part.told.resize(definition.number + 1);
        const bool wasTold = part.told[definition.number];
        part.told[definition.number] = true;
        return !wasTold;
    }
    bool tellOf(Part& part, Key subject) {
        const auto at = m_definitions.find(subject);
        if (at == m_definitions.end())
            return true;
        const Definition& definition = at->second;
        if (!isToldAnew(part, definition))
            return true;
        TracePiece& piece = part.file->trace();
        return std::ranges::all_of(definition.others, [&](Key other) { return tellOf(part, other); }) &&
               (definition.nameless.empty() || piece.put(definition.nameless)) &&
               (definition.named.empty() || piece.put(definition.named));
    }
    bool tellOfOthers(Part& part, const CTraceCursor& packet) {
        const tagTCode code = packet.TraceCode();
        const bool hasOthers = code == InitialState || code == Transition || factsOf(code).isCounterValue;
        return !hasOthers || std::ranges::all_of(othersIn(*PacketPointer(packet.packet())),
                                                 [&](Key other) { return tellOf(part, other); });
    }
    bool tellOfSignals(Part& part) {
        const bool isDone = std::ranges::all_of(m_signals, [&](Key signal) { return tellOf(part, signal); });
        part.signals = m_signalsDefined;
        return isDone;
    }

    /// Whether it tells a clock that has not been told before, for all pieces.
    bool isNewClock(const CTraceCursor& packet) {
        const auto clock = packet.as<CTimestamp>();
        if (!clock->is_Frequency_valid() || clock->Frequency() == 0 ||
            !m_toldClocks.insert(clock->is_HWCtx_valid() ? clock->HWCtx() : kElsewhere).second)
            return false;
        m_clocks.emplace_back(packet.payload() - CPacketHeader::Len(), CPacketHeader::Len() + packet.Length());
        return true;
    }

    Directory<std::uint64_t, Part> m_places;
    std::vector<Part*> m_parts;
    std::map<Key, Definition> m_definitions;
    std::set<Key> m_signals;
    std::array<std::optional<bool>, 256> m_hasIds; ///< whether packets have a field that refers to something, by kind
    std::uint64_t m_signalsDefined = 0;            ///< how often one was
    std::vector<std::string> m_clocks;
    std::set<std::uint64_t> m_toldClocks; ///< by their cores
    TraceFrame m_frame, m_lastFrame;
};

ExitCode split(SplitOptions& options) {
    if (int{!options.size.empty()} + int{!options.every.empty()} + int{options.by != SplitBy::Nothing} != 1)
        throw Misuse("--by", "one of --size, --every and --by tells where pieces begin");
    return options.by != SplitBy::Nothing ? SplitByPlace(options).run() : SplitInRow(options).run();
}

} // namespace

void addSplit(Program& program) {
    auto options = std::make_shared<SplitOptions>();
    Verb verb = program.add("split", "Take a trace apart into pieces");
    verb.option("FILE", options->file, "Trace file; - for standard input").required();
    verb.option("--size", options->size, "Pieces of at most that many bytes, as 512K, 100M, 2G", "BYTES");
    verb.option("--every", options->every, "A piece for each such time, as 10s, 5ms, or ticks", "TIME");
    verb.choice("--by", options->by, {{"thread", SplitBy::Thread}, {"core", SplitBy::Core}},
                "A piece for each: thread, core", "PLACE");
    verb.option("-o,--output", options->to, "Make PREFIX-0001.qvx and so on; of a directory, files in it", "PREFIX")
        .required();
    verb.flag("-f,--force", options->force, "Overwrite files that exist");
    verb.footer(
        "Example: qvx split long.qvx --every 10s -o pieces/\n"
        "Each piece begins with what holds there: names, the clock, open calls, last values. Pieces by time are\n"
        "numbered by it; qvx cat or merge joins them again. Those by place are named as long-thread-4711.qvx, what\n"
        "has none is long-other.qvx.");
    verb.runs([options] { return split(*options); });
}

} // namespace qvx

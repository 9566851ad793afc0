#include "Arguments.h"
#include "Output.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/PageFormat.h"

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>

namespace qvx {

namespace {

using namespace Quorvex;

/// All that one pass over a trace tells.
class Summary {
public:
    void add(const CTraceCursor& packet);
    void print(std::ostream& out, const TraceInput& input) const;

private:
    struct Function {
        std::string name;
        std::uint64_t entered = 0;
    };

    void addTick(std::uint64_t tick);
    void addTime(const CTraceCursor& packet);
    void addPlace(const CTraceCursor& packet);
    void addFunction(const CTraceCursor& packet);
    std::string duration() const;
    std::string layout(std::uint64_t size) const;

    std::array<std::uint64_t, 256> m_kinds{};
    std::uint64_t m_packets = 0;
    std::uint64_t m_tick = 0; ///< of the last packet that has one
    std::uint64_t m_firstTick = kUnknown64;
    std::uint64_t m_lastTick = 0;
    TimeBase m_clock;
    bool m_clocksDiffer = false;
    std::optional<std::pair<std::uint32_t, std::uint32_t>> m_place; ///< core and thread of the last packet that tells
    std::set<std::uint32_t> m_cores;
    std::set<std::uint32_t> m_threads;
    std::unordered_map<std::uint32_t, Function> m_functions;
    bool m_crossesPage = false;
};

void Summary::addTick(std::uint64_t tick) {
    if (tick == kUnknown64)
        return;
    m_tick = tick;
    m_firstTick = std::min(m_firstTick, tick);
    m_lastTick = std::max(m_lastTick, tick);
}

void Summary::addTime(const CTraceCursor& packet) {
    // A sync packet repeats the time of another, and an old definition means none.
    const KindFacts& facts = factsOf(packet.TraceCode());
    const std::uint64_t tick = facts.sync == ContextSort::None ? packet.tick() : kUnknown64;
    if (tick >= m_tick || facts.role != Role::Definition)
        addTick(tick);
}

void Summary::addPlace(const CTraceCursor& packet) {
    // What relative packets are relative to has been told before, or is not known.
    if (factsOf(packet.TraceCode()).isRelative)
        return;
    const auto context = packet.contextOf<CCoreContext>();
    if (!context || m_place == std::pair(context->hwCtx, context->swCtx))
        return;
    m_place.emplace(context->hwCtx, context->swCtx);
    if (!isUnknown(FieldMeaning::Context, context->hwCtx))
        m_cores.insert(context->hwCtx);
    if (!isUnknown(FieldMeaning::Context, context->swCtx))
        m_threads.insert(context->swCtx);
}

void Summary::addFunction(const CTraceCursor& packet) {
    const auto function = [this](std::uint32_t id) -> Function* {
        return id == CFunctionEnterPayload::kNoFunction ? nullptr : &m_functions[id];
    };
    if (const auto enter = packet.as<CFunctionEnter>()) {
        if (Function* entered = function(enter->TgtFuncId()))
            ++entered->entered;
    } else if (const auto definition = packet.as<CFunctionDefine>()) {
        if (Function* defined = function(definition->FuncId()))
            defined->name = packet.text();
    } else if (packet.TraceCode() == Timestamp) {
        m_clocksDiffer = !m_clock.note(*PacketPointer(packet.packet())) || m_clocksDiffer;
    }
}

void Summary::add(const CTraceCursor& packet) {
    ++m_packets;
    ++m_kinds[packet.TraceCode() & 0xFF];
    m_crossesPage = m_crossesPage || pages::crossesEnd(packet.offset(), packet.end());
    addTime(packet);
    addPlace(packet);
    addFunction(packet);
}

std::string Summary::layout(std::uint64_t size) const {
    const std::uint64_t pages = (size + kPageSize - 1) / kPageSize;
    if (pages > 1)
        return m_crossesPage ? "plain" : fmt::format("paged, {} pages of 256 KiB", pages);
    return "plain or paged (one page reads the same either way)";
}

std::string Summary::duration() const {
    constexpr std::uint64_t kNanoseconds = 1'000'000'000;
    const std::uint64_t ticks = m_lastTick - m_firstTick;
    const std::uint64_t frequency = m_clock.frequency();
    if (frequency == 0)
        return fmt::format("{} ticks", ticks);
    const std::uint64_t time = TimeBase::unitsOf(ticks, frequency, kNanoseconds);
    return fmt::format("{}.{:09} s ({} ticks at {} a second{})", time / kNanoseconds, time % kNanoseconds, ticks,
                       frequency, m_clocksDiffer ? "; not all clocks of the trace are like that" : "");
}

std::string list(const std::set<std::uint32_t>& numbers) {
    return numbers.empty() ? "none" : fmt::format("{}", fmt::join(numbers, ", "));
}

std::string damageOf(const TraceInput& input) {
    const TraceDamage& damage = input.report().damage;
    const char* s = plural(damage.places);
    if (damage.places == 0)
        return "none";
    if (const TraceTextReader::Error* error = input.tableError())
        return fmt::format("{} row{}, the first in line {}", damage.places, s, error->line);
    return fmt::format("{} byte{} in {} place{}, the first at offset {}", damage.bytes, plural(damage.bytes),
                       damage.places, s, damage.first);
}

void Summary::print(std::ostream& out, const TraceInput& input) const {
    const auto line = [&out](std::string_view label, const std::string& text) {
        fmt::print(out, "{:<11}{}\n", label, text);
    };
    line("File:", shown(input.name()));
    line("Layout:", layout(input.size()));
    line("Size:", fmt::format("{} byte{}", input.size(), plural(input.size())));
    if (m_firstTick == kUnknown64) {
        line("Ticks:", "none");
    } else {
        line("Ticks:", fmt::format("{} to {}", m_firstTick, m_lastTick));
        line("Duration:", duration());
    }
    line("Cores:", list(m_cores));
    line("Threads:", list(m_threads));
    line("Damage:", damageOf(input));
    line("End:", input.ending());
    line("Packets:", fmt::format("{}", m_packets));
    for (unsigned code = 0; code < m_kinds.size(); ++code) {
        if (m_kinds[code] > 0)
            fmt::print(out, "{:>14}  {}\n", m_kinds[code], CTCodeInfo::TCodeToName(tagTCode(code)));
    }
    if (m_functions.empty())
        return;
    fmt::print(out, "Functions: (id, times entered, name)\n");
    for (const auto& [id, function] : std::map(m_functions.begin(), m_functions.end()))
        fmt::print(out, "    0x{:08x} {:>10}  {}\n", id, function.entered,
                   function.name.empty() ? "(no name)" : shown(function.name));
}

struct InfoOptions {
    std::string file;
    Output output;
};

ExitCode info(InfoOptions& options) {
    options.output.check({options.file});
    TraceInput input(options.file);
    std::ostream& out = options.output.target().open();
    Summary summary;
    while (input.advance())
        summary.add(input.cursor());
    summary.print(out, input);
    options.output.target().commit();
    return input.reportDamage();
}

} // namespace

void addInfo(Program& program) {
    auto options = std::make_shared<InfoOptions>();
    Verb verb = program.add("info", "Tell what is in a trace");
    verb.option("FILE", options->file, "Trace file; - for standard input").required();
    options->output.addOptions(verb);
    verb.footer("Example: qvx info thread_4711.qvx");
    verb.runs([options] { return info(*options); });
}

} // namespace qvx

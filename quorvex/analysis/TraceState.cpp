#include "quorvex/analysis/TraceState.h"

#include "quorvex/analysis/CallStack.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/RecordedFact.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace Quorvex {

namespace {

constexpr std::size_t kMostOpen = 0x10000;
constexpr std::size_t kMostProcesses = 64;
constexpr std::size_t kMostIndexed = 0x10000;
constexpr std::size_t kMostSignalBytes = 119;
/// So many definitions that hold no more are kept until it is seen which of them are still needed.
constexpr std::size_t kManyUndone = 0x1000;

/// What messages of recorded programs tell that holds from then on, and by which of their keys that is about something.
constexpr std::pair<std::string_view, std::string_view> kLastingFacts[] = {
    {"process", "pid"}, {"name", "pid"}, {"command", "pid"}, {"thread", "tid"}, {"function", "id"}};

/// Bytes of a packet without a text, in absolute form.
constexpr unsigned kMostBytes = CPacketHeader::Len() + UINT8_MAX;

/// Writes the context of a relative packet; its bytes there.
template <class Context> unsigned putContext(const CTraceCursor& packet, char* to) {
    return Context(*packet.contextOf<Context>(), FromValues()).write(to, Context::Len());
}

/// Writes a packet without its text in absolute form, as far as it has fields; its bytes, or 0 where that form has no
/// room for it.
unsigned putAbsolute(const CTraceCursor& packet, char (&to)[kMostBytes + CCoreContext::Len()]) {
    const KindFacts& facts = factsOf(packet.TraceCode());
    const char* from = packet.payload();
    unsigned rest = packet.Length();
    char* at = to + CPacketHeader::Len();
    if (facts.isRelative) {
        const unsigned relative = facts.context == ContextSort::Core ? CRelCoreContext::Len() : CRelBusContext::Len();
        at += facts.context == ContextSort::Core  ? putContext<CCoreContext>(packet, at)
              : facts.context == ContextSort::Bus ? putContext<CBusContext>(packet, at)
                                                  : putContext<CSystemContext>(packet, at);
        from += relative;
        rest -= relative;
    }
    std::memcpy(at, from, rest);
    const auto length = static_cast<unsigned>(at + rest - to) - CPacketHeader::Len();
    if (length > UINT8_MAX)
        return 0;
    to[0] = static_cast<char>(absoluteKind(packet.TraceCode()));
    to[1] = static_cast<char>(length);
    return CPacketHeader::Len() + length;
}

/// Bytes of the context that a packet of a kind begins with, as it stands in the trace.
unsigned contextSize(const KindFacts& facts) {
    constexpr unsigned kSizes[][2] = {{0, 0},
                                      {CCoreContext::Len(), CRelCoreContext::Len()},
                                      {CBusContext::Len(), CRelBusContext::Len()},
                                      {CSystemContext::Len(), CRelSystemContext::Len()}};
    return kSizes[unsigned(facts.context)][facts.isRelative];
}

/// A packet that is kept.
struct Kept {
    std::uint64_t offset = 0;
    std::string bytes; ///< none: it is not kept any more
};

/// An enter that is open, or a leave of what was entered before the part.
struct Call {
    std::uint64_t offset;
    std::uint32_t id;
    std::uint8_t size; ///< 0: a leave
    char bytes[CPacketHeader::Len() + CCoreContext::Len() + 2 * sizeof(std::uint32_t)];
};

/// What is open in one place, outermost first. Leaves stand between the enters as long as it is not known what they
/// leave.
class Stack {
public:
    explicit Stack(std::size_t most) : m_calls(most) {}

    void enter(const Call& call) {
        m_calls.enter([&call] { return call; });
    }
    /// The same where the last ones matter. False when a leave is lost by it.
    bool enterLast(const Call& call) {
        const std::optional<Call> forgotten = m_calls.enterLast([&call] { return call; });
        return !forgotten || forgotten->size > 0;
    }
    /// False where a leave had to be kept for which there is no room.
    bool leave(std::uint32_t id, bool leavesAny, bool isFromStart) {
        const auto count = m_calls.leave(
            [&](const Call& call) { return call.size == 0 || leavesAny || call.id == id; }); // no leave is passed
        if (count && (*count == 0 || calls()[calls().size() - *count].size > 0)) {
            for (std::size_t i = 0; i < *count; ++i)
                m_calls.pop();
            return true;
        }
        if (isFromStart)
            return true;
        if (m_calls.full())
            return false;
        enter({0, id, 0, {}});
        return true;
    }

    const std::vector<Call>& calls() const { return m_calls.entries(); }
    /// Enters what another stack has only counted.
    void hideAs(const Stack& other) { m_calls.hide(other.m_calls.depth() - other.m_calls.size()); }

private:
    CallStack<Call> m_calls;
};

/// What is open is told apart by its sort and its place.
enum OpenSort : std::uint64_t { InThread, InUnknownThread, Interrupts, Processes };
constexpr std::uint64_t openKey(OpenSort sort, std::uint32_t place) {
    return sort << 32 | place;
}
constexpr bool isOfProcesses(std::uint64_t key) {
    return key >> 32 == Processes;
}

/// Whether a leave of that function leaves whatever runs.
constexpr bool leavesAny(std::uint64_t key, std::uint32_t id) {
    return key >> 32 <= InUnknownThread && id == CFunctionEnterPayload::kNoFunction;
}

/// The values of the lines of a bus.
struct Lines {
    std::uint64_t offset = 0;
    CBusContext context;
    std::size_t bytes = 0;
    unsigned char values[kMostSignalBytes] = {};
    unsigned char mask[kMostSignalBytes] = {};

    void set(const Lines& next) {
        offset = next.offset;
        context = next.context;
        bytes = std::max(bytes, next.bytes);
        for (std::size_t i = 0; i < next.bytes; ++i) {
            values[i] = static_cast<unsigned char>((values[i] & ~next.mask[i]) | (next.values[i] & next.mask[i]));
            mask[i] |= next.mask[i];
        }
    }
};

/// A definition with a name and one without do not replace each other: who has a name keeps it.
using DefinitionKey = std::tuple<TextSort, std::uint64_t, bool>;
struct Definition {
    Kept packet;
    bool isUndone = false;  ///< it holds no more
    bool wasUndone = false; ///< what was defined so before holds no more
};

} // namespace

void TraceFrame::note(const CTraceCursor& packet) {
    if (!factsOf(packet.TraceCode()).isFrame)
        return;
    *this = TraceFrame();
    isTold = true;
    if (const auto enabled = packet.as<CTraceEnabled>()) {
        isOpen = true;
        offset = packet.offset();
        length = enabled->FrameLen();
        version = enabled->Version();
        config = enabled->FrameConfig().word();
    }
}

struct TraceState::Contents {
    explicit Contents(bool fromStart) : isFromStart(fromStart) {}

    void note(const CTraceCursor& packet);
    void noteClock(const CTraceCursor& packet);
    void define(const CTraceCursor& packet);
    void undefine(const CTraceCursor& packet);
    void undo(TextSort sort, std::uint64_t id);
    void forgetUndone();
    std::set<std::pair<TextSort, std::uint64_t>> openOnes();
    void forgetValues(TextSort sort, std::uint64_t id);
    void open(const CTraceCursor& packet, bool isEnter);
    Stack& stackOf(std::uint64_t key) {
        if (!last || key != lastKey) {
            lastKey = key;
            last = &stacks.findOrMake(key, [key] { return Stack(isOfProcesses(key) ? kMostProcesses : kMostOpen); });
        }
        return *last;
    }
    void enter(std::uint64_t key, const Call& call) {
        if (!isOfProcesses(key))
            stackOf(key).enter(call);
        else if (!stackOf(key).enterLast(call))
            isExact = false;
    }
    void leave(std::uint64_t key, std::uint32_t id) {
        if (!stackOf(key).leave(id, leavesAny(key, id), isFromStart))
            isExact = false;
    }
    void keep(Kept& kept, const CTraceCursor& packet) {
        char bytes[kMostBytes + CCoreContext::Len()];
        kept.bytes.assign(bytes, putAbsolute(packet, bytes));
        kept.offset = packet.offset();
    }
    static void keepWhole(Kept& kept, CPacket& packet, std::uint64_t offset) {
        kept.offset = offset;
        kept.bytes.resize(packet.StreamSize());
        kept.bytes.resize(packet.write(kept.bytes.data(), static_cast<unsigned>(kept.bytes.size())));
    }
    void noteMessage(const CTraceCursor& packet);
    void count(const CTraceCursor& packet);
    void setLines(const CTraceCursor& packet);
    void join(Contents&& next);

    bool isFromStart;
    bool isExact = true;
    bool hasContexts = false;
    CContexts contexts;
    TraceFrame frame;
    std::map<std::optional<std::uint32_t>, Kept> clocks; ///< by core
    std::map<DefinitionKey, Definition> definitions;
    std::map<std::pair<std::string_view, std::uint64_t>, Kept> recorded; ///< by word, and what they are about
    std::size_t undone = 0;
    std::size_t manyUndone = kManyUndone;
    Directory<std::uint64_t, Stack> stacks;
    Stack* last = nullptr;
    std::uint64_t lastKey = 0;
    Directory<std::uint64_t, Kept> counters, variables, machines;
    std::map<std::string, Kept> indexed; ///< by the counter and the indices, as they stand in packets
    Directory<std::uint64_t, Lines> buses;
};

void TraceState::Contents::note(const CTraceCursor& packet) {
    const tagTCode code = packet.TraceCode();
    const KindFacts& facts = factsOf(code);
    if (facts.step != Step::None)
        return open(packet, facts.step == Step::Enter);
    if (facts.isCounterValue)
        return count(packet);
    if (facts.isFrame)
        return frame.note(packet);
    switch (absoluteKind(code)) {
    case VariableRead:
    case VariableWrite:
        return keep(variables[loadLittleEndian<std::uint32_t>(packet.payload() + contextSize(facts))], packet);
    case InitialState:
    case Transition:
        return keep(machines[loadLittleEndian<std::uint64_t>(packet.payload())], packet); // with its instance
    case Signal:
        return setLines(packet);
    case Timestamp:
        return noteClock(packet);
    case Message:
        return noteMessage(packet);
    default:
        break;
    }
    if (facts.sync != ContextSort::None) {
        contexts = packet.contexts();
        hasContexts = true;
    } else if (facts.role == Role::Definition) {
        define(packet);
    } else if (facts.role == Role::Undefinition) {
        undefine(packet);
    }
}

void TraceState::Contents::noteClock(const CTraceCursor& packet) {
    const auto timestamp = packet.as<CTimestamp>();
    if (!timestamp->is_Frequency_valid() || timestamp->Frequency() == 0)
        return;
    const auto core = timestamp->is_HWCtx_valid() ? std::optional(timestamp->HWCtx()) : std::nullopt;
    const auto [clock, isNew] = clocks.try_emplace(core);
    if (isNew)
        keep(clock->second, packet);
}

void TraceState::Contents::define(const CTraceCursor& packet) {
    const PacketPointer made = absoluteAt(packet);
    const auto subject = subjectOf(*made);
    if (!subject)
        return;
    Definition& definition = definitions[{subject->sort, subject->id, !packet.text().empty()}];
    undone -= definition.isUndone;
    definition.isUndone = false;
    keepWhole(definition.packet, *made, packet.offset());
}

void TraceState::Contents::noteMessage(const CTraceCursor& packet) {
    const RecordedFact fact(packet.text());
    for (const auto& [word, about] : kLastingFacts) {
        if (fact.word() == word)
            keepWhole(recorded[{word, fact.number(about)}], *PacketPointer(packet.packet()), packet.offset());
    }
}

void TraceState::Contents::undefine(const CTraceCursor& packet) {
    const auto subject = subjectOf(*PacketPointer(packet.packet()));
    if (!subject)
        return;
    undo(subject->sort, subject->id);
    if (subject->sort == TextSort::Counter)
        undo(TextSort::CounterUnit, subject->id);
    forgetValues(subject->sort, subject->id);
    if (undone >= manyUndone)
        forgetUndone();
}

void TraceState::Contents::undo(TextSort sort, std::uint64_t id) {
    for (const bool isNamed : {false, true}) {
        auto at = definitions.find({sort, id, isNamed});
        if (at == definitions.end() && !isFromStart)
            at = definitions.try_emplace({sort, id, isNamed}).first;
        if (at == definitions.end())
            continue;
        undone += !at->second.isUndone;
        at->second.isUndone = at->second.wasUndone = true;
    }
}

std::set<std::pair<TextSort, std::uint64_t>> TraceState::Contents::openOnes() {
    std::set<std::pair<TextSort, std::uint64_t>> ids;
    for (const auto& [key, stack] : stacks) {
        const std::uint64_t sort = key >> 32;
        for (const Call& call : stack.calls()) {
            if (call.size > 0 && sort != Interrupts)
                ids.emplace(sort == Processes ? TextSort::Process : TextSort::Function, call.id);
        }
    }
    return ids;
}

void TraceState::Contents::forgetUndone() {
    const auto isNeeded = openOnes();
    for (auto at = definitions.begin(); at != definitions.end();) {
        const auto& [sort, id, isNamed] = at->first;
        const bool isOver = at->second.isUndone && !isNeeded.contains({sort, id});
        if (isOver && isFromStart) {
            at = definitions.erase(at);
            --undone;
            continue;
        }
        if (isOver)
            at->second.packet = Kept(); // that it is undone is to be told to what stands before
        ++at;
    }
    manyUndone = 2 * undone + kManyUndone;
}

void TraceState::Contents::forgetValues(TextSort sort, std::uint64_t id) {
    const auto forget = [id](Directory<std::uint64_t, Kept>& values) {
        if (Kept* value = values.find(id))
            value->bytes.clear();
    };
    if (sort == TextSort::Variable)
        forget(variables);
    if (sort != TextSort::Counter)
        return;
    forget(counters);
    std::string key(sizeof(std::uint32_t), '\0');
    storeLittleEndian(key.data(), static_cast<std::uint32_t>(id));
    auto at = indexed.lower_bound(key);
    while (at != indexed.end() && at->first.starts_with(key))
        at = indexed.erase(at);
}

void TraceState::Contents::open(const CTraceCursor& packet, bool isEnter) {
    const tagTCode code = packet.TraceCode();
    const KindFacts& facts = factsOf(code);
    const auto context = *packet.contextOf<CCoreContext>();
    std::uint64_t key = 0;
    if (facts.entered == TextSort::Function)
        key = isUnknown(FieldMeaning::Context, context.swCtx) ? openKey(InUnknownThread, context.hwCtx)
                                                              : openKey(InThread, context.swCtx);
    else
        key = openKey(facts.entered == TextSort::Process ? Processes : Interrupts, context.hwCtx);
    const std::uint32_t id = enteredIn(packet);
    if (!isEnter)
        return leave(key, id);
    Call call{packet.offset(), id, 0, {}};
    if (facts.isRelative) {
        char bytes[kMostBytes + CCoreContext::Len()];
        call.size = static_cast<std::uint8_t>(putAbsolute(packet, bytes));
        std::memcpy(call.bytes, bytes, sizeof call.bytes);
    } else {
        call.bytes[0] = static_cast<char>(code);
        call.bytes[1] = static_cast<char>(packet.Length());
        std::memcpy(call.bytes + CPacketHeader::Len(), packet.payload(), packet.Length());
        call.size = static_cast<std::uint8_t>(CPacketHeader::Len() + packet.Length());
    }
    enter(key, call);
}

void TraceState::Contents::count(const CTraceCursor& packet) {
    const KindFacts& facts = factsOf(packet.TraceCode());
    const char* const id = packet.payload() + contextSize(facts);
    const auto rest = static_cast<unsigned>(packet.payload() + packet.Length() - id) - 4;
    const bool isVar = packet.TraceCode() == CounterValueVar || packet.TraceCode() == RelCounterValueVar;
    const unsigned value = isVar ? rest / 2 : unsigned{sizeof(std::uint64_t)};
    if (rest <= value)
        return keep(counters[loadLittleEndian<std::uint32_t>(id)], packet);
    std::string key(id, sizeof(std::uint32_t));
    key.append(id + sizeof(std::uint32_t) + value, rest - value);
    if (indexed.size() < kMostIndexed || indexed.contains(key))
        keep(indexed[key], packet);
}

void TraceState::Contents::setLines(const CTraceCursor& packet) {
    Lines lines;
    lines.offset = packet.offset();
    lines.context = CBusContext(*packet.contextOf<CBusContext>(), FromValues());
    const unsigned context = contextSize(factsOf(packet.TraceCode()));
    lines.bytes = std::min<std::size_t>((packet.Length() - context) / 2, kMostSignalBytes);
    std::memcpy(lines.values, packet.payload() + context, lines.bytes);
    std::memcpy(lines.mask, packet.payload() + context + lines.bytes, lines.bytes);
    buses[std::uint64_t{lines.context.HWCtx()} << 32 | lines.context.Master()].set(lines);
}

void TraceState::Contents::join(Contents&& next) {
    if (next.hasContexts) {
        contexts = next.contexts;
        hasContexts = true;
    }
    frame.join(next.frame);
    clocks.merge(next.clocks);
    // All undefinitions first: each is about the definition with a name and the one without.
    for (const auto& [key, definition] : next.definitions) {
        const auto& [sort, id, isNamed] = key;
        if (definition.wasUndone) {
            undo(sort, id);
            forgetValues(sort, id);
        }
    }
    for (auto& [key, definition] : next.definitions) {
        if (definition.packet.bytes.empty())
            continue;
        Definition& own = definitions[key];
        undone += definition.isUndone;
        undone -= own.isUndone;
        definition.wasUndone = definition.wasUndone || own.wasUndone;
        own = std::move(definition);
    }
    for (auto& [key, fact] : next.recorded)
        recorded[key] = std::move(fact);
    for (const auto& [key, stack] : next.stacks) {
        for (const Call& call : stack.calls()) {
            if (call.size > 0)
                enter(key, call);
            else
                leave(key, call.id);
        }
        stackOf(key).hideAs(stack);
    }
    isExact = isExact && next.isExact;
    const auto take = [](Directory<std::uint64_t, Kept>& to, Directory<std::uint64_t, Kept>& from) {
        for (auto& [key, value] : from) {
            if (!value.bytes.empty())
                to[key] = std::move(value);
        }
    };
    take(counters, next.counters);
    take(variables, next.variables);
    take(machines, next.machines);
    for (auto& [key, value] : next.indexed) {
        if (indexed.size() < kMostIndexed || indexed.contains(key))
            indexed[key] = std::move(value);
    }
    for (const auto& [key, lines] : next.buses)
        buses[key].set(lines);
}

TraceState::TraceState(Start start) : m_contents(platform::makeOwned<Contents>(start == Start::OfTrace)) {}

TraceState::TraceState(TraceState&& other) noexcept = default;

TraceState& TraceState::operator=(TraceState&& other) noexcept = default;

TraceState::~TraceState() = default;

void TraceState::note(const CTraceCursor& packet) {
    m_contents->note(packet);
}

void TraceState::join(TraceState&& next) {
    m_contents->join(std::move(*next.m_contents));
}

bool TraceState::isExact() const {
    return m_contents->isExact;
}

const CContexts& TraceState::contexts() const {
    return m_contents->contexts;
}

const TraceFrame& TraceState::frame() const {
    return m_contents->frame;
}

void TraceState::writeTo(void (*take)(void* to, std::string_view packet), void* to) const {
    Contents& its = *m_contents;
    std::vector<std::pair<std::uint64_t, std::string_view>> packets;
    const auto add = [&packets](const Kept& kept) {
        if (!kept.bytes.empty())
            packets.emplace_back(kept.offset, kept.bytes);
    };
    const auto hand = [&] {
        std::ranges::sort(packets);
        for (const auto& [offset, packet] : packets)
            take(to, packet);
        packets.clear();
    };
    for (const auto& [core, clock] : its.clocks)
        add(clock);
    hand();
    const auto isNeeded = its.openOnes();
    for (const auto& [key, definition] : its.definitions) {
        if (!definition.isUndone || isNeeded.contains({std::get<0>(key), std::get<1>(key)}))
            add(definition.packet);
    }
    for (const auto& [key, fact] : its.recorded)
        add(fact);
    hand();
    for (const auto& [key, stack] : its.stacks) {
        for (const Call& call : stack.calls()) {
            if (call.size > 0)
                packets.emplace_back(call.offset, std::string_view(call.bytes, call.size));
        }
    }
    for (auto* values : {&its.counters, &its.variables, &its.machines}) {
        for (const auto& [key, value] : *values)
            add(value);
    }
    for (const auto& [key, value] : its.indexed)
        add(value);
    std::vector<Kept> signals;
    for (const auto& [key, lines] : its.buses) {
        Kept& signal = signals.emplace_back();
        const std::size_t length = CBusContext::Len() + 2 * lines.bytes;
        signal.offset = lines.offset;
        signal.bytes = {static_cast<char>(Signal), static_cast<char>(length)};
        signal.bytes.resize(CPacketHeader::Len() + CBusContext::Len());
        lines.context.write(signal.bytes.data() + CPacketHeader::Len(), CBusContext::Len());
        signal.bytes.append(reinterpret_cast<const char*>(lines.values), lines.bytes);
        signal.bytes.append(reinterpret_cast<const char*>(lines.mask), lines.bytes);
    }
    for (const Kept& signal : signals)
        add(signal);
    hand();
}

} // namespace Quorvex

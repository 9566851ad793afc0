#include "ChromeTracks.h"

#include "ImportedTrace.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <limits>
#include <memory>
#include <utility>

namespace qvx {

using namespace Quorvex;
using Place = ImportedTrace::Place;

namespace {

constexpr std::uint64_t kPerSecond = 1'000'000'000;
constexpr std::uint32_t kUnknown = ~std::uint32_t{0};
/// Of a function that is never entered, of a transition that is never defined.
constexpr std::uint32_t kNowhere = ~std::uint32_t{1};
constexpr std::size_t kMostLines = 119 * 8; ///< of a signal

template <class T> std::optional<T> numberIn(std::string_view text) {
    const bool isHex = text.starts_with("0x");
    if (isHex)
        text.remove_prefix(2);
    T number{};
    const char* const end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, number, isHex ? 16 : 10);
    return error == std::errc() && at == end ? std::optional(number) : std::nullopt;
}

/// The number behind a text and before another one: of "core 3 interrupts".
std::optional<std::uint32_t> numberBetween(std::string_view text, std::string_view before,
                                           std::string_view behind = {}) {
    if (!text.starts_with(before) || !text.ends_with(behind) || text.size() < before.size() + behind.size())
        return std::nullopt;
    text.remove_prefix(before.size());
    return numberIn<std::uint32_t>(text.substr(0, text.size() - behind.size()));
}

/// The bytes that "0x" and digits show, the last one first.
std::optional<std::vector<std::uint8_t>> bytesIn(std::string_view text) {
    if (!text.starts_with("0x") || text.size() % 2 != 0)
        return std::nullopt;
    std::vector<std::uint8_t> bytes;
    for (std::size_t at = text.size(); at > 2; at -= 2) {
        const auto byte = numberIn<std::uint8_t>("0x" + std::string(text.substr(at - 2, 2)));
        if (!byte)
            return std::nullopt;
        bytes.push_back(*byte);
    }
    return bytes;
}

CCharStringSequence textOf(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned>(text.size())};
}

/// The kinds of what happens and is about nothing that has an identifier, by name: their codes and fields.
using Kinds = std::map<std::string, std::pair<tagTCode, Layout>>;
const Kinds& kinds() {
    static const Kinds kKinds = [] {
        Kinds kinds;
        for (unsigned number = 0; number < kKindFacts.size(); ++number) {
            const KindFacts& facts = kKindFacts[number];
            const auto code = static_cast<tagTCode>(number);
            const std::unique_ptr<CPacket> packet(CPacketFactory::getCPacket(code));
            if (packet && !facts.isRelative && facts.role == Role::Happening && facts.text == TextSort::None &&
                code != Signal && code != CharString && !subjectOf(*packet))
                kinds.emplace(CTCodeInfo::TCodeToName(code), std::pair(code, Layout::of(code)));
        }
        return kinds;
    }();
    return kKinds;
}

/// The indices of a counter, behind its name: of "hits[2][3]".
std::vector<TCounterIdx_t> takeIndices(std::string& name) {
    std::vector<TCounterIdx_t> indices;
    while (name.ends_with(']')) {
        const std::size_t at = name.rfind('[');
        const auto index = at == std::string::npos
                               ? std::nullopt
                               : numberIn<std::uint64_t>(std::string_view(name).substr(at + 1, name.size() - at - 2));
        if (!index || at == 0)
            break;
        indices.insert(indices.begin(), TCounterIdx_t(*index));
        name.resize(at);
    }
    return indices;
}

TVarCounter_t variableCounter(const std::vector<std::uint8_t>& bytes) {
    const auto size = static_cast<std::uint8_t>(std::min<std::size_t>(bytes.size(), CCounterValueVarPayload::kMaxSize));
    if (size > sizeof(std::uint64_t))
        return {bytes.data(), size};
    std::uint64_t number = 0;
    for (unsigned i = size; i-- > 0;)
        number = number << 8 | bytes[i];
    return {number, size};
}

CData dataOf(const std::string* text) {
    const auto bytes = text ? bytesIn(*text) : std::nullopt;
    return bytes && !bytes->empty()
               ? CData(bytes->data(),
                       static_cast<std::uint8_t>(std::min<std::size_t>(bytes->size(), CData::kMaxLength)))
               : CData();
}

} // namespace

const std::string* ChromeEvent::argument(std::string_view its) const {
    const auto at = std::ranges::find(arguments, its, &Argument::name);
    return at == arguments.end() ? nullptr : &at->text;
}

void ChromeTracks::setClock(std::optional<std::uint64_t> firstTick, std::uint64_t ticksPerSecond) {
    m_first = firstTick;
    m_frequency = ticksPerSecond;
    m_last = m_lastPut = m_first.value_or(0);
    m_trace.setFrequency(ticksPerSecond);
    m_trace.setStart(m_first.value_or(kUnknown64));
}

std::uint64_t ChromeTracks::tickAt(std::uint64_t nanoseconds) const {
    if (!m_first)
        return 0;
    std::uint64_t ticks = TimeBase::unitsOf(nanoseconds, m_frequency == 0 ? 0 : kPerSecond, m_frequency);
    if (m_frequency != 0 && TimeBase::nanosecondsOf(ticks, m_frequency) < nanoseconds)
        ++ticks; // the first one of that nanosecond
    return *m_first + std::min(ticks, kUnknown64 - 1 - *m_first);
}

std::uint64_t ChromeTracks::tick() const {
    return m_first ? m_now.tick : kUnknown64;
}

CCoreContext ChromeTracks::context() const {
    return {tick(), ~std::uint32_t{0}, ~std::uint32_t{0}, kUnknown64};
}

std::pair<std::uint32_t, bool> ChromeTracks::numberOf(char sort, const std::string& name) {
    const auto next = static_cast<std::uint32_t>(m_numbers.size() + 1);
    const auto [at, isNew] = m_numbers.try_emplace({sort, name}, next);
    return {at->second, isNew};
}

void ChromeTracks::put(CPacket&& packet, Place place) {
    putAt(m_now, std::move(packet), place);
}

void ChromeTracks::putAt(Time time, CPacket&& packet, Place place) {
    std::map<std::uint32_t, Since>* const all = place.of == Place::Thread ? &m_threads
                                                : place.of == Place::Core ? &m_cores
                                                                          : nullptr;
    if (all && packet.TraceCode() != TraceBroken) { // which tells what ran before it
        Since& since = (*all)[place.number];
        if (!since.first)
            since.first = time;
        since.last = time.tick;
    }
    std::uint64_t& last = m_lastAt[{place.of, place.number}];
    last = std::max(last, time.tick);
    m_lastPut = std::max(m_lastPut, time.tick);
    m_trace.put(time.tick, time.order, std::move(packet), place);
}

void ChromeTracks::stray(Time time, Place place) {
    putAt(time, CFunctionLeave({m_first ? time.tick : kUnknown64, kUnknown, kUnknown, kUnknown64}, kNowhere), place);
}

void ChromeTracks::name(const ChromeEvent& event) {
    const auto group = numberIn<std::uint64_t>(event.process), number = numberIn<std::uint64_t>(event.thread);
    const std::string* const name = event.argument("name");
    if (!group || !number || !name)
        return;
    Track& track = m_tracks[{*group, *number}];
    track.name = *name;
    if (*group > 0)
        track.place = {Place::Thread, static_cast<std::uint32_t>(*number)};
    else if (const auto alone = numberBetween(*name, "core ", " without a thread"))
        track.place = {Place::CoreAlone, *alone};
    else
        for (const char* const behind : {"", " processes", " interrupts"}) {
            if (const auto core = numberBetween(*name, "core ", behind))
                track.place = {Place::Core, *core};
        }
}

void ChromeTracks::tell(const ChromeEvent& event, std::uint64_t nanoseconds) {
    const auto group = numberIn<std::uint64_t>(event.process), number = numberIn<std::uint64_t>(event.thread);
    if (!group || !number)
        return m_trace.lose("events of unknown tracks");
    m_now = {tickAt(nanoseconds), m_now.order + 2};
    m_last = std::max(m_last, m_now.tick);
    Track& track = m_tracks[{*group, *number}];
    if (*group > 0)
        track.place = {Place::Thread, static_cast<std::uint32_t>(*number)};
    const bool isEnter = event.phase == "B";
    if (event.phase == "i")
        return instant(track, event);
    if (event.phase == "C")
        return value(track, event);
    if (!isEnter && event.phase != "E")
        return m_trace.lose("events of phase '" + event.phase + "'");
    if (!isEnter && event.argument("left")) {
        if (event.category == "call")
            m_shownUntil[{track.place.of, track.place.number}] = m_now;
        return;
    }
    if (event.category == "call")
        call(track, event, isEnter);
    else if (event.category == "run")
        run(track, event, isEnter);
    else if (event.category == "process")
        process(track, event, isEnter);
    else if (event.category == "interrupt")
        interrupt(track, event, isEnter);
    else if (event.category == "state" && isEnter)
        enterState(track, event);
    else if (event.category == "state")
        track.left = m_now;
    else if (isEnter) // a value goes on until the next one
        value(track, event);
}

void ChromeTracks::finish() {
    for (auto& [key, track] : m_tracks)
        leaveState(track);
    // What is not left is shown up to the last packet of its thread; if that is not shown, a run tells when it was.
    for (const auto& [place, time] : m_shownUntil) {
        const bool runs = place.first == Place::Thread && m_threads[place.second].told > 0;
        if (!runs && m_lastAt[place] < time.tick)
            stray(time, {place.first, place.second});
    }
    m_now = {m_last, m_now.order + 2};
    if (m_first && m_lastPut < m_last)
        put(CTimestamp(m_last));
}

void ChromeTracks::call(const Track& track, const ChromeEvent& event, bool isEnter) {
    const auto [function, isNew] = numberOf('f', event.name);
    if (isNew)
        put(CFunctionDefine(context(), function, textOf(event.name)));
    if (isEnter)
        put(CFunctionEnter(context(), function), track.place);
    else
        put(CFunctionLeave(context(), function), track.place);
}

void ChromeTracks::run(Track& track, const ChromeEvent& event, bool isEnter) {
    const auto thread = numberBetween(event.name, "thread ");
    if (!thread || track.place.of != Place::Core)
        return m_trace.lose("events of unknown tracks");
    if (isEnter) {
        track.since = m_now.tick;
        return;
    }
    const Place place{Place::Thread, *thread};
    Since& its = m_threads[*thread];
    Since& cores = m_cores[track.place.number];
    std::optional<std::uint64_t> first;
    bool isLast = false;
    for (const Since* since : {&its, &cores}) {
        if (since->first && since->first->tick == track.since)
            first = std::min(first.value_or(kUnknown64), since->first->order - 1);
        isLast = isLast || (since->first && since->last == m_now.tick);
    }
    // It runs from a packet to a packet.
    const Time begin{track.since, first.value_or(std::max(its.told, cores.told))};
    m_trace.runs(begin.tick, begin.order, *thread, track.place.number);
    if (!first)
        stray(begin, place);
    if (!isLast && (first || track.since != m_now.tick))
        stray(m_now, place);
    m_trace.rests(m_now.tick, m_now.order, *thread, track.place.number);
    its = cores = {.first = {}, .last = 0, .told = m_now.order};
}

void ChromeTracks::process(const Track& track, const ChromeEvent& event, bool isEnter) {
    const auto [process, isNew] = numberOf('p', event.name);
    if (isNew)
        put(CProcessDefine(context(), process, textOf(event.name)));
    if (isEnter)
        put(CProcessEnter(context(), process), track.place);
    else
        put(CProcessLeave(context(), process), track.place);
}

void ChromeTracks::interrupt(const Track& track, const ChromeEvent& event, bool isEnter) {
    const auto number = numberBetween(event.name, "interrupt ");
    if (!number)
        m_trace.lose("interrupts without a number");
    else if (isEnter)
        put(CHWExceptionEnter(context(), *number), track.place);
    else
        put(CHWExceptionLeave(context(), *number), track.place);
}

void ChromeTracks::enterState(Track& track, const ChromeEvent& event) {
    constexpr std::uint32_t kInstance = 1;
    if (track.left && track.left->order + 2 == m_now.order)
        track.left.reset(); // by going on to this one
    leaveState(track);
    if (track.number == 0) {
        const std::size_t blank = std::min(track.name.find(' '), track.name.size());
        track.number = numberOf('m', std::to_string(m_numbers.size())).first;
        put(CStateMachineDefine(track.number, textOf(track.name.substr(0, blank))));
        put(CStateMachineInstanceDefine(track.number, kInstance,
                                        textOf(track.name.substr(std::min(blank + 1, track.name.size())))));
    }
    const auto [state, isNew] =
        track.states.try_emplace(event.name, static_cast<std::uint32_t>(track.states.size() + 1));
    if (isNew)
        put(CStateDefine(track.number, state->second, textOf(event.name)));
    const std::string* const told = event.argument("Transition");
    const auto transition = told ? numberIn<std::uint32_t>(*told) : std::nullopt;
    if (!transition)
        return put(CInitialState(track.number, kInstance, state->second, kUnknown, tick()));
    std::uint32_t& target = track.targets[*transition];
    if (target != state->second)
        put(CTransitionDefine(track.number, kUnknown, state->second, *transition, textOf(*told)));
    target = state->second;
    put(CTransition(track.number, kInstance, *transition, kUnknown, tick(), dataOf(event.argument("Data"))));
}

void ChromeTracks::leaveState(Track& track) {
    if (!track.left)
        return;
    const std::uint64_t tick = m_first ? track.left->tick : kUnknown64;
    putAt(*track.left, CTransition(track.number, 1, kNowhere, kUnknown, tick, CData()));
    track.left.reset();
}

void ChromeTracks::value(Track& track, const ChromeEvent& event) {
    const bool isText = event.phase == "B";
    const std::string& name = isText ? track.name : event.name;
    Place place;
    if (const auto thread = numberIn<std::uint32_t>(event.tellingThread))
        place = {Place::Thread, *thread};
    else if (const auto core = numberIn<std::uint32_t>(event.tellingCore))
        place = {Place::CoreAlone, *core};
    else
        place = {Place::CoreAlone, kUnknown};
    const std::string text = isText ? event.name : event.arguments.empty() ? "" : event.arguments[0].text;
    if (event.category == "counter")
        return count(track, name, event, place);
    if (event.category == "signal")
        return signal(track, name, text);
    if (track.number == 0) {
        track.number = numberOf('v', std::to_string(m_numbers.size())).first;
        put(CVariableDefine(context(), track.number, 0, textOf(name)));
    }
    const auto number = text.starts_with("0x") ? std::nullopt : numberIn<std::uint64_t>(text);
    put(CVariableWrite(context(), track.number, number ? CData(*number) : dataOf(&text)), place);
}

void ChromeTracks::count(const Track& track, const std::string& name, const ChromeEvent& event, Place place) {
    // Counters that only have the same name stay apart.
    std::vector<const Track*>& same = m_sameNames[name];
    const auto at = std::ranges::find(same, &track);
    std::string which = std::to_string(at - same.begin()) + ' ';
    if (at == same.end())
        same.push_back(&track);
    std::string base = name;
    const std::vector<TCounterIdx_t> indices = takeIndices(base);
    const auto dimensions = static_cast<std::uint8_t>(std::min<std::size_t>(indices.size(), 27));
    const auto [counter, isNew] = numberOf('c', which += base);
    if (isNew)
        put(CCounterDefine(context(), counter, dimensions, textOf(base)));
    const bool isText = event.phase == "B";
    const ChromeEvent::Argument* const argument = event.arguments.empty() ? nullptr : &event.arguments[0];
    if (!isText && argument && argument->name != "value" && m_units[counter] != argument->name) {
        m_units[counter] = argument->name;
        put(CCounterDefineUnit(context(), counter, dimensions, textOf(argument->name)));
    }
    const std::string_view text = isText     ? std::string_view(event.name)
                                  : argument ? std::string_view(argument->text)
                                             : std::string_view();
    const auto whole = numberIn<std::uint64_t>(text);
    if (isText && dimensions == 1) { // of any width; value and index have the same
        const auto bytes = bytesIn(text);
        const TVarCounter_t value = bytes ? variableCounter(*bytes) : TVarCounter_t(whole.value_or(0));
        const TVarCounter_t index(indices[0].u64, value.Length());
        return put(CCounterValueVar(context(), counter, CCounterValueVarPayload(value, index)), place);
    }
    std::uint64_t bits = whole.value_or(0);
    if (!whole) {
        if (const auto negative = numberIn<std::int64_t>(text)) {
            bits = static_cast<std::uint64_t>(*negative);
        } else {
            double number = std::numeric_limits<double>::quiet_NaN();
            std::from_chars(text.data(), text.data() + text.size(), number);
            bits = std::bit_cast<std::uint64_t>(number);
        }
    }
    const TCounter_t value(bits);
    if (dimensions == 0)
        put(CCounterValue(context(), counter, value), place);
    else if (dimensions == 1)
        put(CCounterValueDim1(context(), counter, value, indices[0]), place);
    else if (dimensions == 2)
        put(CCounterValueDim2(context(), counter, value, indices[0], indices[1]), place);
    else
        put(CCounterValueDimN(context(), counter, value, CCounterIndexDimN(dimensions, indices.data())), place);
}

void ChromeTracks::signal(Track& track, const std::string& name, const std::string& text) {
    // Lines are shown by digits where some are not valid or no number has so many, else as the number that they make.
    std::string lines = text;
    if (text.size() <= 64 && text.find('x') == std::string::npos) {
        const std::uint64_t number = numberIn<std::uint64_t>(text).value_or(0);
        lines.assign(64, '0');
        for (unsigned line = 0; line < 64; ++line)
            lines[63 - line] = static_cast<char>('0' + (number >> line & 1));
    }
    lines.resize(std::min(lines.size(), kMostLines));
    if (track.number == 0)
        track.number = numberOf('s', std::to_string(m_numbers.size())).first;
    const CBusContext bus(tick(), kUnknown, track.number);
    const auto width = static_cast<unsigned>(lines.size());
    CSignalMask all(width), value(width), valid(width);
    all.set();
    for (unsigned line = 0; line < width; ++line) {
        value.set(line, lines[width - 1 - line] == '1');
        valid.set(line, lines[width - 1 - line] != 'x');
    }
    if (std::exchange(track.width, width) != width)
        put(CSignalDefine(bus, track.number, all, textOf(name)));
    put(CSignal(bus, value, valid));
}

void ChromeTracks::instant(const Track& track, const ChromeEvent& event) {
    if (track.name == "messages" && track.place.of == Place::Nothing) {
        const std::string* const told = event.argument("Priority");
        if (const auto priority = told ? numberIn<std::int8_t>(*told) : std::nullopt)
            return put(CMessage(tick(), *priority, textOf(event.name)));
        if (m_first && m_lastPut < m_now.tick)
            put(CTimestamp(m_now.tick)); // the text itself has no time
        const std::size_t size = std::min<std::size_t>(event.name.size(), UINT8_MAX);
        if (size < event.name.size())
            m_trace.lose("texts of more than 255 bytes, which are cut");
        return put(
            CCharString(reinterpret_cast<const unsigned char*>(event.name.data()), static_cast<unsigned char>(size)));
    }
    if (putKind(track, event))
        return;
    const auto [number, isNew] = numberOf('e', event.name);
    if (isNew)
        put(CEventDefine(number, Trigger, textOf(event.name)));
    CCoreContext at = context();
    if (const std::string* const address = event.argument("IP"))
        at.CurrAddr(numberIn<std::uint64_t>(*address).value_or(kUnknown64));
    put(CEvent(at, number, dataOf(event.argument("Data"))), track.place);
}

bool ChromeTracks::putKind(const Track& track, const ChromeEvent& event) {
    const auto kind = kinds().find(event.name);
    if (kind == kinds().end())
        return false;
    const auto& [code, layout] = kind->second;
    std::string wire;
    std::size_t used = 0;
    for (const auto& [name, size, count] : layout.fields) {
        const std::string* const told = event.argument(name);
        used += told ? 1 : 0;
        if (size.first != size.second) {
            const CData data = dataOf(told);
            unsigned written = 0;
            wire.resize(wire.size() + data.Length());
            data.write(wire.data() + wire.size() - data.Length(), data.Length(), written);
            continue;
        }
        // What is not told is not known: all ones.
        const std::uint64_t number = name == "Tick" ? tick()
                                     : told         ? numberIn<std::uint64_t>(*told).value_or(kUnknown64)
                                                    : kUnknown64;
        for (unsigned i = 0; i < size.first; ++i)
            wire += static_cast<char>(number >> 8 * i);
    }
    if (used != event.arguments.size())
        return false;
    unsigned taken = 0;
    const CPacketHeader header(code, static_cast<std::uint8_t>(wire.size()));
    const std::unique_ptr<CPacket> packet(
        CPacketFactory::getCPacket(header, wire.data(), static_cast<unsigned>(wire.size()), taken));
    if (!packet)
        return false;
    put(std::move(*packet), track.place);
    return true;
}

} // namespace qvx

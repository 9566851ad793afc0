#include "quorvex/export/VCDBody.h"

#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/SignalMask.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace Quorvex {

using namespace vcd;

namespace {

constexpr unsigned kLongestValue = CSignalMask::kMaxBits + 16;
/// What a change of a counter takes beside the code, at most.
constexpr unsigned kCounterRoom = 2 + 32;

/// Codes that readers take for something else: they expect none beyond '~', and "$end" is a word of the format.
bool isReserved(std::uint32_t id) {
    const Code code(id);
    return code.identifier()[0] == '$' || code.identifier().find('\x7f') != std::string_view::npos;
}

/// The bits of a variable; of values, those of the widest so far.
constexpr unsigned widthOf(CVCDWriter::Meaning meaning) {
    using enum CVCDWriter::Meaning;
    return meaning == Value ? 1 : meaning == Counter || meaning == Address ? 64 : 32;
}

} // namespace

const Unit& vcd::unitOf(std::uint64_t frequency) {
    static constexpr Unit kUnits[] = {
        {1, "1 s"}, {1'000, "1 ms"}, {1'000'000, "1 us"}, {1'000'000'000, "1 ns"}, {1'000'000'000'000, "1 ps"}};
    const auto* unit = std::ranges::find(kUnits, frequency, &Unit::first);
    return unit != std::end(kUnits) ? *unit : kUnits[frequency > 1'000'000'000 ? 4 : 3];
}

Code CVCDWriter::Body::newCode() {
    std::uint32_t id = m_identifiers.GetNextId();
    while (CVCDIdentifier::IsValid(id) && isReserved(id))
        id = m_identifiers.GetNextId();
    if (CVCDIdentifier::IsValid(id))
        return Code(id);
    logError("VCDWriter: Cannot create new VCD Identifier!");
    m_writer.lose("variables without an identifier");
    return {};
}

Wire* CVCDWriter::Body::declare(Declaration&& declaration) {
    const auto [at, isNew] = m_variables.try_emplace(std::move(declaration));
    if (!isNew)
        return &at->second;
    const Code code = newCode();
    if (code.isNone()) {
        m_variables.erase(at);
        return nullptr;
    }
    Wire& variable = at->second;
    variable = {.code = code, .type = at->first.type, .width = widthOf(at->first.meaning)};
    if (at->first.meaning == Meaning::Counter) {
        variable.counter = &m_writer.counterSort(static_cast<std::uint32_t>(at->first.id));
        m_counters.emplace(variable.code.identifier(), &variable);
    }
    return &variable;
}

Wire* CVCDWriter::Body::keep(const ValueKey& key, Wire* variable) {
    return m_known[key] = variable;
}

Wire* CVCDWriter::Body::declareDetail(Area area, std::uint32_t owner, std::uint32_t id) {
    const Code code = newCode();
    if (code.isNone())
        return nullptr;
    return &m_details[{area, owner}].emplace_back(Detail{id, {.code = code, .type = Type::Bit}}).variable;
}

void CVCDWriter::Body::eachVariable(const std::function<void(const Declaration&, Wire&)>& take) {
    auto details = m_details.begin();
    std::vector<Detail*> byId;
    const auto takeDetails = [&] {
        const auto& [area, owner] = details->first;
        const bool isOfCore = area == Area::Cores;
        Declaration declaration{.area = area,
                                .owner = owner,
                                .isDetail = true,
                                .type = Type::Bit,
                                .label = isOfCore ? "process_" : "function_",
                                .sort = isOfCore ? TextSort::Process : TextSort::Function};
        byId.clear();
        for (Detail& detail : details->second)
            byId.push_back(&detail);
        std::ranges::sort(byId, {}, [](const Detail* detail) { return detail->id; });
        for (Detail* const detail : byId) {
            declaration.id = detail->id;
            take(declaration, detail->variable);
        }
        ++details;
    };
    // The details of an owner stand behind its other variables.
    for (auto& [declaration, variable] : m_variables) {
        while (details != m_details.end() && details->first < std::pair(declaration.area, declaration.owner))
            takeDetails();
        take(declaration, variable);
    }
    while (details != m_details.end())
        takeDetails();
}

void CVCDWriter::Body::forget(const std::function<bool(const Declaration&)>& isGone) {
    eachVariable([&](const Declaration& declaration, Wire& variable) {
        if (variable.isTold && isGone(declaration))
            changeToUnknown(&variable);
    });
}

void CVCDWriter::Body::pulse(Wire* event) {
    if (!event)
        return;
    if (event->pulseEnd > 0 && event->pulseEnd >= m_time)
        m_writer.lose("events at once or a tick after another, shown as one pulse");
    if (event->pulseEnd == m_time + 1)
        return;
    event->pulseEnd = m_time + 1;
    m_pulses.push_back(event);
    m_hasPulses = true;
    changeBit(event, true);
}

void CVCDWriter::Body::endPulses() {
    ++m_time;
    m_isTimeTold = false;
    for (Wire* event : m_pulses) {
        if (event->isTold) // no gap has ended it
            changeBit(event, false);
    }
    m_pulses.clear();
    m_hasPulses = false;
}

void CVCDWriter::Body::turnOff() {
    putLine("$dumpoff\n");
    forget([](const Declaration&) { return true; });
    putLine("$end\n");
    m_isOff = true;
    m_isTimeTold = false;
}

char* CVCDWriter::Body::putTime(char* to) {
    if (m_frequency != m_writer.frequency()) {
        m_frequency = m_writer.frequency();
        m_unitsPerSecond = unitOf(m_frequency).first;
    }
    m_isTimeTold = true;
    *to++ = '#';
    to = m_writer.putTime(to, m_time, m_unitsPerSecond);
    *to++ = '\n';
    if (m_isOff) [[unlikely]] {
        m_isOff = false;
        to += kOn.copy(to, kOn.size());
    }
    return to;
}

void CVCDWriter::Body::changeToUnknown(Wire* variable) {
    if (!variable)
        return;
    const std::string_view unknown = kUnknown[unsigned(typeOf(*variable))];
    variable->isTold = false;
    m_writer.bodyEnds(variable->code.put(std::ranges::copy(unknown, changeAt(unknown.size())).out));
}

void CVCDWriter::Body::changeToIdle(Wire* variable) {
    if (!variable)
        return;
    variable->isTold = true;
    m_writer.bodyEnds(variable->code.put(std::ranges::copy(kIdle, changeAt(kIdle.size())).out));
}

void CVCDWriter::Body::changeBits(Wire* variable, const unsigned char* bytes, unsigned count) {
    if (!variable)
        return;
    variable->isTold = true;
    variable->width = std::max(variable->width, 8 * count);
    char* to = changeAt(2 + std::size_t{8} * count);
    *to++ = 'b';
    while (count > 0)
        to = putBinary(to, bytes[--count], 8);
    *to++ = ' ';
    m_writer.bodyEnds(variable->code.put(to));
}

void CVCDWriter::Body::change(Wire* variable, const IVCDValue& value) {
    if (!variable)
        return;
    variable->isTold = true;
    char* const to = changeAt(kLongestValue);
    CBufferHelper<char> text(to, kLongestValue);
    const unsigned size = value.write(text);
    // The format allows letters of both cases; some readers know the small ones only.
    std::transform(to, to + size, to, [](char c) { return static_cast<char>(c >= 'A' ? c | 0x20 : c); });
    m_writer.bodyEnds(variable->code.put(to + size));
}

void CVCDWriter::Body::changeCounter(Wire* variable, std::uint64_t value) {
    if (!variable)
        return;
    if (variable->counter->note(value))
        m_writer.fixBodySoFar();
    if (variable->counter->type() != CounterType::Double)
        return changeNumber(variable, value);
    variable->isTold = true;
    char* to = changeAt(kCounterRoom);
    *to++ = 'r';
    to = putCounter(to, value, CounterType::Double);
    *to++ = ' ';
    m_writer.bodyEnds(variable->code.put(to));
}

void CVCDWriter::Body::fixLine(std::string_view line, std::string& to) const {
    const std::size_t blank = line[0] == 'b' || line[0] == 'r' ? line.rfind(' ') : std::string_view::npos;
    const auto found = blank == std::string_view::npos
                           ? m_counters.end()
                           : m_counters.find(line.substr(blank + 1, line.size() - blank - 2));
    const bool isReal = line[0] == 'r';
    if (found == m_counters.end() || isReal == (typeOf(*found->second) == Type::Real)) {
        to += line;
        return;
    }
    const std::string_view text = line.substr(1, blank - 1);
    char room[kNumberRoom + Code::kRoom];
    char* end = room;
    if (text == "x" || text == "nan") {
        end = std::ranges::copy(kUnknown[unsigned(isReal ? Type::Vector : Type::Real)], room).out;
        end = found->second->code.put(end);
    } else if (isReal) {
        end = putNumber(room, found->second->code, counterOf(text));
    } else {
        std::uint64_t value = 0;
        std::from_chars(text.data(), text.data() + text.size(), value, 2);
        *end++ = 'r';
        end = putCounter(end, value, CounterType::Double);
        *end++ = ' ';
        end = found->second->code.put(end);
    }
    to.append(room, end);
}

} // namespace Quorvex

#include "Story.h"

#include "Selection.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/analysis/RecordedFact.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/format/Digits.h"
#include "quorvex/packets/PacketKinds.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <iterator>
#include <new>
#include <optional>

namespace qvx {

using namespace Quorvex;

namespace {

constexpr std::uint32_t kNoFunction = CFunctionEnterPayload::kNoFunction;
constexpr std::size_t kMostOpen = 0x10000;
/// Of the column of names, where there are any: wide enough for all that systems give.
constexpr std::size_t kNameWidth = 15, kMostNameWidth = 24;
constexpr std::size_t kMostIndented = 40; ///< deeper calls stand no further to the right

/// Fields that columns and names tell.
constexpr std::string_view kToldElsewhere[] = {"Tick", "Timestamp", "HWCtx", "SWCtx", "Msg"};

constexpr std::string_view kTimeColor = "\x1b[2m";
constexpr std::string_view kNameColor = "\x1b[1m";
constexpr std::string_view kKindColor = "\x1b[36m";
constexpr std::string_view kDurationColor = "\x1b[33m";
constexpr std::string_view kNoColor = "\x1b[0m";

/// Appends the number of a core or a thread, right in its column.
void appendPlace(std::string& to, std::uint32_t number, std::size_t width) {
    if (isUnknown(FieldMeaning::Context, number))
        to.append(width - 1, ' ').append("-");
    else
        appendNumber(to, number, width);
}

char* put(char* to, std::string_view text) {
    return std::copy(text.begin(), text.end(), to);
}

/// Puts what stands between the columns and what happens so deep.
char* putIndent(char* to, std::uint64_t depth) {
    return std::fill_n(to, static_cast<std::size_t>(2 + 2 * std::min<std::uint64_t>(depth, kMostIndented)), ' ');
}

/// What the bytes of a value are as a number, the first one lowest.
std::uint64_t unsignedOf(std::string_view bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = bytes.size(); i > 0; --i)
        value = value << 8 | static_cast<unsigned char>(bytes[i - 1]);
    return value;
}

/// Whether it has eight bytes, which can be a number of any type.
bool isWord(const NumberField& field) {
    return field.bytes.empty() || field.bytes.size() == sizeof field.value;
}

} // namespace

std::string typedText(std::string_view type, std::string_view bytes) {
    const auto names = [type](std::string_view word) { return type.find(word) != std::string_view::npos; };
    const std::size_t size = bytes.size();
    if (size != 1 && size != 2 && size != 4 && size != 8)
        return hexNumber(bytes);
    const std::uint64_t value = unsignedOf(bytes);
    if (names("float") || names("double") || names("real")) {
        if (size == 4)
            return fmt::format("{}", std::bit_cast<float>(static_cast<std::uint32_t>(value)));
        if (size == 8)
            return fmt::format("{}", std::bit_cast<double>(value));
    }
    if (names("*") || names("ptr"))
        return hexNumber(bytes);
    if (names("bool") && value <= 1)
        return value ? "true" : "false";
    if (names("unsigned") || names("uint") || names("size_t") || names("byte") || names("bool"))
        return fmt::format("{}", value);
    if (names("int") || names("long") || names("short") || names("signed") || names("char")) {
        const auto unused = static_cast<unsigned>(64 - 8 * size);
        return fmt::format("{}", static_cast<std::int64_t>(value << unused) >> unused);
    }
    return hexNumber(bytes);
}

std::optional<CountedValue> counterValueOf(const CPacket& packet) {
    if (!factsOf(packet.TraceCode()).isCounterValue)
        return std::nullopt;
    CountedValue its;
    bool isKnown = false;
    eachNumber(packet, [&](const NumberField& field) {
        if (field.name == std::string_view("CntrId")) {
            its.counter = static_cast<std::uint32_t>(field.value);
        } else if (field.name == std::string_view("Value") && field.isKnown) {
            its.bits = field.value;
            its.isTyped = isWord(field);
            isKnown = true;
        }
    });
    return isKnown ? std::optional(its) : std::nullopt;
}

Story::Story(std::ostream& out, TimeForm form, bool isColored, Selection& selection)
    : m_out(out), m_selection(selection), m_time(form), m_isColored(isColored) {}

Story::Place Story::placeOf(std::size_t file, std::uint32_t core, std::uint32_t thread, TextSort sort) {
    // Of a thread that is not known, what runs on a core is taken for one.
    const bool isCore = sort != TextSort::Function || isUnknown(FieldMeaning::Context, thread);
    return {file, isCore ? core : thread, isCore, sort};
}

Story::Move Story::moveOf(std::size_t file, const CPacket& packet, const CCoreContext* context) {
    const KindFacts& kind = factsOf(packet.TraceCode());
    if (kind.step == Step::None)
        return {};
    const auto idOf = [&packet]() -> std::uint64_t {
        if (const auto* enter = packetAs<CFunctionEnter>(packet))
            return enter->TgtFuncId();
        if (const auto* leave = packetAs<CFunctionLeave>(packet))
            return leave->TgtFuncId();
        return subjectOf(packet)->id;
    };
    return {kind.step, placeOf(file, context->HWCtx(), context->SWCtx(), kind.entered), idOf(), context->HWCtx()};
}

Story::Stack& Story::stackOf(const Place& place) {
    if (!m_last || !(place == m_lastPlace)) {
        m_lastPlace = place;
        m_last = &m_stacks.findOrMake(place, [] { return Stack(kMostOpen); });
    }
    return *m_last;
}

std::uint64_t Story::make(const Move& move, std::uint64_t tick, bool isTaken) {
    Stack& stack = stackOf(move.place);
    if (move.step == Step::Enter) {
        stack.enter([&] { return Open{move.id, tick, move.core, isTaken}; });
        return kUnknown64;
    }
    const auto left = stack.leave([&move](const Open& open) {
        return open.id == move.id || (move.place.sort == TextSort::Function && move.id == kNoFunction);
    });
    std::uint64_t since = kUnknown64;
    for (std::size_t i = left.value_or(0); i > 0; --i) {
        since = stack.back().tick;
        stack.pop();
    }
    return since <= tick && tick != kUnknown64 ? tick - since : kUnknown64;
}

void Story::noteMessage(std::size_t file, std::string_view text) {
    const RecordedFact fact(text);
    if (!fact.isName())
        return;
    m_names.noteMessage(text, static_cast<unsigned>(file));
    m_columns = {};
    m_lastColumns = nullptr;
    if (fact.word() == "thread") {
        const auto thread = static_cast<std::uint32_t>(fact.number("tid"));
        m_nameWidth = std::max(m_nameWidth, kNameWidth);
        m_nameWidth = std::clamp(shown(m_names.threadTitle(thread)).size(), m_nameWidth, kMostNameWidth);
    }
}

void Story::learn(std::size_t file, const CPacket& packet) {
    if (packet.TraceCode() == Message)
        noteMessage(file, wholeTextOf(packet));
    if (const auto counted = counterValueOf(packet); counted && counted->isTyped)
        sortOf(file, counted->counter).note(counted->bits);
    if (factsOf(packet.TraceCode()).role != Role::Definition)
        return;
    m_names.note(packet, static_cast<unsigned>(file));
    m_functions = Shown();
    if (const auto* variable = packetAs<CVariableDefine>(packet))
        m_types[{file, variable->VarId()}] = variable->TypeId();
}

CounterSort& Story::sortOf(std::size_t file, std::uint32_t counter) {
    return m_counters[m_names.numberOf(TextSort::Counter, counter, static_cast<unsigned>(file))];
}

void Story::pass(std::size_t file, const CTraceCursor& packet) {
    const tagTCode code = packet.TraceCode();
    const KindFacts& kind = factsOf(code);
    const auto make = [&](const auto& call) {
        this->make({kind.step, placeOf(file, call.HWCtx(), call.SWCtx(), kind.entered), call.TgtFuncId(), call.HWCtx()},
                   packet.tick(), kind.step == Step::Enter && m_selection.takesAnyTime(file, packet));
    };
    if (const auto enter = packet.as<CFunctionEnter>())
        make(*enter);
    else if (const auto leave = packet.as<CFunctionLeave>())
        make(*leave);
    else if (code == Message)
        noteMessage(file, packet.text());
    else if (kind.step != Step::None || kind.role == Role::Definition || kind.isCounterValue) {
        pass(file, *absoluteAt(packet), packet.tick());
    }
}

void Story::pass(std::size_t file, const CPacket& packet, std::uint64_t tick) {
    learn(file, packet);
    if (const Move move = moveOf(file, packet, contextOf<CCoreContext>(packet)); move.step != Step::None)
        make(move, tick);
}

void Story::writeHead(std::ostream& out) const {
    out << fmt::format("{:>20} {:>5} {:>10}{:{}}  what\n", "time", "core", "thread", "",
                       m_nameWidth > 0 ? m_nameWidth + 1 : 0);
}

std::string Story::openCalls() {
    m_line.clear();
    for (const auto& [place, stack] : m_stacks) {
        std::uint64_t depth = 0;
        for (const Open& open : stack.entries()) {
            ++depth;
            if (place.sort != TextSort::Function || !open.isTaken)
                continue;
            const std::string& columns =
                columnsOf(static_cast<std::size_t>(place.file), open.core, place.isCore ? ~0U : place.number);
            char* const begin = room(columns.size());
            m_line.append(begin, putIndent(put(m_time.put(begin, kUnknown64), columns), depth - 1));
            m_line += "| ";
            if (open.id == kNoFunction)
                m_line += "no function";
            else
                append(kNameColor, nameOf(static_cast<std::size_t>(place.file), TextSort::Function, open.id));
            m_line += "  open";
            if (open.tick != kUnknown64)
                m_line.append(" since ").append(m_time.textOf(open.tick));
            m_line += '\n';
        }
    }
    return m_line;
}

const std::string& Story::columnsOf(std::size_t file, std::uint32_t core, std::uint32_t thread) {
    const Column column{file, core, thread};
    if (m_lastColumns && column == m_lastColumn)
        return *m_lastColumns;
    m_lastColumn = column;
    m_lastColumns = &m_columns.findOrMake(column, [&] {
        std::string text = " ";
        appendPlace(text, core, 5);
        text += ' ';
        appendPlace(text, thread, 10);
        if (m_nameWidth > 0) {
            const std::string name = shown(m_names.threadTitle(thread, static_cast<unsigned>(file)));
            text.append(" ").append(name).append(m_nameWidth - std::min(m_nameWidth, name.size()), ' ');
        }
        return text;
    });
    return *m_lastColumns;
}

bool Story::tell(std::size_t file, const CPacket& packet, std::uint64_t tick) {
    if (factsOf(packet.TraceCode()).step == Step::None)
        learn(file, packet);
    const auto* const core = contextOf<CCoreContext>(packet);
    const auto* const bus = core ? nullptr : contextOf<CBusContext>(packet);
    const Move move = moveOf(file, packet, core);
    const std::uint64_t took = move.step == Step::Leave ? make(move, tick) : kUnknown64;
    const std::string& columns = columnsOf(file,
                                           core  ? core->HWCtx()
                                           : bus ? bus->HWCtx()
                                                 : ~0U,
                                           core ? core->SWCtx() : ~0U);
    const std::uint64_t depth =
        core ? stackOf(placeOf(file, core->HWCtx(), core->SWCtx(), TextSort::Function)).depth() : 0;
    std::string other;
    const std::string* name = &other;
    if (move.step != Step::None && move.place.sort == TextSort::Function)
        name = &functionName(file, move.id);
    else if (move.step != Step::None)
        other = move.place.sort == TextSort::None ? fmt::format("interrupt {}", move.id)
                                                  : nameOf(file, move.place.sort, move.id);

    char* const begin = room(columns.size() + name->size());
    char* to = m_time.put(put(begin, colored(kTimeColor)), tick);
    to = putIndent(put(put(to, colored(kNoColor)), columns), depth);
    if (move.step != Step::None) {
        to = putMove(to, move, *name, took);
        *to++ = '\n';
        write({begin, static_cast<std::size_t>(to - begin)});
    } else {
        m_line.assign(begin, to);
        appendPacket(file, packet);
        m_line += '\n';
        write(m_line);
    }
    if (move.step == Step::Enter)
        make(move, tick);
    return m_out.good();
}

char* Story::room(std::size_t texts) {
    constexpr std::size_t kMost = 2 * TimeText::kRoom + 2 * kMostIndented + 0x80; // with signs and colours
    if (m_room.size() < kMost + texts)
        m_room.resize(2 * (kMost + texts));
    return m_room.data();
}

void Story::write(std::string_view line) {
    const auto size = static_cast<std::streamsize>(line.size());
    if (m_out.rdbuf()->sputn(line.data(), size) != size)
        m_out.setstate(std::ios::badbit);
}

std::string_view Story::knownName(std::size_t file, TextSort sort, std::uint64_t id) {
    if (sort == TextSort::None)
        return {};
    return m_names.name(sort, m_names.numberOf(sort, id, static_cast<unsigned>(file)));
}

std::string Story::nameOf(std::size_t file, TextSort sort, std::uint64_t id) {
    return shown(m_names.nameOrId(sort, m_names.numberOf(sort, id, static_cast<unsigned>(file))));
}

void Story::append(std::string_view color, std::string_view text) {
    m_line.append(colored(color)).append(text).append(colored(kNoColor));
}

const std::string& Story::functionName(std::size_t file, std::uint64_t id) {
    static const std::string kNone = "no function";
    if (id == kNoFunction)
        return kNone;
    return m_functions.findOrMake(std::uint64_t{file} << 32 | id, [&] { return nameOf(file, TextSort::Function, id); });
}

char* Story::putMove(char* to, const Move& move, std::string_view name, std::uint64_t took) const {
    to = put(to, move.step == Step::Enter ? "> " : "< ");
    if (move.place.sort == TextSort::Process)
        to = put(to, "process ");
    const bool isName =
        move.place.sort != TextSort::None && (move.place.sort != TextSort::Function || move.id != kNoFunction);
    to = isName ? put(put(put(to, colored(kNameColor)), name), colored(kNoColor)) : put(to, name);
    if (took == kUnknown64)
        return to;
    to = m_time.putDuration(put(put(to, "  "), colored(kDurationColor)), took);
    return put(to, colored(kNoColor));
}

void Story::appendPacket(std::size_t file, const CPacket& packet) {
    append(kKindColor, CTCodeInfo::TCodeToName(packet.TraceCode()));
    const Subject subject = subjectOf(packet).value_or(Subject());
    if (subject.sort != TextSort::None) {
        m_line += ' ';
        append(kNameColor, nameOf(file, subject.sort, subject.id));
    }
    const std::string_view text = wholeTextOf(packet);
    if (!text.empty() && factsOf(packet.TraceCode()).role != Role::Definition) // which has it as its name
        m_line.append(" \"").append(shown(text)).append("\"");
    std::uint64_t machine = 0;
    eachNumber(packet, [&](const NumberField& field) {
        const std::string_view name = field.name;
        if (name == "StateMachine")
            machine = field.value;
        if (!field.isKnown || std::ranges::find(kToldElsewhere, name) != std::end(kToldElsewhere))
            return;
        const Reference* reference = referenceOf(name);
        if (reference && reference->isSubject && static_cast<std::uint32_t>(subject.id) == field.value)
            return; // what the packet is about
        m_line.append("  ").append(name).append("=");
        if (reference)
            m_line += nameOf(file, reference->sort,
                             isPartOfMachine(reference->sort) ? machine << 32 | field.value : field.value);
        else if (name == "Value" && isWord(field) && subject.sort == TextSort::Counter)
            appendCounter(m_line, field.value, sortOf(file, static_cast<std::uint32_t>(subject.id)).type());
        else
            appendValue(file, subject, field);
    });
}

void Story::appendValue(std::size_t file, const Subject& subject, const NumberField& field) {
    if (!field.bytes.empty() && (field.meaning == FieldMeaning::Bytes || field.bytes.size() > sizeof field.value)) {
        const auto type = subject.sort == TextSort::Variable
                              ? m_types.find({file, static_cast<std::uint32_t>(subject.id)})
                              : m_types.end();
        m_line += typedText(type == m_types.end() ? "" : knownName(file, TextSort::Type, type->second), field.bytes);
        return;
    }
    switch (factsOf(field.meaning).look) {
    case FieldLook::Address:
        fmt::format_to(std::back_inserter(m_line), "0x{:016x}", field.value);
        break;
    case FieldLook::Hexadecimal:
        fmt::format_to(std::back_inserter(m_line), "0x{:08x}", field.value);
        break;
    default:
        if (field.isSigned)
            fmt::format_to(std::back_inserter(m_line), "{}", static_cast<std::int64_t>(field.value));
        else
            fmt::format_to(std::back_inserter(m_line), "{}", field.value);
    }
}

} // namespace qvx

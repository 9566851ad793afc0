#include "quorvex/export/VCDHeader.h"

#include <algorithm>
#include <initializer_list>

namespace Quorvex {

using namespace vcd;

namespace {

/// Viewers end when they meet names of some kilobytes.
constexpr std::size_t kLongestName = 1000;
constexpr std::size_t kTextSize = 0x10000; ///< that is written at once

constexpr const char* kTypes[] = {"wire", "reg", "real"};
constexpr const char* kAreas[] = {"core_", "thread_", "counters", "events", "signals", "states", "variables"};
/// The scopes of details inside those of cores and threads.
constexpr const char* kDetails[] = {"processes", "functions"};

void append(std::string& to, std::initializer_list<std::string_view> texts) {
    for (const std::string_view text : texts)
        to += text;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// A name of letters, digits and '_', which does not begin with a digit: what every reader takes.
std::string legal(std::string_view name) {
    std::string result(name.substr(0, kLongestName));
    for (char& c : result) {
        const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (!isLetter && !isDigit(c))
            c = '_';
    }
    return !result.empty() && isDigit(result[0]) ? "_" + result : result;
}

/// A text within a comment of the file, where "$end" would end it.
std::string inComment(std::string_view text) {
    std::string result(text);
    std::ranges::replace_if(
        result, [](char c) { return c < ' ' || c > '~' || c == '$'; }, '?');
    return result;
}

/// What a variable is before it has been told: nothing is entered as far as is known, all else is unknown.
std::string_view initialOf(const Declaration& variable, Type type) {
    if (variable.meaning == CVCDWriter::Meaning::Depth)
        return "b0 ";
    const bool isEntered = type == Type::Bit && (variable.isDetail || variable.area == Area::Events);
    return isEntered ? "0" : kUnknown[unsigned(type)];
}

} // namespace

bool CVCDWriter::Header::write(Body& body) {
    const std::uint64_t start = m_writer.startTick();
    const std::uint64_t frequency = m_writer.frequency();
    append(m_text, {"$version\n\tQuorvex " QUORVEX_VERSION "\n$end\n$comment\n\t"});
    if (start == kUnknown64)
        append(m_text, {"No packet tells a tick."});
    else
        append(m_text, {"Time 0 is tick ", std::to_string(start), "."});
    if (frequency == 0)
        append(m_text, {" The clock is not known: a tick counts as 1 ns."});
    else
        append(m_text, {" The clock has ", std::to_string(frequency), " ticks a second."});
    append(m_text, {" Events are pulses of one tick.\n$end\n$timescale ", m_unit, " $end\n$scope module trace $end\n"});
    body.eachVariable([this](const Declaration& declaration, const Wire& variable) { add(declaration, variable); });
    leave(m_detail);
    leave(m_scope);
    append(m_text, {"$upscope $end\n$enddefinitions $end\n#0\n$dumpvars\n"});
    body.eachVariable([this](const Declaration& declaration, const Wire& variable) {
        append(m_text, {initialOf(declaration, Body::typeOf(variable)), variable.code.identifier(), "\n"});
        flush();
    });
    append(m_text, {"$end\n"});
    flush(true);
    return m_isWritten;
}

void CVCDWriter::Header::add(const Declaration& declaration, const Wire& variable) {
    goTo(declaration);
    const std::string name = nameOf(declaration);
    const Type type = Body::typeOf(variable);
    std::string range;
    if (type == Type::Vector && variable.width > 1)
        append(range, {"[", std::to_string(variable.width - 1), ":0]"});
    append(m_text, {"$var ", kTypes[unsigned(type)], " ", std::to_string(variable.width), " ",
                    variable.code.identifier(), " ", name, range.empty() ? "" : " ", range, " $end\n"});
    if (!declaration.isDetail) {
        Variable& shown = m_writer.m_shown.emplace_back();
        append(shown.path, {"trace.", m_scope, ".", name, range});
        shown.width = variable.width;
        shown.meaning = declaration.meaning;
        shown.stateMachine = declaration.owner;
        shown.counterType = variable.counter ? variable.counter->type() : CounterType::Unsigned;
        if (declaration.area == Area::Counters)
            shown.unit = m_writer.counterUnit(static_cast<std::uint32_t>(declaration.id));
        if (!shown.unit.empty())
            append(m_text, {"$comment ", name, " is in ", inComment(shown.unit), " $end\n"});
    }
    flush();
}

void CVCDWriter::Header::flush(bool isEnd) {
    if (!isEnd && m_text.size() < kTextSize)
        return;
    m_isWritten = m_isWritten && m_writer.writeOut(m_text);
    m_text.clear();
}

void CVCDWriter::Header::goTo(const Declaration& variable) {
    std::string area = kAreas[unsigned(variable.area)];
    if (variable.area == Area::Cores || variable.area == Area::Threads)
        area += std::to_string(variable.owner);
    if (variable.area == Area::Threads) {
        const std::string title = m_writer.names().threadTitle(variable.owner);
        if (!title.empty())
            append(area, {"_", legal(title)});
    }
    if (m_scope != area || (!m_detail.empty() && !variable.isDetail))
        leave(m_detail);
    if (m_scope != area) {
        leave(m_scope);
        enter(m_scope, area);
    }
    if (variable.isDetail && m_detail.empty())
        enter(m_detail, kDetails[unsigned(variable.area)]);
}

void CVCDWriter::Header::enter(std::string& opened, const std::string& name) {
    append(m_text, {"$scope module ", name, " $end\n"});
    opened = name;
    m_used.clear();
}

void CVCDWriter::Header::leave(std::string& opened) {
    if (!opened.empty())
        m_text += "$upscope $end\n";
    opened.clear();
    m_used.clear();
}

std::string CVCDWriter::Header::given(TextSort sort, std::uint64_t number) const {
    const std::string& name = m_writer.names().name(sort, number);
    if (name.size() > kLongestName)
        m_writer.lose("names longer than 1000 characters, cut");
    return legal(name);
}

std::string CVCDWriter::Header::idText(TextSort sort, std::uint64_t number) const {
    return std::to_string(m_writer.names().idOf(sort, number) & 0xFFFFFFFF);
}

std::string CVCDWriter::Header::nameOf(const Declaration& variable) {
    const auto id = [&] { return idText(variable.sort, variable.id); };
    std::string name;
    if (variable.sort == TextSort::None) {
        name = variable.label;
    } else if (variable.sort == TextSort::StateMachineInstance) {
        name = given(TextSort::StateMachine, variable.owner);
        if (name.empty())
            append(name, {"machine_", idText(TextSort::StateMachine, variable.owner)});
        const std::string own = given(variable.sort, variable.id);
        append(name, {"_", own.empty() ? id() : own});
    } else {
        name = given(variable.sort, variable.id);
        if (name.empty())
            append(name, {variable.label, id()});
    }
    name += variable.suffix;
    if (!m_used.insert(name).second) {
        append(name, {"_", id()});
        for (unsigned number = 2; !m_used.insert(name).second; ++number)
            append(name, {"_", std::to_string(number)});
    }
    return name;
}

} // namespace Quorvex

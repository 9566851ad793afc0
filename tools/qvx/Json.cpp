#include "Json.h"

#include "TimeText.h"
#include "quorvex/format/Characters.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace qvx {

namespace {

constexpr std::uint64_t kMostExact = std::uint64_t{1} << 53;

void appendQuoted(std::string& to, std::string_view text) {
    const auto isPlain = [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; };
    to += '"';
    while (!text.empty()) {
        const auto plain = static_cast<std::size_t>(std::ranges::find_if_not(text, isPlain) - text.begin());
        to += text.substr(0, plain);
        text.remove_prefix(plain);
        if (text.empty())
            break;
        const Quorvex::Character character = Quorvex::firstCharacter(text);
        const char first = text[0];
        if (first == '"' || first == '\\')
            to += {'\\', first};
        else if (character.size == 1 && !character.printable)
            to += static_cast<unsigned char>(first) < 0x80 ? fmt::format("\\u{:04x}", unsigned(first)) : "\xef\xbf\xbd";
        else
            to += text.substr(0, character.size);
        text.remove_prefix(character.size);
    }
    to += '"';
}

} // namespace

void JsonLine::begin(std::string_view name) {
    if (m_text.size() > 1)
        m_text += ", ";
    appendQuoted(m_text, name);
    m_text += ": ";
}

void JsonLine::append(std::uint64_t number) {
    const std::string_view quote = number <= kMostExact ? "" : "\"";
    m_text += quote;
    appendNumber(m_text, number);
    m_text += quote;
}

JsonLine& JsonLine::add(std::string_view name, std::uint64_t number) {
    begin(name);
    append(number);
    return *this;
}

JsonLine& JsonLine::add(std::string_view name, const std::vector<std::uint64_t>& numbers) {
    begin(name);
    m_text += '[';
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        m_text += i > 0 ? ", " : "";
        append(numbers[i]);
    }
    m_text += ']';
    return *this;
}

JsonLine& JsonLine::add(std::string_view name, std::string_view text) {
    begin(name);
    appendQuoted(m_text, text);
    return *this;
}

JsonLine& JsonLine::add(std::string_view name, const JsonLine& object) {
    begin(name);
    m_text += object.m_text + "}";
    return *this;
}

JsonLine& JsonLine::addAll(const JsonLine& object) {
    if (object.m_text.size() > 1 && m_text.size() > 1)
        m_text += ", ";
    m_text.append(object.m_text, 1);
    return *this;
}

JsonLine& JsonLine::addTruth(std::string_view name, bool isTrue) {
    begin(name);
    m_text += isTrue ? "true" : "false";
    return *this;
}

JsonLine& JsonLine::addSigned(std::string_view name, std::int64_t number) {
    if (number >= 0)
        return add(name, static_cast<std::uint64_t>(number));
    begin(name);
    const bool isExact = number >= -static_cast<std::int64_t>(kMostExact);
    m_text += isExact ? fmt::format("{}", number) : fmt::format("\"{}\"", number);
    return *this;
}

JsonLine& JsonLine::addReal(std::string_view name, double number) {
    begin(name);
    m_text += std::isfinite(number) ? fmt::format("{}", number) : "null";
    return *this;
}

JsonLine& JsonLine::add(std::string_view name, const std::vector<std::string>& texts) {
    begin(name);
    const char* before = "[";
    for (const std::string& text : texts) {
        m_text += std::exchange(before, ", ");
        appendQuoted(m_text, text);
    }
    m_text += texts.empty() ? "[]" : "]";
    return *this;
}

JsonLine& JsonLine::addUnknown(std::string_view name) {
    begin(name);
    m_text += "null";
    return *this;
}

} // namespace qvx

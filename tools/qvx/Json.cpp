#include "Json.h"

#include "quorvex/export/JsonText.h"

#include <utility>

namespace qvx {

void JsonLine::begin(std::string_view name) {
    if (m_text.size() > 1)
        m_text += ", ";
    Quorvex::appendJsonText(m_text, name);
    m_text += ": ";
}

void JsonLine::append(std::uint64_t number) {
    Quorvex::appendJsonNumber(m_text, number);
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
    Quorvex::appendJsonText(m_text, text);
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
    begin(name);
    Quorvex::appendJsonNumber(m_text, number);
    return *this;
}

JsonLine& JsonLine::addReal(std::string_view name, double number) {
    begin(name);
    Quorvex::appendJsonReal(m_text, number);
    return *this;
}

JsonLine& JsonLine::add(std::string_view name, const std::vector<std::string>& texts) {
    begin(name);
    const char* before = "[";
    for (const std::string& text : texts) {
        m_text += std::exchange(before, ", ");
        Quorvex::appendJsonText(m_text, text);
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

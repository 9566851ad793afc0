#include "quorvex/export/FactWriter.h"

#include "quorvex/export/JsonText.h"
#include "quorvex/format/Digits.h"

#include <bit>
#include <cstring>
#include <iterator>
#include <utility>

namespace Quorvex {

namespace {

/// What slices are called, by the sort of their track; all else is an event or a value.
constexpr std::string_view kSlices[] = {"call", "run", "process", "interrupt", "state"};

} // namespace

std::string CFactWriter::quoted(std::string_view text) const {
    std::string result;
    if (m_format == Format::JSON) {
        appendJsonText(result, text);
        return result;
    }
    result = wellFormed(text);
    if (result.find_first_of(",\"\r\n") == std::string::npos && !result.starts_with(' ') && !result.ends_with(' '))
        return result;
    for (std::size_t at = 0; (at = result.find('"', at)) != std::string::npos; at += 2)
        result.insert(at, 1, '"');
    return "\"" + result + "\"";
}

void CFactWriter::startFile() {
    const bool isJson = m_format == Format::JSON;
    const std::string unit = frequency() == 0 ? "_ticks" : "_ns";
    const std::string titles[] = {"name", "start" + unit, "duration" + unit, "depth", "value", "unit", "fields"};
    for (std::size_t column = 0; column < std::size(titles); ++column)
        m_before[column] = isJson ? ", \"" + titles[column] + "\": " : ",";
    if (!isJson) {
        add("type,track");
        for (const std::string& title : titles)
            add("," + title);
        add("\n");
    }
    m_open.resize(tracks().size());
    for (const std::string& label : labels())
        m_names.push_back(m_before[Name] + quoted(label));
    for (const Track& track : tracks()) {
        const auto head = [&](std::string_view type) {
            const std::string name = quoted(track.name);
            return isJson ? "{\"type\": \"" + std::string(type) + "\", \"track\": " + name
                          : std::string(type) + "," + name;
        };
        const bool isOfSlices = std::size_t(track.sort) < std::size(kSlices);
        m_heads.push_back({head(isOfSlices ? kSlices[std::size_t(track.sort)] : ""), head("event"), head("value"),
                           !isJson || !track.unit.empty()
                               ? m_before[Unit] + (track.unit.empty() ? std::string() : quoted(track.unit))
                               : std::string()});
    }
}

void CFactWriter::append(std::string& to, const Field& field) const {
    if (field.form == Form::Text)
        to += quoted(field.text);
    else if (field.form == Form::Real)
        appendJsonReal(to, std::bit_cast<double>(field.number));
    else if (m_format == Format::CSV)
        to += field.form == Form::Signed ? std::to_string(static_cast<std::int64_t>(field.number))
                                         : std::to_string(field.number);
    else if (field.form == Form::Signed)
        appendJsonNumber(to, static_cast<std::int64_t>(field.number));
    else
        appendJsonNumber(to, field.number);
}

std::string CFactWriter::fieldsOf(const Fact& fact) const {
    std::string text;
    eachField(fact, [&](const Field& field) {
        if (m_format == Format::CSV) {
            text.append(text.empty() ? "" : " ").append(field.name).append("=");
            text += field.form == Form::Text     ? std::string(field.text)
                    : field.form == Form::Signed ? std::to_string(static_cast<std::int64_t>(field.number))
                                                 : std::to_string(field.number);
            return;
        }
        text += text.empty() ? "{" : ", ";
        appendJsonText(text, field.name);
        text += ": ";
        if (field.form == Form::Text)
            appendJsonText(text, field.text);
        else if (field.form == Form::Signed)
            appendJsonNumber(text, static_cast<std::int64_t>(field.number));
        else
            appendJsonNumber(text, field.number);
    });
    if (m_format == Format::CSV)
        return text.empty() ? text : quoted(text);
    return text.empty() ? text : text + "}";
}

void CFactWriter::write(const Fact& fact) {
    std::vector<Open>& open = m_open[fact.track];
    if (fact.type == Type::Begin) {
        open.push_back({fact.time, fact.more.empty() ? std::string() : fieldsOf(fact)});
    } else if (fact.type == Type::End) {
        const Open its = std::move(open.back());
        open.pop_back();
        writeRow(fact, its.time, open.size(), its.fields);
    } else {
        writeRow(fact, fact.time, open.size(), fact.more.empty() ? std::string() : fieldsOf(fact));
    }
}

void CFactWriter::writeRow(const Fact& fact, std::uint64_t start, std::size_t depth, std::string_view fields) {
    const bool isValue = fact.type == Type::Value;
    // JSON has no members that tell nothing.
    const bool hasAll = m_format == Format::CSV;
    const Heads& heads = m_heads[fact.track];
    const std::string_view head = isValue                      ? heads.ofValues
                                  : fact.type == Type::Instant ? heads.ofEvents
                                                               : heads.ofSlices;
    m_own.clear();
    std::string_view name;
    if (isValue) {
        append(m_own, fact.value);
    } else if (fact.label == kNoLabel) {
        m_own.append(m_before[Name]).append(quoted(fact.name));
        name = m_own;
    } else {
        name = m_names[fact.label];
    }
    std::size_t most = head.size() + name.size() + m_own.size() + heads.unit.size() + fields.size() + 3 * kMostDigits +
                       std::size("}\n");
    for (const std::string& before : m_before)
        most += before.size();
    char* to = room(most);
    const auto put = [&to](std::string_view text) {
        std::memcpy(to, text.data(), text.size());
        to += text.size();
    };
    const auto putNumber = [&](Column column, std::uint64_t number) {
        put(m_before[column]);
        to = putDecimal(to, number);
    };
    put(head);
    if (isValue && hasAll)
        put(m_before[Name]);
    else
        put(name);
    putNumber(Start, start);
    if (fact.type == Type::End)
        putNumber(Duration, fact.time - start);
    else if (hasAll)
        put(m_before[Duration]);
    if (!isValue)
        putNumber(Depth, depth);
    else if (hasAll)
        put(m_before[Depth]);
    if (isValue || hasAll)
        put(m_before[Value]);
    if (isValue)
        put(m_own);
    put(heads.unit);
    if (hasAll || !fields.empty()) {
        put(m_before[Fields]);
        put(fields);
    }
    put(hasAll ? "\n" : "}\n");
    ends(to);
}

} // namespace Quorvex

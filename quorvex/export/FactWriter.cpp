#include "quorvex/export/FactWriter.h"

#include "quorvex/export/JsonText.h"
#include "quorvex/format/Digits.h"

#include <bit>
#include <utility>

namespace Quorvex {

namespace {

/// What slices are called, by the sort of their track; all else is an event or a value.
constexpr std::string_view kTypes[] = {"call", "run", "process", "interrupt", "state"};

std::string_view typeOf(const CTrackWriter::Fact& fact, CTrackWriter::Sort sort) {
    return fact.type == CTrackWriter::Type::Instant ? "event"
           : fact.type == CTrackWriter::Type::Value ? "value"
                                                    : kTypes[unsigned(sort)];
}

void appendNumber(std::string& to, std::uint64_t number) {
    char digits[kMostDigits];
    to.append(digits, putDecimal(digits, number));
}

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
    const char* unit = frequency() == 0 ? "_ticks" : "_ns";
    if (m_format == Format::CSV)
        add(std::string("type,track,name,start") + unit + ",duration" + unit + ",depth,value,unit,fields\n");
    m_open.resize(tracks().size());
    for (const std::string& label : labels())
        m_names.push_back(quoted(label));
    for (const Track& track : tracks()) {
        m_tracks.push_back(quoted(track.name));
        m_units.push_back(track.unit.empty() ? "" : quoted(track.unit));
    }
}

void CFactWriter::append(const Field& field) {
    if (field.form == Form::Text)
        m_row += quoted(field.text);
    else if (field.form == Form::Real)
        appendJsonReal(m_row, std::bit_cast<double>(field.number));
    else if (m_format == Format::CSV)
        m_row += field.form == Form::Signed ? std::to_string(static_cast<std::int64_t>(field.number))
                                            : std::to_string(field.number);
    else if (field.form == Form::Signed)
        appendJsonNumber(m_row, static_cast<std::int64_t>(field.number));
    else
        appendJsonNumber(m_row, field.number);
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
    const std::string_view type = typeOf(fact, tracks()[fact.track].sort);
    const bool isValue = fact.type == Type::Value;
    const bool isJson = m_format == Format::JSON;
    const std::string own = !isValue && fact.label == kNoLabel ? quoted(fact.name) : std::string();
    const std::string_view name = isValue || fact.label == kNoLabel ? std::string_view(own) : m_names[fact.label];
    const bool hasClock = frequency() > 0;
    m_row.clear();
    const auto next = [&](std::string_view title) {
        if (isJson)
            m_row.append(", \"").append(title).append("\": ");
        else
            m_row += ',';
    };
    m_row.append(isJson ? "{\"type\": \"" : "").append(type).append(isJson ? "\"" : "");
    next("track");
    m_row += m_tracks[fact.track];
    if (!isJson || !isValue) {
        next("name");
        m_row += name;
    }
    next(hasClock ? "start_ns" : "start_ticks");
    appendNumber(m_row, start);
    if (!isJson || fact.type == Type::End) {
        next(hasClock ? "duration_ns" : "duration_ticks");
        if (fact.type == Type::End)
            appendNumber(m_row, fact.time - start);
    }
    if (!isJson || !isValue) {
        next("depth");
        if (!isValue)
            appendNumber(m_row, depth);
    }
    if (!isJson || isValue) {
        next("value");
        if (isValue)
            append(fact.value);
    }
    if (const std::string& unit = m_units[fact.track]; !isJson || !unit.empty()) {
        next("unit");
        m_row += unit;
    }
    if (!isJson || !fields.empty()) {
        next("fields");
        m_row += fields;
    }
    m_row += isJson ? "}\n" : "\n";
    add(m_row);
}

} // namespace Quorvex

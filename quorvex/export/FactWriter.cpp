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
    for (std::size_t column = 0; column < std::size(titles); ++column) {
        const std::string text = isJson ? ", \"" + titles[column] + "\": " : ",";
        m_before[column].size = text.copy(m_before[column].text, sizeof m_before[column].text);
    }
    if (!isJson) {
        add("type,track");
        for (const std::string& title : titles)
            add("," + title);
        add("\n");
    }
    m_open.resize(tracks().size());
    for (const std::string& label : labels())
        m_names.push_back(quoted(label));
    for (const Track& track : tracks()) {
        const auto head = [&](std::string_view type) {
            const std::string name = quoted(track.name);
            return isJson ? "{\"type\": \"" + std::string(type) + "\", \"track\": " + name
                          : std::string(type) + "," + name;
        };
        const bool isOfSlices = std::size_t(track.sort) < std::size(kSlices);
        m_heads.push_back({head(isOfSlices ? kSlices[std::size_t(track.sort)] : ""), head("event"), head("value"),
                           track.unit.empty() ? std::string() : quoted(track.unit)});
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
        m_own = quoted(fact.name);
        name = m_own;
    } else {
        name = m_names[fact.label];
    }
    char* to = room(head.size() + name.size() + m_own.size() + heads.unit.size() + fields.size() + 3 * kMostDigits +
                    sizeof m_before + std::size("}\n"));
    const auto put = [&to](std::string_view text) {
        std::memcpy(to, text.data(), text.size());
        to += text.size();
    };
    // The column, if it tells something or all have to be there; `putIt` puts what stands in it.
    const auto column = [&](Column which, bool tells, auto putIt) {
        if (!tells && !hasAll)
            return;
        const Title& before = m_before[which];
        std::memcpy(to, before.text, sizeof before.text);
        to += before.size;
        if (tells)
            putIt();
    };
    put(head);
    column(Name, !isValue, [&] { put(name); });
    column(Start, true, [&] { to = putDecimal(to, start); });
    column(Duration, fact.type == Type::End, [&] { to = putDecimal(to, fact.time - start); });
    column(Depth, !isValue, [&] { to = putDecimal(to, depth); });
    column(Value, isValue, [&] { put(m_own); });
    column(Unit, !heads.unit.empty(), [&] { put(heads.unit); });
    column(Fields, !fields.empty(), [&] { put(fields); });
    if (!hasAll)
        *to++ = '}';
    *to++ = '\n';
    ends(to);
}

} // namespace Quorvex

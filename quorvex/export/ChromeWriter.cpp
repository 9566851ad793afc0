#include "quorvex/export/ChromeWriter.h"

#include "quorvex/analysis/CounterType.h"
#include "quorvex/export/JsonText.h"
#include "quorvex/format/Digits.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <set>

namespace Quorvex {

namespace {

/// What stands for each type, with what is between them: Begin, End, Instant, Value.
constexpr std::string_view kPhases[] = {",\n{\"ph\":\"B\"", ",\n{\"ph\":\"E\"", ",\n{\"ph\":\"i\",\"s\":\"t\"",
                                        ",\n{\"ph\":\"C\""};
/// Categories of slices and values, by the sort of a track; where there are none of these, all are events.
constexpr const char* kCategories[] = {"call",    "run",      "process", "interrupt", "state",
                                       "counter", "variable", "signal",  "event",     "event"};

char* putText(char* to, std::string_view text) {
    std::memcpy(to, text.data(), text.size());
    return to + text.size();
}

/// In microseconds.
char* putMicroseconds(char* to, std::uint64_t nanoseconds) {
    to = putDecimal(to, nanoseconds / 1000);
    const auto rest = static_cast<unsigned>(nanoseconds % 1000);
    *to++ = '.';
    *to++ = static_cast<char>('0' + rest / 100);
    *to++ = static_cast<char>('0' + rest / 10 % 10);
    *to++ = static_cast<char>('0' + rest % 10);
    return to;
}

/// A number with a fraction is told from a whole one.
void append(std::string& to, const CTrackWriter::Field& value) {
    char digits[32];
    if (value.form == CTrackWriter::Form::Text)
        appendJsonText(to, value.text);
    else if (value.form == CTrackWriter::Form::Real && std::isfinite(std::bit_cast<double>(value.number)))
        to.append(digits, putCounter(digits, value.number, CounterType::Double));
    else if (value.form == CTrackWriter::Form::Real)
        to += "null";
    else if (value.form == CTrackWriter::Form::Signed)
        appendJsonNumber(to, static_cast<std::int64_t>(value.number));
    else
        appendJsonNumber(to, value.number);
}

} // namespace

void CChromeWriter::startFile() {
    m_text = "{\"displayTimeUnit\":\"ns\",\"metadata\":{\"exporter\":\"Quorvex " QUORVEX_VERSION "\",\"first_tick\":";
    m_text += startTick() == kUnknown64 ? "null" : "\"" + std::to_string(startTick()) + "\"";
    m_text += ",\"ticks_per_second\":" + (frequency() == 0 ? "null" : "\"" + std::to_string(frequency()) + "\"");
    m_text += "},\"traceEvents\":[";
    const char* before = "\n";
    const auto name = [&](const char* what, std::uint32_t group, std::uint64_t number, std::string_view its) {
        m_text.append(before).append("{\"ph\":\"M\",\"name\":\"").append(what).append("\",\"pid\":");
        m_text += std::to_string(group) + ",\"tid\":" + std::to_string(number) + ",\"args\":{\"name\":";
        appendJsonText(m_text, its);
        m_text += "}}";
        before = ",\n";
    };
    name("process_name", 0, 0, "trace");
    std::set<std::uint32_t> told;
    for (std::uint32_t i = 0; i < tracks().size(); ++i) {
        const Track& track = tracks()[i];
        const std::uint64_t number = track.group > 0 ? track.number : i + 1;
        if (track.group > 0 && told.insert(track.group).second)
            name("process_name", track.group, 0, groups()[track.group]);
        if (track.form == Form::None)
            name("thread_name", track.group, number, track.name);
        const std::string place =
            ",\"pid\":" + std::to_string(track.group) + ",\"tid\":" + std::to_string(number) + ",\"ts\":";
        const std::string own = std::string(",\"cat\":\"") + kCategories[unsigned(track.sort)] + "\"" + place;
        m_places.push_back(own);
        m_tellers.push_back((track.group > 0 ? ",\"thread\":" : ",\"core\":") + std::to_string(track.number));
        m_instants.push_back(",\"cat\":\"event\"" + place);
        m_values.push_back(",\"name\":");
        appendJsonText(m_values.back(), track.name);
        m_values.back() += own;
        add(m_text);
        m_text.clear();
    }
    add(m_text);
    for (const std::string& label : labels()) {
        m_names.push_back(",\"name\":");
        appendJsonText(m_names.back(), label);
    }
}

void CChromeWriter::write(const Fact& fact) {
    const std::string_view phase = kPhases[unsigned(fact.type)];
    const std::string_view place = fact.type == Type::Value     ? m_values[fact.track]
                                   : fact.type == Type::Instant ? m_instants[fact.track]
                                                                : m_places[fact.track];
    m_text.clear();
    if (fact.type != Type::Value && fact.label == kNoLabel) {
        m_text = ",\"name\":";
        appendJsonText(m_text, fact.name);
    }
    const std::string_view name =
        fact.type == Type::Value || fact.label == kNoLabel ? std::string_view(m_text) : m_names[fact.label];
    char* to = room(phase.size() + name.size() + place.size() + kMostDigits + 6);
    ends(putMicroseconds(putText(putText(putText(to, phase), name), place), fact.time));
    m_text.clear();
    if (fact.teller != kNoTrack)
        m_text = m_tellers[fact.teller];
    if (fact.type == Type::Value) {
        m_text += ",\"args\":{";
        appendJsonText(m_text, tracks()[fact.track].unit.empty() ? "value" : tracks()[fact.track].unit);
        m_text += ':';
        append(m_text, fact.value);
        m_text += '}';
    } else if (fact.isSupplied) {
        m_text += ",\"args\":{\"left\":false}";
    } else if (!fact.more.empty()) {
        const char* before = ",\"args\":{";
        eachField(fact, [&](const Field& field) {
            m_text += before;
            appendJsonText(m_text, field.name);
            m_text += ':';
            append(m_text, field);
            before = ",";
        });
        m_text += '}';
    }
    m_text += '}';
    add(m_text);
}

void CChromeWriter::endFile() {
    add("\n]}\n");
}

} // namespace Quorvex

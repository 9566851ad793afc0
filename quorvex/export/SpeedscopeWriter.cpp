#include "quorvex/export/SpeedscopeWriter.h"

#include "quorvex/export/JsonText.h"
#include "quorvex/format/Digits.h"

#include <algorithm>

namespace Quorvex {

void CSpeedscopeWriter::startFile() {
    std::string text = "{\"$schema\":\"https://www.speedscope.app/file-format-schema.json\",\"exporter\":"
                       "\"Quorvex@" QUORVEX_VERSION "\",\"name\":";
    appendJsonText(text, options().inputs);
    text += ",\"activeProfileIndex\":0,\"shared\":{\"frames\":[";
    for (std::size_t i = 0; i < labels().size(); ++i) {
        text += i > 0 ? ",\n{\"name\":" : "\n{\"name\":";
        appendJsonText(text, labels()[i]);
        text += '}';
        add(text);
        text.clear();
        m_numbers.push_back(std::to_string(i) + ",\"at\":");
    }
    add("]},\n\"profiles\":[");
}

void CSpeedscopeWriter::startProfile(std::string_view name) {
    std::string text = m_profiles++ > 0 ? ",\n" : "\n";
    text += "{\"type\":\"evented\",\"name\":";
    appendJsonText(text, name);
    text += std::string(",\"unit\":\"") + (frequency() == 0 ? "none" : "nanoseconds") +
            "\",\"startValue\":0,\"endValue\":" + std::to_string(duration()) + ",\"events\":[";
    add(text);
}

void CSpeedscopeWriter::startTrack(std::uint32_t) {
    m_hasEvents = false;
}

void CSpeedscopeWriter::write(const Fact& fact) {
    if (!m_hasEvents)
        startProfile(tracks()[fact.track].name);
    const std::string_view before =
        fact.type == Type::Begin ? ",\n{\"type\":\"O\",\"frame\":" : ",\n{\"type\":\"C\",\"frame\":";
    const std::string& frame = m_numbers[fact.label];
    char* to = room(before.size() + frame.size() + kMostDigits + 1);
    to = std::copy(before.begin() + (m_hasEvents ? 0 : 1), before.end(), to);
    to = putDecimal(std::copy(frame.begin(), frame.end(), to), fact.time);
    *to++ = '}';
    ends(to);
    m_hasEvents = true;
}

void CSpeedscopeWriter::endTrack(std::uint32_t) {
    if (m_hasEvents)
        add("]}");
}

void CSpeedscopeWriter::endFile() {
    if (m_profiles == 0) { // readers want one
        startProfile("nothing");
        add("]}");
    }
    add("\n]}\n");
}

} // namespace Quorvex

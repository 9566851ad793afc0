/// Value change dumps: what digital signals do. One bit becomes a signal, what has more a counter.

#include "../Verbs.h"
#include "ImportedTrace.h"
#include "Importers.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>
#include <unordered_map>

namespace qvx {

namespace {

class Reading {
public:
    Reading(std::istream& in, const std::string& name, ImportedTrace& trace)
        : m_in(in), m_name(name), m_trace(trace), m_thread(trace.thread("0", "0")) {}

    void run() {
        bool hasDefinitions = false;
        for (std::string word; m_in >> word;) {
            if (word == "$scope") {
                m_in >> word >> word;
                m_scopes.push_back(word);
                skip();
            } else if (word == "$upscope") {
                if (!m_scopes.empty())
                    m_scopes.pop_back();
                skip();
            } else if (word == "$var") {
                define();
            } else if (word == "$timescale") {
                setTimescale();
            } else if (word == "$enddefinitions") {
                skip();
                hasDefinitions = true;
            } else if (word == "$dumpvars" || word == "$dumpall" || word == "$dumpon") {
                m_isRepeated = true;
                m_isOff = false;
            } else if (word == "$dumpoff") {
                m_isOff = true;
                m_isRepeated = true;
            } else if (word == "$end") {
                m_isRepeated = false;
            } else if (word.starts_with('$')) { // a comment, a date, and what others have made up
                skip();
            } else if (word.starts_with('#')) {
                const auto time = numberIn(std::string_view(word).substr(1));
                if (!time || *time < m_time)
                    m_trace.lose("times that are none or go back");
                else
                    m_time = *time;
            } else if (!hasDefinitions) {
                throw Failure(m_name, "is no value change dump");
            } else {
                change(word);
            }
        }
        if (!hasDefinitions)
            throw Failure(m_name, "is no value change dump");
    }

private:
    enum class Sort : std::uint8_t { Bit, Vector, Signed, Real, Event, Text };
    struct Variable {
        Sort sort;
        std::string name;
    };

    static std::optional<std::uint64_t> numberIn(std::string_view text, int base = 10) {
        std::uint64_t number = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
        return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
    }

    void skip() {
        for (std::string word; m_in >> word && word != "$end";)
            ;
    }

    void setTimescale() {
        std::string text;
        for (std::string word; m_in >> word && word != "$end";)
            text += word;
        const std::size_t unit = std::min(text.find_first_not_of("0123456789"), text.size());
        const auto number = numberIn(std::string_view(text).substr(0, unit));
        std::uint64_t perSecond = 1;
        constexpr std::string_view kUnits[] = {"s", "ms", "us", "ns", "ps", "fs"};
        const auto* at = std::ranges::find(kUnits, std::string_view(text).substr(unit));
        for (const auto* its = kUnits; its < at; ++its)
            perSecond *= 1000;
        if (at == std::end(kUnits) || !number || (*number != 1 && *number != 10 && *number != 100) ||
            perSecond < *number)
            m_trace.lose("the time scale '" + text + "', which is none");
        else
            m_trace.setFrequency(perSecond / *number);
    }

    void define() {
        std::string type, width, id, name;
        m_in >> type >> width >> id >> name;
        for (std::string word; m_in >> word && word != "$end";)
            name += word; // the range of bits
        std::string whole;
        for (const std::string& scope : m_scopes)
            whole += scope + '.';
        whole += name;
        const Sort sort = type == "event"                        ? Sort::Event
                          : type == "string"                     ? Sort::Text
                          : type == "real" || type == "realtime" ? Sort::Real
                          : type == "integer"                    ? Sort::Signed
                          : numberIn(width).value_or(0) == 1     ? Sort::Bit
                                                                 : Sort::Vector;
        m_variables[id].push_back({sort, whole});
    }

    void change(const std::string& word) {
        const char first = word[0];
        const bool isLong = std::string_view("bBrRsS").find(first) != std::string_view::npos;
        std::string id = isLong ? "" : word.substr(1);
        if (isLong && !(m_in >> id))
            return;
        const auto known = m_variables.find(id);
        if (known == m_variables.end()) {
            m_trace.lose("values of unknown variables");
            return;
        }
        if (m_isOff)
            return; // they only tell that nothing is known
        const std::string_view value = isLong ? std::string_view(word).substr(1) : std::string_view(word).substr(0, 1);
        for (const Variable& variable : known->second)
            tell(variable, value, first);
    }

    void tell(const Variable& variable, std::string_view value, char mark) {
        const auto unknown = [&] { m_trace.lose("values x and z"); };
        switch (variable.sort) {
        case Sort::Event:
            if (!m_isRepeated)
                m_trace.happen(m_thread, m_time, variable.name);
            break;
        case Sort::Text:
            m_trace.message(m_time, variable.name + ": " + std::string(value));
            break;
        case Sort::Real: {
            double number = 0;
            const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
            if (error != std::errc() || end != value.data() + value.size() || (mark != 'r' && mark != 'R'))
                m_trace.lose("values that are no numbers");
            else
                m_trace.count(m_thread, m_time, variable.name, number);
            break;
        }
        case Sort::Bit:
            if (value == "0" || value == "1")
                m_trace.signal(m_time, variable.name, value == "1");
            else
                unknown();
            break;
        case Sort::Vector:
        case Sort::Signed: {
            if (value.find_first_not_of("01") != std::string_view::npos || value.empty()) {
                unknown();
                break;
            }
            const std::size_t one = value.find('1');
            const auto number = numberIn(one == std::string_view::npos ? "0" : value.substr(one), 2);
            if (!number || (variable.sort == Sort::Vector && *number > INT64_MAX)) {
                m_trace.lose("values of more than 63 bits");
                break;
            }
            auto whole = static_cast<std::int64_t>(*number);
            if (variable.sort == Sort::Signed && value.size() == 32) // leading zeros are left out, so it is negative
                whole = value[0] == '1' ? whole - (std::int64_t{1} << 32) : whole;
            m_trace.count(m_thread, m_time, variable.name, whole);
            break;
        }
        }
    }

    std::istream& m_in;
    std::string m_name;
    ImportedTrace& m_trace;
    ImportedTrace::Thread m_thread;
    std::vector<std::string> m_scopes;
    std::unordered_map<std::string, std::vector<Variable>> m_variables; ///< several may share an identifier
    std::uint64_t m_time = 0;
    bool m_isRepeated = false; ///< values that are told once more, or at the start
    bool m_isOff = false;
};

} // namespace

void readValueChanges(std::istream& in, const std::string& name, ImportedTrace& trace) {
    Reading(in, name, trace).run();
}

} // namespace qvx

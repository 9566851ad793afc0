/// Chrome's trace events in JSON: an array of them, or an object with one in "traceEvents". Written by browsers,
/// compilers and tracers in ways of their own: without ends, unsorted, with times as numbers of any form or as texts.

#include "../Verbs.h"
#include "ImportedTrace.h"
#include "Importers.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <optional>
#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

namespace qvx {

namespace {

/// Bytes of a stream, as the parser takes them.
class Bytes {
public:
    using Ch = char;

    explicit Bytes(std::istream& in) : m_in(in) {
        fill();
        if (std::string_view(m_at, static_cast<std::size_t>(m_end - m_at)).starts_with("\xEF\xBB\xBF"))
            m_at += 3;
    }
    Ch Peek() const { return m_at < m_end ? *m_at : '\0'; }
    Ch Take() {
        if (m_at == m_end)
            return '\0';
        const Ch c = *m_at++;
        if (m_at == m_end)
            fill();
        return c;
    }
    bool isAtEnd() const { return m_at == m_end; }
    std::size_t Tell() const { return m_before + static_cast<std::size_t>(m_at - m_block); }

    // What parsers in place need.
    Ch* PutBegin() { return nullptr; }
    void Put(Ch) {}
    void Flush() {}
    std::size_t PutEnd(Ch*) { return 0; }

private:
    void fill() {
        m_before += static_cast<std::size_t>(m_end - m_block);
        m_in.read(m_block, sizeof m_block);
        m_at = m_block;
        m_end = m_block + m_in.gcount();
    }

    std::istream& m_in;
    char m_block[0x10000];
    const char* m_at = m_block;
    const char* m_end = m_block;
    std::size_t m_before = 0; ///< how many bytes stand before the block
};

/// A time of microseconds in nanoseconds, exactly as its digits tell.
struct Time {
    std::uint64_t nanoseconds = 0;
    bool isNegative = false;
    bool isRounded = false;
};

std::optional<Time> timeIn(std::string_view text) {
    Time time;
    if (text.starts_with('-') || text.starts_with('+')) {
        time.isNegative = text[0] == '-';
        text.remove_prefix(1);
    }
    const std::size_t mark = text.find_first_of("eE");
    int exponent = 0;
    if (mark != std::string_view::npos) {
        std::string_view digits = text.substr(mark + 1);
        if (digits.starts_with('+'))
            digits.remove_prefix(1);
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), exponent);
        if (error != std::errc() || end != digits.data() + digits.size() || exponent > 30 || exponent < -30)
            return std::nullopt;
        text = text.substr(0, mark);
    }
    const std::size_t point = std::min(text.find('.'), text.size());
    // Digits behind the one that stands for nanoseconds are cut off.
    const long last = static_cast<long>(point) + 3 + exponent;
    long place = 0;
    bool hasDigit = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (i == point)
            continue;
        if (text[i] < '0' || text[i] > '9')
            return std::nullopt;
        hasDigit = true;
        const auto digit = static_cast<unsigned>(text[i] - '0');
        if (place++ >= last) {
            time.isRounded = time.isRounded || digit != 0;
        } else {
            if (time.nanoseconds > (UINT64_MAX - 1 - digit) / 10)
                return std::nullopt;
            time.nanoseconds = 10 * time.nanoseconds + digit;
        }
    }
    for (; place < last; ++place) {
        if (time.nanoseconds > (UINT64_MAX - 1) / 10)
            return std::nullopt;
        time.nanoseconds *= 10;
    }
    return hasDigit ? std::optional(time) : std::nullopt;
}

/// Tells a trace the events that the parser comes across.
class Events : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Events> {
public:
    explicit Events(ImportedTrace& trace) : m_trace(trace) {}

    bool sawEvents() const { return m_sawEvents; }
    bool isInEvent() const { return m_depth >= m_eventDepth; }

    bool StartObject() {
        enterValue();
        ++m_depth;
        if (m_depth == 1)
            m_eventDepth = 3; // an object that has the list of them
        else if (isEvent())
            m_event = {};
        return true;
    }
    bool EndObject(rapidjson::SizeType) {
        if (isEvent())
            tell();
        --m_depth;
        return true;
    }
    bool StartArray() {
        enterValue();
        ++m_depth;
        if (m_depth == 1)
            m_eventDepth = 2;
        if (m_depth + 1 == m_eventDepth && (m_eventDepth == 2 || m_isList))
            m_sawEvents = true;
        return true;
    }
    bool EndArray(rapidjson::SizeType) {
        --m_depth;
        return true;
    }
    bool Key(const char* text, rapidjson::SizeType size, bool) {
        const std::string_view key(text, size);
        if (m_depth == 1)
            m_isList = key == "traceEvents";
        else if (isEvent())
            m_key = key;
        else if (m_depth == m_eventDepth + 1)
            m_argument = key;
        return true;
    }
    bool String(const char* text, rapidjson::SizeType size, bool) {
        take({text, size}, false);
        return true;
    }
    bool RawNumber(const char* text, rapidjson::SizeType size, bool) {
        take({text, size}, true);
        return true;
    }
    bool Default() { // null, true and false
        enterValue();
        return true;
    }

private:
    struct Event {
        std::string phase, name, category, time, duration, process, thread, id, label;
        std::vector<std::pair<std::string, std::string>> numbers; ///< arguments
        bool hasArguments = false;                                ///< other ones
    };

    bool isList() const { return m_eventDepth == 2 || m_isList; }
    bool isEvent() const { return m_depth == m_eventDepth && isList(); }
    bool isArgument() const { return m_depth == m_eventDepth + 1 && isList() && m_key == "args"; }

    /// A value that is no text and no number.
    void enterValue() {
        if (isArgument())
            m_event.hasArguments = true;
    }

    void take(std::string_view text, bool isNumber) {
        if (isArgument()) {
            if (m_argument == "name" && m_event.label.empty())
                m_event.label = text;
            if (isNumber)
                m_event.numbers.emplace_back(m_argument, text);
            else
                m_event.hasArguments = true;
            return;
        }
        if (!isEvent())
            return;
        std::string* const field = m_key == "ph"     ? &m_event.phase
                                   : m_key == "name" ? &m_event.name
                                   : m_key == "cat"  ? &m_event.category
                                   : m_key == "ts"   ? &m_event.time
                                   : m_key == "dur"  ? &m_event.duration
                                   : m_key == "pid"  ? &m_event.process
                                   : m_key == "tid"  ? &m_event.thread
                                   : m_key == "id"   ? &m_event.id
                                                     : nullptr;
        if (field)
            *field = text;
    }

    std::optional<std::uint64_t> timeOf(std::string_view text) {
        const std::optional<Time> time = timeIn(text);
        if (!time || (time->isNegative && time->nanoseconds > 0)) {
            m_trace.lose(time ? "events before time 0" : "events without a time");
            return std::nullopt;
        }
        if (time->isRounded)
            m_trace.lose("parts of nanoseconds");
        return time->nanoseconds;
    }

    void tell() {
        const Event& event = m_event;
        const char phase = event.phase.size() == 1 ? event.phase[0] : '\0';
        const std::string& own = event.thread.empty() ? event.process : event.thread;
        if (phase == 'M') {
            if (event.name == "process_name")
                m_trace.nameProcess(event.process, event.label);
            else if (event.name == "thread_name")
                m_trace.nameThread(m_trace.thread(event.process, own), event.label);
            else if (event.name != "thread_sort_index" && event.name != "process_sort_index")
                m_trace.lose("metadata " + event.name);
            return;
        }
        if (std::string_view("BEXCiIRbenP").find(phase) == std::string_view::npos || phase == '\0') {
            m_trace.lose("events of phase '" + event.phase + "'");
            return;
        }
        const std::optional<std::uint64_t> time = timeOf(event.time);
        if (!time)
            return;
        if (phase == 'X' && std::ranges::find(event.numbers, "avg ms", &std::pair<std::string, std::string>::first) !=
                                event.numbers.end()) { // what compilers write at the end
            m_trace.lose("sums over events");
            return;
        }
        const bool isAsync = phase == 'b' || phase == 'e' || phase == 'n';
        const auto thread = isAsync ? m_trace.thread(event.process, event.category + ' ' + event.id)
                                    : m_trace.thread(event.process, own);
        if (phase != 'C' && (event.hasArguments || !event.numbers.empty()))
            m_trace.lose("arguments of events");
        switch (phase) {
        case 'B':
        case 'b':
            m_trace.enter(thread, *time, event.name);
            break;
        case 'E':
        case 'e':
            m_trace.leave(thread, *time);
            break;
        case 'X':
            if (event.duration.empty()) {
                m_trace.enter(thread, *time, event.name); // it has not ended
            } else if (const auto duration = timeOf(event.duration)) {
                m_trace.call(thread, *time, *duration, event.name);
            }
            break;
        case 'C':
            for (const auto& [name, value] : event.numbers)
                count(thread, *time, event.numbers.size() == 1 ? event.name : event.name + '.' + name, value);
            if (event.hasArguments)
                m_trace.lose("values of counters that are no numbers");
            break;
        default:
            m_trace.happen(thread, *time, event.name);
        }
    }

    void count(ImportedTrace::Thread thread, std::uint64_t time, const std::string& name, const std::string& value) {
        std::int64_t whole = 0;
        const char* const end = value.data() + value.size();
        if (const auto [at, error] = std::from_chars(value.data(), end, whole); error == std::errc() && at == end) {
            m_trace.count(thread, time, name, whole);
            return;
        }
        double number = 0;
        std::from_chars(value.data(), end, number);
        m_trace.count(thread, time, name, number);
    }

    ImportedTrace& m_trace;
    Event m_event;
    std::string m_key, m_argument;
    unsigned m_depth = 0, m_eventDepth = ~0u - 1;
    bool m_isList = false;
    bool m_sawEvents = false;
};

} // namespace

void readChromeJson(std::istream& in, const std::string& name, ImportedTrace& trace) {
    trace.setFrequency(1'000'000'000);
    Bytes bytes(in);
    Events events(trace);
    rapidjson::Reader reader;
    constexpr unsigned kFlags = rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseIterativeFlag |
                                rapidjson::kParseTrailingCommasFlag | rapidjson::kParseStopWhenDoneFlag |
                                rapidjson::kParseNanAndInfFlag;
    const rapidjson::ParseResult result = reader.Parse<kFlags>(bytes, events);
    if (result.IsError() && !events.sawEvents())
        throw Failure(name, fmt::format("is no JSON of trace events: {} (offset {})",
                                        rapidjson::GetParseError_En(result.Code()), result.Offset()));
    if (!events.sawEvents())
        throw Failure(name, "has no traceEvents");
    if (!result.IsError())
        return;
    if (!bytes.isAtEnd())
        trace.lose(fmt::format("what stands behind offset {}, where it is no JSON", result.Offset()));
    else if (events.isInEvent()) // writers that are stopped leave out the end of the list; that is no loss
        trace.lose("the last event, which is cut");
}

} // namespace qvx

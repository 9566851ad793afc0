/// Chrome's trace events in JSON: an array of them, or an object with one in "traceEvents". Written by browsers,
/// compilers and tracers in ways of their own: without ends, unsorted, with times as numbers of any form or as texts.
/// What was made of a trace becomes that trace again (ChromeTracks).

#include "../Verbs.h"
#include "ChromeTracks.h"
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
    /// There are no more.
    void finish() {
        if (m_tracks)
            m_tracks->finish();
    }

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
        if (m_depth + 1 == m_eventDepth && isList())
            beginEvents();
        return true;
    }
    bool EndArray(rapidjson::SizeType) {
        --m_depth;
        return true;
    }
    bool Key(const char* text, rapidjson::SizeType size, bool) {
        const std::string_view key(text, size);
        if (m_depth == 1)
            m_section = key;
        else if (isEvent() || m_depth == 2)
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
    bool Bool(bool value) {
        take(value ? "true" : "false", false);
        return true;
    }
    bool Default() { // null
        enterValue();
        return true;
    }

private:
    bool isList() const { return m_eventDepth == 2 || m_section == "traceEvents"; }
    bool isEvent() const { return m_depth == m_eventDepth && isList(); }
    bool isArgument() const { return m_depth == m_eventDepth + 1 && isList() && m_key == "args"; }

    void beginEvents() {
        m_sawEvents = true;
        if (!m_metadata["exporter"].starts_with("Quorvex ") || m_tracks)
            return;
        const auto number = [this](const char* name) {
            const std::string& text = m_metadata[name];
            std::uint64_t value = 0;
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
            return error == std::errc() && !text.empty() ? std::optional(value) : std::nullopt;
        };
        m_tracks.emplace(m_trace);
        m_tracks->setClock(number("first_tick"), number("ticks_per_second").value_or(0));
    }

    /// A value that is no text and no number.
    void enterValue() {
        if (isArgument())
            m_event.hasMore = true;
    }

    void take(std::string_view text, bool isNumber) {
        if (isArgument())
            m_event.arguments.push_back({m_argument, std::string(text), isNumber});
        if (m_depth == 2 && m_section == "metadata")
            m_metadata[m_key] = text;
        if (!isEvent())
            return;
        std::string* const field = m_key == "ph"       ? &m_event.phase
                                   : m_key == "name"   ? &m_event.name
                                   : m_key == "cat"    ? &m_event.category
                                   : m_key == "ts"     ? &m_event.time
                                   : m_key == "dur"    ? &m_event.duration
                                   : m_key == "pid"    ? &m_event.process
                                   : m_key == "tid"    ? &m_event.thread
                                   : m_key == "id"     ? &m_event.id
                                   : m_key == "thread" ? &m_event.tellingThread
                                   : m_key == "core"   ? &m_event.tellingCore
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
        const ChromeEvent& event = m_event;
        const char phase = event.phase.size() == 1 ? event.phase[0] : '\0';
        const std::string& own = event.thread.empty() ? event.process : event.thread;
        if (phase == 'M') {
            if (event.name == "process_name")
                nameProcess(event);
            else if (event.name == "thread_name" && m_tracks)
                m_tracks->name(event);
            else if (event.name == "thread_name")
                m_trace.nameThread(m_trace.thread(event.process, own), labelOf(event));
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
        if (m_tracks)
            return m_tracks->tell(event, *time);
        if (phase == 'X' && event.argument("avg ms")) { // what compilers write at the end
            m_trace.lose("sums over events");
            return;
        }
        const bool isAsync = phase == 'b' || phase == 'e' || phase == 'n';
        const auto thread = isAsync ? m_trace.thread(event.process, event.category + ' ' + event.id)
                                    : m_trace.thread(event.process, own);
        if (phase != 'C' && (event.hasMore || !event.arguments.empty()))
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
            countAll(thread, *time);
            break;
        default:
            m_trace.happen(thread, *time, event.name);
        }
    }

    void nameProcess(const ChromeEvent& event) {
        if (!m_tracks) // whose processes are told by packets
            m_trace.nameProcess(event.process, labelOf(event));
    }
    static std::string labelOf(const ChromeEvent& event) {
        const std::string* const name = event.argument("name");
        return name ? *name : std::string();
    }

    void countAll(ImportedTrace::Thread thread, std::uint64_t time) {
        const auto numbers = std::ranges::count_if(m_event.arguments, &ChromeEvent::Argument::isNumber);
        for (const auto& [name, value, isNumber] : m_event.arguments) {
            if (isNumber)
                count(thread, time, numbers == 1 ? m_event.name : m_event.name + '.' + name, value);
        }
        if (m_event.hasMore || static_cast<std::size_t>(numbers) < m_event.arguments.size())
            m_trace.lose("values of counters that are no numbers");
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
    ChromeEvent m_event;
    std::string m_section, m_key, m_argument;
    std::map<std::string, std::string> m_metadata;
    std::optional<ChromeTracks> m_tracks; ///< of a file that was made of a trace
    unsigned m_depth = 0, m_eventDepth = ~0u - 1;
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
    events.finish();
    if (!result.IsError())
        return;
    if (!bytes.isAtEnd())
        trace.lose(fmt::format("what stands behind offset {}, where it is no JSON", result.Offset()));
    else if (events.isInEvent()) // writers that are stopped leave out the end of the list; that is no loss
        trace.lose("the last event, which is cut");
}

} // namespace qvx

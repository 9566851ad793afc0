/// What "perf script" prints: a line for each sample or event, and behind samples with call chains a line for each
/// frame. What happened between two samples is not known, so they become events and no calls; switches of the scheduler
/// tell what ran where.

#include "../Verbs.h"
#include "ImportedTrace.h"
#include "Importers.h"

#include <charconv>
#include <optional>
#include <utility>

namespace qvx {

namespace {

constexpr std::string_view kBlank = " \t";

std::string_view trimmed(std::string_view text) {
    const std::size_t from = text.find_first_not_of(kBlank);
    return from == std::string_view::npos ? std::string_view()
                                          : text.substr(from, text.find_last_not_of(kBlank) + 1 - from);
}

/// The last word of a text, which it is taken from.
std::string_view takeLastWord(std::string_view& text) {
    text = trimmed(text);
    const std::size_t blank = text.find_last_of(kBlank);
    const std::string_view word = blank == std::string_view::npos ? text : text.substr(blank + 1);
    text.remove_suffix(word.size());
    return word;
}

/// The same of the first one.
std::string_view takeWord(std::string_view& text) {
    text = trimmed(text);
    const std::string_view word = text.substr(0, text.find_first_of(kBlank));
    text.remove_prefix(word.size());
    return word;
}

template <class Number> std::optional<Number> numberIn(std::string_view text, int base = 10) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return error == std::errc() && end == text.data() + text.size() && !text.empty() ? std::optional(number)
                                                                                     : std::nullopt;
}

/// Seconds with 6 to 9 digits behind the point, in nanoseconds.
std::optional<std::uint64_t> timeIn(std::string_view text) {
    const std::size_t point = text.find('.');
    if (point == std::string_view::npos || text.size() - point > 10)
        return std::nullopt;
    const auto seconds = numberIn<std::uint32_t>(text.substr(0, point));
    auto rest = numberIn<std::uint64_t>(text.substr(point + 1));
    if (!seconds || !rest)
        return std::nullopt;
    for (std::size_t digits = text.size() - point - 1; digits < 9; ++digits)
        *rest *= 10;
    return *seconds * 1'000'000'000ull + *rest;
}

/// The value behind "key=", up to the next blank that begins another "key=", or the end.
std::string_view valueOf(std::string_view text, std::string_view key) {
    std::size_t at = 0;
    while ((at = text.find(key, at)) != std::string_view::npos && at > 0 && text[at - 1] != ' ')
        ++at;
    if (at == std::string_view::npos)
        return {};
    text.remove_prefix(at + key.size());
    std::size_t end = text.find(" ==> ");
    for (std::size_t equals = text.find('='); equals != std::string_view::npos && equals < end;
         equals = text.find('=', equals + 1)) {
        const std::size_t blank = text.rfind(' ', equals);
        if (blank != std::string_view::npos)
            end = std::min(end, blank);
    }
    return text.substr(0, end);
}

/// A line that tells of an event.
struct Event {
    std::string_view command, process, thread, name, text;
    std::optional<std::uint32_t> core;
    std::uint64_t time = 0;
};

std::optional<Event> eventIn(std::string_view line) {
    Event event;
    for (std::size_t at = line.find(": "); at != std::string_view::npos; at = line.find(": ", at + 1)) {
        std::string_view before = line.substr(0, at);
        const auto time = timeIn(takeLastWord(before));
        if (!time)
            continue;
        event.time = *time;
        std::string_view word = takeLastWord(before);
        if (word.starts_with('[') && word.ends_with(']')) {
            event.core = numberIn<std::uint32_t>(word.substr(1, word.size() - 2));
            word = takeLastWord(before);
        }
        const std::size_t slash = word.find('/');
        event.thread = slash == std::string_view::npos ? word : word.substr(slash + 1);
        event.process = word.substr(0, slash);
        if (!numberIn<std::int64_t>(event.thread))
            continue;
        event.command = trimmed(before);
        std::string_view rest = line.substr(at + 1);
        std::string_view name = takeWord(rest);
        if (numberIn<std::uint64_t>(name)) // the period of a sample
            name = takeWord(rest);
        if (!name.ends_with(':'))
            continue;
        event.name = name.substr(0, name.size() - 1);
        event.text = trimmed(rest);
        return event;
    }
    return std::nullopt;
}

class Reading {
public:
    explicit Reading(ImportedTrace& trace) : m_trace(trace) {}

    bool isGood() const { return m_isGood; }

    void look(std::string_view line) {
        const bool isFrame = line.starts_with('\t');
        if (trimmed(line).empty() || line.starts_with('#')) {
            tell();
        } else if (isFrame || (m_isOpen && line.starts_with("  ") && !eventIn(line))) {
            frame(trimmed(line));
        } else {
            tell();
            if (const auto event = eventIn(line))
                look(*event);
            else
                m_trace.lose("lines that tell no event");
        }
    }
    /// Tells the event that waits for its frames.
    void tell() {
        if (!std::exchange(m_isOpen, false))
            return;
        m_trace.happen(m_thread, m_time, m_name, m_core, m_address);
        if (m_frames > 1)
            m_trace.lose("callers in call chains", m_frames - 1);
    }

private:
    /// Threads have numbers of their own in the whole system. Not all lines tell their process: else it is called like
    /// its first thread.
    ImportedTrace::Thread threadOf(std::string_view number) {
        const ImportedTrace::Thread thread = m_trace.thread({}, number);
        if (thread >= m_threads) {
            m_threads = thread + 1;
            m_trace.setProcess(thread, number);
        }
        return thread;
    }

    void look(const Event& event) {
        m_isGood = true;
        m_thread = threadOf(event.thread);
        if (event.process != event.thread)
            m_trace.setProcess(m_thread, event.process);
        if (!event.command.empty()) {
            m_trace.nameThread(m_thread, event.command);
            if (event.process == event.thread)
                m_trace.nameProcess(event.process, event.command);
        }
        const std::uint32_t core = event.core.value_or(~std::uint32_t{0});
        if (event.name == "sched:sched_switch" && event.core) {
            const auto switched = [&](std::string_view number, std::string_view command) {
                const auto thread = threadOf(valueOf(event.text, number));
                m_trace.nameThread(thread, valueOf(event.text, command));
                return thread;
            };
            if (valueOf(event.text, "prev_pid=") != "0")
                m_trace.stop(switched("prev_pid=", "prev_comm="), event.time, core);
            if (valueOf(event.text, "next_pid=") != "0")
                m_trace.run(switched("next_pid=", "next_comm="), event.time, core);
            return;
        }
        m_isOpen = true;
        m_time = event.time;
        m_core = core;
        m_name = event.name;
        m_address = ~std::uint64_t{0};
        m_frames = 0;
        std::string_view text = event.text;
        const std::string_view address = takeWord(text);
        if (event.name.find("sched:") != 0 && numberIn<std::uint64_t>(address, 16)) // the one frame stands in the line
            frame(event.text);
        else if (!event.text.empty())
            m_trace.message(event.time, std::string(event.command) + ' ' + std::string(event.thread) + ' ' +
                                            std::string(event.name) + ": " + std::string(event.text));
    }

    /// "ADDRESS SYMBOL+0xOFFSET (OBJECT)", the innermost one first.
    void frame(std::string_view text) {
        if (!m_isOpen || ++m_frames > 1)
            return;
        if (const auto address = numberIn<std::uint64_t>(takeWord(text), 16))
            m_address = *address;
        text = trimmed(text);
        text = trimmed(text.substr(0, text.rfind(" (")));
        text = text.substr(0, text.rfind("+0x"));
        if (!text.empty() && text != "[unknown]")
            m_name.append(" in ").append(text);
    }

    ImportedTrace& m_trace;
    ImportedTrace::Thread m_threads = 0; ///< how many there are
    bool m_isGood = false;
    bool m_isOpen = false; ///< an event waits for its frames:
    ImportedTrace::Thread m_thread = 0;
    std::uint64_t m_time = 0, m_address = 0, m_frames = 0;
    std::uint32_t m_core = 0;
    std::string m_name;
};

} // namespace

void readPerfScript(std::istream& in, const std::string& name, ImportedTrace& trace) {
    trace.setFrequency(1'000'000'000);
    Reading reading(trace);
    for (std::string line; std::getline(in, line);)
        reading.look(line);
    reading.tell();
    if (!reading.isGood())
        throw Failure(name, "has no line of perf script, for which it is taken; --format tells what it is");
}

} // namespace qvx

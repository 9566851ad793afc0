#include "Arguments.h"
#include "Json.h"
#include "Output.h"
#include "PacketJson.h"
#include "Print.h"
#include "Selection.h"
#include "Story.h"
#include "TimeText.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/analysis/EventComparison.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/analysis/TraceEvents.h"
#include "quorvex/analysis/TraceSpan.h"
#include "quorvex/format/Digits.h"

#include <fmt/format.h>

#include <algorithm>
#include <deque>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;
using Side = EventComparison::Side;

constexpr std::string_view kSideWords[] = {"first", "second"};

// What the exit codes are here, as those who compare files know them; damage in traces that are the same is a loss.
constexpr ExitCode kSame = Done, kDifferent = Failed, kTrouble = WrongUse;

/// So many events are looked through for a place where the traces tell the same again, which so many tell.
constexpr std::size_t kLookAhead = 1024, kMeeting = 4;

enum class DiffFormat : std::uint8_t { Text, JSON };

struct DiffOptions {
    std::string files[2];
    EventComparison::Rules rules;
    std::uint64_t context = 3;
    bool all = false;
    DiffFormat format = DiffFormat::Text;
    Selection selection;
    Output output;
};

/// An event that is kept to be shown.
struct Kept {
    std::uint64_t number = 0; ///< among those that are compared, from 1
    std::uint64_t offset = 0;
    std::string bytes;
};

/// One of the two traces.
class Trace {
public:
    Trace(const std::string& path, const Selection& told, EventComparison& comparison, Side side)
        : m_selection(told), m_comparison(comparison), m_side(side), m_input(path), m_events(m_input) {
        m_selection.begin({path});
    }

    /// Goes to the next event that is compared; false at the end.
    bool next() {
        if (m_ahead.empty())
            return read();
        m_held = std::move(m_ahead.front());
        m_ahead.pop_front();
        m_bytes = m_held.bytes;
        m_number = m_held.number;
        m_offset = m_held.offset;
        return true;
    }

    std::string_view bytes() const { return m_bytes; }
    std::uint64_t number() const { return m_number; }
    std::uint64_t offset() const { return m_offset; }
    void keep(Kept& event) const {
        event.number = m_number;
        event.offset = m_offset;
        event.bytes = m_bytes;
    }
    /// This event and those behind it, as far as is looked; next() gives none of them any more.
    std::vector<Kept> takeAhead() {
        std::vector<Kept> events;
        do
            keep(events.emplace_back());
        while (events.size() < kLookAhead && next());
        return events;
    }
    /// Has next() give these, which were taken.
    void giveBack(std::vector<Kept>& events, std::size_t from) {
        m_ahead.assign(std::move_iterator(events.begin() + static_cast<std::ptrdiff_t>(from)),
                       std::move_iterator(events.end()));
    }
    const TraceInput& input() const { return m_input; }
    Side side() const { return m_side; }
    const TraceSpan& span() const { return m_span; }
    /// What the values of a counter are that have been read.
    CounterType typeOf(std::uint32_t counter) const { return m_counters.at(counter).type(); }
    /// A tick, and how long after the first one that is.
    std::string timeText(std::uint64_t tick) const {
        if (m_span.frequency == 0 || m_span.first == kUnknown64 || tick < m_span.first)
            return std::to_string(tick);
        const std::uint64_t nanoseconds = TimeBase::nanosecondsOf(tick - m_span.first, m_span.frequency);
        return fmt::format("{} ({} s)", tick, secondsText(nanoseconds));
    }

private:
    bool read() {
        while (m_events.next()) {
            const CTraceCursor& packet = m_events.packet();
            m_comparison.note(m_side, m_events.bytes());
            if (factsOf(packet.TraceCode()).isCounterValue)
                noteValue(packet);
            m_span.look(packet);
            if (m_selection.takes(0, packet)) {
                m_bytes = m_events.bytes();
                m_number = ++m_read;
                m_offset = packet.offset();
                return true;
            }
        }
        return false;
    }

    void noteValue(const CTraceCursor& packet) {
        if (const auto value = counterValueOf(*PacketPointer(packet.packet())); value && value->isTyped)
            m_counters[value->counter].note(value->bits);
    }

    Selection m_selection;
    EventComparison& m_comparison;
    Side m_side;
    TraceInput m_input;
    TraceEvents m_events;
    TraceSpan m_span; ///< as far as it has been read
    std::map<std::uint32_t, CounterSort> m_counters;
    std::uint64_t m_read = 0; ///< events
    // The present event.
    std::string_view m_bytes;
    std::uint64_t m_number = 0;
    std::uint64_t m_offset = 0;
    Kept m_held;              ///< where it was looked at before
    std::deque<Kept> m_ahead; ///< those behind it, which were too
};

bool holdsText(const EventField& field) {
    return field.name == "Text";
}

/// The number that a field holds; none where it is a row of bytes.
std::optional<std::uint64_t> numberIn(const EventField& field) {
    const std::size_t size = field.bytes.size();
    if (holdsText(field) || field.meaning == FieldMeaning::Bytes || size == 0 || size > sizeof(std::uint64_t))
        return std::nullopt;
    char bytes[sizeof(std::uint64_t)] = {};
    std::ranges::copy(field.bytes, bytes);
    return loadLittleEndian<std::uint64_t>(bytes);
}

bool isUnknown(const EventField& field) {
    return field.bytes.size() >= 4 && factsOf(field.meaning).canBeUnknown &&
           field.bytes.find_first_not_of('\xff') == std::string::npos;
}

/// What a field is called here.
std::string_view wordFor(std::string_view field) {
    constexpr std::pair<std::string_view, std::string_view> kWords[] = {
        {"Tick", "tick"},  {"Timestamp", "tick"}, {"HWCtx", "core"}, {"SWCtx", "thread"},
        {"IP", "address"}, {"Text", "text"},      {"Kind", "kind"}};
    const auto* row = std::ranges::find(kWords, field, &std::pair<std::string_view, std::string_view>::first);
    return row == std::end(kWords) ? field : row->second;
}

bool isHexadecimal(const EventField& field) {
    const FieldLook look = factsOf(field.meaning).look;
    return look == FieldLook::Hexadecimal || look == FieldLook::Address;
}

class Comparison {
public:
    explicit Comparison(DiffOptions& options)
        : m_options(options),
          m_comparison(options.rules),
          m_first(options.files[0], options.selection, m_comparison, EventComparison::First),
          m_second(options.files[1], options.selection, m_comparison, EventComparison::Second) {}

    ExitCode run(std::ostream& out) {
        for (bool goesOn = true; goesOn && findDifference(out);) {
            if (m_differences++ == 0 && isText())
                qvx::print(out, "--- {}\n+++ {}\n", shown(m_first.input().name()), shown(m_second.input().name()));
            showBefore(out);
            goesOn = m_hasFirst && m_hasSecond ? showDifference(out) : showRest(out);
        }
        if (m_options.all && m_differences > 0 && isText())
            qvx::print(out, "{} difference{}\n", m_differences, plural(m_differences));
        if (m_first.number() == 0 && m_second.number() == 0 && !m_options.selection.takesAll())
            tell("neither trace has anything that is selected");
        ExitCode exitCode = m_differences == 0 ? kSame : kDifferent;
        for (const Trace* trace : {&m_first, &m_second}) {
            if (const ExitCode damage = trace->input().reportDamage(); damage != Done && exitCode == kSame)
                exitCode = damage;
        }
        return exitCode;
    }

private:
    /// Events that are the same.
    struct Pair {
        Kept first;
        std::uint64_t secondOffset = 0;
    };
    using Events = std::vector<Kept>;

    bool isText() const { return m_options.format == DiffFormat::Text; }

    /// Goes on to events that differ, or of which one is missing. False where there are none, or no more are asked for.
    bool findDifference(std::ostream& out) {
        while (m_differences == 0 || m_options.all || m_toShow > 0) {
            m_hasFirst = m_first.next();
            m_hasSecond = m_second.next();
            if (!m_hasFirst && !m_hasSecond)
                return false;
            if (!m_hasFirst || !m_hasSecond || !m_comparison.areSame(m_first.bytes(), m_second.bytes()))
                return m_differences == 0 || m_options.all;
            if (m_toShow > 0) {
                --m_toShow;
                Pair pair;
                keep(pair);
                show(out, pair);
            } else if (m_options.context > 0) {
                if (m_before.size() < m_options.context)
                    m_before.emplace_back();
                keep(m_before[static_cast<std::size_t>(m_passed++ % m_options.context)]);
            }
        }
        return false;
    }

    void keep(Pair& pair) const {
        m_first.keep(pair.first);
        pair.secondOffset = m_second.offset();
    }

    void showBefore(std::ostream& out) {
        if (m_differences > 1 && m_passed > m_before.size() && isText())
            qvx::print(out, "...\n");
        std::ranges::sort(m_before, {}, [](const Pair& pair) { return pair.first.number; });
        for (const Pair& pair : m_before)
            show(out, pair);
        m_before.clear();
        m_passed = 0;
    }

    /// Shows the events of both up to where they are the same again; whether that is found.
    bool showDifference(std::ostream& out) {
        const std::uint64_t number = m_first.number();
        std::string fields;
        for (const std::string_view field : m_comparison.differences(m_first.bytes(), m_second.bytes()))
            fields.append(fields.empty() ? "" : ", ").append(wordFor(field));
        Events first = m_first.takeAhead(), second = m_second.takeAhead();
        const auto meeting = meetingOf(first, second);
        const auto most = static_cast<std::size_t>(
            m_options.all ? kLookAhead : std::min<std::uint64_t>(m_options.context, kLookAhead - 1) + 1);
        const auto [ofFirst, ofSecond] =
            meeting.value_or(std::pair(std::min(first.size(), most), std::min(second.size(), most)));
        if (ofFirst == 0 || ofSecond == 0)
            fields.clear(); // of events that stand in one of them alone
        for (std::size_t i = 0; i < ofFirst; ++i)
            show(out, m_first, first[i], i == 0 ? fields : "");
        for (std::size_t i = 0; i < ofSecond; ++i)
            show(out, m_second, second[i], i == 0 ? fields : "");
        if (isText() && !fields.empty())
            qvx::print(out, "  event {} differs: {}\n", number, fields);
        if (!meeting) {
            if (isText() && std::max(first.size(), second.size()) == kLookAhead)
                qvx::print(out, "Nothing that is the same follows within {} events.\n", kLookAhead);
            return false;
        }
        m_first.giveBack(first, ofFirst);
        m_second.giveBack(second, ofSecond);
        m_toShow = m_options.context;
        return true;
    }

    /// Where the least must be left out for the rest to begin with the same events.
    std::optional<std::pair<std::size_t, std::size_t>> meetingOf(const Events& first, const Events& second) {
        for (std::size_t sum = 1; sum < first.size() + second.size(); ++sum) {
            for (std::size_t i = sum < second.size() ? 0 : sum - second.size() + 1; i <= sum && i < first.size(); ++i) {
                if (meet(first, i, second, sum - i))
                    return std::pair(i, sum - i);
            }
        }
        return std::nullopt;
    }
    bool meet(const Events& first, std::size_t i, const Events& second, std::size_t j) {
        for (std::size_t end = i + kMeeting; i < end && (i < first.size() || j < second.size()); ++i, ++j) {
            if (i == first.size() || j == second.size() || !m_comparison.areSame(first[i].bytes, second[j].bytes))
                return false;
        }
        return true;
    }

    /// Shows how the trace goes on that does not end here.
    bool showRest(std::ostream& out) {
        Trace& longer = m_hasFirst ? m_first : m_second;
        const Trace& shorter = m_hasFirst ? m_second : m_first;
        std::uint64_t more = 0;
        do {
            Kept event;
            longer.keep(event);
            if (more++ <= m_options.context || m_options.all)
                show(out, longer, event);
        } while (longer.next());
        if (isText())
            qvx::print(out, "{} ends here; {} has {} more event{}\n", shown(shorter.input().name()),
                       shown(longer.input().name()), more, plural(more));
        else
            out << JsonLine()
                       .add("ends", kSideWords[shorter.side()])
                       .add("event", shorter.number())
                       .add("more", more)
                       .text();
        return false;
    }

    void show(std::ostream& out, const Pair& pair) { show(out, m_first, pair.first, {}, pair.secondOffset); }
    /// Shows an event of one trace, or with its offset in the second of both.
    void show(std::ostream& out, const Trace& trace, const Kept& event, const std::string& differences = {},
              std::optional<std::uint64_t> secondOffset = std::nullopt) {
        CTraceCursor cursor(event.bytes);
        cursor.next();
        const PacketPointer packet(cursor.packet());
        if (!isText()) {
            JsonLine line;
            line.add("in", secondOffset ? "both" : kSideWords[trace.side()])
                .add("event", event.number)
                .add("offset", event.offset);
            if (secondOffset)
                line.add("offset2", *secondOffset);
            addPacket(line, *packet, cursor.tick(), trace.span(), m_comparison.namesOf(trace.side()));
            if (!differences.empty())
                line.add("differs", differences);
            out << line.text();
            return;
        }
        const std::string second =
            secondOffset && *secondOffset != event.offset ? fmt::format(" and {}", *secondOffset) : std::string();
        qvx::print(out, "{} event {}, offset {}{}: {}",
                   secondOffset                  ? ' '
                   : trace.side() == Side::First ? '-'
                                                 : '+',
                   event.number, event.offset, second, CTCodeInfo::TCodeToName(packet->TraceCode()));
        const auto counted = counterValueOf(*packet);
        const char* between = " ";
        for (const EventField& field : m_comparison.fieldsOf(event.bytes)) {
            if (isUnknown(field) || (holdsText(field) && field.bytes.empty()))
                continue;
            qvx::print(out, "{}{}", between, wordsFor(trace, field, counted));
            between = ", ";
        }
        out << '\n';
    }

    /// A field with what it is called; of a counter, with its value.
    std::string wordsFor(const Trace& trace, const EventField& field, const std::optional<CountedValue>& counted) {
        const std::optional<std::uint64_t> number = numberIn(field);
        if (field.name == "SWCtx")
            return shown(m_comparison.namesOf(trace.side()).threadText(static_cast<std::uint32_t>(*number)));
        std::string words(wordFor(field.name));
        words += ' ';
        if (counted && counted->isTyped && field.name == "Value")
            appendCounter(words, counted->bits, trace.typeOf(counted->counter));
        else if (holdsText(field))
            words += "\"" + shown(field.bytes) + "\"";
        else if (number && field.meaning == FieldMeaning::Tick)
            words += trace.timeText(*number);
        else if (number && !isHexadecimal(field))
            words += std::to_string(*number);
        else
            words += field.bytes.empty() ? "none" : hexNumber(field.bytes);
        if (const std::string& name = m_comparison.nameOf(trace.side(), field); !name.empty())
            words += " " + shown(name);
        return words;
    }

    DiffOptions& m_options;
    EventComparison m_comparison;
    Trace m_first, m_second;
    bool m_hasFirst = false, m_hasSecond = false; ///< what they have gone to
    std::uint64_t m_differences = 0;
    std::vector<Pair> m_before; ///< the last events that were the same, as a ring
    std::uint64_t m_passed = 0; ///< those that have been in it
    std::uint64_t m_toShow = 0; ///< events that are the same and are shown behind a difference
};

ExitCode diff(DiffOptions& options) {
    if (options.files[0] == "-" && options.files[1] == "-")
        throw Misuse("FILE2", "only one of the two can be standard input");
    try {
        options.output.check({options.files[0], options.files[1]});
        Comparison comparison(options);
        std::ostream& out = options.output.target().open();
        const ExitCode exitCode = comparison.run(out);
        options.output.target().commit();
        return exitCode;
    } catch (const Misuse&) {
        throw;
    } catch (const NobodyReads&) {
        return kDifferent;
    } catch (const std::exception& error) { // which must not pass for a difference
        tell(error.what());
        return kTrouble;
    }
}

} // namespace

void addDiff(Program& program) {
    auto options = std::make_shared<DiffOptions>();
    Verb verb = program.add("diff", "Show where two traces tell different things");
    verb.option("FILE1", options->files[0], "Trace file; - for standard input").required();
    verb.option("FILE2", options->files[1], "The trace that it is compared with").required();
    verb.flag("--ignore-time", options->rules.ignoreTime, "Ticks do not count");
    verb.flag("--ignore-place", options->rules.ignorePlace, "Cores and threads do not count");
    verb.flag("--by-name", options->rules.byName,
              "Functions, counters and so on are the same when their names are, whatever their numbers");
    verb.option("--context", options->context, "Show N events before and behind a difference (3)");
    verb.flag("--all", options->all, "Show all differences, where the traces tell the same again in between");
    verb.choice("--format", options->format, {{"text", DiffFormat::Text}, {"json", DiffFormat::JSON}},
                "text (default), json: an event a line");
    options->selection.addTo(verb, Selection::OfTrace);
    options->output.addOptions(verb);
    verb.footer("Example: qvx diff --ignore-time --ignore-place --by-name run1/thread_17.qvx run2/thread_23.qvx\n"
                "Layout, form and padding of the traces do not matter. Exit codes: 0 the same, which is not said;\n"
                "1 different; 2 wrong use, or a failure; 3 the same as far as they can be read, but damaged or cut.");
    verb.runs([options] { return diff(*options); });
}

} // namespace qvx

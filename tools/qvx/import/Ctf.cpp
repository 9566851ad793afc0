/// The Common Trace Format, by libbabeltrace2: a directory with a file "metadata", or one that has such ones somewhere
/// below it. What `qvx export` has written becomes the packets that it was; in what others have written, the names of
/// events and fields tell what they mean.

#include "../Verbs.h"
#include "CodeModules.h"
#include "CtfPackets.h"
#include "ImportedTrace.h"
#include "Importers.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/packets/PacketKinds.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <babeltrace2/babeltrace.h>
#include <cstring>
#include <exception>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <unordered_map>
#include <utility>

namespace qvx {

namespace {

using namespace Quorvex;

constexpr std::uint32_t kNoCore = ~std::uint32_t{0};

/// Gives back what is counted by references.
template <auto kPut> struct Put {
    template <class T> void operator()(T* object) const { kPut(object); }
};
template <class T, auto kPut> using Held = std::unique_ptr<T, Put<kPut>>;

/// Why the library has failed: what failed first, without the values behind it. Empty where it tells nothing.
std::string takeCause() {
    const bt_error* const error = bt_current_thread_take_error();
    std::string text;
    if (error) {
        if (bt_error_get_cause_count(error) > 0)
            text = bt_error_cause_get_message(bt_error_borrow_cause_by_index(error, 0));
        bt_error_release(error);
    }
    return text.substr(0, text.find(": "));
}

// Names by which tracers tell what they know of an event beside its own fields.
constexpr std::string_view kThreads[] = {"vtid", "tid", "perf_tid"};
constexpr std::string_view kProcesses[] = {"vpid", "pid", "perf_pid"};
constexpr std::string_view kAddresses[] = {"ip", "perf_ip"};
constexpr std::string_view kThreadNames[] = {"procname"};
constexpr std::string_view kCores[] = {"cpu_id", "perf_cpu"};

/// Events that tell of a thread by fields of those names; what is not there is empty.
struct ThreadEvent {
    std::string_view event, thread, process, name;
};
constexpr ThreadEvent kThreadEvents[] = {
    {"lttng_statedump_process_state", "tid", "pid", "name"},
    {"sched_process_fork", "child_tid", "child_pid", "child_comm"},
    {"sched_wakeup", "tid", "", "comm"},
    {"perf_comm", "tid", "pid", "comm"},
};

/// Words in names of events of which the first begins what the second ends.
constexpr std::pair<std::string_view, std::string_view> kPairs[] = {
    {"entry", "exit"}, {"enter", "exit"}, {"enter", "leave"}, {"begin", "end"}, {"start", "end"}, {"start", "stop"},
};

/// Events that tell where programs and libraries stand in memory.
constexpr std::string_view kModules[] = {"bin_info", "build_id", "load", "dlopen"};

/// What is called by such names is a function that a field tells: one of these.
constexpr std::string_view kCalls[] = {"", "func", "function", "call"};
constexpr std::string_view kFunctions[] = {"name", "function", "func"};
constexpr char kAddress[] = "addr";
constexpr char kCallSite[] = "call_site";
constexpr char kBuildId[] = "build_id";

template <std::size_t kCount> bool isOneOf(const std::string_view (&names)[kCount], std::string_view name) {
    return std::ranges::find(names, name) != std::end(names);
}

bool isWordEnd(std::string_view text, std::size_t at) {
    return at >= text.size() || text[at] == '_' || text[at] == ':';
}

/// Calls `look(before, after)` with what stands around each occurrence of a word in a name.
template <class Look> bool eachWord(std::string_view name, std::string_view word, Look look) {
    for (std::size_t at = name.find(word); at != std::string_view::npos; at = name.find(word, at + 1)) {
        if ((at == 0 || isWordEnd(name, at - 1)) && isWordEnd(name, at + word.size()) &&
            look(name.substr(0, at), name.substr(at + word.size())))
            return true;
    }
    return false;
}

/// The name without the provider in front of it.
std::string_view ownName(std::string_view name) {
    const std::size_t colon = name.rfind(':');
    return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

bool isTrace(const std::filesystem::path& directory) {
    std::error_code error;
    return std::filesystem::is_regular_file(directory / "metadata", error);
}

/// What is known of events of a class.
struct EventFacts {
    enum class Sort : std::uint8_t { Happens, Switches, SwitchedIn, SwitchedOut, Begins, Ends };

    Held<const bt_event_class, bt_event_class_put_ref> held; ///< so that there is no other one at its place
    std::string name;
    Sort sort = Sort::Happens;
    std::string function;  ///< that begins or ends
    bool isCall = false;   ///< of which a field tells the function
    bool isPerf = false;   ///< it is one of those by which perf tells of threads
    bool isModule = false; ///< it may tell where a file of code stands
    const ThreadEvent* thread = nullptr;
    std::optional<CtfPackets> packets; ///< of an event that was a packet
};

/// The fields of an event by name, wherever they are.
class EventFields {
public:
    /// What perf tells of threads beside its samples has their numbers in the payload.
    EventFields(const bt_event* event, const bt_field* packet, bool isPerf)
        : m_structures{bt_event_borrow_payload_field_const(event), bt_event_borrow_specific_context_field_const(event),
                       bt_event_borrow_common_context_field_const(event), packet},
          m_isPerf(isPerf) {}

    const bt_field* payload() const { return m_structures[0]; }
    const bt_field* context(std::size_t which) const { return m_structures[1 + which]; }
    static constexpr std::size_t kContexts = 2; ///< without that of the packet

    /// A number of that name in the payload alone.
    std::optional<std::int64_t> own(std::string_view name) const { return integer(member(payload(), name)); }
    std::string_view ownText(std::string_view name) const { return text(member(payload(), name)); }

    /// Small numbers in a row.
    std::string ownBytes(std::string_view name) const {
        std::string bytes;
        const bt_field* const row = member(payload(), name);
        if (row && bt_field_class_type_is(bt_field_get_class_type(row), BT_FIELD_CLASS_TYPE_ARRAY)) {
            for (std::uint64_t i = 0; i < bt_field_array_get_length(row); ++i)
                bytes +=
                    static_cast<char>(integer(bt_field_array_borrow_element_field_by_index_const(row, i)).value_or(0));
        }
        return bytes;
    }

    /// A field of one of those names, also in the contexts.
    template <std::size_t kCount> const bt_field* find(const std::string_view (&names)[kCount]) const {
        for (const bt_field* structure : m_structures) {
            for (const std::string_view name : names) {
                // In the payload, plain names tell of other threads.
                if (structure != payload() || m_isPerf || name.starts_with("perf_")) {
                    if (const bt_field* const field = member(structure, name))
                        return field;
                }
            }
        }
        return nullptr;
    }
    template <std::size_t kCount> std::optional<std::int64_t> number(const std::string_view (&names)[kCount]) const {
        return integer(find(names));
    }

    static std::optional<std::int64_t> integer(const bt_field* field) {
        if (!field)
            return std::nullopt;
        const bt_field_class_type type = bt_field_get_class_type(field);
        if (bt_field_class_type_is(type, BT_FIELD_CLASS_TYPE_UNSIGNED_INTEGER))
            return static_cast<std::int64_t>(bt_field_integer_unsigned_get_value(field));
        if (bt_field_class_type_is(type, BT_FIELD_CLASS_TYPE_SIGNED_INTEGER))
            return bt_field_integer_signed_get_value(field);
        return std::nullopt;
    }
    static std::string_view text(const bt_field* field) {
        return field && bt_field_get_class_type(field) == BT_FIELD_CLASS_TYPE_STRING
                   ? std::string_view(bt_field_string_get_value(field))
                   : std::string_view();
    }

private:
    static const bt_field* member(const bt_field* structure, std::string_view name) {
        return structure ? bt_field_structure_borrow_member_field_by_name_const(structure, name.data()) : nullptr;
    }

    std::array<const bt_field*, 1 + kContexts + 1> m_structures;
    bool m_isPerf;
};

class Reading {
public:
    Reading(const std::string& name, ImportedTrace& trace) : m_name(name), m_trace(trace) {}

    void run() {
        const std::vector<std::string> directories = tracesIn();
        m_isAlone = directories.size() == 1;
        const Held<bt_graph, bt_graph_put_ref> graph(bt_graph_create(0));
        const Held<const bt_plugin, bt_plugin_put_ref> ctf = plugin("ctf");
        const bt_component_class_source* const files =
            bt_plugin_borrow_source_component_class_by_name_const(ctf.get(), "fs");
        for (const std::string& directory : directories) {
            const Held<bt_value, bt_value_put_ref> parameters(bt_value_map_create());
            bt_value* inputs = nullptr;
            bt_value_map_insert_empty_array_entry(parameters.get(), "inputs", &inputs);
            bt_value_array_append_string_element(inputs, directory.c_str());
            const bt_component_source* source = nullptr;
            check(bt_graph_add_source_component(graph.get(), files, directory.c_str(), parameters.get(),
                                                BT_LOGGING_LEVEL_NONE, &source));
            for (std::uint64_t i = 0; i < bt_component_source_get_output_port_count(source); ++i)
                connect(graph.get(), bt_component_source_borrow_output_port_by_index_const(source, i));
        }
        if (m_ports == 0)
            return; // no stream has a packet
        const int status = bt_graph_run(graph.get());
        if (m_exception) {
            bt_current_thread_clear_error();
            std::rethrow_exception(m_exception);
        }
        check(status);
        if (!m_isGood && !m_cause.empty())
            throw Failure(m_name, m_cause);
        if (m_end > m_told)
            tellTick(m_end);
        for (const auto& [key, at] : m_addresses)
            m_trace.nameFunction(key, m_modules.nameOf(at.first, at.second));
    }

private:
    using Thread = ImportedTrace::Thread;

    /// What is known of a stream.
    struct Stream {
        bool isOwn = false; ///< its events were packets
        bool hasClock = false;
        std::uint64_t frequency = 0, shift = 0; ///< added to its ticks, once they are those of the trace
        std::optional<Thread> thread;           ///< of events of which none is known
    };

    void check(int status) const {
        if (status != 0)
            throw Failure(m_name, "libbabeltrace2: " + takeCause());
    }

    static Held<const bt_plugin, bt_plugin_put_ref> plugin(const char* name) {
        const bt_plugin* found = nullptr;
        if (bt_plugin_find(name, BT_TRUE, BT_TRUE, BT_TRUE, BT_TRUE, BT_FALSE, &found) != BT_PLUGIN_FIND_STATUS_OK) {
            bt_current_thread_clear_error();
            throw Failure("libbabeltrace2", fmt::format("has no plugin '{}'", name));
        }
        return Held<const bt_plugin, bt_plugin_put_ref>(found);
    }

    /// The directory, or those below it that are traces: tracers write one for the kernel and one for programs.
    std::vector<std::string> tracesIn() const {
        std::vector<std::string> found;
        if (isTrace(m_name))
            return {m_name};
        std::error_code error;
        for (std::filesystem::recursive_directory_iterator at(m_name, error), end; !error && at != end;
             at.increment(error)) {
            if (at->is_directory(error) && isTrace(at->path()))
                found.push_back(at->path().string());
        }
        if (error)
            throw Failure(m_name, error.message());
        if (found.empty())
            throw Failure(m_name, "is no CTF trace: neither in it nor below is a file 'metadata'");
        std::ranges::sort(found);
        return found;
    }

    /// One after the other gets a sink, which brings its iterator. They are all asked when the first sink is to consume
    /// something. (The library's own way to the order of time ends the program after some damage.)
    void connect(bt_graph* graph, const bt_port_output* port) {
        const bt_component_sink* sink = nullptr;
        check(bt_graph_add_simple_sink_component(graph, std::to_string(m_ports++).c_str(), take, consume, nullptr, this,
                                                 &sink));
        check(
            bt_graph_connect_ports(graph, port, bt_component_sink_borrow_input_port_by_index_const(sink, 0), nullptr));
    }

    static bt_graph_simple_sink_component_initialize_func_status take(bt_message_iterator* iterator, void* data) {
        static_cast<Reading*>(data)->m_sources.push_back({iterator});
        return BT_GRAPH_SIMPLE_SINK_COMPONENT_INITIALIZE_FUNC_STATUS_OK;
    }

    /// No exception may go through the library.
    static bt_graph_simple_sink_component_consume_func_status consume(bt_message_iterator*, void* data) {
        Reading& reading = *static_cast<Reading*>(data);
        try {
            reading.readAll();
        } catch (...) {
            reading.m_exception = std::current_exception();
        }
        for (Source& source : reading.m_sources) {
            while (source.at < source.count)
                source.put();
        }
        return reading.m_exception ? BT_GRAPH_SIMPLE_SINK_COMPONENT_CONSUME_FUNC_STATUS_ERROR
                                   : BT_GRAPH_SIMPLE_SINK_COMPONENT_CONSUME_FUNC_STATUS_END;
    }

    /// What a port gives.
    struct Source {
        bt_message_iterator* iterator;
        bt_message_array_const messages = nullptr;
        std::uint64_t count = 0, at = 0; ///< of messages; those from there on are ours
        std::uint64_t time = 0;          ///< of the event that is next
        bool isEnded = false;

        void put() { bt_message_put_ref(messages[at++]); }
    };

    /// Looks at all events in the order of time.
    void readAll() {
        std::vector<Source*> heap;
        const auto isLater = [](const Source* one, const Source* other) {
            return std::pair(one->time, one) > std::pair(other->time, other);
        };
        for (Source& source : m_sources) {
            if (advance(source))
                heap.push_back(&source);
        }
        std::ranges::make_heap(heap, isLater);
        while (!heap.empty()) {
            std::ranges::pop_heap(heap, isLater);
            Source& source = *heap.back();
            look(bt_message_event_borrow_event_const(source.messages[source.at]), source.time);
            source.put();
            if (advance(source))
                std::ranges::push_heap(heap, isLater);
            else
                heap.pop_back();
        }
    }

    /// Goes on to the next event that has a time; false where there is none.
    bool advance(Source& source) {
        while (source.at < source.count || fetch(source)) {
            const bt_message* const message = source.messages[source.at];
            if (bt_message_get_type(message) == BT_MESSAGE_TYPE_EVENT) {
                if (const auto time = timeOf(message)) {
                    source.time = *time;
                    return true;
                }
            } else {
                look(message);
            }
            source.put();
        }
        return false;
    }

    bool fetch(Source& source) {
        source.at = source.count = 0;
        if (source.isEnded)
            return false;
        const bt_message_iterator_next_status status =
            bt_message_iterator_next(source.iterator, &source.messages, &source.count);
        if (status != BT_MESSAGE_ITERATOR_NEXT_STATUS_OK)
            source.count = 0;
        // Behind some messages, damage is told by an error alone.
        const std::string cause = takeCause();
        source.isEnded = status != BT_MESSAGE_ITERATOR_NEXT_STATUS_OK || !cause.empty();
        if (!cause.empty()) {
            m_cause = cause;
            m_trace.lose("the rest of a stream, which cannot be read: " + cause);
        }
        return source.count > 0;
    }

    void look(const bt_message* message) {
        switch (bt_message_get_type(message)) {
        case BT_MESSAGE_TYPE_STREAM_BEGINNING:
            begin(bt_message_stream_beginning_borrow_stream_const(message));
            break;
        case BT_MESSAGE_TYPE_PACKET_END: {
            const bt_stream* const stream =
                bt_packet_borrow_stream_const(bt_message_packet_end_borrow_packet_const(message));
            if (m_streams[stream].isOwn &&
                bt_stream_class_packets_have_end_default_clock_snapshot(bt_stream_borrow_class_const(stream)))
                m_end = ownTick(bt_message_packet_end_borrow_default_clock_snapshot_const(message));
            break;
        }
        case BT_MESSAGE_TYPE_DISCARDED_EVENTS: {
            const bt_stream* const stream = bt_message_discarded_events_borrow_stream_const(message);
            std::uint64_t count = 0;
            const bool isKnown =
                bt_message_discarded_events_get_count(message, &count) == BT_PROPERTY_AVAILABILITY_AVAILABLE;
            m_trace.lose("events that the tracer discarded", isKnown ? count : 1);
            if (bt_stream_class_discarded_events_have_default_clock_snapshots(bt_stream_borrow_class_const(stream)))
                breakOff(m_streams[stream],
                         bt_message_discarded_events_borrow_end_default_clock_snapshot_const(message));
            break;
        }
        case BT_MESSAGE_TYPE_DISCARDED_PACKETS: {
            std::uint64_t count = 0;
            const bool isKnown =
                bt_message_discarded_packets_get_count(message, &count) == BT_PROPERTY_AVAILABILITY_AVAILABLE;
            m_trace.lose("blocks of events that the tracer discarded", isKnown ? count : 1);
            break;
        }
        default:
            break;
        }
    }

    /// Takes note of the clock of a stream, and of who wrote it.
    void begin(const bt_stream* its) {
        Stream& stream = m_streams[its];
        const bt_trace* const trace = bt_stream_borrow_trace_const(its);
        const bt_clock_class* const clock =
            bt_stream_class_borrow_default_clock_class_const(bt_stream_borrow_class_const(its));
        stream.hasClock = clock != nullptr;
        stream.isOwn = m_isAlone && clock && environment(trace, "tracer_name") == "quorvex";
        if (stream.isOwn) {
            beginPackets(trace);
        } else if (clock) {
            std::int64_t seconds = 0;
            std::uint64_t cycles = 0;
            bt_clock_class_get_offset(clock, &seconds, &cycles);
            stream.frequency = bt_clock_class_get_frequency(clock);
            if (m_frequency == 0) { // the clock of the trace is that of the first stream
                m_frequency = stream.frequency;
                m_seconds = seconds;
                m_cycles = cycles;
                m_trace.setFrequency(m_frequency);
            }
            // In two's complement.
            stream.shift = static_cast<std::uint64_t>(seconds - m_seconds) * m_frequency +
                           ticksOf(cycles, stream.frequency) - m_cycles;
        }
    }

    std::uint64_t ticksOf(std::uint64_t cycles, std::uint64_t frequency) const {
        return frequency == m_frequency ? cycles : TimeBase::unitsOf(cycles, frequency, m_frequency, kUnknown64 - 1);
    }

    std::optional<std::uint64_t> timeOf(const bt_message* event) {
        m_isGood = true;
        const Stream& stream = m_streams[bt_event_borrow_stream_const(bt_message_event_borrow_event_const(event))];
        if (!stream.hasClock) {
            m_trace.lose("events without a time");
            return std::nullopt;
        }
        const bt_clock_snapshot* const clock = bt_message_event_borrow_default_clock_snapshot_const(event);
        return stream.isOwn ? ownTick(clock) : timeOf(stream, clock);
    }

    std::optional<std::uint64_t> timeOf(const Stream& stream, const bt_clock_snapshot* clock) {
        const std::uint64_t cycles = bt_clock_snapshot_get_value(clock);
        const std::uint64_t value = ticksOf(cycles, stream.frequency);
        if (stream.frequency != m_frequency &&
            TimeBase::unitsOf(value, m_frequency, stream.frequency, kUnknown64) != cycles)
            m_trace.lose("parts of ticks");
        const std::uint64_t time = value + stream.shift;
        const bool isBack = stream.shift > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
        if (isBack != (time < value) || time == kUnknown64) {
            m_trace.lose("events before time 0");
            return std::nullopt;
        }
        return time;
    }

    static std::string environment(const bt_trace* trace, const char* key) {
        const bt_value* const value = bt_trace_borrow_environment_entry_value_by_name_const(trace, key);
        return value && bt_value_is_string(value) ? bt_value_string_get(value) : "";
    }

    // What qvx export has written.

    void beginPackets(const bt_trace* trace) {
        const auto numberOf = [&](const char* key) { return CtfPackets::numberIn(environment(trace, key)); };
        m_first = numberOf("first_tick").value_or(kUnknown64);
        m_trace.setStart(m_first);
        m_trace.setFrequency(numberOf("ticks_per_second").value_or(0));
        m_told = m_end = m_first == kUnknown64 ? 0 : m_first;
    }

    std::uint64_t ownTick(const bt_clock_snapshot* clock) const {
        return (m_first == kUnknown64 ? 0 : m_first) + bt_clock_snapshot_get_value(clock);
    }
    /// Packets that have none happen at that tick.
    void tellTick(std::uint64_t tick) {
        m_told = tick;
        if (m_first != kUnknown64)
            m_trace.put(tick, 0, CSync(tick, kNoCore, kNoCore, kUnknown64), {});
    }

    void lookAtOwn(const EventFacts& facts, const bt_field* payload, std::uint64_t tick) {
        if (!facts.packets) {
            m_trace.lose("events of unknown kinds");
            return;
        }
        if (facts.packets->hasTick())
            m_told = tick;
        else if (tick != m_told)
            tellTick(tick);
        std::string& bytes = m_bytes;
        bytes.clear();
        if (facts.packets->put(payload, m_first == kUnknown64 ? kUnknown64 : tick, bytes))
            m_trace.packets(tick, bytes);
        else
            m_trace.lose("packets that have been changed");
    }

    // What others have written.

    const EventFacts& factsOf(const bt_event_class* its, bool isOwn) {
        EventFacts& facts = m_classes[its];
        if (facts.held)
            return facts;
        bt_event_class_get_ref(its);
        facts.held.reset(its);
        const char* const name = bt_event_class_get_name(its);
        facts.name = name ? name : fmt::format("event {}", bt_event_class_get_id(its));
        if (isOwn) {
            facts.packets = CtfPackets::of(its);
            return facts;
        }
        const std::string_view own = ownName(facts.name);
        const auto* thread = std::ranges::find(kThreadEvents, own, &ThreadEvent::event);
        facts.thread = thread == std::end(kThreadEvents) ? nullptr : thread;
        facts.isModule = isOneOf(kModules, own);
        facts.isPerf = own.starts_with("perf_");
        if (own == "sched_switch")
            facts.sort = EventFacts::Sort::Switches;
        else if (own == "thread_switched_in")
            facts.sort = EventFacts::Sort::SwitchedIn;
        else if (own == "thread_switched_out")
            facts.sort = EventFacts::Sort::SwitchedOut;
        else
            findPartner(facts);
        return facts;
    }

    /// Whether it begins or ends something, which only counts if another event does the other.
    void findPartner(EventFacts& facts) const {
        const bt_stream_class* const events = bt_event_class_borrow_stream_class_const(facts.held.get());
        const auto exists = [&](const std::string& name) {
            for (std::uint64_t i = 0; i < bt_stream_class_get_event_class_count(events); ++i) {
                const char* const its =
                    bt_event_class_get_name(bt_stream_class_borrow_event_class_by_index_const(events, i));
                if (its && name == its)
                    return true;
            }
            return false;
        };
        for (const auto& pair : kPairs) {
            for (const bool isBegin : {true, false}) {
                const std::string_view word = isBegin ? pair.first : pair.second;
                const std::string_view partner = isBegin ? pair.second : pair.first;
                const bool isPair = eachWord(facts.name, word, [&](std::string_view before, std::string_view after) {
                    if (!exists(std::string(before).append(partner).append(after)))
                        return false;
                    if (before.ends_with('_'))
                        before.remove_suffix(1);
                    else if (after.starts_with('_'))
                        after.remove_prefix(1);
                    facts.function = std::string(before).append(after);
                    return true;
                });
                if (isPair) {
                    facts.sort = isBegin ? EventFacts::Sort::Begins : EventFacts::Sort::Ends;
                    facts.isCall = isOneOf(kCalls, ownName(facts.function));
                    if (facts.function.ends_with(':'))
                        facts.function.pop_back();
                    return;
                }
            }
        }
    }

    /// Threads have numbers of their own in the whole system.
    Thread threadOf(std::int64_t number) {
        const auto [at, isNew] = m_threads.try_emplace(number);
        if (isNew) {
            const std::string text = std::to_string(number);
            at->second = m_trace.thread({}, text);
            m_trace.setProcess(at->second, text); // until it is told
        }
        return at->second;
    }
    /// The one that runs while a core has nothing to do is another one on each.
    Thread threadOf(std::int64_t number, std::uint32_t core) {
        return number == 0 && core != kNoCore ? m_trace.thread("0", fmt::format("swapper/{}", core)) : threadOf(number);
    }

    void tellThread(Thread thread, std::int64_t number, std::optional<std::int64_t> process, std::string_view name) {
        if (process)
            m_trace.setProcess(thread, std::to_string(*process));
        if (name.empty())
            return;
        m_trace.nameThread(thread, name);
        if (process == number)
            m_trace.nameProcess(std::to_string(number), name);
    }

    void look(const bt_event* event, std::uint64_t time) {
        Stream& stream = m_streams[bt_event_borrow_stream_const(event)];
        const EventFacts& facts = factsOf(bt_event_borrow_class_const(event), stream.isOwn);
        if (stream.isOwn)
            lookAtOwn(facts, bt_event_borrow_payload_field_const(event), time);
        else
            look(stream, facts, event, time);
    }

    void look(Stream& stream, const EventFacts& facts, const bt_event* event, std::uint64_t time) {
        const bt_stream* const its = bt_event_borrow_stream_const(event);
        const bool isInPacket = bt_stream_class_supports_packets(bt_stream_borrow_class_const(its));
        const EventFields fields(
            event, isInPacket ? bt_packet_borrow_context_field_const(bt_event_borrow_packet_const(event)) : nullptr,
            facts.isPerf);
        const auto core = static_cast<std::uint32_t>(fields.number(kCores).value_or(kNoCore));
        const auto running = m_running.find(core);
        std::optional<std::int64_t> number = fields.number(kThreads);
        if (!number && running != m_running.end())
            number = running->second;
        if (!number && !stream.thread) // none is known
            stream.thread = m_trace.thread({}, core != kNoCore ? fmt::format("cpu {}", core)
                                                               : fmt::format("stream {}", bt_stream_get_id(its)));
        const Thread thread = number ? threadOf(*number, core) : *stream.thread;
        if (number)
            tellThread(thread, *number, fields.number(kProcesses), EventFields::text(fields.find(kThreadNames)));
        if (facts.thread) {
            if (const auto other = fields.own(facts.thread->thread))
                tellThread(threadOf(*other), *other, fields.own(facts.thread->process),
                           fields.ownText(facts.thread->name));
        }

        if (facts.isPerf && time == stream.shift) { // of what was there before
            m_trace.lose("events without a time");
            return;
        }
        const std::int64_t process = fields.number(kProcesses).value_or(0);
        if (facts.isModule)
            tellModule(fields, process);

        switch (facts.sort) {
        case EventFacts::Sort::Switches:
            switchThreads(fields, time, core);
            break;
        case EventFacts::Sort::SwitchedIn:
        case EventFacts::Sort::SwitchedOut:
            switchThread(facts, fields, time, core);
            break;
        case EventFacts::Sort::Begins:
            m_trace.enter(thread, time, functionOf(facts, fields, process));
            break;
        case EventFacts::Sort::Ends:
            if (const std::string function = functionOf(facts, fields, process); function.empty())
                m_trace.leave(thread, time);
            else
                m_trace.leave(thread, time, function);
            break;
        case EventFacts::Sort::Happens:
            m_trace.happen(thread, time, facts.name, core,
                           static_cast<std::uint64_t>(fields.number(kAddresses).value_or(-1)));
            break;
        }
        if (facts.isCall && fields.own(kCallSite))
            m_trace.lose("call sites");
        m_text.clear();
        tellFields(fields.payload(), facts.name + '.', thread, time, facts);
        for (std::size_t i = 0; i < EventFields::kContexts; ++i)
            tellFields(fields.context(i), {}, thread, time, facts);
        if (!m_text.empty())
            m_trace.message(time, (number ? fmt::format("{} ", *number) : std::string()) + facts.name + ": " + m_text);
    }

    /// What begins or ends; empty where the last that has begun ends.
    std::string functionOf(const EventFacts& facts, const EventFields& fields, std::int64_t process) {
        for (const std::string_view name : kFunctions) {
            if (!facts.isCall)
                break;
            if (const std::string_view text = fields.ownText(name); !text.empty())
                return std::string(text);
            if (const auto number = fields.own(name))
                return std::to_string(*number);
        }
        if (const auto address = fields.own(kAddress); facts.isCall && address) {
            // Programs may have other functions at the same address.
            std::string key = fmt::format("{} {}", process, *address);
            m_addresses.try_emplace(key, process, static_cast<std::uint64_t>(*address));
            return key;
        }
        return facts.isCall && facts.sort == EventFacts::Sort::Ends ? "" : facts.function;
    }

    void tellModule(const EventFields& fields, std::int64_t process) {
        const auto from = static_cast<std::uint64_t>(fields.own("baddr").value_or(0));
        if (const auto size = fields.own("memsz")) // an address of a file which may stand anywhere counts from there
            m_modules.add(process, {from,
                                    static_cast<std::uint64_t>(*size),
                                    fields.own("is_pic") == 0 ? 0 : from,
                                    std::string(fields.ownText("path")),
                                    {}});
        else if (std::string buildId = fields.ownBytes(kBuildId); !buildId.empty())
            m_modules.setBuildId(process, from, std::move(buildId));
    }

    void switchThreads(const EventFields& fields, std::uint64_t time, std::uint32_t core) {
        const auto numberOf = [&](const char* thread, const char* process) {
            const auto number = fields.own(thread);
            return number ? number : fields.own(process);
        };
        const auto last = numberOf("prev_tid", "prev_pid");
        const auto next = numberOf("next_tid", "next_pid");
        if (last && *last != 0) {
            tellThread(threadOf(*last), *last, std::nullopt, fields.ownText("prev_comm"));
            m_trace.stop(threadOf(*last), time, core);
        }
        if (next && *next != 0) {
            tellThread(threadOf(*next), *next, std::nullopt, fields.ownText("next_comm"));
            m_trace.run(threadOf(*next), time, core);
        }
        if (next)
            m_running[core] = *next;
    }

    void switchThread(const EventFacts& facts, const EventFields& fields, std::uint64_t time, std::uint32_t core) {
        const auto number = fields.own("thread_id");
        if (!number)
            return;
        tellThread(threadOf(*number), *number, std::nullopt, fields.ownText("name"));
        if (facts.sort == EventFacts::Sort::SwitchedIn) {
            m_trace.run(threadOf(*number), time, core);
            m_running[core] = *number;
        } else {
            m_trace.stop(threadOf(*number), time, core);
            m_running.erase(core);
        }
    }

    /// Something is missing until then.
    void breakOff(const Stream& stream, const bt_clock_snapshot* clock) {
        if (stream.isOwn)
            return;
        if (const auto time = timeOf(stream, clock))
            m_trace.put(*time, 0, CTraceBroken(*time, kNoCore, kNoCore, kUnknown64), {});
    }

    // Fields that tell nothing of the above: numbers become values of counters, and all else a text.

    /// Whether the field has been told otherwise.
    static bool isTold(std::string_view name, const EventFacts& facts, bool isOwn) {
        if ((!isOwn || facts.isPerf || name.starts_with("perf_")) &&
            (isOneOf(kThreads, name) || isOneOf(kProcesses, name) || isOneOf(kAddresses, name) ||
             isOneOf(kThreadNames, name) || isOneOf(kCores, name)))
            return true;
        if (!isOwn)
            return false;
        if (facts.isModule && name == kBuildId)
            return true;
        if (facts.thread &&
            (name == facts.thread->thread || name == facts.thread->process || name == facts.thread->name))
            return true;
        switch (facts.sort) {
        case EventFacts::Sort::Switches: {
            constexpr std::string_view kTold[] = {"prev_tid", "prev_pid", "prev_comm",
                                                  "next_tid", "next_pid", "next_comm"};
            return isOneOf(kTold, name);
        }
        case EventFacts::Sort::SwitchedIn:
        case EventFacts::Sort::SwitchedOut:
            return name == "thread_id" || name == "name";
        default:
            return facts.isCall && (isOneOf(kFunctions, name) || name == kAddress || name == kCallSite);
        }
    }

    void tellFields(const bt_field* structure, const std::string& prefix, Thread thread, std::uint64_t time,
                    const EventFacts& facts, bool isNested = false) {
        if (!structure)
            return;
        const bt_field_class* const its = bt_field_borrow_class_const(structure);
        for (std::uint64_t i = 0; i < bt_field_class_structure_get_member_count(its); ++i) {
            const std::string_view name =
                bt_field_class_structure_member_get_name(bt_field_class_structure_borrow_member_by_index_const(its, i));
            if (!isNested && isTold(name, facts, !prefix.empty()))
                continue;
            tellField(bt_field_structure_borrow_member_field_by_index_const(structure, i), prefix + std::string(name),
                      thread, time, facts);
        }
    }

    void tellField(const bt_field* field, const std::string& name, Thread thread, std::uint64_t time,
                   const EventFacts& facts) {
        const bt_field_class_type type = bt_field_get_class_type(field);
        const auto is = [type](bt_field_class_type other) { return bt_field_class_type_is(type, other); };
        const auto tell = [&](std::string_view value) {
            const std::string_view own = std::string_view(name).starts_with(facts.name + '.')
                                             ? std::string_view(name).substr(facts.name.size() + 1)
                                             : std::string_view(name);
            fmt::format_to(std::back_inserter(m_text), "{}{}={}", m_text.empty() ? "" : " ", own, value);
        };
        if (is(BT_FIELD_CLASS_TYPE_ENUMERATION)) {
            bt_field_class_enumeration_mapping_label_array labels = nullptr;
            std::uint64_t count = 0;
            if (is(BT_FIELD_CLASS_TYPE_UNSIGNED_ENUMERATION))
                bt_field_enumeration_unsigned_get_mapping_labels(field, &labels, &count);
            else
                bt_field_enumeration_signed_get_mapping_labels(field, &labels, &count);
            tell(count > 0 ? std::string(labels[0]) : std::to_string(*EventFields::integer(field)));
        } else if (is(BT_FIELD_CLASS_TYPE_INTEGER)) {
            const auto value = *EventFields::integer(field);
            const bool isUnsigned = is(BT_FIELD_CLASS_TYPE_UNSIGNED_INTEGER);
            if (bt_field_class_integer_get_preferred_display_base(bt_field_borrow_class_const(field)) ==
                BT_FIELD_CLASS_INTEGER_PREFERRED_DISPLAY_BASE_HEXADECIMAL)
                tell(fmt::format("{:#x}", static_cast<std::uint64_t>(value)));
            else if (isUnsigned && value < 0)
                m_trace.lose("values of more than 63 bits");
            else
                m_trace.count(thread, time, name, value);
        } else if (is(BT_FIELD_CLASS_TYPE_BOOL)) {
            m_trace.count(thread, time, name, std::int64_t{bt_field_bool_get_value(field) != BT_FALSE});
        } else if (is(BT_FIELD_CLASS_TYPE_SINGLE_PRECISION_REAL)) {
            m_trace.count(thread, time, name, double{bt_field_real_single_precision_get_value(field)});
        } else if (is(BT_FIELD_CLASS_TYPE_DOUBLE_PRECISION_REAL)) {
            m_trace.count(thread, time, name, bt_field_real_double_precision_get_value(field));
        } else if (is(BT_FIELD_CLASS_TYPE_STRING)) {
            tell(bt_field_string_get_value(field));
        } else if (is(BT_FIELD_CLASS_TYPE_STRUCTURE)) {
            tellFields(field, name + '.', thread, time, facts, true);
        } else if (is(BT_FIELD_CLASS_TYPE_VARIANT)) {
            tellField(bt_field_variant_borrow_selected_option_field_const(field), name, thread, time, facts);
        } else if (is(BT_FIELD_CLASS_TYPE_ARRAY)) {
            if (bt_field_array_get_length(field) > 0)
                m_trace.lose("rows of values");
        } else {
            m_trace.lose("values of unknown types");
        }
    }

    const std::string& m_name;
    ImportedTrace& m_trace;
    bool m_isAlone = false; ///< the only trace
    bool m_isGood = false;  ///< an event has been read
    std::exception_ptr m_exception;
    std::string m_cause; ///< why something could not be read
    std::size_t m_ports = 0;
    std::vector<Source> m_sources;
    std::unordered_map<const bt_stream*, Stream> m_streams;
    std::unordered_map<const bt_event_class*, EventFacts> m_classes;
    std::unordered_map<std::int64_t, Thread> m_threads;
    std::unordered_map<std::uint32_t, std::int64_t> m_running; ///< which thread, by core
    CodeModules m_modules;
    std::unordered_map<std::string, std::pair<std::int64_t, std::uint64_t>>
        m_addresses;                             ///< process and address of functions, by what they are told as
    std::uint64_t m_frequency = 0, m_cycles = 0; ///< of the trace's clock, and where it begins
    std::int64_t m_seconds = 0;
    std::uint64_t m_first = kUnknown64; ///< tick of the packets
    std::uint64_t m_told = 0;           ///< the last one that they tell
    std::uint64_t m_end = 0;            ///< the last one of all
    std::string m_bytes, m_text;
};

} // namespace

void readCtf(const std::string& name, ImportedTrace& trace) {
    Reading(name, trace).run();
}

} // namespace qvx

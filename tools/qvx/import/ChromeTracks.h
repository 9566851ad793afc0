#pragma once

#include "ImportedTrace.h"
#include "quorvex/format/Context.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qvx {

/// A trace event, as its texts.
struct ChromeEvent {
    struct Argument {
        std::string name, text;
        bool isNumber = false;
    };

    std::string phase, name, category, time, duration, process, thread, id;
    std::string tellingThread, tellingCore; ///< of a value
    std::vector<Argument> arguments;
    bool hasMore = false; ///< arguments that are lists, objects or null

    /// The text of an argument; null where there is none.
    const std::string* argument(std::string_view its) const;
};

/// Makes packets again of what CChromeWriter has made of packets: calls, runs, processes, interrupts, states, values,
/// and what else is shown as an event. What is made of the trace is the same file again. The events come in the order
/// of the file, which is that of the packets; only that a thread runs on a core is told when it is over.
class ChromeTracks {
public:
    explicit ChromeTracks(ImportedTrace& trace) : m_trace(trace) {}

    /// What the file tells of ticks; 0 a second: not known. Without a first one there are none.
    void setClock(std::optional<std::uint64_t> firstTick, std::uint64_t ticksPerSecond);
    /// An event that names a thread.
    void name(const ChromeEvent& event);
    /// A slice, a value or an instant, so long behind the first tick.
    void tell(const ChromeEvent& event, std::uint64_t nanoseconds);
    /// There are no more events.
    void finish();

private:
    using Key = std::pair<std::uint64_t, std::uint64_t>; ///< process and thread of the file
    using PlaceKey = std::pair<ImportedTrace::Place::Of, std::uint32_t>;
    struct Time {
        std::uint64_t tick = 0;  ///< by which packets are sorted,
        std::uint64_t order = 0; ///< and those of one tick
    };
    struct Track {
        std::string name;
        ImportedTrace::Place place;
        std::uint32_t number = 0;                       ///< of what has values or states
        std::uint64_t since = 0;                        ///< tick at which a run has begun
        std::optional<Time> left;                       ///< a state; where none came behind it
        std::map<std::string, std::uint32_t> states;    ///< their numbers
        std::map<std::uint32_t, std::uint32_t> targets; ///< of transitions
        std::size_t width = 0;                          ///< lines of a signal
    };
    /// What has happened in a thread or on a core since it was told last that it ran.
    struct Since {
        std::optional<Time> first;
        std::uint64_t last = 0; ///< tick
        std::uint64_t told = 0; ///< order
    };

    std::uint64_t tickAt(std::uint64_t nanoseconds) const;
    /// The tick of packets: unknown in a trace without any.
    std::uint64_t tick() const;
    Quorvex::CCoreContext context() const;
    void put(Quorvex::CPacket&& packet, ImportedTrace::Place place = {});
    void putAt(Time time, Quorvex::CPacket&& packet, ImportedTrace::Place place = {});
    /// Puts a packet where there was one of which nothing is shown: one that leaves what has not been entered.
    void stray(Time time, ImportedTrace::Place place);
    /// The number of what has that name, of a sort by itself, and whether it is new.
    std::pair<std::uint32_t, bool> numberOf(char sort, const std::string& name);

    void call(const Track& track, const ChromeEvent& event, bool isEnter);
    void run(Track& track, const ChromeEvent& event, bool isEnter);
    void process(const Track& track, const ChromeEvent& event, bool isEnter);
    void interrupt(const Track& track, const ChromeEvent& event, bool isEnter);
    void enterState(Track& track, const ChromeEvent& event);
    void leaveState(Track& track);
    void value(Track& track, const ChromeEvent& event);
    void count(const Track& track, const std::string& name, const ChromeEvent& event, ImportedTrace::Place place);
    void signal(Track& track, const std::string& name, const std::string& text);
    void instant(const Track& track, const ChromeEvent& event);
    /// Puts a packet of the kind that the event is called after; false where there is none with such fields.
    bool putKind(const Track& track, const ChromeEvent& event);

    ImportedTrace& m_trace;
    std::optional<std::uint64_t> m_first;
    std::uint64_t m_frequency = 0;
    Time m_now;
    std::uint64_t m_last = 0, m_lastPut = 0; ///< ticks
    std::map<Key, Track> m_tracks;
    std::map<std::uint32_t, Since> m_threads, m_cores;
    std::map<PlaceKey, std::uint64_t> m_lastAt; ///< ticks of packets
    std::map<PlaceKey, Time> m_shownUntil;      ///< calls that are not left
    std::map<std::pair<char, std::string>, std::uint32_t> m_numbers;
    std::map<std::string, std::vector<const Track*>> m_sameNames; ///< tracks of counters
    std::map<std::uint32_t, std::string> m_units;                 ///< of counters
};

} // namespace qvx

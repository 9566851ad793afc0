#pragma once

#include "TimeSort.h"
#include "quorvex/format/Packet.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Quorvex {
class CPacket;
}

namespace qvx {

class Target;

/// A trace that is made of what another tool has recorded. Readers of foreign files tell it what happened, in any order
/// of time; what happens at one time keeps the order in which it is told. Memory grows with names and threads only.
/// Times are ticks.
class ImportedTrace {
public:
    using Thread = std::uint32_t; ///< as thread() gives them

    /// Of so many ticks a second; 0 where the file does not tell.
    void setFrequency(std::uint64_t frequency) { m_frequency = frequency; }

    /// A thread of a process, by what the file calls the two; numbers stay numbers where no other thread has them.
    Thread thread(std::string_view process, std::string_view thread);
    /// The thread is one of that process.
    void setProcess(Thread thread, std::string_view process);
    /// What people call a process or a thread; the last one said counts.
    void nameProcess(std::string_view process, std::string_view name);
    void nameThread(Thread thread, std::string_view name);
    /// What people call a function, which otherwise is called as it was entered.
    void nameFunction(std::string_view function, std::string_view name);

    /// A function is entered, and the one that was entered last is left.
    void enter(Thread thread, std::uint64_t time, std::string_view function);
    void leave(Thread thread, std::uint64_t time);
    /// That function is left, and with it what it has entered since.
    void leave(Thread thread, std::uint64_t time, std::string_view function);
    /// A call with a known end. Of those that begin at one time the longer one is the outer one.
    void call(Thread thread, std::uint64_t time, std::uint64_t duration, std::string_view function);
    /// A process comes to run on a core, as the thread, or stops.
    void run(Thread thread, std::uint64_t time, std::uint32_t core);
    void stop(Thread thread, std::uint64_t time, std::uint32_t core);
    /// A value of a counter: a number, or a number with a fraction.
    void count(Thread thread, std::uint64_t time, std::string_view counter, std::int64_t value);
    void count(Thread thread, std::uint64_t time, std::string_view counter, double value);
    /// A counter has values in that unit.
    void setUnit(std::string_view counter, std::string_view unit);
    /// Something that happened, on a core and at an address where they are known.
    void happen(Thread thread, std::uint64_t time, std::string_view event, std::uint32_t core = ~std::uint32_t{0},
                std::uint64_t address = ~std::uint64_t{0});
    /// A signal of one bit.
    void signal(std::uint64_t time, std::string_view name, bool value);
    void message(std::uint64_t time, std::string_view text);

    // For who has packets. What they define is nothing to the functions, events and so on above. Order is that of the
    // ones of one time.
    // @{
    /// Packets as they stand in a trace, with the texts behind them.
    void packets(std::uint64_t time, std::string_view bytes);
    /// The first packet tells that time; else it is that of what happened first.
    void setStart(std::uint64_t tick) { m_start = tick; }
    /// Where a packet belongs: to a thread, on whichever core it runs; to a core, and whichever thread runs there; to a
    /// core where no thread is known.
    struct Place {
        enum Of : std::uint8_t { Nothing, Thread, Core, CoreAlone } of = Nothing;
        std::uint32_t number = ~std::uint32_t{0};
    };
    /// A packet whose place is still to be put in.
    void put(std::uint64_t time, std::uint64_t order, Quorvex::CPacket&& packet, Place place);
    /// A thread comes to run on a core, or ceases to.
    void runs(std::uint64_t time, std::uint64_t order, std::uint32_t thread, std::uint32_t core);
    void rests(std::uint64_t time, std::uint64_t order, std::uint32_t thread, std::uint32_t core);
    // @}

    /// Counts what cannot be kept, by reason.
    void lose(std::string_view reason, std::uint64_t count = 1);
    const std::map<std::string, std::uint64_t, std::less<>>& losses() const { return m_losses; }

    /// Writes all of it, and puts the trace in place: how many packets it has. Nothing more is told then.
    std::uint64_t write(Target& target, bool isPaged, bool isRelative);

private:
    enum class Sort : std::uint8_t {
        Enter,
        Leave,
        Call,
        Run,
        Stop,
        Integer,
        Double,
        Happen,
        Signal,
        Message,
        Packets,
        Runs,
        Rests,
    };
    struct Happening;
    class Writing;

    /// What things of a sort are called, and their numbers, which begin with 0.
    struct Names {
        std::unordered_map<std::string, std::uint32_t> numbers;
        std::vector<const std::string*> names;

        std::uint32_t operator()(std::string_view name);
    };
    struct Counter {
        bool hasFraction = false; ///< some value has one
        std::string unit;
    };
    struct Process {
        std::uint32_t number;
        std::string name;
    };
    struct ThreadFacts {
        std::uint32_t number;
        std::uint32_t process; ///< in m_processes
        std::string name;
    };

    void put(std::uint64_t time, std::uint64_t rank, const Happening& what, std::string_view text = {});
    Counter& counter(std::uint32_t number);
    std::uint32_t process(std::string_view name);
    bool isProcess(std::uint32_t number) const;
    void numberRest();

    std::uint64_t m_frequency = 0;
    std::optional<std::uint64_t> m_start;
    TimeSort m_sort;
    Names m_functions, m_counterNames, m_events, m_signals, m_processNames, m_threadNames;
    std::unordered_map<std::uint32_t, std::string> m_functionNames; ///< that people use, by number
    std::vector<Counter> m_counters;
    std::vector<Process> m_processes;
    std::vector<ThreadFacts> m_threads;
    std::unordered_map<std::uint32_t, Thread> m_byNumber; ///< threads
    std::map<std::string, std::uint64_t, std::less<>> m_losses;
};

} // namespace qvx

#pragma once

#include "quorvex/analysis/CallSummary.h"
#include "quorvex/analysis/Durations.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"

#include <compare>
#include <cstdint>
#include <map>

namespace Quorvex {

class CTraceCursor;
class CTraceNames;
class TraceFile;

/// What the calls of a function took, in nanoseconds; of traces that do not tell their clock, in ticks. A call lasts
/// from its enter to its leave; one whose leave is missing ends with the function that it was called by, or with the
/// last packet of its thread.
struct FunctionTimes {
    std::uint64_t calls = 0;      ///< all of them
    std::uint64_t unfinished = 0; ///< those of them without a leave
    std::uint64_t total = 0;      ///< in the function and what it called; while it is called by itself, once
    std::uint64_t self = 0;       ///< in the function and nothing that it called
    Durations durations;          ///< of the calls that were left, with what they called
};

/// The times of functions, out of the packets that enter and leave them, in traces of any number of threads and
/// processes. Used by one thread at a time. Memory does not grow with the traces, but with the functions, and the
/// threads of one trace; in a thread, calls are told apart to a depth of 65536.
class QUORVEX_API CallTimes : public CallSummary {
public:
    using Window = TickWindow; ///< what is counted
    /// What times are told for.
    struct Key {
        std::uint32_t thread;   ///< 0 where times are not told by thread; all ones: not known
        std::uint32_t process;  ///< likewise; else the number of the trace
        std::uint64_t function; ///< its number (CTraceNames::numberOf)

        auto operator<=>(const Key&) const = default;
    };

    /// With `byThread`, functions are told apart by threads.
    CallTimes(bool byThread, Window window);
    explicit CallTimes(bool byThread = false) : CallTimes(byThread, Window()) {}
    CallTimes(const CallTimes&) = delete;
    CallTimes& operator=(const CallTimes&) = delete;
    ~CallTimes();

    /// Reads a trace to its end and adds what it tells: the names it gives, as those of a process, to `names`. Ticks
    /// are taken as they are. Throws what TraceFile throws; what had been read before that is added.
    void read(TraceFile& trace, CTraceNames& names, std::uint32_t process);
    /// The same, of those calls whose enter `takes(cursor)` takes; it is asked about every packet. What a call took is
    /// as in the whole trace: its leave, and the calls in it, need not be taken.
    void read(TraceFile& trace, CTraceNames& names, std::uint32_t process, Condition<const CTraceCursor&> takes);

    /// What has been read, by what it is told for.
    using Times = std::map<Key, FunctionTimes>;
    const Times& times() const { return *m_times; } ///< of what has been read

private:
    struct Reading;

    bool m_byThread;
    Window m_window;
    platform::Owned<Times> m_times;
};

} // namespace Quorvex

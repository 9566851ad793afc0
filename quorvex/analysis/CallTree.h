#pragma once

#include "quorvex/analysis/CallSummary.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Quorvex {

class CPacket;
class CTraceCursor;
class CTraceNames;
class TraceFile;

/// A function as it was called on one path: from the outermost function that is known, by way of those between. Times
/// are in nanoseconds; of traces that do not tell their clock, in ticks. What a call is, and when one without a leave
/// ends, is as in FunctionTimes; but a function that calls itself has another path each time. Calls that are not taken
/// are on no path.
struct CallPath {
    std::uint64_t function = 0;   ///< its number (CTraceNames::numberOf)
    std::uint32_t thread = 0;     ///< as in CallTimes::Key
    std::uint32_t process = 0;    ///< likewise
    std::uint32_t depth = 0;      ///< how many functions its path has before it
    std::uint64_t calls = 0;      ///< all of them
    std::uint64_t unfinished = 0; ///< those of them without a leave
    std::uint64_t total = 0;      ///< in the function and what it called
    std::uint64_t self = 0;       ///< in the function and nothing that it called
};

/// The calls in traces of any number of threads and processes, by their paths. The sum of `self` and of `calls` over
/// all paths of a function is what CallTimes tells of it.
///
/// Memory does not grow with the traces, but with the paths, of which so many are told apart: what is called on further
/// ones is told by its function alone, as if CallTree::kOther had called it. In a thread, calls are told apart to a
/// depth of 65536. Used by one thread at a time.
class QUORVEX_API CallTree : public CallSummary {
    struct Reading;

public:
    /// The function of a path whose calls are those on further paths than are told apart; called by nothing.
    static constexpr std::uint64_t kOther = ~std::uint64_t{0};
    static constexpr std::size_t kMostPaths = 0x80000; ///< that are told apart, if nothing else is said

    /// With `byThread`, paths are told apart by threads.
    explicit CallTree(bool byThread = false, TickWindow window = {}, std::size_t mostPaths = kMostPaths);
    CallTree(const CallTree&) = delete;
    CallTree& operator=(const CallTree&) = delete;
    ~CallTree();

    /// Reads a trace to its end and adds what it tells: the names it gives, as those of a process, to `names`. Ticks
    /// are taken as they are. Throws what TraceFile throws; what had been read before that is added.
    void read(TraceFile& trace, CTraceNames& names, std::uint32_t process);
    /// The same, of those calls whose enter `takes(cursor)` takes; it is asked about every packet. What a call took is
    /// as in the whole trace: its leave, and the calls in it, need not be taken.
    void read(TraceFile& trace, CTraceNames& names, std::uint32_t process, Condition<const CTraceCursor&> takes);

    /// A trace whose packets are handed over one by one.
    class QUORVEX_API Packets {
    public:
        /// Adds to a tree, and the names that the trace gives, as those of a process, to `names`. Both must outlive it.
        Packets(CallTree& to, CTraceNames& names, std::uint32_t process);
        Packets(const Packets&) = delete;
        Packets& operator=(const Packets&) = delete;
        ~Packets();

        /// The next packet, an absolute one, with its tick; kUnknown64 where that is not known.
        void add(const CPacket& packet, std::uint64_t tick);
        /// Ends what is open: the trace has ended.
        void finish();

    private:
        platform::Owned<Reading> m_reading;
    };

    /// Lets paths begin with the functions that `takes(number)` takes, and leaves out what these did not call.
    void beginWith(Condition<std::uint64_t> takes);
    /// Turns paths round: they begin with the functions that `takes(number)` takes, and lead to those that called them.
    /// The time of a path is then that of these functions when they were called that way, with what they called, but
    /// not within each other; it is `self` where the path has no further caller.
    void turnTo(Condition<std::uint64_t> takes);

    /// All paths with calls, and those that lead to them; each is followed by those that it leads to, the one with most
    /// time first. Threads stand in the order of processes and numbers.
    std::vector<CallPath> paths() const;

private:
    struct Node;
    struct Paths;

    bool m_byThread;
    TickWindow m_window;
    std::size_t m_mostPaths;
    platform::Owned<Paths> m_paths;
};

} // namespace Quorvex

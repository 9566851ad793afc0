#pragma once

#include "quorvex/analysis/CallStack.h"
#include "quorvex/analysis/CallSummary.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <cstdint>

namespace Quorvex {

/// What a call took, as far as it is within the window.
struct CallTime {
    std::uint64_t ticks;    ///< with what it called
    std::uint64_t duration; ///< the same in nanoseconds; where the trace does not tell its clock, in ticks
    std::uint64_t self;     ///< of that, in nothing that it called
    bool isLeft;            ///< by a leave of its own
};

/// The packet as an object. What is walked through besides has one of these too.
inline PacketPointer objectOf(const CTraceCursor& packet) {
    return PacketPointer(packet.packet());
}

/// The calls in one trace, out of the packets that enter and leave functions, while it is read: it knows the threads,
/// what is open in them, and what a leave ends. `Calls` derives from it and makes something of the calls:
///
///     Mark enter(Thread& thread, std::uint32_t id);     a call begins: what is to be known of it when it ends
///     void leave(const Mark& mark);                     it ends, also outside the window
///     void count(const Mark& mark, const CallTime&);    then, if it is within
///
/// Who needs no durations has a `timeOf()` of its own, which takes ticks for nanoseconds.
///
/// `PerThread` is what it keeps of each thread. All is in one class at compile time: this is run for every packet.
template <class Calls, class Mark, class PerThread> class CallWalk {
public:
    /// Adds to `summary`, and the names that the trace gives, as those of a process, to `names`.
    CallWalk(CallSummary& summary, TickWindow window, CTraceNames& names, std::uint32_t process)
        : m_summary(summary), m_window(window), m_names(names), m_process(process) {}

    /// Reads a trace to its end. Of calls, those count whose enter `takes` takes; it is asked about every packet.
    /// Throws what TraceFile throws; what had been read before that is added.
    template <class Takes> void read(TraceFile& trace, const Takes& takes) {
        try {
            while (trace.advance()) {
                const CTraceCursor& packet = trace.cursor();
                look(packet, takes(packet));
            }
        } catch (...) {
            finish();
            throw;
        }
        finish();
    }

    /// Looks at the next packet: a CTraceCursor, or what has TraceCode() and as() as that has, and objectOf().
    /// A call that is not taken when it is entered does not count, but what is taken is still within it.
    template <class Packet> void look(const Packet& packet, bool isTaken = true) {
        switch (packet.TraceCode()) {
        case FunctionEnter:
        case RelFunctionEnter:
            enter(*packet.template as<CFunctionEnter>(), isTaken);
            break;
        case FunctionLeave:
        case RelFunctionLeave:
            leave(*packet.template as<CFunctionLeave>(), isTaken);
            break;
        case Timestamp:
            if (!m_clock.note(*objectOf(packet)))
                m_summary.m_clocksDiffer = true;
            break;
        case Message: // it may name a thread
            m_names.note(*objectOf(packet), m_process);
            break;
        default:
            if (factsOf(packet.TraceCode()).role == Role::Definition)
                define(*objectOf(packet));
        }
    }

    /// Ends what is open: the trace has ended.
    void finish() {
        for (auto& [key, thread] : m_threads) {
            while (!thread.calls.empty())
                end(thread, false);
        }
        if (!m_last)
            return;
        ++(m_clock.frequency() > 0 ? m_summary.m_withClock : m_summary.m_withoutClock);
        if (m_first == kUnknown64)
            return;
        m_summary.m_first = std::min(m_summary.m_first, timeOf(m_first));
        m_summary.m_last = std::max(m_summary.m_last, timeOf(m_latest));
    }

protected:
    struct Call {
        std::uint32_t id;
        bool isTaken;
        Mark mark; ///< of what is not taken, that of what called it
        std::uint64_t from;
        std::uint64_t inner = 0; ///< time in what it called
    };
    struct Thread {
        explicit Thread(std::uint32_t its) : number(its) {}

        std::uint32_t number;
        std::uint64_t tick = 0; ///< of its last packet
        CallStack<Call> calls{0x10000};
        PerThread own;
    };

    CTraceNames& names() { return m_names; }
    const TimeBase& clock() const { return m_clock; }
    std::uint64_t timeOf(std::uint64_t ticks) const { return TimeBase::nanosecondsOf(ticks, m_clock.frequency()); }
    std::uint32_t process() const { return m_process; }
    /// Changes with each definition, by which an identifier may be another function.
    std::uint64_t namesGiven() const { return m_namesGiven; }
    /// What enters a function: a packet, or what tells its tick, core, thread and function as that does.
    template <class Enter> void enter(const Enter& packet, bool isTaken) {
        Thread& thread = threadOf(packet);
        const std::uint32_t id = packet.TgtFuncId();
        const bool isKept = thread.calls.enter([&] {
            const Mark mark = isTaken                ? calls().enter(thread, id)
                              : thread.calls.empty() ? Mark()
                                                     : thread.calls.back().mark;
            return Call{id, isTaken, mark, thread.tick};
        });
        m_summary.m_hiddenCalls += isTaken && !isKept;
    }

    /// Likewise.
    template <class Leave> void leave(const Leave& packet, bool isTaken) {
        Thread& thread = threadOf(packet);
        const std::uint32_t id = packet.TgtFuncId();
        const auto left = thread.calls.leave(
            [id](const Call& call) { return call.id == id || id == CFunctionEnterPayload::kNoFunction; });
        m_summary.m_strayLeaves += isTaken && !left;
        for (std::size_t i = left.value_or(0); i > 0; --i)
            end(thread, i == 1);
    }
    /// The thread of the last function packet.
    const Thread& lastThread() const { return *m_last; }

private:
    Calls& calls() { return static_cast<Calls&>(*this); }

    void define(const CPacket& packet) {
        m_names.note(packet, m_process);
        ++m_namesGiven;
    }

    [[gnu::noinline]] void findThread(std::uint64_t key, std::uint32_t number) {
        m_lastKey = key;
        m_last = &m_threads.findOrMake(key, [number] { return Thread(number); });
    }
    template <class Packet> Thread& threadOf(const Packet& packet) {
        // Of a thread that is not known, what runs on a core is taken for one.
        const bool isKnown = !isUnknown(FieldMeaning::Context, packet.SWCtx());
        const std::uint64_t key = isKnown ? packet.SWCtx() : std::uint64_t{1} << 32 | packet.HWCtx();
        if (!m_last || key != m_lastKey)
            findThread(key, packet.SWCtx());
        const std::uint64_t tick = checkedTick(packet.Tick());
        if (tick != kUnknown64)
            m_last->tick = tick;
        return *m_last;
    }

    /// Ends the innermost call of a thread.
    void end(Thread& thread, bool isLeft) {
        const Call call = thread.calls.back();
        thread.calls.pop();
        if (call.isTaken)
            calls().leave(call.mark);
        const std::uint64_t from = std::max(call.from, m_window.from);
        const std::uint64_t until = std::min(thread.tick, m_window.to);
        if (call.from >= m_window.to || (call.from < m_window.from && thread.tick <= m_window.from))
            return;
        const std::uint64_t ticks = until > from ? until - from : 0;
        const std::uint64_t duration = calls().timeOf(ticks);
        if (call.isTaken) {
            calls().count(call.mark, {ticks, duration, duration - std::min(call.inner, duration), isLeft});
            m_first = std::min(m_first, from);
            m_latest = std::max(m_latest, from + ticks);
        }
        if (!thread.calls.empty())
            thread.calls.back().inner += duration;
    }

    CallSummary& m_summary;
    TickWindow m_window;
    CTraceNames& m_names;
    std::uint32_t m_process;
    TimeBase m_clock;
    std::uint64_t m_namesGiven = 0;
    std::uint64_t m_first = kUnknown64; ///< of the calls that count, as far as they are within the window
    std::uint64_t m_latest = 0;         ///< likewise
    Directory<std::uint64_t, Thread> m_threads;
    Thread* m_last = nullptr;
    std::uint64_t m_lastKey = 0;
};

} // namespace Quorvex

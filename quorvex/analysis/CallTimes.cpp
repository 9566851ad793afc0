#include "quorvex/analysis/CallTimes.h"

#include "quorvex/analysis/CallStack.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>

namespace Quorvex {

namespace {

constexpr std::size_t kMostOpen = 0x10000;

} // namespace

/// One trace while it is read.
struct CallTimes::Reading {
    /// A function in a thread.
    struct Function {
        FunctionTimes* times = nullptr;
        std::uint64_t names = 0; ///< which names these are the times by
        std::uint64_t open = 0;  ///< how often it is on the stack
    };
    struct Call {
        std::uint32_t id;
        Function* function;
        FunctionTimes* times; ///< also when its name has changed since
        std::uint64_t from;
        std::uint64_t inner = 0; ///< time in what it called
    };
    struct Thread {
        explicit Thread(std::uint32_t its) : number(its) {}

        std::uint32_t number;
        std::uint64_t tick = 0; ///< of its last packet
        CallStack<Call> calls{kMostOpen};
        Directory<std::uint32_t, Function> functions;
    };

    void look(const CTraceCursor& packet) {
        switch (packet.TraceCode()) {
        case FunctionEnter:
        case RelFunctionEnter:
            enter(*packet.as<CFunctionEnter>());
            break;
        case FunctionLeave:
        case RelFunctionLeave:
            leave(*packet.as<CFunctionLeave>());
            break;
        case Timestamp:
            if (!clock.note(*PacketPointer(packet.packet())))
                to.m_clocksDiffer = true;
            break;
        default:
            if (factsOf(packet.TraceCode()).role == Role::Definition)
                define(packet);
        }
    }

    void define(const CTraceCursor& packet) {
        names.note(*PacketPointer(packet.packet()), process);
        ++namesGiven; // by which an identifier may be another function
    }

    template <class Packet> Thread& threadOf(const Packet& packet) {
        // Of a thread that is not known, what runs on a core is taken for one.
        const bool isKnown = !isUnknown(FieldMeaning::Context, packet.SWCtx());
        const std::uint64_t key = isKnown ? packet.SWCtx() : std::uint64_t{1} << 32 | packet.HWCtx();
        if (!last || key != lastKey) {
            lastKey = key;
            last = &threads.findOrMake(key, [&] { return Thread(packet.SWCtx()); });
        }
        const std::uint64_t tick = checkedTick(packet.Tick());
        if (tick != kUnknown64) {
            last->tick = tick;
            first = std::min(first, tick);
            latest = std::max(latest, tick);
        }
        return *last;
    }

    template <class Enter> void enter(const Enter& packet) {
        Thread& thread = threadOf(packet);
        const std::uint32_t id = packet.TgtFuncId();
        const bool isKept = thread.calls.enter([&] {
            Function& function = thread.functions[id];
            if (!function.times || function.names != namesGiven) {
                function.times = &timesOf(thread, id);
                function.names = namesGiven;
            }
            ++function.open;
            return Call{id, &function, function.times, thread.tick};
        });
        to.m_hiddenCalls += !isKept;
    }

    template <class Leave> void leave(const Leave& packet) {
        Thread& thread = threadOf(packet);
        const std::uint32_t id = packet.TgtFuncId();
        const auto left = thread.calls.leave(
            [id](const Call& call) { return call.id == id || id == CFunctionEnterPayload::kNoFunction; });
        to.m_strayLeaves += !left;
        for (std::size_t i = left.value_or(0); i > 0; --i)
            end(thread, i == 1);
    }

    /// Ends the innermost call of a thread.
    void end(Thread& thread, bool isLeft) {
        const Call call = thread.calls.back();
        thread.calls.pop();
        FunctionTimes& times = *call.times;
        --call.function->open;
        const std::uint64_t from = std::max(call.from, to.m_window.from);
        const std::uint64_t until = std::min(thread.tick, to.m_window.to);
        if (call.from >= to.m_window.to || (call.from < to.m_window.from && thread.tick <= to.m_window.from))
            return;
        const std::uint64_t duration = until > from ? timeOf(until - from) : 0;
        ++times.calls;
        if (isLeft)
            times.durations.add(duration);
        else
            ++times.unfinished;
        if (call.function->open == 0)
            times.total += duration;
        times.self += duration - std::min(call.inner, duration);
        if (!thread.calls.empty())
            thread.calls.back().inner += duration;
    }

    std::uint64_t timeOf(std::uint64_t ticks) const {
        return TimeBase::unitsOf(ticks, clock.frequency(), 1'000'000'000);
    }

    FunctionTimes& timesOf(const Thread& thread, std::uint32_t id) {
        const std::uint64_t number = names.numberOf(TextSort::Function, id, process);
        return (*to.m_times)[to.m_byThread ? Key{thread.number, process, number} : Key{0, 0, number}];
    }

    /// Ends what is open.
    void finish() {
        for (auto& [key, thread] : threads) {
            while (!thread.calls.empty())
                end(thread, false);
        }
        if (first == kUnknown64)
            return;
        ++(clock.frequency() > 0 ? to.m_withClock : to.m_withoutClock);
        to.m_first = std::min(to.m_first, timeOf(first));
        to.m_last = std::max(to.m_last, timeOf(latest));
    }

    CallTimes& to;
    CTraceNames& names;
    std::uint32_t process;
    TimeBase clock{};
    std::uint64_t namesGiven = 0;
    std::uint64_t first = kUnknown64;
    std::uint64_t latest = 0;
    Directory<std::uint64_t, Thread> threads{};
    Thread* last = nullptr;
    std::uint64_t lastKey = 0;
};

CallTimes::CallTimes(bool byThread, Window window)
    : m_byThread(byThread), m_window(window), m_times(platform::makeOwned<Times>()) {}

CallTimes::~CallTimes() = default;

void CallTimes::read(TraceFile& trace, CTraceNames& names, std::uint32_t process) {
    Reading reading{*this, names, process};
    try {
        while (trace.advance())
            reading.look(trace.cursor());
    } catch (...) {
        reading.finish();
        throw;
    }
    reading.finish();
}

} // namespace Quorvex

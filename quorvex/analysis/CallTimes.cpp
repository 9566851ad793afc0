#include "quorvex/analysis/CallTimes.h"

#include "quorvex/analysis/CallWalk.h"

namespace Quorvex {

namespace {

/// A function in a thread.
struct Function {
    FunctionTimes* times = nullptr;
    std::uint64_t names = 0; ///< which names these are the times by
    std::uint64_t open = 0;  ///< how often it is on the stack
};
struct Functions {
    Directory<std::uint32_t, Function> byId;
};
struct Mark {
    Function* function;
    FunctionTimes* times; ///< also when its name has changed since
};

} // namespace

/// One trace while it is read.
struct CallTimes::Reading : CallWalk<CallTimes::Reading, Mark, Functions> {
    Reading(CallTimes& times, CTraceNames& names, std::uint32_t process)
        : CallWalk(times, times.m_window, names, process), to(times) {}

    Mark enter(Thread& thread, std::uint32_t id) {
        Function& function = thread.own.byId[id];
        if (!function.times || function.names != namesGiven()) {
            function.times = &timesOf(thread, id);
            function.names = namesGiven();
        }
        ++function.open;
        return {&function, function.times};
    }
    void leave(const Mark& mark) { --mark.function->open; }
    void count(const Mark& mark, const CallTime& time) {
        FunctionTimes& times = *mark.times;
        ++times.calls;
        if (time.isLeft)
            times.durations.add(time.duration);
        else
            ++times.unfinished;
        if (mark.function->open == 0)
            times.total += time.duration;
        times.self += time.self;
    }

    FunctionTimes& timesOf(const Thread& thread, std::uint32_t id) {
        const std::uint64_t number = names().numberOf(TextSort::Function, id, process());
        return (*to.m_times)[to.m_byThread ? Key{thread.number, process(), number} : Key{0, 0, number}];
    }

    CallTimes& to;
};

CallTimes::CallTimes(bool byThread, Window window)
    : m_byThread(byThread), m_window(window), m_times(platform::makeOwned<Times>()) {}

CallTimes::~CallTimes() = default;

void CallTimes::read(TraceFile& trace, CTraceNames& names, std::uint32_t process) {
    Reading(*this, names, process).read(trace, [](const CTraceCursor&) { return true; });
}

void CallTimes::read(TraceFile& trace, CTraceNames& names, std::uint32_t process,
                     Condition<const CTraceCursor&> takes) {
    Reading(*this, names, process).read(trace, takes);
}

} // namespace Quorvex

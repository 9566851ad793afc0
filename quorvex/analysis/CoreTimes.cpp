#include "quorvex/analysis/CoreTimes.h"

#include "quorvex/analysis/CallStack.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <utility>

namespace Quorvex {

namespace {

constexpr std::size_t kMostOpen = 0x100; ///< that are entered in each other on a core

/// What has been entered on a core, also in itself.
struct Entered {
    CoreTimes::Times* times = nullptr;
    std::uint64_t count = 0; ///< how often it is open
    std::uint64_t from = 0;  ///< the first tick of that
};
struct Open {
    std::uint64_t number;
    Entered* its; ///< null: does not count
    std::uint64_t from;
};
struct Core {
    CallStack<Open> processes{kMostOpen};
    CallStack<Open> interrupts{kMostOpen};
    std::map<std::pair<TextSort, std::uint64_t>, Entered> entered{};
    std::uint64_t since = 0; ///< what runs has run from then on

    CallStack<Open>& stack(TextSort sort) { return sort == TextSort::Process ? processes : interrupts; }
    CallStack<Open>* running() { return !interrupts.empty() ? &interrupts : !processes.empty() ? &processes : nullptr; }
};

} // namespace

struct CoreTimes::State {
    std::uint64_t within(std::uint64_t from, std::uint64_t to) const {
        from = std::max(from, window.from);
        to = std::min(to, window.to);
        return to > from ? TimeBase::nanosecondsOf(to - from, clock.frequency()) : 0;
    }
    /// What runs on a core has run until now.
    void run(Core& core) {
        if (CallStack<Open>* running = core.running(); running && running->back().its)
            running->back().its->times->running += within(core.since, tick);
        core.since = tick;
    }
    void enter(Core& core, const Key& key, bool isTaken) {
        run(core);
        Entered* const its = isTaken ? &enteredOf(core, key) : nullptr;
        if (its) {
            its->times->entered += tick >= window.from && tick < window.to;
            if (its->count++ == 0)
                its->from = tick;
        }
        const auto forgotten = core.stack(key.sort).enterLast([&] { return Open{key.number, its, tick}; });
        if (forgotten && forgotten->its)
            close(*forgotten->its);
    }
    Entered& enteredOf(Core& core, const Key& key) {
        Entered& its = core.entered[{key.sort, key.number}];
        if (!its.times)
            its.times = &times[key];
        return its;
    }
    /// It is open once less.
    void close(Entered& its) {
        if (--its.count == 0)
            its.times->total += within(its.from, tick);
    }
    void leave(Core& core, const Key& key) {
        CallStack<Open>& stack = core.stack(key.sort);
        const auto count = stack.leave([&key](const Open& open) { return open.number == key.number; });
        for (std::size_t i = count.value_or(0); i > 0; --i)
            end(core, stack, i == 1);
    }
    void end(Core& core, CallStack<Open>& stack, bool isLeft) {
        run(core);
        const Open open = stack.back();
        stack.pop();
        if (!open.its)
            return;
        if (isLeft && tick > window.from && open.from < window.to)
            open.its->times->durations.add(within(open.from, tick));
        close(*open.its);
    }

    TickWindow window;
    std::map<Key, Times> times{};
    std::map<std::uint32_t, Core> cores{};
    TimeBase clock{};
    std::uint64_t tick = 0; ///< the last one
    std::uint64_t first = kUnknown64;
    std::uint64_t last = 0;
    std::uint64_t firstTime = kUnknown64; ///< of all traces that are finished
    std::uint64_t lastTime = 0;
    bool lacksClock = false;
};

CoreTimes::CoreTimes(TickWindow window) : m_state(platform::makeOwned<State>(State{window})) {}

CoreTimes::~CoreTimes() = default;

void CoreTimes::look(const CTraceCursor& packet, CTraceNames& names, std::uint32_t process, bool isTaken) {
    State& its = *m_state;
    const KindFacts& facts = factsOf(packet.TraceCode());
    if (facts.role == Role::Definition) {
        names.note(*PacketPointer(packet.packet()), process);
        return;
    }
    if (const std::uint64_t tick = packet.tick(); tick != kUnknown64 && facts.sync == ContextSort::None) {
        its.tick = tick;
        if (isTaken && tick >= its.window.from && tick < its.window.to) {
            its.first = std::min(its.first, tick);
            its.last = std::max(its.last, tick);
        }
    }
    if (packet.TraceCode() == Timestamp)
        its.clock.note(*PacketPointer(packet.packet()));
    if (facts.step == Step::None || facts.entered == TextSort::Function)
        return;
    const std::uint32_t core = packet.contextOf<CCoreContext>()->hwCtx;
    const std::uint32_t id = enteredIn(packet);
    const Key key{facts.entered, facts.entered == TextSort::Process ? names.numberOf(facts.entered, id, process) : id,
                  core};
    facts.step == Step::Enter ? its.enter(its.cores[core], key, isTaken) : its.leave(its.cores[core], key);
}

void CoreTimes::finish() {
    State& its = *m_state;
    for (auto& [number, core] : its.cores) {
        for (CallStack<Open>* stack : {&core.interrupts, &core.processes}) {
            while (!stack->empty())
                its.end(core, *stack, false);
        }
    }
    if (its.first != kUnknown64) {
        const auto timeOf = [&](std::uint64_t tick) { return TimeBase::nanosecondsOf(tick, its.clock.frequency()); };
        its.firstTime = std::min(its.firstTime, timeOf(its.first));
        its.lastTime = std::max(its.lastTime, timeOf(its.last));
        its.lacksClock = its.lacksClock || its.clock.frequency() == 0;
    }
    its.cores.clear();
    its.clock = TimeBase();
    its.tick = 0;
    its.first = kUnknown64;
    its.last = 0;
}

const std::map<CoreTimes::Key, CoreTimes::Times>& CoreTimes::times() const {
    return m_state->times;
}

std::uint64_t CoreTimes::span() const {
    return m_state->lastTime > m_state->firstTime ? m_state->lastTime - m_state->firstTime : 0;
}

bool CoreTimes::hasClock() const {
    return !m_state->lacksClock;
}

} // namespace Quorvex

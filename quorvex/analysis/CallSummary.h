#pragma once

#include "quorvex/format/Fields.h"

#include <cstdint>

namespace Quorvex {

class CTraceCursor;

/// What is counted of a trace: all there is, or what happened from one tick to before another. Of a call that reaches
/// beyond, the part within counts, and as a duration what is within.
struct TickWindow {
    std::uint64_t from = 0;        ///< its first tick
    std::uint64_t to = UINT64_MAX; ///< the tick behind its last one
};

/// Whether something is wanted, as a function tells that outlives this.
template <class What> class Condition {
public:
    /// By a function that is called with it.
    template <class Takes>
    Condition(const Takes& takes)
        : m_takes(&takes),
          m_ask([](const void* by, What what) { return static_cast<bool>((*static_cast<const Takes*>(by))(what)); }) {}
    bool operator()(What what) const { return m_ask(m_takes, what); } ///< what it tells

private:
    const void* m_takes;
    bool (*m_ask)(const void* by, What what);
};

/// What is told of the calls in all traces that have been read.
class CallSummary {
public:
    std::uint64_t strayLeaves() const { return m_strayLeaves; } ///< leaves of what had not been entered
    std::uint64_t hiddenCalls() const { return m_hiddenCalls; } ///< calls that were too deep to be told apart
    std::uint64_t span() const {
        return m_first < m_last ? m_last - m_first : 0;
    } ///< from the first enter to the last leave of the calls that count, within the window
    std::uint64_t withClock() const { return m_withClock; }       ///< traces that tell their clock before their calls
    std::uint64_t withoutClock() const { return m_withoutClock; } ///< traces that have calls and do not
    bool clocksDiffer() const { return m_clocksDiffer; } ///< there are clocks of several frequencies in one trace

private:
    template <class Calls, class Mark, class PerThread> friend class CallWalk;

    std::uint64_t m_strayLeaves = 0;
    std::uint64_t m_hiddenCalls = 0;
    std::uint64_t m_first = kUnknown64;
    std::uint64_t m_last = 0;
    std::uint64_t m_withClock = 0;
    std::uint64_t m_withoutClock = 0;
    bool m_clocksDiffer = false;
};

} // namespace Quorvex

#pragma once

#include "quorvex/platform/Export.h"

#include <cstdint>

namespace Quorvex {

/// Measures elapsed time with the system's high-resolution counter. Belongs to one thread at a time.
class QUORVEX_API CStopwatch {
public:
    /// With `startNow` the watch runs at once.
    CStopwatch(bool startNow = false);

    void start() { m_start = tick(); } ///< begins a span
    void stop() { m_stop = tick(); }   ///< ends it
    /// The counter's value now, in ticks.
    std::uint64_t getCurrentTick() const { return tick(); }
    /// Ticks in one second.
    std::uint64_t getFreq() const { return m_frequency; }
    /// Ticks from start to stop; wraps around when stopped before started.
    std::uint64_t getExpiredTicks() const { return m_stop - m_start; }
    /// From start() to stop().
    double getExpiredSeconds() const {
        return static_cast<double>(getExpiredTicks()) / static_cast<double>(m_frequency);
    }

protected:
    void init(); ///< asks the clock for its frequency
    /// The counter's value; all ones, which means unknown in traces, is replaced by 0.
    static std::uint64_t tick();

private:
    std::uint64_t m_start = 0;
    std::uint64_t m_stop = 0;
    std::uint64_t m_frequency = 1;
};

/// A stopwatch that runs from its construction to its destruction and then reports the time to the message log.
class QUORVEX_API CAutowatch : public CStopwatch {
public:
    /// `name` is not copied and may be null; `number` is 0 for none.
    CAutowatch(const char* name, unsigned number) : CStopwatch(true), m_name(name), m_number(number) {}
    CAutowatch(const CAutowatch&) = delete;
    CAutowatch& operator=(const CAutowatch&) = delete;
    ~CAutowatch();

private:
    const char* m_name;
    unsigned m_number;
};

} // namespace Quorvex

#pragma once

#include <cstdint>

namespace bench {

constexpr unsigned kFunctions = 100; ///< numbered from 0
constexpr std::uint64_t kTicksPerSecond = 1'000'000'000;

/// What a thread of a program records: calls of functions, up to 16 deep, some hundred ticks apart. The same each time.
class Calls {
public:
    struct Event {
        std::uint64_t tick;
        unsigned function;
        bool isEnter;
    };

    /// That many events, an even number: each call ends.
    explicit Calls(unsigned events) : m_left(events) {}

    Event next() {
        m_random = m_random * 6364136223846793005U + 1442695040888963407U;
        const auto bits = static_cast<unsigned>(m_random >> 33);
        m_tick += 100 + bits % 128;
        const bool isEnter = m_depth == 0 || (m_depth < kDeepest && m_depth < m_left && bits & 128);
        --m_left;
        if (isEnter)
            return {m_tick, m_entered[m_depth++] = (bits >> 8) % kFunctions, true};
        return {m_tick, m_entered[--m_depth], false};
    }

private:
    static constexpr unsigned kDeepest = 16;

    std::uint64_t m_random = 1;
    std::uint64_t m_tick = 0;
    unsigned m_left;
    unsigned m_depth = 0;
    unsigned m_entered[kDeepest] = {};
};

} // namespace bench

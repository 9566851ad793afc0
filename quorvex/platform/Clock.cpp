#include "quorvex/platform/Clock.h"

#if defined(__linux__) && (defined(__x86_64__) || defined(__i386__))
#include <cpuid.h>
#include <fstream>
#endif

namespace Quorvex::platform {

ClockLine<detail::ProcessorClocks> g_recordingClock;

ClockChoice chooseClock(const std::string& word, const CounterFacts& facts) {
    if (word == "monotonic")
        return {};
    if (word == "tsc")
        return {facts.steady, facts.steady
                                  ? ""
                                  : "Cannot take the time from the processor's counter, which is not known to run "
                                    "at one rate; taking the system's."};
    const bool reliable = facts.steady && facts.systemClock == "tsc";
    if (word.empty() || word == "auto")
        return {reliable, ""};
    return {reliable, "Cannot take the time from clock " + word + ": no such clock; taking the usual one."};
}

#if defined(__linux__) && (defined(__x86_64__) || defined(__i386__))

CounterFacts counterFacts() {
    CounterFacts facts;
    constexpr unsigned kInOrder = 1U << 27, kInvariant = 1U << 8;
    unsigned a = 0, b = 0, c = 0, features = 0, power = 0;
    facts.steady = __get_cpuid(0x80000001, &a, &b, &c, &features) && (features & kInOrder) &&
                   __get_cpuid(0x80000007, &a, &b, &c, &power) && (power & kInvariant);
    std::ifstream("/sys/devices/system/clocksource/clocksource0/current_clocksource") >> facts.systemClock;
    return facts;
}

#else

CounterFacts counterFacts() {
    return {};
}

#endif

} // namespace Quorvex::platform

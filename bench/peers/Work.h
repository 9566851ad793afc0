#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>

/// Does the work, and prints how many nanoseconds an event has taken; EXIT_FAILURE when `work` has not met that many.
template <class Work> int measure(unsigned events, Work&& work) {
    const auto start = std::chrono::steady_clock::now();
    const unsigned met = work();
    const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
    if (met != events) {
        std::fprintf(stderr, "%u events, expected %u\n", met, events);
        return EXIT_FAILURE;
    }
    std::printf("%.2f\n", time.count() / events);
    return EXIT_SUCCESS;
}

/// The events that the command line tells behind what is to be done: "read 1000".
inline unsigned eventsOf(char** argv) {
    return static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10));
}

/// The compiler takes what is around the call for changed, and leaves the call.
inline void doNothing() {
    asm volatile("" : : : "memory");
}

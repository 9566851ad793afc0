#pragma once

/// The clock of programs that record themselves. It tells the time of counterTick(), in its ticks, from the processor's
/// own counter where that may be relied on: reading that takes less than asking the system.
///
/// The counter's own ticks are not what is told. Its frequency is known exactly to nobody: processors and hypervisors
/// name a nominal one or none, and a program that measures it while it starts finds another one each time. Counted from
/// the start of the machine, a millionth more or less is seconds; traces of two processes could not be merged, and
/// nobody's times would be those that other programs tell, perf (with -k mono) and LTTng among them. As it is, all
/// traces of a machine tell one frequency and one time, whichever clock each was recorded by, and what is measured of
/// the counter's rate may become better while the program runs.
///
/// It is relied on by itself only where
/// - the processor says that it runs at one rate, also while the processor sleeps, and can be read in order;
/// - and the system counts its own time by it. Linux compares the counters of all processors, watches them, and takes
///   another clock when they differ, and nobody else can find that out. In a virtual machine it takes the hypervisor's
///   clock where the counter may change with the host (kvm-clock, say): then the counter is not relied on either.
/// Elsewhere than on Linux with an x86 processor nothing tells the second; there the system's clock is read. Windows'
/// comes from the same counter where that may be.
///
/// Reading waits until what stands before it in the program has been done (RDTSCP). A processor that may read earlier
/// is quicker by a third, but then a thread that has been handed something can tell a time before that of the
/// hand-over: as much as a load from memory takes.

#include "quorvex/platform/ClockLine.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/System.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Quorvex::platform {

/// What is known of the processor's counter.
struct CounterFacts {
    bool steady = false;     ///< it runs at one rate and can be read in order
    std::string systemClock; ///< what the system counts its time by, in its own word; empty where it does not tell
};
QUORVEX_API CounterFacts counterFacts(); ///< of this machine

/// The choice that a word makes.
struct ClockChoice {
    bool byCounter = false; ///< take the time from the counter
    std::string complaint;  ///< what the user is to be told; empty where all is as the word says
};
/// By `auto`, or none, the counter is taken where it may be relied on, by `tsc` also where the system does not count
/// its time by it, by `monotonic` never.
QUORVEX_API ClockChoice chooseClock(const std::string& word, const CounterFacts& facts);

namespace detail {
/// The processor's counter, and the system's clock.
struct ProcessorClocks {
    static std::uint64_t counter() {
#if defined(__linux__) && (defined(__x86_64__) || defined(__i386__))
        unsigned processor = 0;
        return __builtin_ia32_rdtscp(&processor);
#else
        return 0;
#endif
    }
    static std::uint64_t system() {
        return counterTick();
    }
    static std::uint64_t frequency() {
        return counterFrequency();
    }
};
} // namespace detail

/// What packets take their ticks from; by the system's clock until it is started.
extern ClockLine<detail::ProcessorClocks> g_recordingClock;

} // namespace Quorvex::platform

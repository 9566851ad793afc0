#pragma once

#include "quorvex/platform/System.h"

#if defined(__linux__) && __has_include(<sys/rseq.h>) && defined(__x86_64__)
#include <cstddef>
#include <sys/rseq.h>
#define QUORVEX_RSEQ
#endif

namespace Quorvex::platform {

/// currentProcessor(), for those who ask all the time: where the system keeps the number in the thread's own memory, it
/// is read there. Linux does, in the area for restartable sequences that glibc registers from 2.35 on; it is negative
/// where that was not done. (sched_getcpu() looks there, too, but has to be called.)
inline unsigned processorHere() {
#if defined(QUORVEX_RSEQ)
    const char* const area = static_cast<const char*>(__builtin_thread_pointer()) + __rseq_offset;
    const int known = *reinterpret_cast<const volatile int*>(area + offsetof(struct rseq, cpu_id));
    if (known >= 0) [[likely]]
        return static_cast<unsigned>(known);
#endif
    return currentProcessor();
}

} // namespace Quorvex::platform

#undef QUORVEX_RSEQ

// Calls of a function that tells LTTng of its enter and leave.
//
//     Lttng record EVENTS

#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#define LTTNG_UST_TRACEPOINT_DEFINE
#include "bench/peers/LttngEvents.h"
#include "bench/peers/Work.h"

namespace {

[[gnu::noinline]] void traced() {
    lttng_ust_tracepoint(quorvex_bench, enter, 7);
    doNothing();
    lttng_ust_tracepoint(quorvex_bench, leave, 7);
}

} // namespace

int main(int, char** argv) {
    const unsigned events = eventsOf(argv);
    return measure(events, [events] {
        for (unsigned i = 0; i < events / 2; ++i)
            traced();
        return events;
    });
}

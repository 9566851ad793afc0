// Calls of a function that others trace: compiled so that it tells of itself.
//
//     Calls record EVENTS

#include "bench/peers/Work.h"

namespace {

[[gnu::noinline]] void traced() {
    doNothing();
}

[[gnu::no_instrument_function]] unsigned callIt(unsigned events) {
    for (unsigned i = 0; i < events / 2; ++i)
        traced();
    return events;
}

} // namespace

int main(int, char** argv) {
    return measure(eventsOf(argv), [&] { return callIt(eventsOf(argv)); });
}

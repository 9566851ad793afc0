// Tells of itself by all that Record.h has for C.

#include "quorvex/instrument/Record.h"

int tellInC(const char* name);

static int countDown(int n) {
    QUORVEX_TRACE_FUNCTION();
    QUORVEX_TRACE_COUNTER("n", "", n);
    return n == 0 ? 0 : countDown(n - 1);
}

int tellInC(const char* name) {
    int ready = 0;
    QUORVEX_TRACE_THREAD(name);
    QUORVEX_TRACE_PROCESS("in C");
    QUORVEX_TRACE_SCOPE("outer"); QUORVEX_TRACE_SCOPE("inner");
    QUORVEX_TRACE_COUNTER("load", "%", 12.5);
    if (countDown(1) != 0)
        QUORVEX_TRACE_EVENT("never");
    else
        QUORVEX_TRACE_EVENT("always");
    QUORVEX_TRACE_EVENT_DATA("data", "AB", 2);
    QUORVEX_TRACE_MESSAGE("a message");
    QUORVEX_TRACE_WAIT("data", ready, ready = 1);
    QUORVEX_TRACE_WAIT("data", ready, ready = 2);
    return ready == 1 ? 0 : 1;
}

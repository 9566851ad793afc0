// Tells of itself by all that Record.h has for C++. Compiled a second time, as TELL and with QUORVEX_NO_TRACE.

#include "tests/instrument/Told.h"

#include "quorvex/instrument/Record.h"

#ifndef TELL
#define TELL tellInCpp
#endif

namespace Quorvex::test {
namespace {

/// A mutex that is busy now and then; says what was done to it.
struct Mutex {
    bool isFree;
    int held = 0;
    bool try_lock() {
        held += isFree;
        return isFree;
    }
    void lock() { ++held; }
    void unlock() { --held; }
    bool try_lock_shared() { return try_lock(); }
    void lock_shared() { lock(); }
    void unlock_shared() { unlock(); }
};

constexpr int twice(int n) {
    QUORVEX_TRACE_FUNCTION();
    QUORVEX_TRACE_COUNTER("n", "", n);
    if (n > 1)
        QUORVEX_TRACE_EVENT("more than one");
    return 2 * n;
}
static_assert(twice(2) == 4);

template <class Number> Number half(Number n) {
    if (QUORVEX_TRACE_SCOPE("a \"half\""); n != 0)
        return n / 2;
    return n;
}

} // namespace

int TELL(const char* name) {
    QUORVEX_TRACE_THREAD(name);
    QUORVEX_TRACE_PROCESS("a process");
    // clang-format off
    { QUORVEX_TRACE_SCOPE("outer"); QUORVEX_TRACE_SCOPE("inner"); }
    // clang-format on
    twice(2);
    half(1);
    half(1.5);
    for (int i = 0; i < 2; ++i)
        if (i == 1)
            QUORVEX_TRACE_SCOPE("alone");
    const unsigned char few = 255;
    QUORVEX_TRACE_COUNTER("load", "%", 12.5F);
    QUORVEX_TRACE_COUNTER("few", "pieces", few);
    QUORVEX_TRACE_COUNTER("below", "", -1L);
    constexpr char kData[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZABCDEFGHIJKLMNOPQRSTUVWXYZABCDEFGHIJKLMN";
    QUORVEX_TRACE_EVENT_DATA("data", kData, 2);
    QUORVEX_TRACE_EVENT_DATA("much data", kData, sizeof kData);
    QUORVEX_TRACE_MESSAGE("a message");

    Mutex idle{true}, busy{false};
    int held = 0;
    {
        QUORVEX_LOCK(idle);
        QUORVEX_LOCK(busy);
        QUORVEX_LOCK_SHARED(busy);
        held = 10 * idle.held + busy.held;
    }
    bool ready = false;
    for (int i = 0; i < 2; ++i)
        QUORVEX_TRACE_WAIT("data", ready, int one = 1, other = one; ready = other == 1);

    {
        QUORVEX_TRACE_SCOPE("entered before");
        quorvex_set_recording(0);
        QUORVEX_TRACE_SCOPE("not recorded");
        QUORVEX_TRACE_COUNTER("not recorded", "", 1);
        QUORVEX_TRACE_EVENT("not recorded");
        QUORVEX_TRACE_MESSAGE("not recorded");
        QUORVEX_TRACE_THREAD("not recorded");
    }
    quorvex_set_recording(1);
    return held == 12 && idle.held + busy.held == 0 && ready ? 0 : 1;
}

} // namespace Quorvex::test

#include "quorvex/quorvex.h"

#include <thread>

static unsigned fibonacci(unsigned n) {
    QUORVEX_TRACE_FUNCTION();
    return n < 2 ? n : fibonacci(n - 1) + fibonacci(n - 2);
}

int main() {
    std::thread other([] { fibonacci(5); });
    fibonacci(6);
    other.join();
}

// Two cooks share a stove, and tell what they do, how many orders there are, and where they wait.

#include "quorvex/instrument/Record.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <queue>
#include <thread>

namespace {

std::mutex g_orders, g_stove;
std::condition_variable g_ordered;
std::queue<int> g_minutes; ///< what the orders take; 0: that is all

void order(int minutes) {
    const std::lock_guard lock(g_orders);
    g_minutes.push(minutes);
    QUORVEX_TRACE_COUNTER("orders", "pieces", g_minutes.size());
    g_ordered.notify_one();
}

int nextOrder() {
    std::unique_lock lock(g_orders);
    QUORVEX_TRACE_WAIT("order", !g_minutes.empty(), g_ordered.wait(lock, [] { return !g_minutes.empty(); }));
    const int minutes = g_minutes.front();
    g_minutes.pop();
    QUORVEX_TRACE_COUNTER("orders", "pieces", g_minutes.size());
    return minutes;
}

void cook(const char* name) {
    QUORVEX_TRACE_THREAD(name);
    while (const int minutes = nextOrder()) {
        QUORVEX_TRACE_FUNCTION();
        {
            QUORVEX_LOCK(g_stove);
            QUORVEX_TRACE_SCOPE("fry");
            std::this_thread::sleep_for(std::chrono::milliseconds(minutes));
        }
        if (minutes > 30)
            QUORVEX_TRACE_EVENT("burnt");
    }
}

} // namespace

int main() {
    QUORVEX_TRACE_PROCESS("kitchen");
    std::thread one(cook, "Ada"), other(cook, "Ben");
    for (int minutes = 20; minutes <= 40; minutes += 10) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        order(minutes);
        order(minutes);
    }
    QUORVEX_TRACE_MESSAGE("the kitchen closes");
    order(0);
    order(0);
    one.join();
    other.join();
}

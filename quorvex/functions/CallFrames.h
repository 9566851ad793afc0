#pragma once

#include <atomic>
#include <cstdint>

namespace Quorvex::detail {

/// The calls of a thread that are open, innermost last: which function each is of, and where on the stack its frame is.
/// By that those are found whose function was left without a word: by longjmp, by an exception through code that does
/// not tell of it, by a switch to another stack.
///
/// A stack grows downward, so a frame below the one that calls now is of a function that has ended. So is one at the
/// same place, but for a function that the compiler has made part of another: then both return to the same place, and
/// call the hook from different ones. That holds on the thread's own stack only. On another one (a signal's, a fiber's)
/// nothing is concluded from addresses; what is open there has ended when its caller ends.
///
/// It belongs to its thread, and begins in memory of zeros, which it does not touch before there are calls. A signal
/// handler may do the same in the middle of each function, and finds and leaves the calls that were open as they are.
class CallFrames {
public:
    /// Calls that are open beyond so many are only counted.
    static constexpr unsigned kMost = 0x8000;
    static constexpr unsigned kNotOpen = ~0U;

    struct Bounds {
        std::uintptr_t from = 0, to = 0; ///< to: behind it
        bool contains(std::uintptr_t at) const { return at - from < to - from; }
    };
    /// Where the thread's own stack is.
    void stackIs(Bounds bounds) { m_stack = bounds; }

    /// How many are open.
    unsigned depth() const { return m_depth; }

    /// A call, as its hook sees it.
    struct Call {
        const void* function; ///< null in a place that is not filled
        std::uintptr_t at;    ///< the hook's frame, right below that of the function
        const void* site;     ///< where the function returns to
        const void* hook;     ///< where the hook returns to
    };

    /// A function is entered. Calls `left(function, depth)` before for each call that has ended
    /// without a word, `depth` being the number of calls it was within. The number of calls that the new one is within.
    template <class Left> unsigned enter(const Call& call, Left&& left) {
        if (m_depth != 0 && top().at <= call.at) [[unlikely]] {
            dropEnded(call.at, left);
            if (m_depth != 0 && m_depth <= kMost && isReplacedBy(call))
                drop(left);
        }
        const unsigned within = m_depth;
        // The place is taken before it is filled, or a handler would take it, too.
        m_depth = within + 1;
        if (within < kMost) [[likely]] {
            keepOrder();
            m_calls[within] = call;
        }
        return within;
    }

    /// A function is left, by a hook at `at`, and returns to `site`. Calls `left` for the calls that have ended without
    /// a word. The number of calls that it was within, or kNotOpen, also where `left` has been told of it.
    template <class Left> unsigned leave(const void* function, std::uintptr_t at, const void* site, Left&& left) {
        // Compilers may call the hook of a leave when the frame is gone already; then it is above.
        if (m_depth != 0 && m_depth <= kMost) [[likely]] {
            const Call& call = m_calls[m_depth - 1];
            if (call.function == function && call.site == site && call.at <= at) [[likely]]
                return pop();
        }
        return leaveOther(function, at, left);
    }

    /// Calls `left` for all that are open, innermost first.
    template <class Left> void leaveAll(Left&& left) {
        while (m_depth > 0)
            drop(left);
    }

    /// Forgets all of them.
    void clear() {
        while (m_depth > 0)
            pop();
    }

private:
    static void keepOrder() { std::atomic_signal_fence(std::memory_order_seq_cst); }
    Call& top() { return m_calls[(m_depth < kMost ? m_depth : kMost) - 1]; }

    unsigned pop() {
        const unsigned within = m_depth - 1;
        if (within < kMost)
            m_calls[within].function = nullptr;
        keepOrder();
        m_depth = within;
        return within;
    }
    template <class Left> void drop(Left&& left) {
        const void* const function = m_depth <= kMost ? top().function : nullptr;
        const unsigned within = pop();
        if (function)
            left(function, within);
    }

    /// Whether a call has ended as the frame at `at` is the innermost of the stack.
    bool hasEnded(const Call& call, std::uintptr_t at) const {
        return call.function && (call.at < at || !m_stack.contains(call.at));
    }
    /// Whether the last call has ended as another one has its place on the stack.
    bool isReplacedBy(const Call& call) {
        const Call& last = top();
        return last.function && last.at == call.at && (last.site != call.site || last.hook == call.hook);
    }
    template <class Left> [[gnu::noinline]] const void* dropEnded(std::uintptr_t at, Left&& left) {
        const void* last = nullptr;
        while (m_depth > 0 && m_stack.contains(at) && hasEnded(top(), at)) {
            last = m_depth <= kMost ? top().function : nullptr;
            drop(left);
        }
        return last;
    }
    template <class Left> [[gnu::noinline]] unsigned leaveOther(const void* function, std::uintptr_t at, Left&& left) {
        if (m_depth > kMost && !(m_stack.contains(at) && hasEnded(top(), at)))
            return pop();
        const void* const last = dropEnded(at, left);
        if (m_depth > 0 && top().function == function && top().at == at)
            return pop();
        if (last == function)
            return kNotOpen;
        unsigned found = m_depth < kMost ? m_depth : kMost;
        while (found > 0 && m_calls[found - 1].function != function)
            --found;
        if (found == 0)
            return kNotOpen;
        while (m_depth > found)
            drop(left);
        return pop();
    }

    // `m_depth` is written between two fences, and read by handlers of its own thread only.
    unsigned m_depth = 0;
    Bounds m_stack;
    Call m_calls[kMost];
};

} // namespace Quorvex::detail

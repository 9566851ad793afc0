#pragma once

#include "quorvex/platform/System.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <mutex>

namespace Quorvex::platform {

/// Tells the time of a clock, in its ticks, from a counter that is cheaper to read and whose rate need not be known.
///
/// Time is taken from a line through two readings of both clocks, and only for as long as twice the time between them:
/// then both are read again, and the next line begins. So what it tells stays as near to the clock as the readings are
/// exact, from the first one on, and follows changes of either rate. A line is never changed, and the next one begins
/// no earlier than the one before it ends: however threads and signal handlers come between each other, time never goes
/// back where the counter does not. Where that does, or jumps (the machine was suspended), time goes on from the end of
/// the line, which is at most a quarter of a second ahead, and comes down to the clock within a second.
///
/// Clocks has the static functions counter() and system(), which read the two, and frequency(), the ticks of the clock
/// in a second. All threads read the same counter, and no thread can read less than what another one has read before
/// it. Off until start(), and when the counter stops: it then tells what system() does. Plain memory, for any thread
/// and any signal handler.
template <class Clocks> class ClockLine {
public:
    constexpr ClockLine() = default;
    ClockLine(const ClockLine&) = delete;
    ClockLine& operator=(const ClockLine&) = delete;

    /// Begins to use the counter. False where that does not count. Takes some ten microseconds.
    bool start() {
        const Uninterrupted quiet;
        const std::lock_guard hold(m_lock);
        return begin(0);
    }

    /// The time now, in ticks of the clock.
    std::uint64_t now() {
        std::uint64_t tick = 0;
        const unsigned turn = m_turn.load(std::memory_order_acquire);
        if (turn == kOff) [[unlikely]]
            return Clocks::system();
        if (tells(turn, tick)) [[likely]]
            return tick;
        return nowBehind(turn);
    }

    /// Hold off the change of lines; around a fork, or the child's would wait for good. Where no handler can come
    /// between.
    void lock() { m_lock.lock(); }
    void unlock() { m_lock.unlock(); }

private:
    static constexpr unsigned kOff = 0;
    static constexpr unsigned kRateBits = 32;
    static constexpr double kOne = double(std::uint64_t{1} << kRateBits);
    static constexpr unsigned kTries = 5;

    struct Line {
        std::atomic<std::uint64_t> from{0};   ///< the counter where it begins
        std::atomic<std::uint64_t> length{0}; ///< of the counter
        std::atomic<std::uint64_t> base{0};   ///< the time there
        std::atomic<std::uint64_t> rate{0};   ///< of time to counter, in parts of 2^32; all of the line is below 2^64
        std::uint64_t measured = 0;           ///< the clock where it begins; guarded by the lock like what follows
        double measuredRate = 0;

        std::uint64_t tick(std::uint64_t passed) const {
            return base.load(std::memory_order_acquire) + (passed * rate.load(std::memory_order_acquire) >> kRateBits);
        }
    };

    /// Both clocks at one moment, which is known to within `width` of the counter.
    struct Reading {
        std::uint64_t counter;
        std::uint64_t system;
        std::uint64_t width;

        /// The best of some: the thread may be interrupted in one.
        static Reading take() {
            Reading best{0, 0, ~std::uint64_t{0}};
            for (unsigned i = 0; i < kTries; ++i) {
                const std::uint64_t before = Clocks::counter();
                const std::uint64_t system = Clocks::system();
                const std::uint64_t width = Clocks::counter() - before;
                if (width < best.width)
                    best = {before + width / 2, system, width};
            }
            return best;
        }
    };

    /// A first line, which begins no earlier than at `floor`. The time between its readings is so long that what they
    /// are uncertain by is less than a part in a hundred. Where the counter jumps meanwhile, it is measured again.
    bool begin(std::uint64_t floor) {
        constexpr unsigned kParts = 128, kMostReadings = 100'000;
        const std::uint64_t most = 100'000'000'000 / Clocks::frequency(); // no counter is quicker than that
        Reading first = Reading::take();
        for (unsigned i = 0; i < kMostReadings; ++i) {
            const Reading last = Reading::take();
            const std::uint64_t passed = last.counter - first.counter;
            const std::uint64_t gone = last.system - first.system;
            if (gone > 0 && passed / gone > most) {
                first = last;
            } else if (gone > 0 && passed / kParts > first.width + last.width) {
                draw(last, gone, double(gone) / double(passed), floor);
                return true;
            }
        }
        m_turn.store(kOff, std::memory_order_release);
        return false;
    }

    /// Whether the line of `turn` holds now, and the time by it.
    bool tells(unsigned turn, std::uint64_t& tick) const {
        // Lines take turns in two places. A handler, or another thread, may write the place as it is read here.
        const Line& line = m_lines[turn % 2];
        const std::uint64_t passed = Clocks::counter() - line.from.load(std::memory_order_acquire);
        const std::uint64_t length = line.length.load(std::memory_order_acquire);
        tick = line.tick(passed);
        return passed < length && m_turn.load(std::memory_order_relaxed) == turn;
    }

    /// The time now, by a line behind that of `turn`. Not inlined: it comes a few times in a second.
    [[gnu::noinline, gnu::cold]] std::uint64_t nowBehind(unsigned turn) {
        std::uint64_t tick = 0;
        do {
            renew(turn);
            turn = m_turn.load(std::memory_order_acquire);
            if (turn == kOff)
                return Clocks::system();
        } while (!tells(turn, tick));
        return tick;
    }

    /// The next line, behind that of `turn`; nothing where another thread has drawn it, or that one holds.
    void renew(unsigned turn) {
        const Uninterrupted quiet;
        const std::lock_guard hold(m_lock);
        if (m_turn.load(std::memory_order_relaxed) != turn)
            return;
        const Line& line = m_lines[turn % 2];
        const Reading last = Reading::take();
        const std::uint64_t from = line.from.load(std::memory_order_relaxed);
        const std::uint64_t length = line.length.load(std::memory_order_relaxed);
        const std::uint64_t passed = last.counter - from;
        if (passed < length)
            return;
        const std::uint64_t gone = last.system - line.measured;
        const double rate = double(gone) / double(passed);
        // Another rate means that the counter has jumped or begun anew, or that another one is counting.
        if (std::abs(rate - line.measuredRate) < line.measuredRate / 32)
            draw(last, gone, rate, line.tick(length));
        else
            begin(line.tick(length));
    }

    /// The next line, from the reading on. The last one, or the last try, took `gone`.
    void draw(const Reading& at, std::uint64_t gone, double rate, std::uint64_t floor) {
        const std::uint64_t last = std::min(2 * gone, Clocks::frequency() / 4);
        const std::uint64_t base = std::max(at.system, floor);
        // What it is ahead of the clock is made up for on the way.
        const double ahead = double(std::min(base - at.system, last / 2)) / double(last);
        const unsigned turn = m_turn.load(std::memory_order_relaxed) + 1;
        Line& line = m_lines[turn % 2];
        line.from.store(at.counter, std::memory_order_release);
        line.length.store(static_cast<std::uint64_t>(double(last) / rate), std::memory_order_release);
        line.base.store(base, std::memory_order_release);
        line.rate.store(static_cast<std::uint64_t>(rate * (1 - ahead) * kOne), std::memory_order_release);
        line.measured = at.system;
        line.measuredRate = rate;
        m_turn.store(turn, std::memory_order_release);
    }

    std::mutex m_lock;
    std::atomic<unsigned> m_turn{kOff};
    Line m_lines[2];
};

} // namespace Quorvex::platform

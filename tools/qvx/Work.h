#pragma once

#include "quorvex/stream/ReadWatch.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

namespace qvx {

class Verb;

/// How a verb does what takes long: by how many threads, and with a line on standard error, where that is a terminal,
/// that shows how far it has come. The line appears after a second, and is taken away before anything else is written
/// there. There is one for the program; read() may be called by several threads at once, all else by one.
class Work : public Quorvex::ReadWatch {
public:
    static Work& now();

    /// The options --jobs and --no-progress.
    void addTo(Verb& verb);
    /// Forgets all, for a verb that is to begin.
    void begin();

    /// At most so many threads work; 0: one a processor.
    unsigned jobs() const;

    /// The bytes of a file will be read, once more than was said so far.
    void expect(const std::string& file);
    void read(std::uint64_t bytes) override;
    /// Takes the line away, until more is read.
    void makeRoom();
    /// Takes it away for good: something else is shown on the terminal.
    void hide();

private:
    using Clock = std::chrono::steady_clock;

    void draw(Clock::time_point time);

    std::uint64_t m_jobs = 0;
    bool m_noProgress = false;
    std::atomic<bool> m_isShown = false; ///< where there is something to show
    std::uint64_t m_expected = 0;        ///< bytes
    std::atomic<std::uint64_t> m_read = 0;
    std::atomic<Clock::rep> m_next = 0; ///< when the line is drawn again
    std::mutex m_drawing;               ///< guards what is below
    Clock::time_point m_begin;
    std::size_t m_width = 0; ///< of the line that is there
};

/// The line: `read` bytes of so many that are expected, 0 for unknown, in that time.
std::string progressLine(std::uint64_t read, std::uint64_t expected, std::chrono::milliseconds time);

} // namespace qvx

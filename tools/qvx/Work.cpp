#include "Work.h"

#include "Arguments.h"
#include "quorvex/platform/System.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <system_error>

namespace qvx {

namespace {

constexpr std::chrono::seconds kPatience{1}; ///< before there is anything to see
constexpr std::chrono::milliseconds kBetween{100};

/// A number of bytes in three or four characters.
std::string amountOf(std::uint64_t bytes) {
    constexpr const char* kUnits[] = {"B", "kB", "MB", "GB", "TB", "PB", "EB"};
    double amount = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (; amount >= 999.5; ++unit)
        amount /= 1000;
    return fmt::format("{:.{}f} {}", amount, unit > 0 && amount < 9.95 ? 1 : 0, kUnits[unit]);
}

} // namespace

std::string progressLine(std::uint64_t read, std::uint64_t expected, std::chrono::milliseconds time) {
    constexpr std::size_t kWidth = 30;
    const double seconds = std::max(static_cast<double>(time.count()) / 1000, 0.001);
    const double rate = static_cast<double>(read) / seconds;
    const std::string rateText = amountOf(static_cast<std::uint64_t>(rate)) + "/s";
    if (expected == 0)
        return fmt::format("{}, {}", amountOf(read), rateText);
    // What is read twice for some reason does not make more of it than all.
    const double part = std::min(static_cast<double>(read) / static_cast<double>(expected), 1.0);
    const auto done = static_cast<std::size_t>(part * kWidth);
    const auto left = static_cast<std::uint64_t>(seconds / std::max(part, 1e-6) * (1 - part) + 0.5);
    return fmt::format("[{}{}] {:3.0f} %, {}, {}:{:02} left", std::string(done, '='), std::string(kWidth - done, ' '),
                       part * 100, rateText, left / 60, left % 60);
}

Work& Work::now() {
    static Work work;
    return work;
}

void Work::addTo(Verb& verb) {
    verb.option("--jobs", m_jobs, "Let at most N threads work (default: one a processor)");
    verb.flag("--no-progress", m_noProgress, "Do not show on a terminal how far long work has come");
}

void Work::begin() {
    m_jobs = 0;
    m_noProgress = false;
    m_expected = 0;
    m_read = 0;
    m_next = (Clock::now() + kPatience).time_since_epoch().count();
    m_begin = Clock::now();
    m_isShown = Quorvex::platform::isTerminal(2);
}

unsigned Work::jobs() const {
    return static_cast<unsigned>(std::min<std::uint64_t>(m_jobs, std::numeric_limits<unsigned>::max()));
}

void Work::expect(const std::string& file) {
    std::error_code unknown;
    const bool isFile = m_isShown && std::filesystem::is_regular_file(file, unknown);
    const std::uintmax_t size = isFile ? std::filesystem::file_size(file, unknown) : 0;
    m_expected += unknown ? 0 : size;
}

void Work::read(std::uint64_t bytes) {
    if (!m_isShown)
        return;
    m_read += bytes;
    const Clock::time_point time = Clock::now();
    Clock::rep next = m_next;
    if (time.time_since_epoch().count() >= next &&
        m_next.compare_exchange_strong(next, (time + kBetween).time_since_epoch().count()))
        draw(time);
}

void Work::draw(Clock::time_point time) {
    const std::lock_guard lock(m_drawing);
    if (!m_isShown || m_noProgress)
        return;
    using std::chrono::milliseconds;
    std::string line = progressLine(m_read, m_expected, std::chrono::duration_cast<milliseconds>(time - m_begin));
    const std::size_t width = line.size();
    line.resize(std::max(width, m_width), ' ');
    std::fputs(("\r" + line).c_str(), stderr);
    m_width = width;
}

void Work::makeRoom() {
    const std::lock_guard lock(m_drawing);
    if (m_width > 0)
        std::fputs(("\r" + std::string(m_width, ' ') + "\r").c_str(), stderr);
    m_width = 0;
}

void Work::hide() {
    m_isShown = false;
    makeRoom();
}

} // namespace qvx

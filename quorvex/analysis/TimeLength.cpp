#include "quorvex/analysis/TimeLength.h"

#include "quorvex/analysis/TimeBase.h"
#include "quorvex/format/Digits.h"

#include <algorithm>
#include <charconv>
#include <limits>

namespace Quorvex {

namespace {

constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();

struct Unit {
    std::string_view name;
    std::uint64_t picoseconds;
};
constexpr Unit kUnits[] = {{"ns", 1'000}, {"us", 1'000'000}, {"ms", 1'000'000'000}, {"s", 1'000'000'000'000}};

/// A number that a text begins with, taken off it.
std::optional<std::uint64_t> takeNumber(std::string_view& text, int base = 10) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc())
        return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return number;
}

char* putUnit(char* to, std::string_view unit) {
    return to + unit.copy(to, unit.size());
}

} // namespace

std::optional<TimeLength> TimeLength::of(std::string_view text) {
    TimeLength duration;
    if (text.starts_with("0x")) {
        text.remove_prefix(2);
        const auto ticks = takeNumber(text, 16);
        duration.m_amount = ticks.value_or(0);
        return ticks && text.empty() ? std::optional(duration) : std::nullopt;
    }
    const auto whole = takeNumber(text);
    if (!whole)
        return std::nullopt;
    duration.m_amount = *whole;
    if (text.empty())
        return duration;
    std::string_view digits;
    if (text[0] == '.') {
        text.remove_prefix(1);
        digits = text.substr(0, std::min(text.find_first_not_of("0123456789"), text.size()));
        text.remove_prefix(digits.size());
        if (digits.empty())
            return std::nullopt;
    }
    for (const auto& [name, picoseconds] : kUnits) {
        if (text != name)
            continue;
        if (*whole > kMost / picoseconds - 1)
            return std::nullopt;
        duration.m_amount = *whole * picoseconds;
        std::uint64_t place = picoseconds; // what is below a picosecond does not count
        for (const char digit : digits)
            duration.m_amount += static_cast<std::uint64_t>(digit - '0') * (place /= 10);
        duration.m_hasUnit = true;
        return duration;
    }
    return std::nullopt;
}

std::uint64_t TimeLength::ticks(std::uint64_t frequency) const {
    return m_hasUnit ? TimeBase::ticksOf(m_amount, frequency) : m_amount;
}

char* putDuration(char* to, std::uint64_t nanoseconds) {
    constexpr std::uint64_t kThousand = 1000, kMillion = 1'000'000;
    if (nanoseconds < kThousand)
        return putUnit(putDecimal(to, nanoseconds), " ns");
    const bool isSeconds = nanoseconds >= kThousand * kMillion, isMicroseconds = nanoseconds < kMillion;
    const std::uint64_t thousandths = isSeconds        ? nanoseconds / kMillion
                                      : isMicroseconds ? nanoseconds
                                                       : nanoseconds / kThousand;
    to = putDecimal(to, thousandths / kThousand);
    const auto part = static_cast<unsigned>(thousandths % kThousand);
    *to++ = '.';
    *to++ = static_cast<char>('0' + part / 100);
    *to++ = static_cast<char>('0' + part / 10 % 10);
    *to++ = static_cast<char>('0' + part % 10);
    return putUnit(to, isSeconds ? " s" : isMicroseconds ? " us" : " ms");
}

void appendDuration(std::string& to, std::uint64_t nanoseconds) {
    char text[kDurationRoom];
    to.append(text, putDuration(text, nanoseconds));
}

std::string durationText(std::uint64_t nanoseconds) {
    std::string text;
    appendDuration(text, nanoseconds);
    return text;
}

} // namespace Quorvex

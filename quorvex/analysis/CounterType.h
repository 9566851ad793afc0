#pragma once

#include "quorvex/format/Digits.h"

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Quorvex {

/// What the eight bytes of a counter's values are.
enum class CounterType : std::uint8_t { Unsigned, Signed, Double };

/// The words for them: by which people ask for them, and which are shown.
inline constexpr std::array<std::string_view, 3> kCounterTypes{"unsigned", "signed", "double"};

/// Finds the type of one counter, which traces do not tell, out of all its values. A zero may be of any type, and so
/// may what as a double is -0, infinite or no number.
class CounterSort {
public:
    /// Takes note of a value, as its bits. True when another type follows from that.
    bool note(std::uint64_t value) {
        const std::uint8_t seen = m_seen | bitsOf(value);
        if (seen == m_seen)
            return false;
        const CounterType before = type();
        m_seen = seen;
        return type() != before;
    }
    /// Whether the value tells something of the type that none before has told.
    bool isNews(std::uint64_t value) const { return (m_seen | bitsOf(value)) != m_seen; }
    /// The type is that one, whatever the values.
    void tell(CounterType type) { m_told = type; }

    /// Of doubles, no value looks like a whole number; of signed numbers, some are negative and none is huge.
    CounterType type() const {
        return m_told                                                 ? *m_told
               : (m_seen & kAnyWhole) == 0 && (m_seen & kDouble) != 0 ? CounterType::Double
               : (m_seen & kNegative) != 0 && (m_seen & kDouble) == 0 ? CounterType::Signed
                                                                      : CounterType::Unsigned;
    }
    /// Some values look like doubles and some like whole numbers, and nobody has told the type.
    bool isMixed() const { return !m_told && (m_seen & kAnyWhole) != 0 && (m_seen & kDouble) != 0; }

private:
    static constexpr std::uint8_t kWhole = 1, kNegative = 2, kDouble = 4, kAnyWhole = kWhole | kNegative;

    /// Doubles are neither huge nor tiny; whole numbers with such bits are rare.
    static std::uint8_t bitsOf(std::uint64_t value) {
        const auto exponent = static_cast<int>(value >> 52 & 0x7FF) - 1023;
        constexpr std::uint64_t kFraction = (std::uint64_t{1} << 52) - 1;
        if (exponent > -70 && exponent < 70)
            return kDouble;
        const bool isNoNumber =
            exponent == 1024 && ((value & kFraction) == 0 || (value & kFraction) == kFraction / 2 + 1);
        if (value << 1 == 0 || isNoNumber)
            return 0;
        return value >> 52 == 0xFFF ? kNegative : kWhole;
    }

    std::uint8_t m_seen = 0;
    std::optional<CounterType> m_told;
};

/// Puts a value as a number of a type: whole, or the shortest text that is read as the same double, which is never that
/// of a whole number. The end of the text; 32 characters are overwritten at most.
inline char* putCounter(char* to, std::uint64_t value, CounterType type) {
    if (type != CounterType::Double) {
        return type == CounterType::Signed ? std::to_chars(to, to + 32, static_cast<std::int64_t>(value)).ptr
                                           : putDecimal(to, value);
    }
    const double number = std::bit_cast<double>(value);
    if (std::isnan(number))
        return to + std::string_view("nan").copy(to, 3);
    char* const end = std::to_chars(to, to + 28, number).ptr;
    const bool isWhole = std::string_view(to, end).find_first_of(".en") == std::string_view::npos;
    return isWhole ? end + std::string_view(".0").copy(end, 2) : end;
}

/// Appends it to a text.
inline void appendCounter(std::string& to, std::uint64_t value, CounterType type) {
    char text[32];
    to.append(text, putCounter(text, value, type));
}

/// The bits of a value that putCounter has put, of whichever type.
inline std::uint64_t counterOf(std::string_view text) {
    const char* const end = text.data() + text.size();
    std::uint64_t value = 0;
    std::int64_t negative = 0;
    double number = 0;
    if (text.find_first_of(".en") != std::string_view::npos) {
        std::from_chars(text.data(), end, number);
        return std::bit_cast<std::uint64_t>(number);
    }
    if (!text.starts_with('-')) {
        std::from_chars(text.data(), end, value);
        return value;
    }
    std::from_chars(text.data(), end, negative);
    return static_cast<std::uint64_t>(negative);
}

} // namespace Quorvex

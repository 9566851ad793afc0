#pragma once

#include "quorvex/platform/LittleEndian.h"

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace Quorvex {

/// The characters of a number's eight hexadecimal digits, the first one lowest.
constexpr std::uint64_t hexDigits(std::uint32_t value) {
    // The highest byte to the front, then one digit a byte.
    const std::uint32_t swapped = value >> 24 | (value >> 8 & 0xFF00) | (value << 8 & 0xFF0000) | value << 24;
    std::uint64_t text = swapped;
    text = (text | text << 16) & 0x0000FFFF0000FFFF;
    text = (text | text << 8) & 0x00FF00FF00FF00FF;
    text = (text >> 4 | text << 8) & 0x0F0F0F0F0F0F0F0F;
    const std::uint64_t isLetter = (text + 0x0606060606060606) >> 4 & 0x0101010101010101;
    return text + 0x3030303030303030 + isLetter * ('a' - '0' - 10);
}

/// Puts the low digits of a value in hexadecimal: 2, 4, 8 or 16 of them. The end of the text.
template <unsigned kDigits> char* putHex(char* to, std::uint64_t value) {
    const std::uint64_t text = hexDigits(static_cast<std::uint32_t>(value));
    if constexpr (kDigits == 16)
        storeLittleEndian(putHex<8>(to, value >> 32), text);
    else if constexpr (kDigits == 8)
        storeLittleEndian(to, text);
    else if constexpr (kDigits == 4)
        storeLittleEndian(to, static_cast<std::uint32_t>(text >> 32));
    else
        storeLittleEndian(to, static_cast<std::uint16_t>(text >> 48));
    return to + kDigits;
}

/// Puts "0x" and all digits of a value of that type. The end of the text.
template <class T> char* putHexValue(char* to, T value) {
    *to++ = '0';
    *to++ = 'x';
    return putHex<2 * sizeof(T)>(to, value);
}

/// The same of a number whose lowest byte comes first: 2 + 2 * count characters.
inline char* putHexNumber(char* to, const unsigned char* bytes, unsigned count) {
    *to++ = '0';
    *to++ = 'x';
    for (; count >= 4; count -= 4)
        to = putHex<8>(to, loadLittleEndian<std::uint32_t>(reinterpret_cast<const char*>(bytes) + count - 4));
    while (count > 0)
        to = putHex<2>(to, bytes[--count]);
    return to;
}

/// The same as a text.
inline std::string hexNumber(const unsigned char* bytes, unsigned count) {
    std::string text(2 + 2 * std::size_t{count}, '\0');
    putHexNumber(text.data(), bytes, count);
    return text;
}

/// The same of bytes that are given as characters.
inline std::string hexNumber(std::string_view bytes) {
    return hexNumber(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<unsigned>(bytes.size()));
}

/// The eight decimal digits of a value below 100 000 000 as numbers, the first one lowest.
[[gnu::always_inline]] constexpr std::uint64_t decimalDigits(std::uint32_t value) {
    // Halves of four digits, then pairs, then digits, each divided at once by a multiplication that is exact there.
    const std::uint64_t halves = value / 10'000 | std::uint64_t{value % 10'000} << 32;
    const std::uint64_t hundreds = halves * 10'486 >> 20 & 0x0000007F0000007F;
    const std::uint64_t pairs = hundreds | (halves - 100 * hundreds) << 16;
    const std::uint64_t tens = pairs * 103 >> 10 & 0x000F000F000F000F;
    return tens | (pairs - 10 * tens) << 8;
}

/// What eight decimal digits count to.
inline constexpr std::uint64_t kEightDigits = 100'000'000;
/// Eight zeros as characters.
inline constexpr std::uint64_t kZeros = 0x3030303030303030;

/// The most characters of a value in decimal.
inline constexpr unsigned kMostDigits = 20;

/// Puts a value below kEightDigits without zeros in front, but for a last one. The end of the text.
[[gnu::always_inline]] inline char* putFirstDigits(char* to, std::uint64_t value) {
    const std::uint64_t digits = decimalDigits(static_cast<std::uint32_t>(value));
    const int skipped = std::countr_zero(digits | std::uint64_t{1} << 56) / 8;
    storeLittleEndian(to, (digits + kZeros) >> 8 * skipped);
    return to + 8 - skipped;
}

/// Puts all eight digits of a value below kEightDigits. The end of the text.
[[gnu::always_inline]] inline char* putEightDigits(char* to, std::uint64_t value) {
    storeLittleEndian(to, decimalDigits(static_cast<std::uint32_t>(value)) + kZeros);
    return to + 8;
}

/// Puts a value in decimal. The end of the text; behind it, what stands in the kMostDigits characters may change.
inline char* putDecimal(char* to, std::uint64_t value) {
    if (value < kEightDigits)
        return putFirstDigits(to, value);
    const std::uint64_t above = value / kEightDigits;
    if (above < kEightDigits) {
        to = putFirstDigits(to, above);
    } else {
        to = putFirstDigits(to, above / kEightDigits);
        to = putEightDigits(to, above % kEightDigits);
    }
    return putEightDigits(to, value % kEightDigits);
}

/// Puts values in decimal of which most differ from the one before in their last eight digits only, as times do. What
/// stands behind a value is then put without waiting for how many digits it has.
class DecimalSeries {
public:
    /// As putDecimal.
    char* put(char* to, std::uint64_t value) {
        const std::uint64_t above = value / kEightDigits;
        if (above == 0)
            return putDecimal(to, value);
        if (above != m_above) {
            m_above = above;
            m_size = static_cast<unsigned>(putDecimal(m_text, above) - m_text);
        }
        std::memcpy(to, m_text, kMostDigits - 8);
        storeLittleEndian(to + m_size, decimalDigits(static_cast<std::uint32_t>(value % kEightDigits)) + kZeros);
        return to + m_size + 8;
    }

private:
    char m_text[kMostDigits] = {}; ///< what stands above the last eight digits
    unsigned m_size = 0;           ///< its characters
    std::uint64_t m_above = 0;     ///< its value
};

/// The characters of a byte's bits, the highest bit first and lowest.
constexpr std::uint64_t binaryDigits(std::uint8_t byte) {
    // To each byte its bit, and what brings it up to the highest bit of that byte.
    const std::uint64_t bits = (std::uint64_t{byte} * 0x0101010101010101 & 0x0102040810204080) + 0x7F7E7C7870604000;
    return (bits >> 7 & 0x0101010101010101) + 0x3030303030303030;
}

/// Puts the low bits of a value, 1 to 64 of them. The end of the text; behind it, seven characters may change.
inline char* putBinary(char* to, std::uint64_t value, unsigned count) {
    const unsigned skipped = 7 - (count - 1) % 8;
    storeLittleEndian(to, binaryDigits(static_cast<std::uint8_t>(value >> (count - 1) / 8 * 8)) >> 8 * skipped);
    to += 8 - skipped;
    for (unsigned left = (count - 1) / 8 * 8; left > 0; left -= 8, to += 8)
        storeLittleEndian(to, binaryDigits(static_cast<std::uint8_t>(value >> (left - 8))));
    return to;
}

/// A number of any width in decimal; its lowest byte comes first.
inline std::string decimalNumber(const unsigned char* bytes, unsigned count) {
    // Long division by ten, from the highest byte down, digit by digit.
    std::vector<unsigned char> rest(bytes, bytes + count);
    std::string digits;
    bool zero = false;
    while (!zero) {
        unsigned remainder = 0;
        zero = true;
        for (std::size_t i = rest.size(); i-- > 0;) {
            const unsigned value = remainder * 256 + rest[i];
            rest[i] = static_cast<unsigned char>(value / 10);
            remainder = value % 10;
            zero = zero && rest[i] == 0;
        }
        digits.insert(digits.begin(), static_cast<char>('0' + remainder));
    }
    return digits;
}

} // namespace Quorvex

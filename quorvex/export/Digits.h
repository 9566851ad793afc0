#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Quorvex {

/// Puts the low digits of a value in hexadecimal.
inline void putHex(char* to, std::uint64_t value, unsigned digits) {
    static constexpr char kDigits[] = "0123456789abcdef";
    for (unsigned i = digits; i-- > 0; value >>= 4)
        to[i] = kDigits[value & 15];
}

/// "0x" and all digits of a number whose lowest byte comes first.
inline std::string hexNumber(const unsigned char* bytes, unsigned count) {
    std::string text(2 + 2 * std::size_t{count}, '0');
    text[1] = 'x';
    for (unsigned i = 0; i < count; ++i)
        putHex(text.data() + 2 + 2 * std::size_t{i}, bytes[count - 1 - i], 2);
    return text;
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

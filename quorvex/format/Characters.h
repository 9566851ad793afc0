#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Quorvex {

/// One character of a text: its number, and the bytes that it takes.
struct Character {
    std::uint32_t code; ///< in Unicode
    unsigned size;      ///< bytes
    bool printable;     ///< well-formed UTF-8, and no control character
};

/// The first character of a text that is not empty. A byte that is no UTF-8 is the character of its number.
constexpr Character firstCharacter(std::string_view text) {
    const auto at = [text](unsigned i) { return static_cast<unsigned char>(text[i]); };
    const unsigned first = at(0);
    if (first < 0x80)
        return {first, 1, first >= 0x20 && first != 0x7F};
    const Character broken{first, 1, false};
    const unsigned size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC2 ? 2 : 0;
    if (size == 0 || size > text.size())
        return broken;
    std::uint32_t code = first & (0x7FU >> size);
    for (unsigned i = 1; i < size; ++i) {
        if ((at(i) & 0xC0) != 0x80)
            return broken;
        code = (code << 6) | (at(i) & 0x3FU);
    }
    constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < kSmallest[size] || code > 0x10FFFF || surrogate)
        return broken;
    return {code, size, code >= 0xA0}; // 0x80 to 0x9F are control characters
}

/// Appends a text, but with U+FFFD in place of each byte that is no UTF-8.
inline void appendWellFormed(std::string& to, std::string_view text) {
    while (!text.empty()) {
        std::size_t size = 0;
        while (size < text.size() && static_cast<unsigned char>(text[size]) < 0x80)
            ++size;
        to += text.substr(0, size);
        text.remove_prefix(size);
        if (text.empty())
            return;
        const Character character = firstCharacter(text);
        to += character.size > 1 ? text.substr(0, character.size) : std::string_view("\xef\xbf\xbd");
        text.remove_prefix(character.size);
    }
}

} // namespace Quorvex

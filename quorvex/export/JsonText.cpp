#include "quorvex/export/JsonText.h"

#include "quorvex/format/Characters.h"
#include "quorvex/format/Digits.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace Quorvex {

namespace {

constexpr std::uint64_t kMostExact = std::uint64_t{1} << 53;
constexpr std::string_view kReplacement = "\xef\xbf\xbd";

/// Calls `plain` with runs of printable ASCII but for quotes and backslashes, and `other` with each other character and
/// whether it is well formed.
template <class Plain, class Other> void eachPart(std::string_view text, Plain plain, Other other) {
    const auto isPlain = [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; };
    while (!text.empty()) {
        const auto count = static_cast<std::size_t>(std::ranges::find_if_not(text, isPlain) - text.begin());
        plain(text.substr(0, count));
        text.remove_prefix(count);
        if (text.empty())
            break;
        const Character character = firstCharacter(text);
        other(text.substr(0, character.size), character.size > 1 || character.code < 0x80);
        text.remove_prefix(character.size);
    }
}

} // namespace

void appendJsonText(std::string& to, std::string_view text) {
    to += '"';
    eachPart(
        text, [&to](std::string_view plain) { to += plain; },
        [&to](std::string_view character, bool isWellFormed) {
            const char first = character[0];
            if (first == '"' || first == '\\') {
                to += {'\\', first};
            } else if (character.size() == 1 && isWellFormed) {
                char digits[2];
                putHex<2>(digits, static_cast<unsigned char>(first));
                to.append("\\u00").append(digits, sizeof digits);
            } else {
                to += isWellFormed ? character : kReplacement;
            }
        });
    to += '"';
}

void appendJsonNumber(std::string& to, std::uint64_t number) {
    const std::string_view quote = number <= kMostExact ? "" : "\"";
    char digits[kMostDigits];
    to += quote;
    to.append(digits, putDecimal(digits, number));
    to += quote;
}

void appendJsonNumber(std::string& to, std::int64_t number) {
    if (number >= 0)
        return appendJsonNumber(to, static_cast<std::uint64_t>(number));
    const bool isExact = number >= -static_cast<std::int64_t>(kMostExact);
    to += (isExact ? "" : "\"") + std::to_string(number) + (isExact ? "" : "\"");
}

void appendJsonReal(std::string& to, double number) {
    char digits[32];
    if (std::isfinite(number))
        to.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
    else
        to += "null";
}

std::string wellFormed(std::string_view text) {
    std::string result;
    appendWellFormed(result, text);
    return result;
}

} // namespace Quorvex

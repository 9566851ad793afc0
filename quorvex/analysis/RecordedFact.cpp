#include "quorvex/analysis/RecordedFact.h"

#include <charconv>

namespace Quorvex {

namespace {

char byteOf(std::string_view digits) {
    unsigned char byte = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
    return static_cast<char>(byte);
}

} // namespace

std::string_view RecordedFact::word() const {
    constexpr std::string_view kPrefix = "quorvex.";
    return m_text.starts_with(kPrefix) ? m_text.substr(0, m_text.find(' ')).substr(kPrefix.size()) : std::string_view();
}

std::string_view RecordedFact::find(std::string_view key, bool isLast) const {
    for (std::size_t blank = 0; (blank = m_text.find(' ', blank)) != std::string_view::npos;) {
        std::string_view rest = m_text.substr(++blank);
        if (rest.starts_with(key) && rest.substr(key.size()).starts_with('=')) {
            rest.remove_prefix(key.size() + 1);
            return isLast ? rest : rest.substr(0, rest.find(' '));
        }
    }
    return {};
}

std::uint64_t RecordedFact::number(std::string_view key) const {
    std::string_view digits = value(key);
    const int base = digits.starts_with("0x") ? 16 : 10;
    digits.remove_prefix(base == 16 ? 2 : 0);
    std::uint64_t number = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), number, base);
    return number;
}

std::string RecordedFact::text(std::string_view key) const {
    std::string text;
    for (std::string_view rest = find(key, true); !rest.empty();) {
        const bool isCode = rest.size() >= 4 && rest.starts_with("\\x");
        text += isCode ? byteOf(rest.substr(2, 2)) : rest[0];
        rest.remove_prefix(isCode ? 4 : 1);
    }
    return text;
}

std::string RecordedFact::bytes(std::string_view key) const {
    std::string bytes;
    for (std::string_view rest = value(key); rest.size() >= 2; rest.remove_prefix(2))
        bytes += byteOf(rest.substr(0, 2));
    return bytes;
}

} // namespace Quorvex

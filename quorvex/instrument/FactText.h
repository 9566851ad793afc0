#pragma once

#include "quorvex/platform/RunningThread.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Quorvex::detail {

/// The text of a message that tells of a recorded program: "quorvex.WORD pid=P KEY=VALUE". It is put together in room
/// of the caller's, and ends where that does; so it may be made in signal handlers.
class FactText {
public:
    FactText(char* room, std::size_t size, std::string_view word) : m_text(room), m_most(size) {
        add("quorvex.");
        add(word);
        key("pid");
        number(platform::currentProcessId());
    }
    void key(std::string_view name) {
        add(" ");
        add(name);
        add("=");
    }
    void number(std::uint64_t value) { digits(value, 10); }
    void address(std::uint64_t value) {
        add("0x");
        digits(value, 16);
    }
    void add(std::string_view text) {
        const std::size_t count = std::min(text.size(), m_most - m_size);
        std::copy_n(text.data(), count, m_text + m_size);
        m_size += count;
    }
    void byte(unsigned value) {
        const char text[] = {kDigits[value / 16], kDigits[value % 16]};
        add({text, sizeof text});
    }
    /// A value that may hold anything; the last one, if it has blanks.
    void text(std::string_view value, bool hasBlanks = true) {
        for (const char c : value) {
            const auto code = static_cast<unsigned char>(c);
            if (code < 0x20 || code == 0x7f || c == '\\' || (c == ' ' && !hasBlanks)) {
                add("\\x");
                byte(code);
            } else {
                add({&c, 1});
            }
        }
    }

    std::string_view get() const { return {m_text, m_size}; }

private:
    static constexpr char kDigits[] = "0123456789abcdef";

    void digits(std::uint64_t value, unsigned base) {
        char text[20];
        char* from = text + sizeof text;
        do
            *--from = kDigits[value % base];
        while ((value /= base) != 0);
        add({from, static_cast<std::size_t>(text + sizeof text - from)});
    }

    char* m_text;
    std::size_t m_most;
    std::size_t m_size = 0;
};

} // namespace Quorvex::detail

#pragma once

#include "quorvex/platform/Export.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Quorvex {

/// A message that tells of a recorded program: "quorvex.WORD KEY=VALUE KEY=VALUE". The text must outlive it. Of keys
/// that there are not, values are empty or 0.
class QUORVEX_API RecordedFact {
public:
    explicit RecordedFact(std::string_view text) : m_text(text) {}

    /// "module" and the like; empty for other messages.
    std::string_view word() const;
    /// It gives a thread or a process its name, by which CTraceNames knows them from then on.
    bool isName() const { return word() == "thread" || word() == "process" || word() == "name"; }
    /// A value without blanks.
    std::string_view value(std::string_view key) const { return find(key, false); }
    /// A decimal number, or one in hexadecimal digits behind "0x".
    std::uint64_t number(std::string_view key) const;
    /// The last value, with the bytes that `\xNN` stands for.
    std::string text(std::string_view key) const;
    /// Bytes that are told by hexadecimal digits; none for "-".
    std::string bytes(std::string_view key) const;

private:
    std::string_view find(std::string_view key, bool isLast) const;

    std::string_view m_text;
};

} // namespace Quorvex

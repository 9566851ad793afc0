#pragma once

#include "quorvex/platform/Export.h"

#include <cstdint>
#include <iosfwd>

namespace Quorvex {

/// Hands out the numbers of the variables of a value change dump, and writes them as identifier codes: base 95, most
/// significant digit first, digit d as the character 33 + d. 0 is "!", 95 is "\"!".
class QUORVEX_API CVCDIdentifier {
public:
    static constexpr std::uint32_t kInvalid = 0xFFFFFFFF; ///< no variable has it

    /// `first` is handed out first.
    explicit CVCDIdentifier(std::uint32_t first = 0) : m_next(first) {}

    bool NextIDAvailable() const { return IsValid(m_next); }                      ///< GetNextId() has one
    std::uint32_t GetNextId() { return NextIDAvailable() ? m_next++ : kInvalid; } ///< kInvalid when none is left
    void reset() { m_next = 0; }                                                  ///< begins again with 0

    static bool IsValid(std::uint32_t id) { return id != kInvalid; } ///< a variable may have it
    static bool write(std::ostream& out, std::uint32_t id);
    /// Returns the characters written, 0 when they do not fit; no terminator is written.
    static unsigned write(char* buf, unsigned size, std::uint32_t id);

private:
    std::uint32_t m_next;
};

} // namespace Quorvex

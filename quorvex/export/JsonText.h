#pragma once

#include "quorvex/platform/Export.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Quorvex {

/// Appends a text with quotes, as JSON has it: what stands for something is escaped, and bytes that are no UTF-8 become
/// U+FFFD.
QUORVEX_API void appendJsonText(std::string& to, std::string_view text);
/// Appends a number; beyond 2^53, which not all readers hold exactly, as a text.
QUORVEX_API void appendJsonNumber(std::string& to, std::uint64_t number);
QUORVEX_API void appendJsonNumber(std::string& to, std::int64_t number); ///< the same
/// Appends a number in the shortest form that tells it exactly; null where it is none.
QUORVEX_API void appendJsonReal(std::string& to, double number);
/// The text, but with U+FFFD in place of each byte that is no UTF-8.
QUORVEX_API std::string wellFormed(std::string_view text);

} // namespace Quorvex

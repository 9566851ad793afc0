#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

/// An object of the machine interface, which is a line: {"name": value, ...}. Numbers beyond 2^53, which not all
/// readers hold exactly, are texts; what is unknown is null. Bytes of a text that are no UTF-8 become U+FFFD.
class JsonLine {
public:
    JsonLine& add(std::string_view name, std::uint64_t number);
    JsonLine& add(std::string_view name, std::string_view text);
    JsonLine& add(std::string_view name, const std::vector<std::uint64_t>& numbers);
    JsonLine& add(std::string_view name, const JsonLine& object); ///< one within this one
    JsonLine& addAll(const JsonLine& object);                     ///< its members
    JsonLine& addTruth(std::string_view name, bool isTrue);
    JsonLine& add(std::string_view name, const std::vector<std::string>& texts);
    JsonLine& addUnknown(std::string_view name);
    /// A number that may be negative.
    JsonLine& addSigned(std::string_view name, std::int64_t number);
    /// A number with a fraction; null where it is no number.
    JsonLine& addReal(std::string_view name, double number);

    /// With the end of the line.
    std::string text() const { return m_text + "}\n"; }

private:
    void begin(std::string_view name);
    void append(std::uint64_t number);

    std::string m_text = "{";
};

} // namespace qvx

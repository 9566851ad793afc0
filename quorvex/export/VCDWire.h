#pragma once

#include "quorvex/analysis/CounterType.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/export/VCDIdentifier.h"
#include "quorvex/export/VCDWriter.h"
#include "quorvex/format/Digits.h"

#include <bit>
#include <compare>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

/// The variables of a value change dump: what they are declared by, and how changes of them are written.
namespace Quorvex::vcd {

/// What a change to a number takes beside the code, at most.
constexpr unsigned kNumberRoom = 2 + 64;

enum class Type : std::uint8_t { Bit, Vector, Real };
/// The values that are not known, and of what is known to be idle.
constexpr std::string_view kUnknown[] = {"x", "bx ", "rnan "};
constexpr std::string_view kIdle = "bz ";

/// Where variables stand in the file, in this order.
enum class Area : std::uint8_t { Cores, Threads, Counters, Events, Signals, States, Variables };

/// What a variable is declared by.
struct Declaration {
    Area area;
    std::uint32_t owner = 0; ///< core, thread or state machine; 0 elsewhere
    bool isDetail = false;   ///< stands in a scope of its own inside the owner's
    bool isWide = false;     ///< the values of a counter have any number of bytes
    CVCDWriter::Meaning meaning = CVCDWriter::Meaning::Value;
    Type type = Type::Vector;
    std::string_view label;         ///< a literal: the name, or what stands before the number of what has no name
    TextSort sort = TextSort::None; ///< of what gives the name
    std::uint64_t id = 0;           ///< likewise
    std::string suffix = {};        ///< behind the name

    auto operator<=>(const Declaration&) const = default;
};

/// What stands behind each change of a variable: its identifier, and the end of the line.
class Code {
public:
    static constexpr std::size_t kRoom = 8;

    Code() = default;
    explicit Code(std::uint32_t id) : m_size(static_cast<std::uint8_t>(CVCDIdentifier::write(m_text, kRoom, id))) {
        m_text[m_size++] = '\n';
    }

    /// There is no such variable.
    bool isNone() const { return m_size == 0; }
    std::string_view identifier() const { return {m_text, m_size - 1U}; }
    /// The end of the text; kRoom characters are overwritten.
    char* put(char* to) const {
        std::memcpy(to, m_text, kRoom);
        return to + m_size;
    }

private:
    char m_text[kRoom] = {};
    std::uint8_t m_size = 0;
};

/// A variable of the file. Variables stay where they are in memory. There can be very many.
struct Wire {
    Code code;
    Type type = Type::Vector;
    bool isTold = false;            ///< since the start, or the last gap
    unsigned width = 1;             ///< of its widest value so far
    CounterSort* counter = nullptr; ///< of whose type it is, if any
    std::uint64_t pulseEnd = 0;     ///< of an event, the end of its last pulse
};

/// Puts a change of a variable. It takes kNumberRoom characters beside those of the code.
inline char* putNumber(char* to, const Code& variable, std::uint64_t number) {
    *to++ = 'b';
    // Zeros in front may be left out.
    to = putBinary(to, number, static_cast<unsigned>(std::bit_width(number | 1)));
    *to++ = ' ';
    return variable.put(to);
}

/// The change of a variable to a number of 32 bits, for those that come again and again.
class NumberLine {
public:
    static constexpr std::size_t kRoom = 2 + 32 + Code::kRoom;

    NumberLine() = default;
    NumberLine(const Wire* variable, std::uint32_t number) {
        if (!variable)
            return;
        char text[kRoom + 7];
        m_size = static_cast<std::uint8_t>(putNumber(text, variable->code, number) - text);
        std::memcpy(m_text, text, m_size);
    }

    /// There is no such variable.
    bool isNone() const { return m_size == 0; }
    /// The end of the text; kRoom characters are overwritten.
    char* put(char* to) const {
        std::memcpy(to, m_text, kRoom);
        return to + m_size;
    }

private:
    char m_text[kRoom] = {};
    std::uint8_t m_size = 0;
};

} // namespace Quorvex::vcd

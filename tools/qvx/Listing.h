#pragma once

#include "quorvex/analysis/CounterType.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

class Verb;

/// How listings are written.
enum class ListingFormat : std::uint8_t { Text, JSON, CSV };

/// Adds --format text, json, csv to a verb.
void addFormatOption(Verb& verb, ListingFormat& format);

/// What a column of a listing holds.
enum class CellLook : std::uint8_t {
    Text,
    Number,
    Time,   ///< nanoseconds, or ticks where the clock is not known
    Change, ///< the same with a sign, in the two's complement
    Share,  ///< hundredths of a percent
};

/// A cell: a text, a number, or nothing that is known.
class Cell {
public:
    Cell() = default;
    Cell(std::uint64_t number) : m_number(number) {}
    /// A value of a counter, by its bits.
    Cell(std::uint64_t bits, Quorvex::CounterType type) : m_number(bits), m_type(type) {}
    Cell(std::string text) : m_number(0), m_text(std::move(text)) {}

    bool isKnown() const { return m_number.has_value(); }
    std::uint64_t number() const { return m_number.value_or(0); }
    Quorvex::CounterType type() const { return m_type; } ///< of the number
    const std::string& text() const { return m_text; }

private:
    std::optional<std::uint64_t> m_number;
    Quorvex::CounterType m_type = Quorvex::CounterType::Unsigned;
    std::string m_text;
};

/// Rows of cells, which people read as a table, texts last and the first of them behind the others, and programs as
/// objects or comma separated values.
class Listing {
public:
    struct Column {
        const char* name; ///< for --sort and programs; those of times get their unit behind it: total_ns
        CellLook look;
        enum For : std::uint8_t { All, People, Programs, Nobody } audience = All;
        const char* head = nullptr; ///< for people, where it is not the name
    };

    Listing(std::vector<Column> columns, bool hasClock) : m_columns(std::move(columns)), m_hasClock(hasClock) {}

    /// Adds a row, a cell a column.
    void add(std::vector<Cell> row) { m_rows.push_back(std::move(row)); }
    std::size_t size() const { return m_rows.size(); }
    /// Sorts by a column, as programs or people call it, the greatest number or the first text first, then by all
    /// others in their order. Throws Misuse where there is none of that name.
    void sortBy(std::string_view name);
    /// Writes the first rows.
    void write(std::ostream& out, ListingFormat format, std::uint64_t limit) const;

private:
    std::string shownCell(const Column& column, const Cell& cell) const;
    void writeText(std::ostream& out, std::size_t rows) const;
    void writeJson(std::ostream& out, std::size_t rows) const;
    void writeCsv(std::ostream& out, std::size_t rows) const;

    std::vector<Column> m_columns;
    bool m_hasClock;
    std::vector<std::vector<Cell>> m_rows;
};

} // namespace qvx

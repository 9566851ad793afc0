#pragma once

/// Rows of a table while they are put together, and how they are handed out as Arrow's structs.

#include "quorvex/analysis/ArrowCData.h"
#include "quorvex/analysis/TableFacts.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Quorvex::detail {

/// Texts that columns hold indices of, each once.
class NameDictionary {
public:
    /// The index of a text. Bytes that are no UTF-8 become U+FFFD.
    std::int32_t add(std::string_view text);
    const std::vector<std::int32_t>& ends() const { return m_ends; } ///< of the texts; the first is 0
    const std::string& texts() const { return m_texts; }             ///< all of them
    std::int64_t size() const { return static_cast<std::int64_t>(m_ends.size()) - 1; }

private:
    std::vector<std::int32_t> m_ends{0};
    std::string m_texts;
    std::map<std::string, std::int32_t, std::less<>> m_indices;
};

/// What the batches of a stream have in common.
struct TableLayout {
    /// Of those columns, in that order; none: of all. Throws std::invalid_argument where the table has no such column.
    TableLayout(TraceTable table, const std::vector<std::string>& wanted, std::uint64_t mostRows);

    bool wants(unsigned column) const { return isWanted[column]; }
    void giveSchema(ArrowSchema& out) const; ///< the type of the table

    std::span<const TableColumn> columns;
    std::vector<unsigned> chosen;
    std::vector<bool> isWanted;                               ///< by column
    std::vector<std::shared_ptr<const NameDictionary>> names; ///< by column
    std::size_t rows;                                         ///< of a batch, at most
};

/// Memory that begins at what processors like best. Contents that are not set are anything.
class TableBuffer {
public:
    TableBuffer() = default;
    TableBuffer(TableBuffer&& other) noexcept : m_bytes(other.m_bytes), m_size(other.m_size) {
        other.m_bytes = nullptr;
        other.m_size = 0;
    }
    TableBuffer& operator=(TableBuffer&&) = delete;
    ~TableBuffer();

    void grow(std::size_t size); ///< to so many bytes at least; keeps those that are there
    char* bytes() const { return m_bytes; }
    std::size_t size() const { return m_size; }

private:
    char* m_bytes = nullptr;
    std::size_t m_size = 0;
};

/// The values of one column. What it is not of, or is not wanted, is not kept.
class ColumnValues {
public:
    void begin(const TableColumn& column, std::shared_ptr<const NameDictionary> names);
    bool isWanted() const { return m_width != Width::None; }
    void grow(std::size_t rows);

    void setNumber(std::size_t row, std::int64_t value) {
        if (m_width == Width::Eight)
            reinterpret_cast<std::int64_t*>(m_values.bytes())[row] = value;
        else if (m_width == Width::Four)
            reinterpret_cast<std::int32_t*>(m_values.bytes())[row] = static_cast<std::int32_t>(value);
    }
    void setReal(std::size_t row, double value) {
        if (m_width == Width::Eight)
            reinterpret_cast<double*>(m_values.bytes())[row] = value;
    }
    void setFlag(std::size_t row, bool value) {
        if (m_width == Width::Bit)
            setBit(m_values, row, value);
    }
    /// Of the row behind the last one that was set, or is null.
    void setText(std::size_t row, std::string_view text);
    void setNull(std::size_t row) {
        if (isWanted())
            markNull(row);
    }
    /// What was null is set next.
    void forgetNull(std::size_t row);
    /// Takes over a value of another batch; not of texts.
    void copy(std::size_t row, const ColumnValues& from, std::size_t fromRow);
    std::int64_t number(std::size_t row) const; ///< that was set

    std::size_t heapSize() const { return m_heap.size(); } ///< bytes of texts
    /// Hands out what the first rows have; nothing is left.
    void give(std::size_t rows, ArrowArray& out);

private:
    enum class Width : std::uint8_t { None, Bit, Four, Eight, Text };
    struct Held;

    static void setBit(TableBuffer& bits, std::size_t row, bool value) {
        char& byte = bits.bytes()[row / 8];
        const auto mask = static_cast<unsigned>(1U << row % 8);
        const auto old = static_cast<unsigned>(static_cast<unsigned char>(byte));
        byte = static_cast<char>(value ? old | mask : old & ~mask);
    }
    static bool isSet(const TableBuffer& bits, std::size_t row) {
        return (static_cast<unsigned char>(bits.bytes()[row / 8]) >> row % 8 & 1U) != 0;
    }
    void markNull(std::size_t row);

    Width m_width = Width::None;
    bool m_isUtf8 = false;
    std::size_t m_nulls = 0;
    TableBuffer m_values; ///< of texts, where they end
    TableBuffer m_isThere;
    std::string m_heap;
    std::shared_ptr<const NameDictionary> m_names;
};

/// Some rows. Whoever adds one sets all its columns.
class TableBatch {
public:
    explicit TableBatch(const TableLayout& layout);

    std::size_t rows() const { return m_rows; }
    bool isFull() const { return m_rows == m_layout->rows || m_heap > kMostText; }
    std::size_t add(); ///< a row; its number
    ColumnValues& operator[](unsigned column) { return m_columns[column]; }
    const ColumnValues& operator[](unsigned column) const { return m_columns[column]; }

    void setText(unsigned column, std::size_t row, std::string_view text) {
        m_columns[column].setText(row, text);
        m_heap += text.size();
    }
    /// Sets it to a number of 63 bits, to null where it is larger.
    void setUnsigned(unsigned column, std::size_t row, std::uint64_t value) {
        if (value <= static_cast<std::uint64_t>(INT64_MAX))
            m_columns[column].setNumber(row, static_cast<std::int64_t>(value));
        else
            m_columns[column].setNull(row);
    }
    void set(unsigned column, std::size_t row, std::optional<std::int64_t> value) {
        if (value)
            m_columns[column].setNumber(row, *value);
        else
            m_columns[column].setNull(row);
    }
    void forgetNulls(std::size_t row);                     ///< the row is set anew
    void copyRow(const TableBatch& from, std::size_t row); ///< adds it
    /// Hands out the rows; nothing is left.
    void give(ArrowArray& out);

private:
    static constexpr std::size_t kMostText = std::size_t{64} << 20;

    const TableLayout* m_layout;
    std::vector<ColumnValues> m_columns;
    std::size_t m_rows = 0;
    std::size_t m_room = 0;
    std::size_t m_heap = 0;
};

} // namespace Quorvex::detail

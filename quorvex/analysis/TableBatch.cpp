#include "quorvex/analysis/TableBatch.h"

#include "quorvex/format/Characters.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

namespace Quorvex::detail {

namespace {

constexpr std::size_t kAlignment = 64;

/// A schema with what it points to.
struct HeldSchema {
    std::vector<ArrowSchema> children;
    std::vector<ArrowSchema*> pointers;
    ArrowSchema dictionary{};
};

template <class Arrow> void releaseOwn(Arrow* its) {
    if (its && its->release)
        its->release(its);
}

void releaseSchema(ArrowSchema* schema) {
    const std::unique_ptr<HeldSchema> held(static_cast<HeldSchema*>(schema->private_data));
    for (std::int64_t i = 0; i < schema->n_children; ++i)
        releaseOwn(schema->children[i]);
    releaseOwn(schema->dictionary);
    schema->release = nullptr;
}

void giveType(ArrowSchema& out, const char* format, const char* name, bool isNullable,
              std::unique_ptr<HeldSchema> held) {
    out = {};
    out.format = format;
    out.name = name;
    out.flags = isNullable ? ARROW_FLAG_NULLABLE : 0;
    out.n_children = static_cast<std::int64_t>(held->children.size());
    out.children = held->pointers.data();
    out.dictionary = held->dictionary.release ? &held->dictionary : nullptr;
    out.release = releaseSchema;
    out.private_data = held.release();
}

/// A dictionary's array with what it points to.
struct HeldNames {
    std::shared_ptr<const NameDictionary> names;
    const void* buffers[3]{};
};

void releaseNames(ArrowArray* array) {
    delete static_cast<HeldNames*>(array->private_data);
    array->release = nullptr;
}

void giveNames(ArrowArray& out, std::shared_ptr<const NameDictionary> names) {
    auto held = std::make_unique<HeldNames>();
    held->names = std::move(names);
    held->buffers[1] = held->names->ends().data();
    held->buffers[2] = held->names->texts().data();
    out = {};
    out.length = held->names->size();
    out.n_buffers = 3;
    out.buffers = held->buffers;
    out.release = releaseNames;
    out.private_data = held.release();
}

/// A batch with what it points to.
struct HeldBatch {
    std::vector<ArrowArray> children;
    std::vector<ArrowArray*> pointers;
    const void* buffers[1]{};
};

void releaseBatch(ArrowArray* array) {
    const std::unique_ptr<HeldBatch> held(static_cast<HeldBatch*>(array->private_data));
    for (ArrowArray& child : held->children)
        releaseOwn(&child);
    array->release = nullptr;
}

} // namespace

std::int32_t NameDictionary::add(std::string_view text) {
    std::string own;
    appendWellFormed(own, text);
    const auto [at, isNew] = m_indices.try_emplace(std::move(own), static_cast<std::int32_t>(size()));
    if (isNew) {
        m_texts += at->first;
        m_ends.push_back(static_cast<std::int32_t>(m_texts.size()));
    }
    return at->second;
}

TableLayout::TableLayout(TraceTable table, const std::vector<std::string>& wanted, std::uint64_t mostRows)
    : columns(tableFacts(table).columns),
      isWanted(columns.size(), wanted.empty()),
      names(columns.size()),
      rows(static_cast<std::size_t>(std::clamp<std::uint64_t>(mostRows, 1, std::uint64_t{1} << 24))) {
    for (unsigned i = 0; i < columns.size() && wanted.empty(); ++i)
        chosen.push_back(i);
    for (const std::string& name : wanted) {
        const auto column = std::ranges::find_if(columns, [&](const TableColumn& its) { return its.name == name; });
        if (column == columns.end())
            throw std::invalid_argument("the table of " + std::string(tableFacts(table).name) + " has no column '" +
                                        name + "'");
        chosen.push_back(static_cast<unsigned>(column - columns.begin()));
        if (isWanted[chosen.back()])
            throw std::invalid_argument("the column '" + name + "' is asked for twice");
        isWanted[chosen.back()] = true;
    }
}

void TableLayout::giveSchema(ArrowSchema& out) const {
    auto held = std::make_unique<HeldSchema>();
    held->children.resize(chosen.size());
    for (ArrowSchema& child : held->children)
        held->pointers.push_back(&child);
    try {
        for (std::size_t i = 0; i < chosen.size(); ++i) {
            const TableColumn& column = columns[chosen[i]];
            auto own = std::make_unique<HeldSchema>();
            if (column.isName)
                giveType(own->dictionary, column.format, "", false, std::make_unique<HeldSchema>());
            giveType(held->children[i], column.isName ? "i" : column.format, column.name, column.isNullable,
                     std::move(own));
        }
    } catch (...) {
        for (ArrowSchema& child : held->children)
            releaseOwn(&child);
        throw;
    }
    giveType(out, "+s", "", false, std::move(held));
}

TableBuffer::~TableBuffer() {
    ::operator delete (m_bytes, std::align_val_t{kAlignment});
}

void TableBuffer::grow(std::size_t size) {
    if (size <= m_size)
        return;
    size = (size + kAlignment - 1) / kAlignment * kAlignment;
    auto* const bytes = static_cast<char*>(::operator new (size, std::align_val_t{kAlignment}));
    if (m_bytes)
        std::memcpy(bytes, m_bytes, m_size);
    ::operator delete (m_bytes, std::align_val_t{kAlignment});
    m_bytes = bytes;
    m_size = size;
}

/// A column's array with what it points to.
struct ColumnValues::Held {
    explicit Held(ColumnValues&& its) : values(std::move(its)) {}

    static void release(ArrowArray* array) {
        const std::unique_ptr<Held> held(static_cast<Held*>(array->private_data));
        releaseOwn(&held->dictionary);
        array->release = nullptr;
    }

    ColumnValues values;
    ArrowArray dictionary{};
    const void* buffers[3]{};
};

void ColumnValues::begin(const TableColumn& column, std::shared_ptr<const NameDictionary> names) {
    const char format = column.format[0];
    m_names = std::move(names);
    m_isUtf8 = format == 'u';
    m_width = column.isName || format == 'i'   ? Width::Four
              : format == 'b'                  ? Width::Bit
              : format == 'u' || format == 'z' ? Width::Text
                                               : Width::Eight;
}

void ColumnValues::grow(std::size_t rows) {
    if (!isWanted())
        return;
    const std::size_t width = m_width == Width::Eight ? 8 : 4;
    const std::size_t bits = (rows + 7) / 8;
    const std::size_t before = m_values.size();
    m_values.grow(m_width == Width::Bit ? bits : width * (rows + (m_width == Width::Text)));
    if (m_width == Width::Bit)
        std::memset(m_values.bytes() + before, 0, m_values.size() - before);
    if (m_width == Width::Text && m_heap.empty())
        reinterpret_cast<std::int32_t*>(m_values.bytes())[0] = 0;
    if (m_isThere.size() > 0) {
        const std::size_t known = m_isThere.size();
        m_isThere.grow(bits);
        std::memset(m_isThere.bytes() + known, 0xFF, m_isThere.size() - known);
    }
}

void ColumnValues::setText(std::size_t row, std::string_view text) {
    if (m_width != Width::Text)
        return;
    constexpr std::size_t kMost = std::size_t{1} << 29; // of what offsets of 31 bits tell, also in U+FFFDs
    text = text.substr(0, kMost);
    if (m_isUtf8)
        appendWellFormed(m_heap, text);
    else
        m_heap += text;
    reinterpret_cast<std::int32_t*>(m_values.bytes())[row + 1] = static_cast<std::int32_t>(m_heap.size());
}

void ColumnValues::markNull(std::size_t row) {
    if (m_isThere.size() == 0) {
        const std::size_t width = m_width == Width::Eight ? 8 : 4;
        m_isThere.grow(m_width == Width::Bit ? m_values.size() : m_values.size() / width / 8 + 1);
        std::memset(m_isThere.bytes(), 0xFF, m_isThere.size());
    }
    setBit(m_isThere, row, false);
    ++m_nulls;
    switch (m_width) { // so that no memory is handed out that has not been set
    case Width::Text:
        setText(row, {});
        break;
    case Width::Bit:
        setFlag(row, false);
        break;
    default:
        setNumber(row, 0);
    }
}

void ColumnValues::forgetNull(std::size_t row) {
    if (m_nulls == 0 || isSet(m_isThere, row))
        return;
    setBit(m_isThere, row, true);
    --m_nulls;
}

std::int64_t ColumnValues::number(std::size_t row) const {
    return m_width == Width::Eight  ? reinterpret_cast<const std::int64_t*>(m_values.bytes())[row]
           : m_width == Width::Four ? reinterpret_cast<const std::int32_t*>(m_values.bytes())[row]
                                    : 0;
}

void ColumnValues::copy(std::size_t row, const ColumnValues& from, std::size_t fromRow) {
    if (!isWanted())
        return;
    if (from.m_nulls > 0 && !isSet(from.m_isThere, fromRow))
        markNull(row);
    else if (m_width == Width::Bit)
        setFlag(row, isSet(from.m_values, fromRow));
    else
        setNumber(row, from.number(fromRow));
}

void ColumnValues::give(std::size_t rows, ArrowArray& out) {
    const bool isText = m_width == Width::Text;
    auto held = std::make_unique<Held>(std::move(*this));
    ColumnValues& its = held->values;
    if (its.m_names)
        giveNames(held->dictionary, its.m_names);
    held->buffers[0] = its.m_nulls > 0 ? its.m_isThere.bytes() : nullptr;
    held->buffers[1] = its.m_values.bytes();
    held->buffers[2] = its.m_heap.data();
    out = {};
    out.length = static_cast<std::int64_t>(rows);
    out.null_count = static_cast<std::int64_t>(its.m_nulls);
    out.n_buffers = isText ? 3 : 2;
    out.buffers = held->buffers;
    out.dictionary = its.m_names ? &held->dictionary : nullptr;
    out.release = Held::release;
    out.private_data = held.release();
}

TableBatch::TableBatch(const TableLayout& layout) : m_layout(&layout), m_columns(layout.columns.size()) {
    for (const unsigned column : layout.chosen)
        m_columns[column].begin(layout.columns[column], layout.names[column]);
}

std::size_t TableBatch::add() {
    if (m_rows == m_room) {
        constexpr std::size_t kFirst = 1024;
        m_room = std::min(std::max(4 * m_room, kFirst), m_layout->rows);
        for (ColumnValues& column : m_columns)
            column.grow(m_room);
    }
    return m_rows++;
}

void TableBatch::forgetNulls(std::size_t row) {
    for (ColumnValues& column : m_columns)
        column.forgetNull(row);
}

void TableBatch::copyRow(const TableBatch& from, std::size_t row) {
    const std::size_t own = add();
    for (std::size_t i = 0; i < m_columns.size(); ++i)
        m_columns[i].copy(own, from.m_columns[i], row);
}

void TableBatch::give(ArrowArray& out) {
    auto held = std::make_unique<HeldBatch>();
    held->children.resize(m_layout->chosen.size());
    for (ArrowArray& child : held->children)
        held->pointers.push_back(&child);
    try {
        for (std::size_t i = 0; i < held->children.size(); ++i)
            m_columns[m_layout->chosen[i]].give(m_rows, held->children[i]);
    } catch (...) {
        for (ArrowArray& child : held->children)
            releaseOwn(&child);
        throw;
    }
    out = {};
    out.length = static_cast<std::int64_t>(m_rows);
    out.n_buffers = 1;
    out.n_children = static_cast<std::int64_t>(held->children.size());
    out.buffers = held->buffers;
    out.children = held->pointers.data();
    out.release = releaseBatch;
    out.private_data = held.release();
}

} // namespace Quorvex::detail

#include "Listing.h"

#include "Arguments.h"
#include "Json.h"
#include "Print.h"
#include "TimeText.h"
#include "Words.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <utility>

namespace qvx {

namespace {

using namespace Quorvex;

bool isText(const Listing::Column& column) {
    return column.look == CellLook::Text;
}

bool isFor(const Listing::Column& column, Listing::Column::For audience) {
    return column.audience == Listing::Column::All || column.audience == audience;
}

bool isTime(const Listing::Column& column) {
    return column.look == CellLook::Time || column.look == CellLook::Change;
}

bool isSigned(const Listing::Column& column) {
    return column.look == CellLook::Change;
}

std::string csvText(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos)
        return text;
    std::string quoted = "\"";
    for (const char c : text)
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

std::string numberText(const Cell& cell) {
    std::string text;
    appendCounter(text, cell.number(), cell.type());
    return text;
}

} // namespace

void addFormatOption(Verb& verb, ListingFormat& format) {
    verb.choice("--format", format,
                {{"text", ListingFormat::Text}, {"json", ListingFormat::JSON}, {"csv", ListingFormat::CSV}},
                "text (default), json: an object a line, csv");
}

void Listing::sortBy(std::string_view name) {
    auto column = std::ranges::find_if(m_columns, [name](const Column& its) { return name == its.name; });
    if (column == m_columns.end())
        column = std::ranges::find_if(m_columns, [name](const Column& its) { return its.head && name == its.head; });
    if (column == m_columns.end()) {
        std::vector<std::string> names;
        for (const Column& its : m_columns) {
            if (its.audience != Column::Nobody)
                names.emplace_back(its.name);
        }
        throw Misuse("--sort",
                     fmt::format("'{}' is none of {}{}", name, fmt::join(names, ", "), didYouMean(name, names)));
    }
    const auto valueOf = [](const Cell& cell) {
        return cell.type() == CounterType::Double ? std::bit_cast<double>(cell.number())
                                                  : static_cast<double>(static_cast<std::int64_t>(cell.number()));
    };
    const auto order = [&](std::size_t at, const std::vector<Cell>& one, const std::vector<Cell>& other) {
        if (isText(m_columns[at]))
            return one[at].text().compare(other[at].text());
        if (isSigned(m_columns[at])) {
            const auto left = static_cast<std::int64_t>(one[at].number());
            const auto right = static_cast<std::int64_t>(other[at].number());
            return left > right ? -1 : left < right;
        }
        if (one[at].type() != CounterType::Unsigned || other[at].type() != CounterType::Unsigned) {
            const double left = valueOf(one[at]), right = valueOf(other[at]);
            return left > right ? -1 : left < right;
        }
        return one[at].number() > other[at].number() ? -1 : one[at].number() < other[at].number();
    };
    const auto first = static_cast<std::size_t>(column - m_columns.begin());
    std::ranges::sort(m_rows, [&](const std::vector<Cell>& one, const std::vector<Cell>& other) {
        int before = order(first, one, other);
        for (std::size_t at = 0; at < m_columns.size() && before == 0; ++at)
            before = order(at, one, other);
        return before < 0;
    });
}

void Listing::write(std::ostream& out, ListingFormat format, std::uint64_t limit) const {
    const auto rows = static_cast<std::size_t>(std::min<std::uint64_t>(limit, m_rows.size()));
    if (format == ListingFormat::JSON)
        writeJson(out, rows);
    else if (format == ListingFormat::CSV)
        writeCsv(out, rows);
    else
        writeText(out, rows);
}

std::string Listing::shownCell(const Column& column, const Cell& cell) const {
    if (!cell.isKnown())
        return "-";
    switch (column.look) {
    case CellLook::Text:
        return shown(cell.text());
    case CellLook::Time:
        return m_hasClock ? durationText(cell.number()) : std::to_string(cell.number());
    case CellLook::Change: {
        const auto change = static_cast<std::int64_t>(cell.number());
        const std::uint64_t amount = change < 0 ? 0 - cell.number() : cell.number();
        return (change < 0 ? "-" : "+") + (m_hasClock ? durationText(amount) : std::to_string(amount));
    }
    case CellLook::Share:
        return fmt::format("{}.{:02}", cell.number() / 100, cell.number() % 100);
    case CellLook::Number:
        break;
    }
    return numberText(cell);
}

void Listing::writeText(std::ostream& out, std::size_t rows) const {
    std::vector<std::size_t> order;
    for (std::size_t at = 0; at < m_columns.size(); ++at) {
        if (!isText(m_columns[at]) && isFor(m_columns[at], Column::People))
            order.push_back(at);
    }
    for (std::size_t at = m_columns.size(); at-- > 0;) {
        if (isText(m_columns[at]) && isFor(m_columns[at], Column::People))
            order.push_back(at);
    }
    const auto headOf = [this](std::size_t at) { return m_columns[at].head ? m_columns[at].head : m_columns[at].name; };
    std::vector<std::size_t> widths(m_columns.size());
    for (const std::size_t at : order) {
        widths[at] = std::string_view(headOf(at)).size();
        for (std::size_t row = 0; row < rows; ++row)
            widths[at] = std::max(widths[at], shownCell(m_columns[at], m_rows[row][at]).size());
    }
    const auto line = [&](auto textOf) {
        std::string text;
        for (const std::size_t at : order) {
            text += text.empty() ? "" : "  ";
            const std::string cell = textOf(at);
            if (!isText(m_columns[at]))
                text += fmt::format("{:>{}}", cell, widths[at]);
            else
                text += at == order.back() ? cell : fmt::format("{:<{}}", cell, widths[at]);
        }
        out << text << '\n';
    };
    line([&](std::size_t at) { return std::string(headOf(at)); });
    for (std::size_t row = 0; row < rows; ++row)
        line([&](std::size_t at) { return shownCell(m_columns[at], m_rows[row][at]); });
    if (rows < m_rows.size())
        qvx::print(out, "... and {} more (--limit tells how many are shown)\n", m_rows.size() - rows);
}

void Listing::writeJson(std::ostream& out, std::size_t rows) const {
    for (std::size_t row = 0; row < rows; ++row) {
        JsonLine line;
        for (std::size_t at = 0; at < m_columns.size(); ++at) {
            const Column& column = m_columns[at];
            const Cell& cell = m_rows[row][at];
            if (!isFor(column, Column::Programs))
                continue;
            const std::string name = column.name + std::string(isTime(column) ? "_ns" : "");
            if (!cell.isKnown() || (isTime(column) && !m_hasClock))
                line.addUnknown(name);
            else if (isText(column))
                line.add(name, cell.text());
            else if (cell.type() == CounterType::Double)
                line.addReal(name, std::bit_cast<double>(cell.number()));
            else if (isSigned(column) || cell.type() == CounterType::Signed)
                line.addSigned(name, static_cast<std::int64_t>(cell.number()));
            else
                line.add(name, cell.number());
        }
        out << line.text();
    }
}

void Listing::writeCsv(std::ostream& out, std::size_t rows) const {
    const auto line = [&](auto textOf) {
        const char* between = "";
        for (std::size_t at = 0; at < m_columns.size(); ++at) {
            if (!isFor(m_columns[at], Column::Programs))
                continue;
            out << std::exchange(between, ",") << textOf(at);
        }
        out << '\n';
    };
    line([&](std::size_t at) {
        const Column& column = m_columns[at];
        return column.name + std::string(!isTime(column) ? "" : m_hasClock ? "_ns" : "_ticks");
    });
    for (std::size_t row = 0; row < rows; ++row) {
        line([&](std::size_t at) {
            const Cell& cell = m_rows[row][at];
            if (!cell.isKnown())
                return std::string();
            if (isSigned(m_columns[at]))
                return std::to_string(static_cast<std::int64_t>(cell.number()));
            return isText(m_columns[at]) ? csvText(cell.text()) : numberText(cell);
        });
    }
}

} // namespace qvx

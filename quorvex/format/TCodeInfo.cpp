#include "quorvex/format/TCodeInfo.h"

#include "quorvex/format/MessageQueue.h"

#include <array>
#include <charconv>
#include <string_view>

namespace Quorvex {

namespace {

constexpr std::size_t kCodes = 256;

struct Row {
    std::uint32_t code;
    std::uint32_t valid;
    const char* name;
    const char* description;
    const char* layout;
};

struct ReservedName {
    char text[sizeof "TCode(0x00)"];
};

constexpr std::array<ReservedName, kCodes> makeReservedNames() {
    constexpr char kDigits[] = "0123456789abcdef";
    std::array<ReservedName, kCodes> names{};
    for (std::size_t code = 0; code < kCodes; ++code)
        names[code] = {{'T', 'C', 'o', 'd', 'e', '(', '0', 'x', kDigits[code >> 4], kDigits[code & 15], ')', '\0'}};
    return names;
}

constexpr std::array<ReservedName, kCodes> kReservedNames = makeReservedNames();

constexpr std::array<Row, kCodes> makeRows() {
    std::array<Row, kCodes> rows{};
    for (std::uint32_t code = 0; code < kCodes; ++code)
        rows[code] = {code, false, kReservedNames[code].text, "reserved", ""};
#define QUORVEX_TCODE(code, name, description, layout, role, text)                                                     \
    rows[code] = {code, true, #name, description, layout};
#define QUORVEX_PLANNED_TCODE(code, name, description, layout, role, text)                                             \
    rows[code] = {code, false, #name, description, layout};
#include "quorvex/format/TCodes.def"
    rows[Invalid].valid = true; // the code of no packet, and meant to be
    return rows;
}

constexpr std::array<Row, kCodes> kRows = makeRows();

const Row* find(tagTCode code) {
    if (code < kCodes)
        return &kRows[code];
    logError("Error: tcode is out of range. Out of bound access to array denied");
    return nullptr;
}

/// "8" is (8, 8), "0-64" is (0, 64). What is not a number counts 0.
std::pair<unsigned, unsigned> parseRange(std::string_view text) {
    const auto number = [](std::string_view digits) {
        unsigned value = 0;
        std::from_chars(digits.data(), digits.data() + digits.size(), value);
        return value;
    };
    const std::size_t hyphen = text.find('-');
    if (hyphen == std::string_view::npos)
        return {number(text), number(text)};
    return {number(text.substr(0, hyphen)), number(text.substr(hyphen + 1))};
}

std::string_view cutAt(std::string_view& text, char separator) {
    const std::size_t end = text.find(separator);
    const std::string_view head = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    return head;
}

LayoutField parseField(std::string_view text) {
    LayoutField field{{}, {0, 0}, {1, 1}};
    field.name = cutAt(text, ':');
    if (const std::size_t brace = text.find('{'); brace != std::string_view::npos) {
        field.count = parseRange(text.substr(brace + 1, text.find('}', brace) - brace - 1));
        text = text.substr(0, brace);
    }
    field.size = parseRange(cutAt(text, ':'));
    if (!text.empty())
        field.count = parseRange(text);
    return field;
}

/// Whether every `open` has its `close`; reports the first that has none.
bool isClosed(std::string_view text, char open, char close) {
    for (std::size_t at = text.find(open); at != std::string_view::npos; at = text.find(open, at + 1)) {
        if (text.find(close, at) != std::string_view::npos)
            continue;
        logError(std::string("Found malformed format string: Missing '") + close + "' closing brace.");
        logError("Format string was \"" + std::string(text) + '"');
        return false;
    }
    return true;
}

} // namespace

std::pair<unsigned, unsigned> Layout::length() const {
    std::pair<unsigned, unsigned> sum{0, 0};
    for (const LayoutField& field : fields) {
        sum.first += field.size.first * field.count.first;
        sum.second += field.size.second * field.count.second;
    }
    return {sum.first * repetition.first, sum.second * repetition.second};
}

Layout Layout::of(tagTCode code) {
    const Row* row = find(code);
    return row ? parse(row->name, row->layout) : Layout{};
}

Layout Layout::parse(const std::string& name, const std::string& text) {
    logMessage(MessageLevelTrace, "Parsing format string of type " + name);
    Layout layout;
    if (!isClosed(text, '[', ']') || !isClosed(text, '{', '}'))
        return layout;
    // Fields in square brackets are optional: there or not, as a whole.
    bool optional = false;
    std::string_view rest = text;
    while (!rest.empty()) {
        std::string_view part = cutAt(rest, '|');
        if (!part.empty() && part.front() == '[') {
            optional = true;
            part.remove_prefix(1);
        }
        const bool last = !part.empty() && part.back() == ']';
        if (last)
            part.remove_suffix(1);
        layout.fields.push_back(parseField(part));
        if (optional)
            layout.fields.back().count.first = 0;
        optional = optional && !last;
    }
    return layout;
}

bool CTCodeInfo::TCodeIsValid(tagTCode code) {
    const Row* row = find(code);
    return row && row->valid;
}

const char* CTCodeInfo::TCodeToName(tagTCode code) {
    const Row* row = find(code);
    return row ? row->name : nullptr;
}

const char* CTCodeInfo::TCodeToDescription(tagTCode code) {
    const Row* row = find(code);
    return row ? row->description : nullptr;
}

const char* CTCodeInfo::TCodeToFormat(tagTCode code) {
    const Row* row = find(code);
    return row ? row->layout : nullptr;
}

std::pair<unsigned, unsigned> CTCodeInfo::TCodeToLength(tagTCode code) {
    return Layout::of(code).length();
}

} // namespace Quorvex

#include "quorvex/stream/TraceTextReader.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/format/Digits.h"
#include "quorvex/format/Exception.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/Keywords.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/platform/Attempt.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>
#include <exception>
#include <istream>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Quorvex {

namespace {

/// Longer than any row can be: a line that goes on behind that is no row, and is not kept in memory.
constexpr std::size_t kLongestLine = 0x4000;
/// Characters that are taken from the stream at once, if it has them at hand.
constexpr std::size_t kBlock = 0x10000;
/// Memory behind a line at the end of the block, which is looked at, but not taken for something.
constexpr std::size_t kSlack = 64;
/// How much of a wrong cell is quoted.
constexpr std::size_t kLongestQuote = 40;

/// Some editors begin a text with it.
constexpr std::string_view kUtf8Mark = "\xef\xbb\xbf";

std::string_view trimmed(std::string_view text) {
    while (text.starts_with(' '))
        text.remove_prefix(1);
    while (text.ends_with(' '))
        text.remove_suffix(1);
    return text;
}

bool isTitleOrHead(std::string_view line) {
    return line == keywords::kDefaultTitle || trimmed(line) == trimmed(keywords::kHeadWithOffset) ||
           trimmed(line) == trimmed(keywords::kHeadWithoutOffset);
}

/// The codes of kinds that have packets, by name.
class Codes {
public:
    Codes() {
#define QUORVEX_PACKET(name) add(#name, name);
#include "quorvex/packets/Packets.def"
    }

    /// Invalid for what is no such name.
    tagTCode of(std::string_view name) const {
        std::size_t slot = hash(name);
        while (m_slots[slot].code != Invalid && m_slots[slot].name != name)
            slot = (slot + 1) % std::size(m_slots);
        return m_slots[slot].code;
    }

private:
    struct Slot {
        std::string_view name;
        tagTCode code = Invalid;
    };

    void add(std::string_view name, tagTCode code) {
        std::size_t slot = hash(name);
        while (m_slots[slot].code != Invalid)
            slot = (slot + 1) % std::size(m_slots);
        m_slots[slot] = {name, code};
    }
    /// Of the length and the first and last characters, which few names share.
    static std::size_t hash(std::string_view name) {
        using Word = std::uint32_t;
        std::uint64_t words = 0;
        if (name.size() >= sizeof(Word))
            words = std::uint64_t{loadLittleEndian<Word>(name.data())} << 32 |
                    loadLittleEndian<Word>(name.data() + name.size() - sizeof(Word));
        return static_cast<std::size_t>((words + name.size()) * 0x9E3779B97F4A7C15 >> 55);
    }

    Slot m_slots[512];
};

/// The code of a kind that has packets; Invalid for any other name.
tagTCode codeOf(std::string_view name) {
    static const Codes kCodes;
    return kCodes.of(name);
}

// Eight characters at once; the first one is the lowest byte.
// @{
constexpr std::uint64_t repeated(std::uint8_t byte) {
    return byte * std::uint64_t{0x0101010101010101};
}
/// How many there are before the first that is no decimal digit.
unsigned digitsIn(std::uint64_t text) {
    const std::uint64_t low = text & repeated(0xF0), high = (text + repeated(6)) & repeated(0xF0);
    return static_cast<unsigned>(std::countr_zero((low ^ repeated('0')) | (high ^ repeated('0')))) / 8;
}
/// The number that the first `count` of them, which are digits, make.
std::uint64_t decimalOf(std::uint64_t text, unsigned count) {
    std::uint64_t value = text << 8 * (8 - count) & repeated(0x0F);
    value = (value * 10 + (value >> 8)) & 0x00FF00FF00FF00FF;
    value = (value * 100 + (value >> 16)) & 0x0000FFFF0000FFFF;
    return (value * 10'000 + (value >> 32)) & 0xFFFFFFFF;
}
/// The number that they make if they are hexadecimal digits.
std::uint32_t hexadecimalOf(std::uint64_t text) {
    std::uint64_t value = (text & repeated(0x0F)) + 9 * (text >> 6 & repeated(1));
    value = (value << 4 | value >> 8) & 0x00FF00FF00FF00FF;
    value = (value << 8 | value >> 16) & 0x0000FFFF0000FFFF;
    return static_cast<std::uint32_t>(value << 16 | value >> 32);
}
/// Where the tab stands; 8 when there is none.
unsigned tabIn(std::uint64_t text) {
    const std::uint64_t zeros = text ^ repeated('\t');
    return static_cast<unsigned>(std::countr_zero((zeros - repeated(1)) & ~zeros & repeated(0x80))) / 8;
}
// @}

std::optional<std::uint64_t> number(std::string_view text) {
    const bool isHex = text.starts_with(keywords::kHexPrefix);
    if (isHex)
        text.remove_prefix(keywords::kHexPrefix.size());
    std::uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value, isHex ? 16 : 10);
    if (result.ec != std::errc() || result.ptr != end)
        return std::nullopt;
    return value;
}

/// The length of a payload.
std::optional<std::uint8_t> lengthOf(std::string_view text) {
    const auto value = number(text);
    return value && *value <= UINT8_MAX ? std::optional(static_cast<std::uint8_t>(*value)) : std::nullopt;
}

int digitOf(char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
}

/// Puts the bytes of "0x" and two digits for each, which show the last byte first. False when the text is something
/// else.
bool putReversed(std::string_view text, std::size_t count, char* to) {
    if (!text.starts_with(keywords::kHexPrefix) || text.size() != keywords::kHexPrefix.size() + 2 * count)
        return false;
    for (const char* digits = text.data() + text.size(); count > 0; --count) {
        digits -= 2;
        const int byte = digitOf(digits[0]) * 16 + digitOf(digits[1]);
        if (digitOf(digits[0]) < 0 || digitOf(digits[1]) < 0)
            return false;
        *to++ = static_cast<char>(byte);
    }
    return true;
}

/// Puts a number of any width, lowest byte first. False when it is none or takes more bytes.
bool putWide(std::string_view digits, std::size_t count, char* to) {
    const int base = digits.starts_with(keywords::kHexPrefix) ? 16 : 10;
    if (base == 16)
        digits.remove_prefix(keywords::kHexPrefix.size());
    std::fill_n(to, count, '\0');
    for (const char& digit : digits) {
        const int value = digitOf(digit);
        if (value < 0 || value >= base)
            return false;
        int carry = value;
        for (std::size_t i = 0; i < count; ++i) {
            carry += static_cast<unsigned char>(to[i]) * base;
            to[i] = static_cast<char>(carry & 0xFF);
            carry >>= 8;
        }
        if (carry != 0)
            return false;
    }
    return !digits.empty();
}

std::string bytesWord(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " byte" : " bytes");
}

} // namespace

/// Why a row cannot be read: the place in the line, and what was expected there.
struct TraceTextReader::Wrong {
    std::string_view cell; ///< of the line; empty at its end
    std::string expected;
};

/// The cells of a line, taken one by one.
class TraceTextReader::Cells {
public:
    explicit Cells(std::string_view line) : m_at(line.data()), m_end(line.data() + line.size()) {
        if (line.starts_with('\t'))
            ++m_at;
    }

    bool atEnd() const { return m_ended; }
    /// The next cell, not taken; at the end of the row, an empty one there.
    std::string_view peek() const {
        const char* end = m_at;
        unsigned tab = 8;
        for (; tab == 8 && m_end - end >= 8; end += tab)
            tab = tabIn(loadLittleEndian<std::uint64_t>(end));
        if (tab == 8)
            end = std::find(end, m_end, '\t');
        return {m_at, static_cast<std::size_t>(end - m_at)};
    }
    std::string_view take() {
        const std::string_view cell = peek();
        goBehind(cell.data() + cell.size());
        return cell;
    }
    /// Takes a cell as tables are written: a number in decimal or, with all its digits, in hexadecimal, and a blank.
    /// False, with nothing taken, for any other cell. Behind the line stands what is no digit, and kSlack characters.
    /// Inlined, because most cells are numbers.
    template <class T> [[gnu::always_inline]] inline bool takeNumber(T& value) {
        if (m_ended)
            return false;
        const char* at = m_at;
        std::uint64_t number = 0;
        if (at[1] == ' ') {
            number = static_cast<unsigned char>(at[0] - '0');
            if (number > 9)
                return false;
            ++at;
        } else if (at[0] == '0' && at[1] == 'x') {
            at = hexadecimal<2 * sizeof(T)>(at + 2, number);
        } else {
            at = decimal(at, number);
        }
        if (!at || number > std::numeric_limits<T>::max())
            return false;
        if (*at != ' ' || (at[1] != '\t' && at + 1 != m_end))
            return false;
        goBehind(at + 1);
        value = static_cast<T>(number);
        return true;
    }
    /// The row's kind, by its name, behind the offset and the description that may stand before it. Invalid when there
    /// is no such kind; then `name` is the cell that should have told it.
    tagTCode takeKind(std::string_view& name) {
        const bool isBehindOffset = takeOffset();
        name = take();
        const std::string_view first = trimmed(name);
        if (!isBehindOffset && (first.starts_with(keywords::kHexPrefix) || first == keywords::kInvalid))
            name = take();
        tagTCode code = codeOf(trimmed(name));
        if (code == Invalid && (code = codeOf(trimmed(peek()))) != Invalid)
            name = take();
        return code;
    }

    /// Takes a cell that says that something is unknown, as tables are written. False, with nothing taken, for others.
    bool takeInvalid() {
        static constexpr char kCell[] = "Invalid ";
        constexpr std::size_t kSize = sizeof kCell - 1;
        static_assert(keywords::kInvalid.size() + 1 == kSize &&
                      std::string_view(kCell).starts_with(keywords::kInvalid));
        if (m_ended || std::memcmp(m_at, kCell, kSize) != 0 || (m_at[kSize] != '\t' && m_at + kSize != m_end))
            return false;
        goBehind(m_at + kSize);
        return true;
    }

private:
    /// Takes the offset of a row as tables are written. False, with nothing taken, for any other cell.
    bool takeOffset() {
        constexpr std::ptrdiff_t kSize = 2 + 16 + 1;
        const auto hasTab = [this](unsigned at) { return tabIn(loadLittleEndian<std::uint64_t>(m_at + at)) < 8; };
        if (m_end - m_at <= kSize || m_at[0] != '0' || m_at[1] != 'x' || hasTab(2) || hasTab(10) ||
            m_at[kSize - 1] != ' ' || m_at[kSize] != '\t')
            return false;
        goBehind(m_at + kSize);
        return true;
    }

    // The number whose digits stand there: where they end, or null when it is none. Few numbers have eight digits; what
    // is longer stands apart from what is short.
    // @{
    static const char* decimal(const char* at, std::uint64_t& number) {
        const auto text = loadLittleEndian<std::uint64_t>(at);
        const unsigned count = digitsIn(text);
        if (count == 0)
            return nullptr;
        number = decimalOf(text, count);
        return count < 8 ? at + count : longDecimal(at + count, number);
    }
    /// Goes on behind the first eight digits, to 19 at most.
    [[gnu::noinline]] static const char* longDecimal(const char* at, std::uint64_t& number) {
        static constexpr std::uint64_t kPowers[] = {1,       10,        100,        1'000,      10'000,
                                                    100'000, 1'000'000, 10'000'000, 100'000'000};
        const char* const end = at + 16;
        unsigned count = 8;
        while (count == 8 && at < end) {
            const auto text = loadLittleEndian<std::uint64_t>(at);
            count = digitsIn(text);
            if (count > 0)
                number = number * kPowers[count] + decimalOf(text, count);
            at += count;
        }
        return end - at >= 5 ? at : nullptr;
    }
    /// All digits of a number, as tables show them.
    template <unsigned kDigits>
    [[gnu::noinline]] static const char* hexadecimal(const char* at, std::uint64_t& number) {
        char again[kDigits];
        for (unsigned i = 0; i < kDigits; i += 8) {
            std::uint64_t text = loadLittleEndian<std::uint64_t>(at + i);
            if (kDigits < 8)
                text <<= 8 * (8 - kDigits) % 64;
            number = number << 32 | hexadecimalOf(text);
        }
        putHex<kDigits>(again, number);
        return std::memcmp(again, at, kDigits) == 0 ? at + kDigits : nullptr;
    }
    // @}

    void goBehind(const char* cellEnd) {
        m_ended = cellEnd == m_end;
        m_at = m_ended ? m_end : cellEnd + 1;
    }

    const char* m_at;
    const char* m_end;
    bool m_ended = false;
};

/// Puts the payload of a packet into bytes. It follows the fields of a packet of the same kind and length, which tells
/// their types and widths, and takes the cell of each.
class TraceTextReader::Encoder {
public:
    Encoder(Cells& cells, char* to) : m_cells(cells), m_to(to) {}

    const char* end() const { return m_to; }

    template <class Part> void operator()(const Part& part) { Part::fields(part, *this); }
    template <class T> void operator()(FieldMeaning meaning, const char* name, const T& like) {
        encode(meaning, name, like);
    }

private:
    /// The next cell. What is expected there is put into words only when it is missing.
    template <class What> std::string_view next(const char* name, What&& what) {
        if (m_cells.atEnd())
            throw Wrong{m_cells.peek(), std::string(name) + ", " + what()};
        return m_cells.take();
    }

    template <class T> static std::string numberWord() { return "a number of at most " + bytesWord(sizeof(T)); }

    /// Negative numbers are those whose value, seen as signed, fits as well.
    template <class T> static T integer(std::string_view cell, const char* name, bool isSigned = false) {
        std::string_view digits = trimmed(cell);
        const bool isNegative = isSigned && digits.starts_with('-');
        if (isNegative)
            digits.remove_prefix(1);
        const auto value = number(digits);
        constexpr T kMost = std::numeric_limits<T>::max();
        if (!value || *value > (isNegative ? kMost / 2 + 1 : kMost))
            throw Wrong{cell, std::string(name) + ", " + numberWord<T>()};
        return static_cast<T>(isNegative ? 0 - *value : *value);
    }

    template <class T> void append(const T& value) {
        FieldCodec<T>::encode(value, m_to);
        m_to += FieldCodec<T>::size(value);
    }

    template <class T> void encode(FieldMeaning meaning, const char* name, const T&) {
        using Shown = typename IntegerOf<T>::type;
        using Number = std::make_unsigned_t<Shown>;
        const FieldFacts& facts = factsOf(meaning);
        Number value = std::numeric_limits<Number>::max();
        if (m_cells.takeNumber(value) ||
            (facts.canBeUnknown && facts.look != FieldLook::Length && m_cells.takeInvalid()))
            return append(value);
        const std::string_view cell = next(name, numberWord<Number>);
        append(isUnknown(meaning, trimmed(cell)) ? std::numeric_limits<Number>::max()
                                                 : integer<Number>(cell, name, std::is_signed_v<Shown>));
    }
    void encode(FieldMeaning, const char* name, const TCounter_t&) {
        encode(FieldMeaning::Number, name, std::uint64_t{});
    }
    void encode(FieldMeaning, const char* name, const TCounterIdx_t&) {
        encode(FieldMeaning::Number, name, std::uint64_t{});
    }
    void encode(FieldMeaning, const char* name, const TVarCounter_t& like) {
        const std::size_t count = like.Length();
        appendShown(
            name, count, [count] { return "a number of at most " + bytesWord(count); }, putWide);
    }
    void encode(FieldMeaning, const char* name, const CSignalMask& like) {
        const std::size_t count = like.size();
        appendShown(
            name, count, [count] { return digitsWord(count); }, putReversed);
    }
    void encode(FieldMeaning, const char* name, const CData& like) {
        const std::size_t count = like.Length();
        const auto putWire = [](std::string_view cell, std::size_t width, char* to) {
            char bytes[UINT8_MAX];
            if (!putReversed(cell, width, bytes))
                return false;
            // Only numbers travel in the order in which they stand in memory.
            FieldCodec<CData>::encode(
                CData(reinterpret_cast<const std::uint8_t*>(bytes), static_cast<std::uint8_t>(width)), to);
            return true;
        };
        appendShown(
            name, count, [count] { return digitsWord(count); }, putWire);
    }
    void encode(FieldMeaning, const char* name, const CBusDataSignals&) {
        const std::string_view cell = next(name, numberWord<std::uint8_t>);
        const auto* word = std::ranges::find(keywords::kBusAccesses, trimmed(cell));
        append(word != std::end(keywords::kBusAccesses)
                   ? static_cast<std::uint8_t>(word - std::begin(keywords::kBusAccesses))
                   : integer<std::uint8_t>(cell, name));
    }
    void encode(FieldMeaning, const char* name, const SFrameConfig&) {
        const std::string_view cell = next(name, numberWord<std::uint32_t>);
        const auto* expansion = std::ranges::find(keywords::kExpansions, trimmed(cell));
        if (expansion == std::end(keywords::kExpansions)) {
            append(integer<std::uint32_t>(cell, name));
            return;
        }
        SFrameConfig config(TraceExpansion(expansion - std::begin(keywords::kExpansions)));
        const auto either = [] {
            return std::string(keywords::kExceptionFrames[0]) + " or " + std::string(keywords::kExceptionFrames[1]);
        };
        const std::string_view second = next(name, either);
        const auto* frames = std::ranges::find(keywords::kExceptionFrames, trimmed(second));
        if (frames == std::end(keywords::kExceptionFrames))
            throw Wrong{second, std::string(name) + ", " + either()};
        config.setExceptionFrames(frames != std::begin(keywords::kExceptionFrames));
        append(config);
    }
    void encode(FieldMeaning, const char* name, const FillBytes& like) {
        const auto empty = [] { return std::string("an empty cell"); };
        if (like.count > 0) {
            const std::string_view cell = next(name, empty);
            if (!trimmed(cell).empty())
                throw Wrong{cell, std::string(name) + ", " + empty()};
        }
        append(like);
    }

    static bool isUnknown(FieldMeaning meaning, std::string_view word) {
        const FieldFacts& facts = factsOf(meaning);
        return facts.canBeUnknown &&
               word == (facts.look == FieldLook::Length ? keywords::kUnknownLength : keywords::kInvalid);
    }

    static std::string digitsWord(std::size_t count) { return "0x and the hexadecimal digits of " + bytesWord(count); }

    /// A cell that shows `count` bytes; there is none for no bytes.
    template <class What, class Read> void appendShown(const char* name, std::size_t count, What&& what, Read&& read) {
        if (count == 0)
            return;
        const std::string_view cell = next(name, what);
        if (!read(trimmed(cell), count, m_to))
            throw Wrong{cell, std::string(name) + ", " + what()};
        m_to += count;
    }

    template <class T, bool = std::is_enum_v<T>> struct IntegerOf { using type = T; };
    template <class T> struct IntegerOf<T, true> : std::underlying_type<T> {};

    Cells& m_cells;
    char* m_to;
};

TraceTextReader::TraceTextReader(std::istream& stream, bool logs)
    : m_stream(stream), m_logs(logs), m_block(kBlock + kSlack), m_models(UINT8_MAX + 1) {}

TraceTextReader::~TraceTextReader() = default;

bool TraceTextReader::good() {
    return !m_eot && (m_begun->code != Invalid || m_ahead->code != Invalid || m_hasLine || m_stream.good());
}

void TraceTextReader::clear() {
    m_eot = false;
    attempt([this] {
        m_stream.clear();
        return true;
    });
}

std::uint64_t TraceTextReader::size() {
    const std::istream::iostate state = m_stream.rdstate();
    std::uint64_t size = 0;
    attempt([&] {
        m_stream.clear();
        const std::istream::pos_type current = m_stream.tellg();
        if (current != std::istream::pos_type(-1) && m_stream.seekg(0, std::ios::end)) {
            size = static_cast<std::uint64_t>(std::streamoff(m_stream.tellg()));
            m_stream.seekg(current);
        }
        return true;
    });
    attempt([&] {
        m_stream.clear(state);
        return true;
    });
    return size;
}

tagTCode TraceTextReader::peek() {
    return m_begun->code != Invalid ? m_begun->code : ahead();
}

tagTCode TraceTextReader::ahead() {
    if (m_ahead->code == Invalid)
        readRow();
    return m_ahead->code;
}

bool TraceTextReader::get(std::list<CPacket*>& packets) {
    CPacket* packet = get();
    if (packet)
        packets.push_back(packet);
    return packet != nullptr;
}

CPacket* TraceTextReader::get() {
    // Where memory is short for one of these steps, the next call goes on with it.
    if (m_begun->code == Invalid) {
        if (ahead() == Invalid)
            return nullptr;
        std::swap(m_begun, m_ahead);
        m_isOpen = isFollowedByText(m_begun->code);
        m_hasText = false;
    }
    // The texts behind a packet are part of it, as long as they go on: an empty one in the first place says nothing.
    const auto length = [this] { return static_cast<unsigned char>(m_ahead->bytes[1]); };
    while (ahead() == CharString && m_isOpen && m_belongs && (m_hasText || length() > 0)) {
        if (!m_hasText)
            m_withText.assign(m_begun->bytes, m_begun->size);
        m_withText.append(m_ahead->bytes, m_ahead->size);
        m_isOpen = length() == kCharStringMax;
        m_hasText = true;
        m_ahead->code = Invalid;
    }
    // A text whose rest is lost ends where it was lost.
    if (m_isOpen && m_hasText) {
        CCharString end;
        char terminator[CPacketHeader::Len()];
        m_withText.append(terminator, end.write(terminator, sizeof terminator));
        m_isOpen = false;
    }
    const tagTCode code = std::exchange(m_begun->code, Invalid);
    try {
        unsigned consumed = 0;
        const char* const bytes = m_hasText ? m_withText.data() : m_begun->bytes;
        const unsigned size = m_hasText ? static_cast<unsigned>(m_withText.size()) : m_begun->size;
        CPacket* packet = CPacketFactory::getCPacket(bytes, size, consumed);
        m_eot = m_eot || code == EndOfTrace;
        return packet;
    } catch (const std::exception& exception) {
        if (isOutOfMemory(exception))
            m_begun->code = code;
        throw;
    }
}

void TraceTextReader::readRow() {
    m_ahead->code = Invalid;
    m_belongs = m_belongs || !m_hasLine;
    while (m_ahead->code == Invalid && (m_hasLine || readLine())) {
        m_hasLine = !isDecoration();
        if (!m_hasLine)
            continue;
        try {
            parse(*m_ahead);
        } catch (const Wrong& wrong) {
            report(wrong);
            m_belongs = false;
        }
        m_hasLine = false;
    }
}

bool TraceTextReader::refill(std::size_t to) {
    const std::size_t rest = m_filled - m_next;
    std::memmove(m_block.data() + to, m_block.data() + m_next, rest);
    m_next = to;
    m_filled = to + rest;
    char* const more = m_block.data() + m_filled;
    const auto room = static_cast<std::streamsize>(kBlock - m_filled);
    std::streamsize got = 0;
    // No more than the stream has at hand: a program may still write the table.
    attempt([&] {
        got = m_stream.readsome(more, room);
        if (got == 0 && m_stream.good() && m_stream.peek() != std::istream::traits_type::eof()) {
            got = m_stream.readsome(more, room);
            if (got > 0)
                return true;
            // Some stream buffers never tell what they have.
            while (got < room && m_stream.get(more[got]) && more[got++] != '\n') {
            }
        }
        return true;
    });
    m_filled += static_cast<std::size_t>(got);
    return got > 0;
}

bool TraceTextReader::readLine() {
    m_line = {};
    m_wholeLine = true;
    const auto start = [this] { return m_block.data() + m_next; };
    const auto findEnd = [&](std::size_t behind, std::size_t most) {
        return static_cast<const char*>(std::memchr(start() + behind, '\n', most - behind));
    };
    const auto take = [this](std::size_t count) {
        m_next += count;
        m_position += count;
    };
    std::size_t size = 0;
    const char* end = nullptr;
    do {
        const std::size_t most = std::min(m_filled - m_next, kLongestLine);
        end = findEnd(size, most);
        size = end ? static_cast<std::size_t>(end - start()) : most;
    } while (!end && size < kLongestLine && refill(0));
    if (m_stream.bad() || (!end && size == 0)) // what was taken may be a part of the line
        return false;
    m_wholeLine = end || size < kLongestLine;
    if (m_wholeLine) {
        m_line = {start(), size};
        take(size + (end ? 1 : 0)); // the line's end counts as taken
        if (!end)
            m_block[m_filled] = '\0';
    } else {
        // Its first part stays in front, what is behind that passes.
        std::memmove(m_block.data(), start(), kLongestLine);
        m_line = {m_block.data(), kLongestLine - 1};
        take(kLongestLine - 1);
        while (!(end = findEnd(0, m_filled - m_next))) {
            take(m_filled - m_next);
            if (!refill(kLongestLine))
                break;
        }
        if (end)
            take(static_cast<std::size_t>(end - start()) + 1);
    }
    ++m_lineNumber;
    if (m_line.ends_with('\r'))
        m_line.remove_suffix(1);
    if (m_lineNumber == 1 && m_line.starts_with(kUtf8Mark))
        m_line.remove_prefix(kUtf8Mark.size());
    return true;
}

bool TraceTextReader::isDecoration() const {
    if (m_line.size() > 1 && m_line[0] == '\t' && m_line[1] != ' ') // as rows begin, and nothing else
        return false;
    return trimmed(m_line).empty() || isTitleOrHead(m_line) || (m_lineNumber == 1 && !m_line.starts_with('\t'));
}

bool TraceTextReader::looksLikeTable(std::string_view start) {
    if (start.starts_with(kUtf8Mark))
        start.remove_prefix(kUtf8Mark.size());
    for (bool isFirst = true; !start.empty(); isFirst = false) {
        std::string_view line = start.substr(0, start.find('\n'));
        start.remove_prefix(std::min(line.size() + 1, start.size()));
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        if (isTitleOrHead(line))
            return true;
        const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 && c != '\t'; };
        if (std::ranges::any_of(line, isControl))
            return false;
        if (line.starts_with('\t')) {
            Cells cells(line);
            std::string_view name;
            if (cells.takeKind(name) != Invalid && lengthOf(trimmed(cells.take())))
                return true;
        } else if (!isFirst && !trimmed(line).empty()) {
            return false;
        }
    }
    return false;
}

void TraceTextReader::parse(Row& row) {
    if (!m_wholeLine)
        throw Wrong{m_line.substr(m_line.size()), "the end of the row"};
    if (!m_line.starts_with('\t'))
        throw Wrong{m_line, "a row, which begins with a tab"};
    Cells cells(m_line);
    std::string_view name;
    const tagTCode code = cells.takeKind(name);
    if (code == Invalid)
        throw Wrong{name, "the name of a kind of packet"};
    const Cells lengthCell = cells;
    std::uint8_t length = 0;
    if (!cells.takeNumber(length)) {
        const std::string_view cell = cells.take();
        const auto told = lengthOf(trimmed(cell));
        if (!told)
            throw Wrong{cell, "the length of the payload, at most 255"};
        length = *told;
    }

    char* const payload = row.bytes + CPacketHeader::Len();
    const char* end = nullptr;
    if (code == CharString) {
        end = putText(cells, length, payload);
    } else {
        const CPacket* model = modelOf(code, length);
        if (!model)
            throw Wrong{lengthCell.peek(), "a length that the payload of this kind can have"};
        Encoder encoder(cells, payload);
        visitKind(*model, [&encoder](const auto& kind) { kind.visitParts(encoder); });
        end = encoder.end();
    }
    // A short trace-enabled packet is written with all its fields, so its length has to tell them.
    CPacketHeader(code, static_cast<std::uint8_t>(end - payload)).write(row.bytes, CPacketHeader::Len());
    while (!cells.atEnd()) {
        const std::string_view more = cells.take();
        if (!trimmed(more).empty())
            throw Wrong{more, "the end of the row"};
    }
    if (code == CharString && !m_belongs)
        throw Wrong{m_line, "a packet that the text can belong to"};
    row.code = code;
    row.size = static_cast<unsigned>(end - row.bytes);
}

char* TraceTextReader::putText(Cells& cells, std::size_t length, char* to) {
    // The cell ends with a blank of its own. Other blanks at the end are the text's, unless an editor took them.
    std::string_view text = cells.take();
    const bool isShown = putReversed(trimmed(text), length, to);
    if (text.size() > length && text.ends_with(' '))
        text.remove_suffix(1);
    if (!isShown && text.size() == length)
        text.copy(to, length);
    else if (!isShown && length > 0)
        throw Wrong{text, "a text of " + bytesWord(length) + ", or 0x and their hexadecimal digits"};
    return to + length;
}

const CPacket* TraceTextReader::modelOf(tagTCode code, std::uint8_t length) {
    auto& [packet, lengthOfPacket] = m_models[code];
    if (packet && lengthOfPacket == length)
        return packet.get();
    const char zeros[UINT8_MAX] = {};
    unsigned consumed = 0;
    packet.reset();
    lengthOfPacket = length;
    try {
        packet =
            platform::Owned<CPacket>(CPacketFactory::getCPacket(CPacketHeader(code, length), zeros, length, consumed));
    } catch (const CQVXException& exception) {
        if (isOutOfMemory(exception))
            throw;
    }
    if (consumed != length)
        packet.reset();
    return packet.get();
}

void TraceTextReader::report(const Wrong& wrong) {
    Error error{m_lineNumber, static_cast<std::uint64_t>(wrong.cell.data() - m_line.data()) + 1,
                "expected " + wrong.expected + ", found "};
    const std::string_view found = trimmed(wrong.cell);
    if (wrong.cell.data() == m_line.data() + m_line.size())
        error.text += m_wholeLine ? "the end of the row" : "more than a row can hold";
    else
        error.text.append("\"")
            .append(found.substr(0, kLongestQuote))
            .append(found.size() > kLongestQuote ? "...\"" : "\"");
    if (m_logs)
        logError("TraceTextReader: line " + std::to_string(error.line) + ", column " + std::to_string(error.column) +
                 ": " + error.text);
    if (m_errors++ == 0)
        m_firstError = std::move(error);
}

} // namespace Quorvex

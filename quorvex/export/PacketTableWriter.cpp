#include "quorvex/export/PacketTableWriter.h"

#include "quorvex/export/ForwardAll.h"
#include "quorvex/export/PacketHTML.h"
#include "quorvex/export/PacketLaTeX.h"
#include "quorvex/export/PacketPlain.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/format/Characters.h"
#include "quorvex/format/Digits.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/Keywords.h"
#include "quorvex/packets/KindFacts.h"

#include <algorithm>
#include <cassert>
#include <charconv>
#include <cstring>
#include <iterator>
#include <type_traits>
#include <utility>

namespace Quorvex {

namespace {

/// Whether all of a text can be printed.
bool isPrintable(std::string_view text) {
    while (!text.empty()) {
        const Character character = firstCharacter(text);
        if (!character.printable)
            return false;
        text.remove_prefix(character.size);
    }
    return true;
}

/// How a field of that many bytes is shown: those of contexts have the widths that they have there.
constexpr FieldLook lookOf(FieldMeaning meaning, std::size_t size) {
    const FieldLook look = factsOf(meaning).look;
    switch (look) {
    case FieldLook::Tick:
    case FieldLook::Address:
        return size == 1 || size == 8 ? look : FieldLook::Decimal;
    case FieldLook::Context:
    case FieldLook::Unit:
        return size == 4 ? look : FieldLook::Decimal;
    default:
        return look;
    }
}

/// A short text that is copied with all the room it has, so that its length costs nothing.
struct Piece {
    static constexpr std::size_t kRoom = 32;

    Piece() = default;
    explicit Piece(std::string_view of) : size(static_cast<unsigned>(of.copy(text, kRoom))) {
        assert(of.size() <= kRoom);
    }
    /// The end of the text; kRoom characters are overwritten.
    char* put(char* to) const {
        std::memcpy(to, text, kRoom);
        return to + size;
    }

    char text[kRoom] = {};
    unsigned size = 0;
};

} // namespace

/// How a number is shown.
enum class CPacketTableWriter::Form : std::uint8_t { Decimal, Hexadecimal, Invalid, UnknownLength };

/// What a renderer writes again and again, taken from its own operations.
struct CPacketTableWriter::Pieces {
    Piece rowOpen, rowClose, itemClose;
    Piece itemOpen[sizeof(std::uint64_t) + 1]; ///< by span
    // Taken when they are needed first.
    std::string kinds[UINT8_MAX + 1]; ///< description, unless the table is for programs, and type code
    bool parsable = false;            ///< `kinds` are those of such a table
    Piece lengths[UINT8_MAX + 1];
};

/// Gathers rows, which go to the stream in one piece, and writes numbers without the renderer's operations for cells.
class CPacketTableWriter::Block {
public:
    explicit Block(CPacketTableWriter& writer) : m_writer(writer) { writer.m_block = this; }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;
    ~Block() { m_writer.m_block = nullptr; }

    void append(std::string_view text) {
        if (text.size() > sizeof m_text) {
            flush();
            m_writer.writeToStream(text);
        } else {
            char* const to = reserve(text.size());
            m_end = to + text.copy(to, text.size());
        }
    }
    /// A cell with a number.
    template <class T> void number(Form form, T value, unsigned span = sizeof(T)) {
        char* to = pieces().itemOpen[span].put(reserve(2 * Piece::kRoom + kMostDigits));
        if (form == Form::Decimal)
            to = putDecimal(to, value);
        else if (form == Form::Hexadecimal)
            to = putHexValue(to, value);
        else
            to += (form == Form::Invalid ? keywords::kInvalid : keywords::kUnknownLength).copy(to, Piece::kRoom);
        m_end = pieces().itemClose.put(to);
    }
    /// The row up to its payload.
    bool beginRow(std::uint64_t offset, CPacket& packet);
    void endRow() { append(pieces().rowClose); }
    /// Whether all of the text so far has been written.
    bool flush() {
        m_writer.writeToStream({m_text, static_cast<std::size_t>(std::exchange(m_end, m_text) - m_text)});
        return m_writer.m_stream.good();
    }
    /// What a call of one of the renderer's operations writes.
    template <class Write> Piece pieceOf(Write write) {
        char* const from = reserve(Piece::kRoom);
        write();
        return Piece({from, static_cast<std::size_t>(std::exchange(m_end, from) - from)});
    }

private:
    /// More than description and type code of any kind take.
    static constexpr std::size_t kLongestKind = 0x400;

    Pieces& pieces() { return *m_writer.m_pieces; }
    void append(const Piece& piece) { m_end = piece.put(reserve(Piece::kRoom)); }
    /// Where that many characters, at most as many as the block has, can be put.
    char* reserve(std::size_t count) {
        if (count > static_cast<std::size_t>(std::end(m_text) - m_end))
            flush();
        return m_end;
    }

    CPacketTableWriter& m_writer;
    char m_text[0x1000];
    char* m_end = m_text;
};

bool CPacketTableWriter::Block::beginRow(std::uint64_t offset, CPacket& packet) {
    Pieces& pieces = this->pieces();
    append(pieces.rowOpen);
    if (m_writer.m_withOffset) {
        m_writer.m_offset = offset;
        number(offset == kUnknown64 ? Form::Invalid : Form::Hexadecimal, offset, 1);
    }
    const tagTCode code = packet.TraceCode();
    const unsigned length = packet.Length();
    if (code > UINT8_MAX || length > UINT8_MAX)
        return (m_writer.m_parsable || m_writer.writeDescription(packet)) && m_writer.writeHeader(packet);
    if (std::exchange(pieces.parsable, m_writer.m_parsable) != m_writer.m_parsable)
        std::ranges::fill(pieces.kinds, std::string());
    if (std::string& kind = pieces.kinds[code]; !kind.empty()) {
        append(kind);
    } else {
        const char* const from = reserve(kLongestKind);
        if (!(m_writer.m_parsable || m_writer.writeDescription(packet)) || !m_writer.writeTCode(packet))
            return false;
        kind.assign(from, static_cast<std::size_t>(m_end - from));
    }
    Piece& piece = pieces.lengths[length];
    if (piece.size == 0)
        piece = pieceOf([&] { m_writer.writeLength(packet); });
    append(piece);
    return true;
}

inline CPacketTableWriter::Form CPacketTableWriter::formOf(FieldLook look, bool allOnes) const {
    const bool isInvalid = m_parsable && allOnes;
    switch (look) {
    case FieldLook::Tick:
        return isInvalid ? Form::Invalid : m_hexTick ? Form::Hexadecimal : Form::Decimal;
    case FieldLook::Address:
        return isInvalid ? Form::Invalid : Form::Hexadecimal;
    case FieldLook::Context:
    case FieldLook::Unit:
        return isInvalid ? Form::Invalid : Form::Decimal;
    case FieldLook::Length:
        return allOnes ? Form::UnknownLength : Form::Decimal;
    case FieldLook::Hexadecimal:
        return Form::Hexadecimal;
    case FieldLook::Decimal:
        break;
    }
    return Form::Decimal;
}

/// Writes a packet's parts as cells: contexts through the context writers, other fields by what they mean.
class CPacketTableWriter::PayloadCells {
public:
    PayloadCells(CPacketTableWriter& writer, CPacket& packet) : m_writer(writer), m_packet(packet) {}

    bool good = true;

    void operator()(const CCoreContext& part) { context(part, &CPacketTableWriter::writeCoreContext); }
    void operator()(const CRelCoreContext& part) { context(part, &CPacketTableWriter::writeRelCoreContext); }
    void operator()(const CBusContext& part) { context(part, &CPacketTableWriter::writeBusContext); }
    void operator()(const CRelBusContext& part) { context(part, &CPacketTableWriter::writeRelBusContext); }
    void operator()(const CSystemContext& part) { context(part, &CPacketTableWriter::writeSystemContext); }
    void operator()(const CRelSystemContext& part) { context(part, &CPacketTableWriter::writeRelSystemContext); }
    template <class Part> void operator()(const Part& part) { Part::fields(part, *this); }

    template <class T> void operator()(FieldMeaning meaning, const char*, const T& value) {
        good = good && write(meaning, value);
    }

private:
    template <class Context> void context(const Context& part, bool (CPacketTableWriter::*writeContext)(CPacket&)) {
        if (m_writer.m_block)
            Context::fields(part, *this);
        else
            good = good && (m_writer.*writeContext)(m_packet);
    }

    template <class T> bool write(FieldMeaning meaning, T value) {
        static_assert(std::is_integral_v<T>);
        // Signed numbers are shown as the byte they are.
        using Number = std::make_unsigned_t<T>;
        const auto number = static_cast<Number>(value);
        return writeNumber(m_writer.formOf(lookOf(meaning, sizeof(T)), number == Number(~Number{0})), number);
    }
    bool write(FieldMeaning, EEventType type) {
        return writeNumber(Form::Hexadecimal, static_cast<std::uint32_t>(type));
    }
    bool write(FieldMeaning, const TCounter_t& value) { return writeNumber(Form::Decimal, value.u64); }
    bool write(FieldMeaning, const TCounterIdx_t& index) { return writeNumber(Form::Decimal, index.u64); }
    bool write(FieldMeaning, const TVarCounter_t& value) { return m_writer.writeTVarCounter(value); }
    bool write(FieldMeaning, const CData& data) { return m_writer.writeCData(data); }
    bool write(FieldMeaning, const CSignalMask& mask) { return m_writer.writeCSignalMask(mask); }
    bool write(FieldMeaning, const CBusDataSignals& signals) { return m_writer.writeBusDataSignalItem(signals); }
    bool write(FieldMeaning, const SFrameConfig& config) { return m_writer.writeFrameConfig(config); }
    // Padding says nothing: the cell is empty.
    bool write(FieldMeaning, const FillBytes& fill) { return fill.count == 0 || m_writer.writeItem(fill.count, {}); }

    template <class T> bool writeNumber(Form form, T value) {
        if (!m_writer.m_block)
            return m_writer.writeInForm(form, value);
        m_writer.m_block->number(form, value);
        return true;
    }

    CPacketTableWriter& m_writer;
    CPacket& m_packet;
};

CPacketTableWriter::CPacketTableWriter(std::ostream& stream, bool withOffset, std::uint64_t offset)
    : m_stream(stream), m_withOffset(withOffset), m_offset(offset) {}

CPacketTableWriter::CPacketTableWriter(const CPacketTableWriter& other)
    : CTraceSink(other),
      m_stream(other.m_stream),
      m_withOffset(other.m_withOffset),
      m_parsable(other.m_parsable),
      m_hexTick(other.m_hexTick),
      m_breaksOff(other.m_breaksOff),
      m_offset(other.m_offset) {}

CPacketTableWriter::~CPacketTableWriter() = default;

bool CPacketTableWriter::good() {
    return m_stream.good();
}

void CPacketTableWriter::clear() {
    m_stream.clear();
}

void CPacketTableWriter::flush() {
    m_stream.flush();
}

bool CPacketTableWriter::put(CPacket* packet) {
    return packet && writeCPacket(*packet);
}

bool CPacketTableWriter::forward(CPacket*& packet) {
    return put(packet) && CPacketFactory::releaseCPacket(&packet);
}

bool CPacketTableWriter::forward(std::list<CPacket*>& packets) {
    return forwardAll(*this, packets);
}

bool CPacketTableWriter::writePageHeader(const char*) {
    return good();
}

bool CPacketTableWriter::writePageFooter() {
    return good();
}

bool CPacketTableWriter::writeTableHeader(bool withOffset) {
    SetWithOffset(withOffset);
    return writeTableHeader();
}

bool CPacketTableWriter::writeTableHeader() {
    return good();
}

bool CPacketTableWriter::writeTableFooter() {
    return good();
}

bool CPacketTableWriter::writeRowOpen() {
    return good();
}

bool CPacketTableWriter::writeRowClose() {
    return good();
}

bool CPacketTableWriter::writeItemOpen(unsigned) {
    return good();
}

bool CPacketTableWriter::writeItemClose() {
    return good();
}

bool CPacketTableWriter::writeCPacket(tagTCode code) {
    return writeRowOpen() && (m_parsable || writeDescription(code)) && writeHeader(code) && writePayload(code) &&
           writeRowClose();
}

bool CPacketTableWriter::writeCPacket(CPacket& packet) {
    return writeCPacket(kUnknown64, packet);
}

bool CPacketTableWriter::writeCPacket(std::uint64_t offset, CPacket& packet) {
    if (!gathers() || !m_stream.good())
        return writeRows(offset, packet);
    Block block(*this);
    const bool written = writeRows(offset, packet);
    return block.flush() && written;
}

bool CPacketTableWriter::gathers() {
    // Other renderers may do what they like in the operations for rows and cells, also write to the stream themselves.
    const std::type_info* type = &typeid(*this);
    if (type == m_type)
        return bool(m_pieces);
    m_type = type;
    m_pieces.reset();
    if (*type != typeid(CPacketPlain) && *type != typeid(CPacketHTML) && *type != typeid(CPacketLaTeX))
        return false;
    m_pieces = platform::makeOwned<Pieces>();
    Block block(*this);
    m_pieces->rowOpen = block.pieceOf([this] { writeRowOpen(); });
    m_pieces->rowClose = block.pieceOf([this] { writeRowClose(); });
    m_pieces->itemClose = block.pieceOf([this] { writeItemClose(); });
    for (unsigned span = 1; span < std::size(m_pieces->itemOpen); ++span)
        m_pieces->itemOpen[span] = block.pieceOf([this, span] { writeItemOpen(span); });
    return true;
}

bool CPacketTableWriter::writeRows(std::uint64_t offset, CPacket& packet) {
    // A text of any length is not one row but as many as it has packets.
    if (auto* sequence = packet.TraceCode() == CharString ? dynamic_cast<CCharStringSequence*>(&packet) : nullptr) {
        CPacket nothing(Invalid, 0);
        m_offset = offset == kUnknown64 ? offset : offset - nothing.StreamSize();
        return writeCCharStringSequenceSaveOffset(nothing, *sequence);
    }
    if (!beginRow(offset, packet) || !writePayload(packet) || !endRow())
        return false;
    const CCharStringSequence* text = nullptr;
    if (isFollowedByText(packet.TraceCode()))
        visitKind(packet, [&text](const auto& kind) { text = kind.text(); });
    if (!text || text->empty())
        return true;
    m_offset = offset;
    CCharStringSequence rows(*text);
    return writeCCharStringSequenceSaveOffset(packet, rows);
}

bool CPacketTableWriter::beginRow(std::uint64_t offset, CPacket& packet) {
    return m_block ? m_block->beginRow(offset, packet)
                   : writeRowOpen() && writeOffset(offset) && (m_parsable || writeDescription(packet)) &&
                         writeHeader(packet);
}

bool CPacketTableWriter::endRow() {
    if (!m_block)
        return writeRowClose();
    m_block->endRow();
    return true;
}

bool CPacketTableWriter::writeCPacket(std::uint64_t offset, CPacket& packet, std::uint64_t size) {
    m_breaksOff = size < packet.StreamSize();
    const bool written = writeCPacket(offset, packet);
    m_breaksOff = false;
    return written;
}

bool CPacketTableWriter::writeOffset(std::uint64_t offset) {
    if (!m_withOffset)
        return true;
    m_offset = offset;
    return offset == kUnknown64 ? writeInvalidItem(1) : writeHexIn(1, offset);
}

bool CPacketTableWriter::writeDescription(tagTCode code) {
    return checkRange(code) && writeKeyword(1, CTCodeInfo::TCodeToDescription(code));
}

bool CPacketTableWriter::writeDescription(CPacket& packet) {
    return writeDescription(packet.TraceCode());
}

bool CPacketTableWriter::writeHeader(tagTCode code) {
    return writeTCode(code) && writeLength(code);
}

bool CPacketTableWriter::writeHeader(CPacket& packet) {
    return writeTCode(packet) && writeLength(packet);
}

bool CPacketTableWriter::writeTCode(tagTCode code) {
    return checkRange(code) && writeKeyword(1, CTCodeInfo::TCodeToName(code));
}

bool CPacketTableWriter::writeTCode(CPacket& packet) {
    return writeTCode(packet.TraceCode());
}

bool CPacketTableWriter::writeLength(tagTCode code) {
    return checkRange(code) && writeItemOpen(1) && writeRange(getSizeFromTCode(code)) && writeItemClose();
}

bool CPacketTableWriter::writeLength(CPacket& packet) {
    return writeItemOpen(1) && writeNumber(packet.Length()) && writeItemClose();
}

bool CPacketTableWriter::writePayload(tagTCode code) {
    if (!checkRange(code))
        return false;
    const Layout layout = Layout::of(code);
    bool written = true;
    for (const LayoutField& field : layout.fields) {
        DebugFieldFormatEntry entry{field.size.second, field.size, field.count, field.name};
        written = writeDebugFieldFormatEntry(&entry) && written;
    }
    if (layout.repetition != std::pair{1U, 1U})
        written = writeItemOpen(1) && writeRepetition(layout.repetition) && writeItemClose() && written;
    return written;
}

bool CPacketTableWriter::writeDebugFieldFormatEntry(DebugFieldFormatEntry* entry) {
    return entry && writeItemOpen(entry->width) && writeText(entry->name) && writeText("(") &&
           writeRange(entry->size) && writeText(")") &&
           (entry->repetition == std::pair{1U, 1U} || writeRepetition(entry->repetition)) && writeItemClose();
}

bool CPacketTableWriter::writePayload(CPacket& packet) {
    if (auto* text = packet.TraceCode() == CharString ? dynamic_cast<CCharString*>(&packet) : nullptr)
        return writeCCharString(*text, false);
    PayloadCells cells(*this, packet);
    const bool known = visitKind(packet, [&](const auto& kind) {
        using Packet = std::remove_cvref_t<decltype(kind)>;
        if (m_block)
            return kind.visitParts(cells);
        if constexpr (std::is_base_of_v<CVariableAccBase, Packet>)
            cells.good = writeCVariableAccBase(static_cast<CVariableAccBase&>(packet));
        else if constexpr (std::is_base_of_v<CRelVariableAccBase, Packet>)
            cells.good = writeCRelVariableAccBase(static_cast<CRelVariableAccBase&>(packet));
        else if constexpr (std::is_base_of_v<CDataBase, Packet>)
            cells.good = writeCDataBase(static_cast<CDataBase&>(packet));
        else if constexpr (std::is_base_of_v<CRelDataBase, Packet>)
            cells.good = writeCRelDataBase(static_cast<CRelDataBase&>(packet));
        else if constexpr (std::is_base_of_v<CMessage, Packet>)
            cells.good = writeCMessage(static_cast<CMessage&>(packet));
        else
            kind.visitParts(cells);
    });
    if (!known) {
        char digits[8];
        const auto end = std::to_chars(digits, digits + sizeof digits, unsigned{packet.TraceCode()}, 16).ptr;
        logError("Unknown tcode for payload decoding: 0x" + std::string(digits, end));
    }
    return known && cells.good;
}

template <class Context> bool CPacketTableWriter::writeContext(CPacket& packet, const Context& context) {
    PayloadCells cells(*this, packet);
    Context::fields(context, cells);
    return cells.good;
}

template <class Packet> bool CPacketTableWriter::writeParts(Packet& packet) {
    PayloadCells cells(*this, packet);
    packet.visitParts(cells);
    return cells.good;
}

namespace {

/// The context of a packet; that of no time and place for one of another sort.
template <class Context> Context contextIn(const CPacket& packet) {
    const auto* context = contextOf<Context>(packet);
    return context ? *context : Context();
}

} // namespace

bool CPacketTableWriter::writeCoreContext(CPacket& packet) {
    return writeContext(packet, contextIn<CCoreContext>(packet));
}

bool CPacketTableWriter::writeRelCoreContext(CPacket& packet) {
    return writeContext(packet, contextIn<CRelCoreContext>(packet));
}

bool CPacketTableWriter::writeBusContext(CPacket& packet) {
    return writeContext(packet, contextIn<CBusContext>(packet));
}

bool CPacketTableWriter::writeRelBusContext(CPacket& packet) {
    return writeContext(packet, contextIn<CRelBusContext>(packet));
}

bool CPacketTableWriter::writeSystemContext(CPacket& packet) {
    return writeContext(packet, contextIn<CSystemContext>(packet));
}

bool CPacketTableWriter::writeRelSystemContext(CPacket& packet) {
    return writeContext(packet, contextIn<CRelSystemContext>(packet));
}

bool CPacketTableWriter::writeCDataBase(CDataBase& packet) {
    return writeParts(packet);
}

bool CPacketTableWriter::writeCRelDataBase(CRelDataBase& packet) {
    return writeParts(packet);
}

bool CPacketTableWriter::writeCVariableAccBase(CVariableAccBase& packet) {
    return writeParts(packet);
}

bool CPacketTableWriter::writeCRelVariableAccBase(CRelVariableAccBase& packet) {
    return writeParts(packet);
}

bool CPacketTableWriter::writeCMessage(CMessage& packet) {
    return writeParts(packet);
}

bool CPacketTableWriter::writeCData(const CData& data) {
    return data.Length() == 0 || writeHexItem(data.data(), static_cast<unsigned char>(data.Length()));
}

bool CPacketTableWriter::writeCSignalMask(const CSignalMask& mask) {
    return mask.empty() || writeHexItem(mask.data(), static_cast<unsigned char>(mask.size()));
}

bool CPacketTableWriter::writeTVarCounter(const TVarCounter_t& value) {
    return value.Length() == 0 || writeDecItem(value.data(), value.Length());
}

bool CPacketTableWriter::writeBusDataSignalItem(const CBusDataSignals& signals) {
    const std::uint8_t raw = signals.GetRawFlags();
    if (raw >= std::size(keywords::kBusAccesses)) // further bits, which have no names
        return writeHexItem(raw);
    return writeKeyword(1, keywords::kBusAccesses[raw]);
}

bool CPacketTableWriter::writeFrameConfig(const SFrameConfig& config) {
    SFrameConfig known(config.getExpansion());
    known.setExceptionFrames(config.getExceptionFrames());
    if (known != config) // bits that have no names
        return writeHexItem(config.word());
    return writeKeyword(2, keywords::kExpansions[config.getExpansion()]) &&
           writeKeyword(2, keywords::kExceptionFrames[config.getExceptionFrames()]);
}

bool CPacketTableWriter::writeCCharString(CCharString& text, bool asRow) {
    if (!asRow)
        return writeCharString(text.Length(), text.data());
    return beginRow(m_offset, text) && writeCharString(text.Length(), text.data()) && endRow();
}

bool CPacketTableWriter::writeCCharStringSaveOffset(CPacket& packet, CCharString& text) {
    const std::uint64_t saved = m_offset;
    if (m_offset != kUnknown64)
        m_offset += CPacketHeader::Len() + packet.Length();
    const bool written = writeCCharString(text, true);
    m_offset = saved;
    return written;
}

bool CPacketTableWriter::writeCCharStringSequenceSaveOffset(CPacket& packet, CCharStringSequence& text) {
    const std::uint64_t saved = m_offset;
    bool written = true;
    unsigned before = CPacketHeader::Len() + packet.Length();
    unsigned at = 0;
    unsigned size = 0;
    do {
        size = std::min(text.length() - at, kCharStringMax);
        CCharString chunk(text.data() + at, static_cast<unsigned char>(size));
        m_offset = saved == kUnknown64 ? saved : saved + before;
        written = writeCCharString(chunk, true);
        before += CPacketHeader::Len() + size;
        at += size;
    } while (written && size == kCharStringMax && !(m_breaksOff && at == text.length()));
    m_offset = saved;
    return written;
}

bool CPacketTableWriter::writeRaw(std::string_view text) {
    if (!m_block)
        return writeToStream(text);
    m_block->append(text);
    return true;
}

bool CPacketTableWriter::writeToStream(std::string_view text) {
    const auto size = static_cast<std::streamsize>(text.size());
    if (m_stream.good() && m_stream.rdbuf()->sputn(text.data(), size) != size)
        m_stream.setstate(std::ios::badbit);
    return m_stream.good();
}

bool CPacketTableWriter::writeNumber(std::uint64_t value) {
    char text[kMostDigits];
    return writeRaw({text, static_cast<std::size_t>(putDecimal(text, value) - text)});
}

bool CPacketTableWriter::writeRange(std::pair<unsigned, unsigned> range) {
    return writeNumber(range.first) && (range.first == range.second || (writeRaw(":") && writeNumber(range.second)));
}

bool CPacketTableWriter::writeRepetition(std::pair<unsigned, unsigned> count) {
    return writeText("{") && writeRange(count) && writeText("}");
}

bool CPacketTableWriter::writeNumbering() {
    bool written = writeRowOpen() && writeItem(1, {});
    for (std::uint32_t number = 0; number <= 256; ++number)
        written = written && writeItemOpen(1) && writeNumber(number) && writeItemClose();
    return written && writeRowClose();
}

bool CPacketTableWriter::writeQuoted(unsigned length, const unsigned char* bytes) {
    return writeItemOpen(std::min(length, kCharStringMax)) && writeRaw("\"") && writeString(length, bytes) &&
           writeRaw("\"") && writeItemClose();
}

bool CPacketTableWriter::writeItem(unsigned span, std::string_view text) {
    return writeItemOpen(span) && writeRaw(text) && writeItemClose();
}

bool CPacketTableWriter::writeKeyword(unsigned span, unsigned length, const char* text) {
    return writeItemOpen(span) && writeText({text, length}) && writeItemClose();
}

bool CPacketTableWriter::writeKeyword(unsigned span, std::string_view keyword) {
    return writeKeyword(span, static_cast<unsigned>(keyword.size()), keyword.data());
}

bool CPacketTableWriter::writeInvalidItem(unsigned span) {
    return writeKeyword(span, keywords::kInvalid);
}

bool CPacketTableWriter::writeText(std::string_view text) {
    return writeRaw(text);
}

bool CPacketTableWriter::writeHexValue(const unsigned char* bytes, unsigned char count) {
    char text[2 + 2 * UINT8_MAX];
    return writeRaw({text, static_cast<std::size_t>(putHexNumber(text, bytes, count) - text)});
}

bool CPacketTableWriter::writeDecValue(const unsigned char* bytes, unsigned char count) {
    return writeRaw(decimalNumber(bytes, count));
}

bool CPacketTableWriter::writeHexItem(const unsigned char* bytes, unsigned char count) {
    return writeItemOpen(count) && writeHexValue(bytes, count) && writeItemClose();
}

template <class T> bool CPacketTableWriter::writeHexIn(unsigned span, T value) {
    char text[2 + 2 * sizeof value];
    putHexValue(text, value);
    return writeItem(span, {text, sizeof text});
}

bool CPacketTableWriter::writeHexItem(std::uint64_t value) {
    return writeHexIn(sizeof value, value);
}

bool CPacketTableWriter::writeHexItem(std::uint32_t value) {
    return writeHexIn(sizeof value, value);
}

bool CPacketTableWriter::writeHexItem(std::uint16_t value) {
    return writeHexIn(sizeof value, value);
}

bool CPacketTableWriter::writeHexItem(std::uint8_t value) {
    return writeHexIn(sizeof value, value);
}

bool CPacketTableWriter::writeDecItem(const unsigned char* bytes, unsigned char count) {
    return writeItemOpen(count) && writeDecValue(bytes, count) && writeItemClose();
}

bool CPacketTableWriter::writeDecItem(double value) {
    char digits[32];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    return writeItem(8, {digits, static_cast<std::size_t>(end - digits)});
}

bool CPacketTableWriter::writeDecItem(std::uint64_t value) {
    return writeItemOpen(8) && writeNumber(value) && writeItemClose();
}

bool CPacketTableWriter::writeDecItem(std::uint32_t value) {
    return writeItemOpen(4) && writeNumber(value) && writeItemClose();
}

bool CPacketTableWriter::writeDecItem(std::uint16_t value) {
    return writeItemOpen(2) && writeNumber(value) && writeItemClose();
}

bool CPacketTableWriter::writeDecItem(std::uint8_t value) {
    return writeItemOpen(1) && writeNumber(value) && writeItemClose();
}

template <class T> bool CPacketTableWriter::writeInForm(Form form, T value) {
    switch (form) {
    case Form::Hexadecimal:
        return writeHexItem(value);
    case Form::Invalid:
        return writeInvalidItem(sizeof value);
    case Form::UnknownLength:
        return writeKeyword(sizeof value, keywords::kUnknownLength);
    case Form::Decimal:
        break;
    }
    return writeDecItem(value);
}

bool CPacketTableWriter::writeTickItem(std::uint64_t value) {
    return writeInForm(formOf(FieldLook::Tick, value == kUnknown64), value);
}

bool CPacketTableWriter::writeTickItem(std::uint8_t value) {
    return writeInForm(formOf(FieldLook::Tick, value == UINT8_MAX), value);
}

bool CPacketTableWriter::writeAddrItem(std::uint64_t value) {
    return writeInForm(formOf(FieldLook::Address, value == kUnknown64), value);
}

bool CPacketTableWriter::writeAddrItem(std::uint8_t value) {
    return writeInForm(formOf(FieldLook::Address, value == UINT8_MAX), value);
}

bool CPacketTableWriter::writeCtxItem(std::uint32_t value, std::uint32_t invalid) {
    return writeInForm(formOf(FieldLook::Context, value == invalid), value);
}

bool CPacketTableWriter::writeIdItem(std::uint32_t value, std::uint32_t invalid) {
    return writeInForm(formOf(FieldLook::Unit, value == invalid), value);
}

bool CPacketTableWriter::writeApostropheString(const std::string& text) {
    return writeItemOpen(1) && writeText("\"") && writeText(text) && writeText("\"") && writeItemClose();
}

bool CPacketTableWriter::writeApostropheString(const char* text) {
    return writeApostropheString(std::string(text ? text : ""));
}

bool CPacketTableWriter::writeCharString(unsigned length, const unsigned char* bytes) {
    return writeItemOpen(std::min(length, kCharStringMax)) && writeString(length, bytes) && writeItemClose();
}

bool CPacketTableWriter::writeString(const char* text, unsigned length) {
    return writeString(length, reinterpret_cast<const unsigned char*>(text));
}

bool CPacketTableWriter::writeString(const std::string& text) {
    return writeString(text.data(), static_cast<unsigned>(text.size()));
}

bool CPacketTableWriter::writeString(const char* text) {
    return writeString(text, text ? static_cast<unsigned>(std::strlen(text)) : 0);
}

bool CPacketTableWriter::writeString(unsigned length, const unsigned char* bytes) {
    if (!bytes || length == 0)
        return good();
    const std::string_view text(reinterpret_cast<const char*>(bytes), length);
    if (isPrintable(text) && !(m_parsable && text.starts_with(keywords::kHexPrefix)))
        return writeText(text);
    return writeRaw(hexNumber(bytes, length));
}

std::pair<unsigned, unsigned> CPacketTableWriter::getSizeFromTCode(tagTCode code) {
    return checkRange(code) ? Layout::of(code).length() : std::pair{0U, 0U};
}

} // namespace Quorvex

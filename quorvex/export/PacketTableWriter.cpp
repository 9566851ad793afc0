#include "quorvex/export/PacketTableWriter.h"

#include "quorvex/export/Digits.h"
#include "quorvex/export/ForwardAll.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/format/Characters.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/Keywords.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <type_traits>

namespace Quorvex {

namespace {

constexpr std::uint32_t kNone32 = 0xFFFFFFFF;

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

} // namespace

/// Writes a packet's parts as cells: contexts through the context writers, other fields by what they mean.
class CPacketTableWriter::PayloadCells {
public:
    PayloadCells(CPacketTableWriter& writer, CPacket& packet) : m_writer(writer), m_packet(packet) {}

    bool good = true;

    void operator()(const CCoreContext&) { good = good && m_writer.writeCoreContext(m_packet); }
    void operator()(const CRelCoreContext&) { good = good && m_writer.writeRelCoreContext(m_packet); }
    void operator()(const CBusContext&) { good = good && m_writer.writeBusContext(m_packet); }
    void operator()(const CRelBusContext&) { good = good && m_writer.writeRelBusContext(m_packet); }
    void operator()(const CSystemContext&) { good = good && m_writer.writeSystemContext(m_packet); }
    void operator()(const CRelSystemContext&) { good = good && m_writer.writeRelSystemContext(m_packet); }
    template <class Part> void operator()(const Part& part) { Part::fields(part, *this); }

    template <class T> void operator()(FieldMeaning meaning, const char*, const T& value) {
        good = good && write(meaning, value);
    }

private:
    template <class T> bool write(FieldMeaning meaning, T value) {
        static_assert(std::is_integral_v<T>);
        // Signed numbers are shown as the byte they are.
        const auto number = static_cast<std::make_unsigned_t<T>>(value);
        const FieldLook look = factsOf(meaning).look;
        if constexpr (sizeof(T) == 1 || sizeof(T) == 8) {
            if (look == FieldLook::Tick)
                return m_writer.writeTickItem(number);
            if (look == FieldLook::Address)
                return m_writer.writeAddrItem(number);
        }
        if constexpr (sizeof(T) == 4) {
            if (look == FieldLook::Context)
                return m_writer.writeCtxItem(number, kNone32);
            if (look == FieldLook::Unit)
                return m_writer.writeIdItem(number, kNone32);
        }
        if (look == FieldLook::Length && number == static_cast<std::make_unsigned_t<T>>(~T{0}))
            return m_writer.writeKeyword(sizeof(T), keywords::kUnknownLength);
        return look == FieldLook::Hexadecimal ? m_writer.writeHexItem(number) : m_writer.writeDecItem(number);
    }
    bool write(FieldMeaning, EEventType type) { return m_writer.writeHexItem(static_cast<std::uint32_t>(type)); }
    bool write(FieldMeaning, const TCounter_t& value) { return m_writer.writeDecItem(value.u64); }
    bool write(FieldMeaning, const TCounterIdx_t& index) { return m_writer.writeDecItem(index.u64); }
    bool write(FieldMeaning, const TVarCounter_t& value) { return m_writer.writeTVarCounter(value); }
    bool write(FieldMeaning, const CData& data) { return m_writer.writeCData(data); }
    bool write(FieldMeaning, const CSignalMask& mask) { return m_writer.writeCSignalMask(mask); }
    bool write(FieldMeaning, const CBusDataSignals& signals) { return m_writer.writeBusDataSignalItem(signals); }
    bool write(FieldMeaning, const SFrameConfig& config) { return m_writer.writeFrameConfig(config); }
    // Padding says nothing: the cell is empty.
    bool write(FieldMeaning, const FillBytes& fill) { return fill.count == 0 || m_writer.writeItem(fill.count, {}); }

    CPacketTableWriter& m_writer;
    CPacket& m_packet;
};

CPacketTableWriter::CPacketTableWriter(std::ostream& stream, bool withOffset, std::uint64_t offset)
    : m_stream(stream), m_withOffset(withOffset), m_offset(offset) {}

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
    // A text of any length is not one row but as many as it has packets.
    if (auto* sequence = packet.TraceCode() == CharString ? dynamic_cast<CCharStringSequence*>(&packet) : nullptr) {
        CPacket nothing(Invalid, 0);
        m_offset = offset == kUnknown64 ? offset : offset - nothing.StreamSize();
        return writeCCharStringSequenceSaveOffset(nothing, *sequence);
    }
    if (!writeRowOpen() || !writeOffset(offset) || !(m_parsable || writeDescription(packet)) || !writeHeader(packet) ||
        !writePayload(packet) || !writeRowClose())
        return false;
    const CCharStringSequence* text = nullptr;
    visitKind(packet, [&text](const auto& kind) { text = kind.text(); });
    if (!text || text->empty())
        return true;
    m_offset = offset;
    CCharStringSequence rows(*text);
    return writeCCharStringSequenceSaveOffset(packet, rows);
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
    if (offset == kUnknown64)
        return writeInvalidItem(1);
    char text[18] = {'0', 'x'};
    putHex(text + 2, offset, 16);
    return writeItem(1, {text, sizeof text});
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
    return writeRowOpen() && writeOffset(m_offset) && (m_parsable || writeDescription(text)) && writeHeader(text) &&
           writeCharString(text.Length(), text.data()) && writeRowClose();
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
    const auto size = static_cast<std::streamsize>(text.size());
    if (m_stream.good() && m_stream.rdbuf()->sputn(text.data(), size) != size)
        m_stream.setstate(std::ios::badbit);
    return m_stream.good();
}

bool CPacketTableWriter::writeNumber(std::uint64_t value) {
    char digits[20];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    return writeRaw({digits, static_cast<std::size_t>(end - digits)});
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
    return writeRaw(hexNumber(bytes, count));
}

bool CPacketTableWriter::writeDecValue(const unsigned char* bytes, unsigned char count) {
    return writeRaw(decimalNumber(bytes, count));
}

bool CPacketTableWriter::writeHexItem(const unsigned char* bytes, unsigned char count) {
    return writeItemOpen(count) && writeHexValue(bytes, count) && writeItemClose();
}

bool CPacketTableWriter::writeHexItem(std::uint64_t value) {
    char text[18] = {'0', 'x'};
    putHex(text + 2, value, 16);
    return writeItem(8, {text, sizeof text});
}

bool CPacketTableWriter::writeHexItem(std::uint32_t value) {
    char text[10] = {'0', 'x'};
    putHex(text + 2, value, 8);
    return writeItem(4, {text, sizeof text});
}

bool CPacketTableWriter::writeHexItem(std::uint16_t value) {
    char text[6] = {'0', 'x'};
    putHex(text + 2, value, 4);
    return writeItem(2, {text, sizeof text});
}

bool CPacketTableWriter::writeHexItem(std::uint8_t value) {
    char text[4] = {'0', 'x'};
    putHex(text + 2, value, 2);
    return writeItem(1, {text, sizeof text});
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

bool CPacketTableWriter::writeTickItem(std::uint64_t value) {
    if (m_parsable && value == kUnknown64)
        return writeInvalidItem(8);
    return m_hexTick ? writeHexItem(value) : writeDecItem(value);
}

bool CPacketTableWriter::writeTickItem(std::uint8_t value) {
    if (m_parsable && value == 0xFF)
        return writeInvalidItem(1);
    return m_hexTick ? writeHexItem(value) : writeDecItem(value);
}

bool CPacketTableWriter::writeAddrItem(std::uint64_t value) {
    return m_parsable && value == kUnknown64 ? writeInvalidItem(8) : writeHexItem(value);
}

bool CPacketTableWriter::writeAddrItem(std::uint8_t value) {
    return m_parsable && value == 0xFF ? writeInvalidItem(1) : writeHexItem(value);
}

bool CPacketTableWriter::writeCtxItem(std::uint32_t value, std::uint32_t invalid) {
    return m_parsable && value == invalid ? writeInvalidItem(4) : writeDecItem(value);
}

bool CPacketTableWriter::writeIdItem(std::uint32_t value, std::uint32_t invalid) {
    return m_parsable && value == invalid ? writeInvalidItem(4) : writeDecItem(value);
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

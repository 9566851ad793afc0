#pragma once

#include "quorvex/format/Data.h"
#include "quorvex/format/Fields.h"
#include "quorvex/format/FrameConfig.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"
#include "quorvex/stream/TraceSink.h"

#include <ostream>
#include <string>
#include <string_view>
#include <typeinfo>

namespace Quorvex {

/// One field of a kind's layout, as a cell of a table.
struct DebugFieldFormatEntry {
    unsigned width = 0;                       ///< columns that the cell spans: the field's largest size in bytes
    std::pair<unsigned, unsigned> size;       ///< smallest and largest
    std::pair<unsigned, unsigned> repetition; ///< fewest and most
    std::string name;                         ///< as in the kind's layout
};

/// Shows packets as rows of a table: offset (on request), description, type code, length, then the payload, in which a
/// field of n bytes is a cell of n columns. A text that follows a packet is shown as the CharString rows it is made of.
/// This base decides what is shown and writes the cells without anything between them; renderers add the markup, and
/// see to it that characters show as they are (writeText).
///
/// Every write tells whether all was written and the stream is still good; the row ends at the first failure. The
/// caller writes page and table heads and feet. The stream must outlive the writer.
class QUORVEX_API CPacketTableWriter : public CTraceSink {
public:
    /// `offset` is that of the next packet, which is shown if `withOffset`; each row moves it on.
    CPacketTableWriter(std::ostream& stream, bool withOffset, std::uint64_t offset);
    CPacketTableWriter(const CPacketTableWriter& other);

    // The order of the virtual operations is part of the interface.
    bool good() override;
    void clear() override;
    /// Writes a row with an unknown offset.
    bool put(CPacket* packet) override;
    bool forward(std::list<CPacket*>& packets) override;
    bool forward(CPacket*& packet) override;
    std::uint64_t out_size() override { return 0; }
    void flush() override;
    virtual ~CPacketTableWriter();

    /// Offsets as the first column.
    virtual void SetWithOffset(bool on) { m_withOffset = on; }
    virtual bool GetWithOffset() const { return m_withOffset; } ///< what SetWithOffset set
    /// For programs that read the table: no descriptions, unknown values as the keyword "Invalid", and no text that
    /// could be taken for the hexadecimal form.
    virtual void SetParsable(bool on) { m_parsable = on; }
    virtual bool GetParsable() const { return m_parsable; } ///< what SetParsable set
    /// Ticks in hexadecimal.
    virtual void SetHexTick(bool on) { m_hexTick = on; }
    virtual bool GetHexTick() const { return m_hexTick; } ///< what SetHexTick set

    virtual bool writePageHeader(const char* title); ///< null for the default title
    virtual bool writePageFooter();                  ///< what ends the page
    virtual bool writeTableHeader(bool withOffset);  ///< sets the offset column, then writes the head
    virtual bool writeTableHeader();
    virtual bool writeTableFooter(); ///< what ends the table

    virtual bool writeCPacket(tagTCode code); ///< the row that documents a kind
    /// The row of a packet, and those of the text that follows it.
    virtual bool writeCPacket(std::uint64_t offset, CPacket& packet);
    virtual bool writeCPacket(CPacket& packet);

    /// The markup around a row, and around a cell of `span` columns.
    /// @{
    virtual bool writeRowOpen();
    virtual bool writeRowClose();
    virtual bool writeItemOpen(unsigned span);
    virtual bool writeItemClose();
    /// @}

    /// The cells of a packet, or those that document a kind: offset, description, type code and length (together the
    /// header), payload.
    /// @{
    virtual bool writeOffset(std::uint64_t offset);
    virtual bool writeDescription(tagTCode code);
    virtual bool writeDescription(CPacket& packet);
    virtual bool writeHeader(tagTCode code);
    virtual bool writeHeader(CPacket& packet);
    virtual bool writePayload(tagTCode code);
    virtual bool writePayload(CPacket& packet);
    virtual bool writeTCode(tagTCode code);
    virtual bool writeTCode(CPacket& packet);
    virtual bool writeLength(tagTCode code);
    virtual bool writeLength(CPacket& packet);
    /// @}

    /// The cells of a context, value or payload.
    /// @{
    virtual bool writeCoreContext(CPacket& packet);
    virtual bool writeRelCoreContext(CPacket& packet);
    virtual bool writeBusContext(CPacket& packet);
    virtual bool writeRelBusContext(CPacket& packet);
    virtual bool writeSystemContext(CPacket& packet);
    virtual bool writeRelSystemContext(CPacket& packet);
    virtual bool writeCData(const CData& data);
    virtual bool writeCSignalMask(const CSignalMask& mask);
    virtual bool writeCDataBase(CDataBase& packet);
    virtual bool writeCRelDataBase(CRelDataBase& packet);
    virtual bool writeCVariableAccBase(CVariableAccBase& packet);
    virtual bool writeCRelVariableAccBase(CRelVariableAccBase& packet);
    virtual bool writeCMessage(CMessage& packet);
    /// @}

    /// The text as a cell or, with `asRow`, as a row of its own at the current offset.
    virtual bool writeCCharString(CCharString& text, bool asRow);
    /// The rows of what follows `packet`, whose own offset is the current one and stays so.
    virtual bool writeCCharStringSaveOffset(CPacket& packet, CCharString& text);
    /// The same for a text of several packets.
    virtual bool writeCCharStringSequenceSaveOffset(CPacket& packet, CCharStringSequence& text);

    virtual bool writeHexItem(const unsigned char* bytes, unsigned char count); ///< a number, lowest byte first
    virtual bool writeHexItem(std::uint64_t value);
    virtual bool writeHexItem(std::uint32_t value);
    virtual bool writeHexItem(std::uint16_t value);
    virtual bool writeHexItem(std::uint8_t value);
    virtual bool writeDecItem(const unsigned char* bytes, unsigned char count); ///< a number, lowest byte first
    virtual bool writeDecItem(double value);
    virtual bool writeDecItem(std::uint64_t value);
    virtual bool writeDecItem(std::uint32_t value);
    virtual bool writeDecItem(std::uint16_t value);
    virtual bool writeDecItem(std::uint8_t value);
    /// A cell with a text of a packet in double quotes.
    virtual bool writeCharString(unsigned length, const unsigned char* bytes);
    /// A cell of `span` columns with a word of the table's own.
    virtual bool writeKeyword(unsigned span, unsigned length, const char* text);
    /// The cell that documents a field.
    virtual bool writeDebugFieldFormatEntry(DebugFieldFormatEntry* entry);
    /// Characters of a cell, so that they show as they are in the renderer's markup.
    virtual bool writeText(std::string_view text);

    /// The row of a packet that takes `size` bytes of its trace: less than its StreamSize() where the CharString
    /// packets behind it break off after a full one, so that the one that would end the text has no row.
    bool writeCPacket(std::uint64_t offset, CPacket& packet, std::uint64_t size);

    /// A cell with a field of that meaning. What is unknown, which for contexts and identifiers is `invalid`, is shown
    /// as such.
    /// @{
    bool writeTickItem(std::uint64_t value);
    bool writeTickItem(std::uint8_t value);
    bool writeAddrItem(std::uint64_t value);
    bool writeAddrItem(std::uint8_t value);
    bool writeCtxItem(std::uint32_t value, std::uint32_t invalid);
    bool writeIdItem(std::uint32_t value, std::uint32_t invalid);
    bool writeTVarCounter(const TVarCounter_t& value);
    bool writeBusDataSignalItem(const CBusDataSignals& signals);
    /// @}
    bool writeApostropheString(const std::string& text); ///< a cell with the text in double quotes
    bool writeApostropheString(const char* text);
    bool writeInvalidItem(unsigned span); ///< a cell of something unknown
    /// Texts without a cell. Bytes that are no printable text are written as "0x" and the bytes from the last to the
    /// first; so is, for programs that read the table, a text that begins with "0x".
    bool writeString(const char* text, unsigned length);
    bool writeString(const std::string& text);
    bool writeString(const char* text);
    bool writeString(unsigned length, const unsigned char* bytes);
    bool writeHexValue(const unsigned char* bytes, unsigned char count); ///< no cell; a number, lowest byte first
    bool writeDecValue(const unsigned char* bytes, unsigned char count); ///< the same in decimal
    /// Smallest and largest payload of a kind in bytes; (0, 0) for a code of 256 or more.
    static std::pair<unsigned, unsigned> getSizeFromTCode(tagTCode code);
    static bool checkRange(tagTCode code) { return code < 256; } ///< whether a packet can have the code

protected:
    /// Writes characters as they are; nothing while the stream is in a failed state.
    bool writeRaw(std::string_view text);
    bool writeNumber(std::uint64_t value);                      ///< decimal, without a cell
    bool writeKeyword(unsigned span, std::string_view keyword); ///< a cell of that word
    /// A number, or the smallest and the largest with a colon between them.
    bool writeRange(std::pair<unsigned, unsigned> range);
    /// The row of numbers by which readers of a page count payload bytes.
    bool writeNumbering();
    /// A text of a packet, in double quotes.
    bool writeQuoted(unsigned length, const unsigned char* bytes);
    /// A cell around characters.
    bool writeItem(unsigned span, std::string_view text);

private:
    class PayloadCells;
    class Block;
    struct Pieces;
    enum class Form : std::uint8_t;

    Form formOf(FieldLook look, bool allOnes) const;
    template <class T> bool writeInForm(Form form, T value);
    bool gathers();
    bool writeRows(std::uint64_t offset, CPacket& packet);
    bool beginRow(std::uint64_t offset, CPacket& packet);
    bool endRow();
    template <class T> bool writeHexIn(unsigned span, T value);
    bool writeToStream(std::string_view text);
    template <class Context> bool writeContext(CPacket& packet, const Context& context);
    template <class Packet> bool writeParts(Packet& packet);
    bool writeFrameConfig(const SFrameConfig& config);
    bool writeRepetition(std::pair<unsigned, unsigned> count);

    std::ostream& m_stream;
    bool m_withOffset;
    bool m_parsable = false;
    bool m_hexTick = false;
    bool m_breaksOff = false; ///< the text of the packet being written has no end in the trace
    std::uint64_t m_offset;
    Block* m_block = nullptr;               ///< where the rows that are being written are gathered; null: nowhere
    const std::type_info* m_type = nullptr; ///< of this writer, when m_pieces were made
    platform::Owned<Pieces> m_pieces;       ///< null for a type that may do anything between cells
};

} // namespace Quorvex

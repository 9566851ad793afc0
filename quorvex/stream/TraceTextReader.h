#pragma once

#include "quorvex/format/Packet.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"
#include "quorvex/stream/TraceSource.h"

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace Quorvex {

/// Reads a plain packet table back into packets whose bytes equal those of the packets it was made from. Any table that
/// CPacketPlain writes will do: with or without offsets (which are not looked at), descriptions, title, heads and feet,
/// lines ended by LF or CRLF, several tables one after the other. Only the parsable form tells a tick of all ones from
/// an unknown one, which on the wire are the same. Every number may be decimal or, behind "0x", hexadecimal; the
/// priority of a message may be shown as the byte it is or as the signed number, as 254 or -2.
///
/// A trace-enabled packet whose row tells a length that lacks fields gets all of them and the length that goes with
/// them, because it is always written whole: with the short length, what is written could not be read.
///
/// A row that is wrong is skipped: it is counted, and the message log is told where it is, what was expected there and
/// what was found. CharString rows directly behind it belong to nothing that is left and are skipped with it, counted
/// too. The stream must outlive the reader, which takes what it has at hand ahead of the rows; memory holds a few
/// lines, a packet with its text, and a small packet of each kind. Where it is short, get() and peek() throw a
/// CQVXException or std::bad_alloc; nothing is lost, and the next call goes on.
class QUORVEX_API TraceTextReader : public CTraceSource {
public:
    /// A row that could not be read.
    struct Error {
        std::uint64_t line = 0;   ///< counted from 1
        std::uint64_t column = 0; ///< in bytes, counted from 1
        std::string text;         ///< what was expected, and what stands there
    };

    /// What the stream throws is caught: it has then failed (bad()), and there are no more packets.
    /// Where the reader does not log, wrong rows are only counted.
    explicit TraceTextReader(std::istream& stream, bool logs = true);
    TraceTextReader(const TraceTextReader&) = delete;
    TraceTextReader& operator=(const TraceTextReader&) = delete;
    virtual ~TraceTextReader();

    bool good() override;
    bool eot() override { return m_eot; }
    void clear() override;
    /// Bytes of the text; 0 where the stream cannot tell.
    std::uint64_t size() override;
    /// Bytes of the text that have been taken in.
    std::uint64_t position() override { return m_position; }
    tagTCode peek() override;
    /// One packet, where there is one.
    bool get(std::list<CPacket*>& packets) override;
    CPacket* get() override;

    /// Whether a file that starts with these bytes (a few thousand will do) is a table: a title, a head or a row comes
    /// behind no more than a title of its own, empty lines and rows that are wrong. No trace begins so.
    static bool looksLikeTable(std::string_view start);

    /// Rows that could not be read so far.
    std::uint64_t errors() const { return m_errors; }
    const Error& firstError() const { return m_firstError; } ///< of the rows that were stepped over

private:
    /// The packet of one row, as bytes. Invalid: there is none.
    struct Row {
        /// Header and payload; a short trace-enabled packet gets all its fields.
        static constexpr unsigned kMost = CPacketHeader::Len() + UINT8_MAX;

        tagTCode code = Invalid;
        char bytes[kMost];
        unsigned size = 0;
    };
    /// A packet that tells the types and widths of the fields of a row.
    struct Model {
        platform::Owned<CPacket> packet;
        std::uint8_t length = 0;
    };
    struct Wrong;
    class Cells;
    class Encoder;

    /// The kind of the next row that can be read, not taken; Invalid at the end of the text.
    tagTCode ahead();
    /// Takes in the next row that can be read, if there is one.
    void readRow();
    /// Takes in a line, without its end; false at the end of the text.
    bool readLine();
    /// Takes more from the stream, behind what is left, which moves to that place in the block. False where there is no
    /// more, or the stream fails.
    bool refill(std::size_t to);
    /// Whether the line is none of the table's rows: a title, a head, or empty.
    bool isDecoration() const;
    /// Puts the packet of the line into bytes; throws Wrong.
    void parse(Row& row);
    /// Takes the cell with a text of that length; the end of its bytes.
    static char* putText(Cells& cells, std::size_t length, char* to);
    /// The model of rows of that kind and length; null when the kind cannot have it.
    const CPacket* modelOf(tagTCode code, std::uint8_t length);
    void report(const Wrong& wrong);

    std::istream& m_stream;
    bool m_logs;
    std::vector<char> m_block; ///< what has been taken from the stream last
    std::size_t m_next = 0;    ///< in it, what no line has taken yet,
    std::size_t m_filled = 0;  ///< and the end of that
    std::string_view m_line;
    std::uint64_t m_lineNumber = 0;
    std::uint64_t m_position = 0;
    Row m_rows[2];
    Row* m_begun = &m_rows[0];   ///< the packet that is put together from its row and those of its text
    Row* m_ahead = &m_rows[1];   ///< the row behind
    bool m_isOpen = false;       ///< the text may go on
    bool m_hasText = false;      ///< it has begun
    std::string m_withText;      ///< the packet and its text, once that has begun
    bool m_belongs = true;       ///< nothing unreadable stands between the row ahead and the one before
    bool m_hasLine = false;      ///< that is not taken in yet
    std::vector<Model> m_models; ///< the last that was asked for of each kind, by its code
    bool m_wholeLine = true;     ///< the line's end has been seen
    bool m_eot = false;
    std::uint64_t m_errors = 0;
    Error m_firstError;
};

} // namespace Quorvex

#pragma once

#include "Verbs.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/stream/TraceReaderPlain.h"
#include "quorvex/stream/TraceSourceBufferFile.h"
#include "quorvex/stream/TraceTextReader.h"

#include <cstdint>
#include <fstream>
#include <istream>
#include <memory>
#include <optional>
#include <streambuf>
#include <string>
#include <string_view>

namespace qvx {

struct ReleasePacket {
    void operator()(Quorvex::CPacket* packet) const { Quorvex::CPacketFactory::releaseCPacket(&packet); }
};
using PacketPointer = std::unique_ptr<Quorvex::CPacket, ReleasePacket>;

/// Whether the text of a packet, which takes so many bytes of the trace, has no end there: its last CharString packet
/// is full, and none follows. When it is written it gets one.
bool breaksOff(const Quorvex::CPacket& packet, std::uint64_t taken);

/// What could not be read of a trace.
struct Damage {
    std::uint64_t places = 0;
    std::uint64_t bytes = 0;
    std::uint64_t first = 0; ///< offset of the first place
};

/// The bytes of a stream that cannot be gone back in, of which the first have been looked at.
class HeadedBuffer : public std::streambuf {
public:
    /// Takes up to that many bytes of `rest`, which must outlive this.
    HeadedBuffer(std::streambuf& rest, std::size_t count);
    /// The bytes that were taken.
    std::string_view head() const { return {m_bytes.data(), m_taken}; }

protected:
    int_type underflow() override;

private:
    std::streambuf& m_rest;
    std::string m_bytes;
    std::size_t m_taken;
};

/// The reader, which here also tells how much of a cut packet it holds.
class Reader : public Quorvex::CTraceReaderPlain {
public:
    using CTraceReaderPlain::CTraceReaderPlain;
    using CTraceReaderPlain::remain;
};

/// A trace file, or standard input for "-", packet by packet: in the binary form, or as a plain table, which is told by
/// its first bytes. Damage is stepped over and counted. A trace is cut if it ends within a packet or its text, or has
/// begun a frame and not ended it; so is not a table, which may be a part of one.
class TraceInput {
public:
    /// Throws Failure when the file cannot be opened or is no trace.
    explicit TraceInput(const std::string& path);

    /// The next packet; null at the end.
    PacketPointer next();
    /// Where the packet that next() gave begins. In a table, where it would in the binary form of what has been read.
    std::uint64_t offset() const { return m_offset; }
    /// Where the packet ends, with the texts that follow it.
    std::uint64_t end() { return m_table ? m_tableEnd : m_reader->position(); }
    /// Bytes of the whole trace, or of the table; known once next() has given null.
    std::uint64_t size() const { return m_size; }

    const std::string& name() const { return m_name; }
    const Damage& damage() const { return m_damage; }
    /// How the trace ends, in words; known once next() has given null.
    std::string ending() const;
    /// Tells of damage and of a cut on standard error, each in one line; the exit code that follows from them.
    ExitCode reportDamage() const;

private:
    PacketPointer nextOfTable();
    /// Takes note of what tells whether the trace is cut, and whether the packet was longer than what it holds.
    void look(const Quorvex::CPacket& packet);
    /// Looks at what is left behind the last packet.
    void finish();
    /// Whether a frame without its end is all that there is: it is still in memory that outlives the program.
    bool isAllThere() const { return m_traceFile.is_joined(); }
    void addDamage(std::uint64_t from, std::uint64_t to);

    std::string m_name;
    Quorvex::CTraceSourceBufferFile m_traceFile; ///< a regular file, with the page file that may belong to it
    std::ifstream m_file;                        ///< any other, and a table
    std::optional<HeadedBuffer> m_bytes;
    std::istream m_stream;
    Quorvex::CTraceSourceBufferStream m_streamSource;
    std::optional<Reader> m_reader;
    std::optional<Quorvex::TraceTextReader> m_table;
    std::uint64_t m_tableEnd = 0;
    std::uint64_t m_offset = 0;
    std::uint64_t m_size = 0;
    Damage m_damage;
    bool m_isRead = false; ///< to the end, and is no table
    bool m_isFrameOpen = false;
    bool m_isEnded = false;                        ///< by the end of a frame, or of the trace
    Quorvex::tagTCode m_textOf = Quorvex::Invalid; ///< the last packet, if text may follow that belongs to it
    bool m_breaksOff = false;                      ///< the text of the last packet does
    std::string m_cutIn;                           ///< what the trace ends within, in words
    std::uint64_t m_damageEnd = ~std::uint64_t{0}; ///< where the last damaged place ends
};

} // namespace qvx

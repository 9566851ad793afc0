#pragma once

#include "Verbs.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/stream/TraceReaderPlain.h"
#include "quorvex/stream/TraceSourceBufferFile.h"
#include "quorvex/stream/TraceTextReader.h"

#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

namespace qvx {

struct ReleasePacket {
    void operator()(Quorvex::CPacket* packet) const { Quorvex::CPacketFactory::releaseCPacket(&packet); }
};
using PacketPointer = std::unique_ptr<Quorvex::CPacket, ReleasePacket>;

/// What could not be read of a trace.
struct Damage {
    std::uint64_t places = 0;
    std::uint64_t bytes = 0;
    std::uint64_t first = 0; ///< offset of the first place
};

/// The reader, which here also tells how much of a cut packet it holds.
class Reader : public Quorvex::CTraceReaderPlain {
public:
    using CTraceReaderPlain::CTraceReaderPlain;
    using CTraceReaderPlain::remain;
};

/// A trace file, or standard input for "-", packet by packet: in the binary form, or as a plain table, which is told by
/// its first bytes. Damage is stepped over and counted.
class TraceInput {
public:
    /// Throws Failure with the system's reason when the file cannot be opened.
    explicit TraceInput(const std::string& path);

    /// The next packet; null at the end.
    PacketPointer next();
    /// Where the packet that next() gave begins. In a table, where it would in the binary form of what has been read.
    std::uint64_t offset() const { return m_offset; }
    /// Where the packet ends, with the texts that follow it.
    std::uint64_t end() { return m_table ? m_tableEnd : m_reader.position(); }
    /// Bytes of the whole trace, or of the table; known once next() has given null.
    std::uint64_t size() const { return m_size; }

    const std::string& name() const { return m_name; }
    const Damage& damage() const { return m_damage; }
    /// Tells of damage on standard error, in one line; the exit code that follows from it.
    ExitCode reportDamage() const;

private:
    PacketPointer nextOfTable();
    void addDamage(std::uint64_t from, std::uint64_t to);

    std::string m_name;
    Quorvex::CTraceSourceBufferFile m_file;
    Quorvex::CTraceSourceBufferStream m_standardInput;
    Quorvex::CTraceSourceBuffer& m_source;
    Reader m_reader;
    std::ifstream m_tableFile;
    std::optional<Quorvex::TraceTextReader> m_table;
    std::uint64_t m_tableEnd = 0;
    std::uint64_t m_offset = 0;
    std::uint64_t m_size = 0;
    Damage m_damage;
    std::uint64_t m_damageEnd = ~std::uint64_t{0}; ///< where the last damaged place ends
};

} // namespace qvx

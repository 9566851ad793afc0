#include "TraceInput.h"

#include "quorvex/format/MessageQueue.h"
#include "quorvex/platform/System.h"

#include <fmt/format.h>

#include <iostream>

namespace qvx {

namespace {

/// Whether the text begins as a plain table does: with its title, a head, or a row. No packet begins so. The stream is
/// left at its beginning.
bool isTable(std::istream& in) {
    const int first = in.peek();
    if (first == '\t' || first == 0xEF) // a row, or the mark of UTF-8
        return true;
    if (first != 'Q' && first != 'O')
        return false;
    in.get();
    const int second = in.peek();
    in.unget();
    return second == (first == 'Q' ? 'u' : 'f');
}

} // namespace

TraceInput::TraceInput(const std::string& path)
    : m_name(path == "-" ? "standard input" : path),
      m_standardInput(std::cin),
      m_source(path == "-" ? static_cast<Quorvex::CTraceSourceBuffer&>(m_standardInput) : m_file),
      m_reader(m_source) {
    if (path != "-" && !m_file.open(path.c_str()))
        throw Failure(m_name, Quorvex::platform::errorText(m_file.error()));
    if (path == "-") {
        if (isTable(std::cin))
            m_table.emplace(std::cin);
        return;
    }
    m_tableFile.open(path, std::ios::binary);
    if (isTable(m_tableFile))
        m_table.emplace(m_tableFile);
    else
        m_tableFile.close();
}

PacketPointer TraceInput::nextOfTable() {
    m_offset = m_tableEnd;
    PacketPointer packet(m_table->get());
    if (packet)
        m_tableEnd += packet->StreamSize();
    m_size = m_table->position();
    if (m_damage.places != m_table->errors()) {
        m_damage.places = m_table->errors();
        // The first error is all that will be told: what the library logs of the others must not pile up.
        while (CMessageQueue::g_Instance->pop()) {
        }
    }
    return packet;
}

PacketPointer TraceInput::next() {
    if (m_table)
        return nextOfTable();
    while (true) {
        m_offset = m_reader.position();
        if (Quorvex::CPacket* packet = m_reader.get())
            return PacketPointer(packet);
        // The reader has stepped over a packet that it could not build. Where it has not moved, skip() may help; if
        // not, what is left is a cut packet.
        if (m_reader.position() != m_offset || m_reader.skip()) {
            addDamage(m_offset, m_reader.position());
            continue;
        }
        m_size = m_offset + m_reader.remain();
        if (m_size > m_offset)
            addDamage(m_offset, m_size);
        return nullptr;
    }
}

void TraceInput::addDamage(std::uint64_t from, std::uint64_t to) {
    if (m_damage.places == 0)
        m_damage.first = from;
    if (m_damageEnd != from)
        ++m_damage.places;
    m_damageEnd = to;
    m_damage.bytes += to - from;
}

ExitCode TraceInput::reportDamage() const {
    if (m_damage.places == 0)
        return Done;
    if (m_table) {
        const Quorvex::TraceTextReader::Error& error = m_table->firstError();
        tell(fmt::format("{}: line {}, column {}: {}; {} row{} skipped", m_name, error.line, error.column, error.text,
                         m_damage.places, m_damage.places == 1 ? "" : "s"));
        return DoneWithLoss;
    }
    const std::string where = m_damage.places > 1 ? fmt::format("first of {} damaged places, ", m_damage.places) : "";
    tell(fmt::format("{}: offset {}: {}{} byte{} stepped over", m_name, m_damage.first, where, m_damage.bytes,
                     m_damage.bytes == 1 ? "" : "s"));
    return DoneWithLoss;
}

} // namespace qvx

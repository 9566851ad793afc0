#include "TraceInput.h"

#include "quorvex/platform/System.h"

#include <fmt/format.h>

#include <cstdio>
#include <iostream>

namespace qvx {

TraceInput::TraceInput(const std::string& path)
    : m_name(path == "-" ? "standard input" : path),
      m_standardInput(std::cin),
      m_source(path == "-" ? static_cast<Quorvex::CTraceSourceBuffer&>(m_standardInput) : m_file),
      m_reader(m_source) {
    if (path != "-" && !m_file.open(path.c_str()))
        throw Failure(m_name, Quorvex::platform::errorText(m_file.error()));
}

PacketPointer TraceInput::next() {
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
    const std::string where = m_damage.places > 1 ? fmt::format("first of {} damaged places, ", m_damage.places) : "";
    fmt::print(stderr, "qvx: {}: offset {}: {}{} byte{} stepped over\n", m_name, m_damage.first, where, m_damage.bytes,
               m_damage.bytes == 1 ? "" : "s");
    return DoneWithLoss;
}

} // namespace qvx

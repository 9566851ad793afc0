#include "Timeline.h"

#include "Selection.h"
#include "quorvex/packets/KindFacts.h"

#include <new>

namespace qvx {

using namespace Quorvex;

Timeline::Timeline(const std::vector<std::string>& files, Selection& selection, Onlooker* onlooker)
    : m_selection(selection), m_onlooker(onlooker), m_left(selection.limit()) {
    if (files.size() == 1) {
        m_one = std::make_unique<TraceInput>(files.front());
        return;
    }
    addAll(m_many, files);
    m_many.filterBy(*this);
}

PacketPointer Timeline::next() {
    if (m_left == 0)
        return nullptr;
    --m_left;
    return m_one ? nextOfOne() : nextOfMany();
}

PacketPointer Timeline::nextOfOne() {
    while (m_one->advance()) {
        const CTraceCursor& at = m_one->cursor();
        if (!m_selection.takes(0, at)) {
            passBy(0, at);
            continue;
        }
        PacketPointer packet = absoluteAt(at);
        m_tick = at.tick();
        m_offset = at.offset();
        return packet;
    }
    return nullptr;
}

PacketPointer Timeline::nextOfMany() {
    while (PacketPointer packet = m_many.next()) {
        m_file = m_many.file();
        m_tick = m_many.tick();
        m_offset = m_many.offset();
        if (m_selection.takesRest(m_file, *packet))
            return packet;
        if (m_onlooker)
            m_onlooker->pass(m_file, *packet, m_tick);
    }
    return nullptr;
}

bool Timeline::wants(std::size_t file, const CTraceCursor& packet) {
    if (m_selection.isInTime(file, packet))
        return true;
    // What is before or behind all that is shown need not be put in order.
    m_selection.pass(file, packet);
    passBy(file, packet);
    return false;
}

void Timeline::passBy(std::size_t file, const CTraceCursor& packet) {
    // What is behind all that is shown may be read before that is shown.
    if (m_onlooker && (!m_selection.isBehind(file) || factsOf(packet.TraceCode()).role == Role::Definition))
        m_onlooker->pass(file, packet);
}

ExitCode Timeline::reportDamage() const {
    return m_one ? m_one->reportDamage() : qvx::reportDamage(m_many);
}

} // namespace qvx

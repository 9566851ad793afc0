#include "quorvex/format/PacketHeader.h"

#include "quorvex/format/MessageQueue.h"

#include <istream>
#include <ostream>

namespace Quorvex {

bool CPacketHeader::read(std::istream& in) {
    try {
        char bytes[2];
        if (!in.get(bytes[0]) || !in.get(bytes[1]))
            return false;
        return read(bytes, sizeof bytes) != 0;
    } catch (const std::exception&) {
        return false;
    }
}

bool CPacketHeader::write(std::ostream& out) {
    try {
        return out.put(static_cast<char>(m_code)).good() && out.put(static_cast<char>(m_length)).good();
    } catch (const std::exception& exception) {
        logException("CPacketHeader::write: Catched exception ", exception.what());
        return false;
    }
}

} // namespace Quorvex

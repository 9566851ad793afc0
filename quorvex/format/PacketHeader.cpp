#include "quorvex/format/PacketHeader.h"

#include "quorvex/format/MessageQueue.h"
#include "quorvex/platform/Attempt.h"

#include <istream>
#include <ostream>

namespace Quorvex {

bool CPacketHeader::read(std::istream& in) {
    char bytes[2];
    return attempt([&] { return in.get(bytes[0]) && in.get(bytes[1]); }) && read(bytes, sizeof bytes) != 0;
}

bool CPacketHeader::write(std::ostream& out) {
    return attempt(
        [&] { return out.put(static_cast<char>(m_code)).good() && out.put(static_cast<char>(m_length)).good(); },
        [](const std::exception& exception) {
            logException("CPacketHeader::write: Catched exception ", exception.what());
        });
}

} // namespace Quorvex

#include "quorvex/packets/BusPackets.h"

namespace Quorvex {

bool CBusDataSignals::SetSignal(BusSignals access) {
    if (access > kAccess)
        return false;
    m_raw = static_cast<std::uint8_t>((m_raw & ~kAccess) | access);
    return true;
}

bool CBusDataSignals::ClearSignal(BusSignals access) {
    if (access > kAccess)
        return false;
    m_raw = static_cast<std::uint8_t>(m_raw & ~kAccess);
    return true;
}

} // namespace Quorvex

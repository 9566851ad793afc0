#include "quorvex/format/Packet.h"

namespace Quorvex {

CPacket::~CPacket() = default;

} // namespace Quorvex

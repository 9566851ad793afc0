#include "tests/support/NumberedPackets.h"

#include "quorvex/packets/PacketKinds.h"

#include <string>

namespace Quorvex::test {

std::unique_ptr<CPacket> numberedPacket(unsigned n) {
    const CCoreContext context(n, 1, 2, kUnknown64);
    if (n % 50 == 0)
        return std::make_unique<CFunctionDefine>(context, n, std::string(1 + n / 50 % 600, 'f').c_str());
    if (n % 7 == 0)
        return std::make_unique<CCharString>(std::string(1 + n / 7 % 254, 't').c_str());
    return std::make_unique<CFunctionEnter>(context, n);
}

} // namespace Quorvex::test

#include "quorvex/export/PacketPlain.h"

#include "quorvex/packets/Keywords.h"

#include <algorithm>

namespace Quorvex {

bool CPacketPlain::writePageHeader(const char* title) {
    return writeRaw(title ? title : keywords::kDefaultTitle) && writeRaw("\n");
}

bool CPacketPlain::writeTableHeader() {
    return writeRaw(GetWithOffset() ? keywords::kHeadWithOffset : keywords::kHeadWithoutOffset) && writeRaw("\n");
}

bool CPacketPlain::writeTableFooter() {
    return writeRaw("\n");
}

bool CPacketPlain::writeRowClose() {
    return writeRaw("\n");
}

bool CPacketPlain::writeItemOpen(unsigned) {
    return writeRaw("\t");
}

bool CPacketPlain::writeItemClose() {
    return writeRaw(" ");
}

bool CPacketPlain::writeDescription(CPacket& packet) {
    static constexpr std::size_t kWidth = 30;
    if (!checkRange(packet.TraceCode()))
        return false;
    std::string text = CTCodeInfo::TCodeToDescription(packet.TraceCode());
    text.resize(std::max(text.size(), kWidth), ' ');
    return writeItem(1, text);
}

} // namespace Quorvex

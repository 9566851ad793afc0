#include "quorvex/format/Packet.h"

#include "quorvex/platform/FreeList.h"

namespace Quorvex {

bool CPacket::read(std::istream& in) {
    return CPacketHeader::read(in);
}

bool CPacket::write(std::ostream& out) {
    return CPacketHeader::write(out);
}

// NOLINTNEXTLINE(misc-new-delete-overloads): as in the class
void* CPacket::operator new(std::size_t size) {
    return platform::takeBlock(size);
}

void* CPacket::operator new(std::size_t size, const std::nothrow_t& none) noexcept {
    return platform::takeBlock(size, none);
}

void CPacket::operator delete(void* packet, std::size_t size) noexcept {
    platform::giveBlock(packet, size);
}

void CPacket::operator delete(void* packet, const std::nothrow_t&) noexcept {
    ::operator delete(packet); // each block is one of the program's
}

} // namespace Quorvex

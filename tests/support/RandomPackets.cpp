#include "tests/support/RandomPackets.h"

#include "quorvex/packets/KindFacts.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <sstream>

namespace Quorvex::test {

using namespace std::string_literals;

std::string wireOf(CPacket& packet) {
    std::string wire(packet.StreamSize(), '\0');
    wire.resize(packet.write(wire.data(), static_cast<unsigned>(wire.size())));
    return wire;
}

PacketPointer packetOf(const std::string& wire) {
    unsigned consumed = 0;
    return PacketPointer(CPacketFactory::getCPacket(wire.data(), static_cast<unsigned>(wire.size()), consumed));
}

ReadBothWays::ReadBothWays(const std::string& wire) {
    const ExactBlock block(wire);
    try {
        fromBuffer.reset(CPacketFactory::getCPacket(block.data(), block.size(), consumed));
    } catch (const CQVXException&) {
    }
    std::istringstream stream(wire);
    try {
        fromStream.reset(CPacketFactory::getCPacket(stream));
    } catch (const CQVXException&) {
    }
}

std::string RandomPackets::text() {
    static const std::string kHostile[] = {
        "\"quoted\"", "a\tb", "line\nline\r\n",     "0x41",    "0x", "gr\xc3\xb6\xc3\x9f \xe2\x82\xac",
        "a\0b\0"s,    " ",    "ends with blanks  ", "Invalid", "\\", "&lt;{%s}",
        "\xc2\x85"};
    if (below(4) == 0)
        return kHostile[below(std::size(kHostile))];
    if (below(20) == 0)
        return std::string(255 + 255 * below(2), ' '); // full packets
    const unsigned longest[] = {1, 10, 254, 256, 600, 3000};
    return bytes(below(longest[below(6)] + 1));
}

std::string RandomPackets::bytes(unsigned count) {
    std::string bytes(count, '\0');
    for (unsigned at = 0; at < count; at += 4) {
        const auto word = static_cast<std::uint32_t>(m_random());
        std::memcpy(bytes.data() + at, &word, std::min(4U, count - at));
    }
    return bytes;
}

std::string RandomPackets::wire() {
    return wireOf(*packet());
}

PacketPointer RandomPackets::packet() {
    while (true) {
        const auto code = tagTCode(below(0xDD));
        const PacketPointer kind(CPacketFactory::getCPacket(code));
        if (!kind)
            continue;
        // Any length that the layout allows; the kind itself refuses those between its forms.
        const auto [smallest, largest] = CTCodeInfo::TCodeToLength(code);
        const unsigned widest = std::max(largest, smallest + (code == Timestamp ? 12U : 4U));
        const unsigned length = below(2) ? smallest : smallest + below(std::min(widest, 255U) - smallest + 1);
        std::string payload = bytes(length);
        if (isFollowedByText(code) && below(4) != 0) {
            const std::string content = text();
            CCharStringSequence sequence(reinterpret_cast<const unsigned char*>(content.data()),
                                         static_cast<unsigned>(content.size()));
            if (!sequence.empty())
                payload += wireOf(sequence);
        }
        try {
            unsigned consumed = 0;
            const CPacketHeader header(code, static_cast<std::uint8_t>(length));
            PacketPointer packet(
                CPacketFactory::getCPacket(header, payload.data(), static_cast<unsigned>(payload.size()), consumed));
            // A header of a kind that does not check its length must not promise more than is written.
            if (wireOf(*packet).size() == payload.size() + 2)
                return packet;
        } catch (const CQVXException&) {
        }
    }
}

PacketPointer RandomPackets::next() {
    PacketPointer packet = this->packet();
    while (m_nameless && packet->TraceCode() == CharString)
        packet = this->packet();
    m_nameless = isFollowedByText(packet->TraceCode()) && packet->StreamSize() == packet->Length() + 2;
    return packet;
}

} // namespace Quorvex::test

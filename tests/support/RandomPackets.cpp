#include "tests/support/RandomPackets.h"

#include "quorvex/stream/TextRun.h"

#include <iterator>

namespace Quorvex::test {

std::string wireOf(CPacket& packet) {
    std::string wire(packet.StreamSize(), '\0');
    wire.resize(packet.write(wire.data(), static_cast<unsigned>(wire.size())));
    return wire;
}

std::string RandomPackets::text() {
    static const std::string kHostile[] = {
        "\"quoted\"",
        "a\tb",
        "line\nline\r\n",
        "0x41",
        "0x",
        "gr\xc3\xb6\xc3\x9f"
        "e \xe2\x82\xac",
        std::string("a\0b\0", 4),
        " ",
        "ends with blanks  ",
        "Invalid",
        "\\",
        "&lt;{%s}",
        "\xc2\x85",
        std::string(255, 't'),
        std::string(510, ' '),
    };
    if (below(4) == 0)
        return kHostile[below(std::size(kHostile))];
    const unsigned longest[] = {1, 10, 254, 256, 600, 3000};
    std::string text(below(longest[below(6)] + 1), '\0');
    for (char& byte : text)
        byte = static_cast<char>(below(256));
    return text;
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
        std::string payload(length, '\0');
        for (char& byte : payload)
            byte = static_cast<char>(below(256));
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

} // namespace Quorvex::test

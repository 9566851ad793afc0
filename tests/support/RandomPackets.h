#pragma once

#include "quorvex/factory/PacketFactory.h"
#include "tests/support/Bytes.h"

#include <memory>
#include <random>
#include <string>
#include <vector>

namespace Quorvex::test {

using PacketPointer = std::unique_ptr<CPacket>;

/// Random but valid packets of all kinds, with texts of all lengths; the same for the same seed.
class RandomPackets {
public:
    explicit RandomPackets(unsigned seed) : m_random(seed) {}

    /// The bytes of one packet, with the texts that follow it.
    std::string wire();
    PacketPointer packet();
    /// For a trace: no text of its own behind a packet without its name, which that would become.
    PacketPointer next();
    std::string bytes(unsigned count);
    unsigned below(unsigned limit) { return std::uniform_int_distribution<unsigned>(0, limit - 1)(m_random); }

private:
    std::string text();

    std::mt19937 m_random;
    bool m_nameless = false; ///< was the packet before
};

/// The bytes of a packet as it writes itself.
std::string wireOf(CPacket& packet);
inline std::string wireOf(CPacket&& packet) {
    return wireOf(packet);
}

/// And back.
PacketPointer packetOf(const std::string& wire);

/// What the factory makes of the bytes; null where it throws a CQVXException, too.
struct ReadBothWays {
    explicit ReadBothWays(const std::string& wire);

    PacketPointer fromBuffer; ///< from a block of exactly their size
    PacketPointer fromStream;
    unsigned consumed = 0; ///< from the block
};

inline tagTCode codeOf(const std::string& wire) {
    return tagTCode(static_cast<unsigned char>(wire[0]));
}

/// Whether the paged writer inserts packets of that code, or changes them on the way: frames get their length.
inline bool isPagedBusiness(tagTCode code) {
    return code == Fill || code == Sync || code == BusSync || code == SystemSync || code == TraceEnabled;
}

} // namespace Quorvex::test

#pragma once

#include "tests/support/Doubles.h"

#include <string>
#include <vector>

namespace Quorvex::fuzz {

using namespace test;

/// What is kept when it is written again: all but packets whose header told another length than their kind has, short
/// trace-enabled packets, and those whose text breaks off.
inline bool isRegular(CPacket& packet, std::uint64_t size) {
    return packet.StreamSize() == size && wireOf(packet).size() == size;
}

/// The packets of a trace that are regular, as bytes, with damage stepped over; it ends whatever the bytes are.
inline std::vector<std::string> packetsOf(CTraceReaderPlain& reader) {
    std::vector<std::string> packets;
    while (true) {
        const std::uint64_t before = reader.position();
        const PacketPointer packet(reader.get());
        if (packet && isRegular(*packet, reader.position() - before))
            packets.push_back(wireOf(*packet));
        if (!packet && reader.position() == before && !reader.skip())
            return packets;
    }
}

inline std::vector<std::string> packetsOf(const std::string& trace) {
    MemorySource source(trace);
    CTraceReaderPlain reader(source);
    return packetsOf(reader);
}

/// The regular packets of any bytes, as a trace without damage, in which no text has come to stand behind a packet that
/// was not its own.
inline std::string cleaned(std::string trace) {
    for (std::string before; before != trace;) {
        before = trace;
        trace = join(packetsOf(trace));
    }
    return trace;
}

} // namespace Quorvex::fuzz

#pragma once

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/stream/TraceReaderPlain.h"
#include "tests/support/Doubles.h"

#include <memory>
#include <string>
#include <vector>

namespace Quorvex::fuzz {

using PacketPointer = std::unique_ptr<CPacket>;

inline std::string bytesOf(CPacket& packet) {
    std::string bytes(packet.StreamSize(), '\0');
    bytes.resize(packet.write(bytes.data(), static_cast<unsigned>(bytes.size())));
    return bytes;
}

/// What is kept when it is written again: all but packets whose header tells another length than they have, which come
/// from damaged traces only.
inline bool isRegular(CPacket& packet, std::uint64_t size) {
    return packet.StreamSize() == size && bytesOf(packet).size() == size;
}

/// The packets of a trace that are regular, as bytes, with damage stepped over; it ends whatever the bytes are.
inline std::vector<std::string> packetsOf(CTraceReaderPlain& reader) {
    std::vector<std::string> packets;
    while (true) {
        const std::uint64_t before = reader.position();
        const PacketPointer packet(reader.get());
        if (packet && isRegular(*packet, reader.position() - before))
            packets.push_back(bytesOf(*packet));
        if (!packet && reader.position() == before && !reader.skip())
            return packets;
    }
}

inline std::vector<std::string> packetsOf(const std::string& trace) {
    test::MemorySource source(trace);
    CTraceReaderPlain reader(source);
    return packetsOf(reader);
}

inline std::string joined(const std::vector<std::string>& packets) {
    std::string trace;
    for (const std::string& packet : packets)
        trace += packet;
    return trace;
}

/// The regular packets of any bytes, as a trace without damage, in which no text has come to stand behind a packet that
/// was not its own.
inline std::string cleaned(const std::uint8_t* data, std::size_t size) {
    std::string trace(reinterpret_cast<const char*>(data), size);
    for (std::string before; before != trace;) {
        before = trace;
        trace = joined(packetsOf(trace));
    }
    return trace;
}

/// The library's log must not grow from run to run.
inline void dropLog() {
    while (CMessageQueue::g_Instance->pop()) {
    }
}

} // namespace Quorvex::fuzz

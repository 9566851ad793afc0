// Whatever the bytes, reading ends, packet by packet and in lists, and goes on behind the length that each header tells
// and the texts; what is handed out does not depend on how the source portions its bytes, and can be written; what was
// read, written plainly, has the bytes of the trace.

#include "fuzz/Targets.h"
#include "fuzz/Traces.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/stream/TraceWriterPlain.h"

namespace Quorvex::fuzz {

namespace {

void requireSteps(const std::string& data) {
    MemorySource source(data);
    CTraceReaderPlain reader(source);
    while (true) {
        const auto before = static_cast<std::size_t>(reader.position());
        const PacketPointer packet(reader.get());
        std::size_t behind = before;
        if (reader.position() != before) {
            require(before + CPacketHeader::Len() <= data.size(), "what is read is there");
            behind += CPacketHeader::Len() + static_cast<unsigned char>(data[before + 1]);
        }
        if (packet) {
            // Each text behind it goes on where the one before is full.
            const auto isText = [&] {
                return behind + 1 < data.size() && codeOf(data.substr(behind, 1)) == CharString;
            };
            for (bool more = isFollowedByText(packet->TraceCode()); more && behind < reader.position() && isText();) {
                const unsigned length = static_cast<unsigned char>(data[behind + 1]);
                behind += CPacketHeader::Len() + length;
                more = length == kCharStringMax;
            }
            require(packet->TraceCode() == TraceEnabled || wireOf(*packet).size() == packet->StreamSize(),
                    "what was read can be written");
        }
        require(reader.position() == behind, "the reader goes on behind the announced length");
        if (reader.position() == before && !reader.skip())
            return;
    }
}

} // namespace

void reader(const std::string& data) {
    requireSteps(data);
    const std::vector<std::string> packets = packetsOf(data);
    MemorySource portions(data, 1 + (data.empty() ? 0 : static_cast<unsigned char>(data[0])));
    CTraceReaderPlain portioned(portions);
    require(packetsOf(portioned) == packets, "the same in any portions");

    const std::string clean = cleaned(data);
    MemorySource source(clean);
    CTraceReaderPlain lists(source);
    MemorySink sink;
    CTraceWriterPlain writer(sink);
    for (std::list<CPacket*> list; lists.get(list);)
        require(writer.forward(list) && list.empty(), "the plain writer takes what was read");
    writer.flush();
    require(sink.bytes == clean, "read in lists and written");
}

} // namespace Quorvex::fuzz

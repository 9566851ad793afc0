// Any packets go through compressor and decompressor without harm; absolute ones come back as they were. The
// decompressor takes any bytes.

#include "fuzz/Targets.h"
#include "fuzz/Traces.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/stream/TraceCompressor.h"
#include "quorvex/stream/TraceDecompressor.h"
#include "quorvex/stream/TraceQueue.h"

namespace Quorvex::fuzz {

void compressor(const std::string& data) {
    {
        MemorySource source(data);
        CTraceReaderPlain reader(source);
        CTraceDecompressor decompressor(reader, data.size() % 2 == 0, data.size() % 3 == 0);
        while (const PacketPointer packet{decompressor.get()})
            require(sortOfRelative(packet->TraceCode()) == ContextSort::None, "no relative packet is left");
    }
    // Without sync packets of its own, which could not be told from those of the compressor.
    std::string absolute;
    CTraceQueue queue;
    CTraceCompressor writer(queue);
    for (const std::string& one : packetsOf(data)) {
        const tagTCode code = codeOf(one);
        if (sortOfSync(code) != ContextSort::None || sortOfRelative(code) != ContextSort::None)
            continue;
        CPacket* packet = packetOf(one).release();
        absolute += one;
        require(writer.forward(packet) && !packet, "the compressor takes every packet");
    }
    CTraceDecompressor decompressor(queue, false, true);
    require(join(readAll(decompressor)) == absolute, "absolute to relative and back");
}

} // namespace Quorvex::fuzz

// Any packets go through compressor and decompressor without harm; absolute ones come back as they were. The
// decompressor takes any bytes.

#include "fuzz/Targets.h"
#include "fuzz/Traces.h"
#include "quorvex/stream/ContextSort.h"
#include "quorvex/stream/TraceCompressor.h"
#include "quorvex/stream/TraceDecompressor.h"
#include "quorvex/stream/TraceQueue.h"

namespace Quorvex::fuzz {

void compressor(const std::uint8_t* data, std::size_t size) {
    const std::string any(reinterpret_cast<const char*>(data), size);
    {
        test::MemorySource source(any);
        CTraceReaderPlain reader(source);
        CTraceDecompressor decompressor(reader, size % 2 == 0, size % 3 == 0);
        while (const PacketPointer packet{decompressor.get()})
            require(sortOfRelative(packet->TraceCode()) == ContextSort::None, "no relative packet is left");
    }
    // Without sync packets of its own, which could not be told from those of the compressor.
    std::string absolute;
    CTraceQueue queue;
    CTraceCompressor writer(queue);
    for (const std::string& one : packetsOf(any)) {
        const auto code = tagTCode(static_cast<unsigned char>(one[0]));
        if (sortOfSync(code) != ContextSort::None || sortOfRelative(code) != ContextSort::None)
            continue;
        unsigned consumed = 0;
        CPacket* packet = CPacketFactory::getCPacket(one.data(), static_cast<unsigned>(one.size()), consumed);
        absolute += one;
        require(writer.forward(packet) && !packet, "the compressor takes every packet");
    }
    CTraceDecompressor decompressor(queue, false, true);
    std::string back;
    while (const PacketPointer packet{decompressor.get()})
        back += bytesOf(*packet);
    require(back == absolute, "absolute to relative and back");
    dropLog();
}

} // namespace Quorvex::fuzz

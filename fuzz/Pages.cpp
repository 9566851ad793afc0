// A raw copy of any bytes into pages ends; of a trace without damage it holds every packet, in order, beside those that
// pages need; and the same comes out when the packets are written one by one.

#include "fuzz/Targets.h"
#include "fuzz/Traces.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "tests/support/RandomPackets.h"

namespace Quorvex::fuzz {

namespace {

std::string withoutPages(const std::string& trace) {
    std::string kept;
    for (const std::string& packet : packetsOf(trace)) {
        if (!test::isPagedBusiness(tagTCode(static_cast<unsigned char>(packet[0]))))
            kept += packet;
    }
    return kept;
}

} // namespace

void pages(const std::uint8_t* data, std::size_t size) {
    std::string trace = cleaned(data, size);
    {
        test::MemorySource any(std::string(reinterpret_cast<const char*>(data), size));
        test::MemorySink sink;
        CTraceWriterPaged writer(sink);
        writer.put(any);
        writer.flush();
    }
    if (trace.empty())
        return;
    // Long enough to break pages, at a place that depends on the input.
    std::string start;
    CFill fill(255);
    while (start.size() < kPageSize - 600)
        start += bytesOf(fill);
    trace = start + trace + trace;
    test::MemorySource source(trace);
    test::MemorySink copied, written;
    CTraceWriterPaged copier(copied), writer(written);
    require(copier.put(source), "a trace without damage is copied");
    copier.flush();
    for (const std::string& one : packetsOf(trace)) {
        unsigned consumed = 0;
        const PacketPointer packet(CPacketFactory::getCPacket(one.data(), static_cast<unsigned>(one.size()), consumed));
        require(writer.put(packet.get()), "the paged writer takes every packet");
    }
    writer.flush();
    const std::string expected = withoutPages(trace);
    require(withoutPages(copied.bytes) == expected, "all packets are copied in order");
    require(withoutPages(written.bytes) == expected, "all packets are written in order");
    dropLog();
}

} // namespace Quorvex::fuzz

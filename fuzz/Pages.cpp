// A raw copy of any bytes into pages ends; of a trace without damage it holds every packet, in order, beside those that
// pages need; and the same comes out when the packets are written one by one.

#include "fuzz/Targets.h"
#include "fuzz/Traces.h"
#include "quorvex/stream/TraceWriterPaged.h"

namespace Quorvex::fuzz {

namespace {

std::string withoutPages(const std::string& trace) {
    std::vector<std::string> packets = packetsOf(trace);
    std::erase_if(packets, [](const std::string& one) { return isPagedBusiness(codeOf(one)); });
    return join(packets);
}

} // namespace

void pages(const std::string& data) {
    std::string trace = cleaned(data);
    {
        MemorySource any(data);
        MemorySink sink;
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
        start += wireOf(fill);
    trace = start + trace + trace;
    MemorySource source(trace);
    MemorySink copied, written;
    CTraceWriterPaged copier(copied), writer(written);
    require(copier.put(source), "a trace without damage is copied");
    copier.flush();
    for (const std::string& one : packetsOf(trace))
        require(writer.put(packetOf(one).get()), "the paged writer takes every packet");
    writer.flush();
    const std::string expected = withoutPages(trace);
    require(withoutPages(copied.bytes) == expected, "all packets are copied in order");
    require(withoutPages(written.bytes) == expected, "all packets are written in order");
}

} // namespace Quorvex::fuzz

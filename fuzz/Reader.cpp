// Whatever the bytes, reading ends, packet by packet and in lists; what is handed out does not depend on how the source
// portions its bytes; what was read, written plainly, has the bytes of the trace.

#include "fuzz/Targets.h"
#include "fuzz/Traces.h"
#include "quorvex/stream/TraceWriterPlain.h"

namespace Quorvex::fuzz {

void reader(const std::uint8_t* data, std::size_t size) {
    const std::string trace(reinterpret_cast<const char*>(data), size);
    const std::vector<std::string> packets = packetsOf(trace);
    test::MemorySource portions(trace, 1 + (size > 0 ? data[0] : 0));
    CTraceReaderPlain portioned(portions);
    require(packetsOf(portioned) == packets, "the same in any portions");

    const std::string clean = cleaned(data, size);
    test::MemorySource source(clean);
    CTraceReaderPlain lists(source);
    test::MemorySink sink;
    CTraceWriterPlain writer(sink);
    for (std::list<CPacket*> list; lists.get(list);)
        require(writer.forward(list) && list.empty(), "the plain writer takes what was read");
    writer.flush();
    require(sink.bytes == clean, "read in lists and written");
    dropLog();
}

} // namespace Quorvex::fuzz

// Whatever the bytes, reading ends, packet by packet and in lists; what is handed out does not depend on how the source
// portions its bytes; what was read, written plainly, has the bytes of the trace.

#include "fuzz/Targets.h"
#include "fuzz/Traces.h"
#include "quorvex/stream/TraceWriterPlain.h"

namespace Quorvex::fuzz {

void reader(const std::string& data) {
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

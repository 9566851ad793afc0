#pragma once

#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "tests/support/Doubles.h"
#include "tests/support/RandomPackets.h"

#include <string>

namespace Quorvex::test {

/// Packets of all kinds that go on over so many pages, as a writer puts them there; or one behind the other.
inline std::string randomTrace(RandomPackets& random, unsigned pages, bool isPaged) {
    MemorySink sink;
    CTraceWriterPaged writer(sink);
    while (sink.bytes.size() < pages * kPageSize) {
        const PacketPointer packet = random.next();
        if (!isPaged)
            sink.bytes += wireOf(*packet);
        else if (packet->TraceCode() != Fill && packet->StreamSize() < 2000)
            writer.put(packet.get());
    }
    writer.flush();
    return sink.bytes;
}

/// Changes some bytes anywhere.
inline void damage(std::string& trace, RandomPackets& random) {
    for (unsigned i = 0; i < 20; ++i)
        trace[random.below(static_cast<unsigned>(trace.size()))] = static_cast<char>(random.below(256));
}

} // namespace Quorvex::test
